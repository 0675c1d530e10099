// The contract between vigild and its logging modules.
//
// A module library is a shared object named lib_vd_<something>.so in /system/lib64/ that
// exports
//
//     extern "C" Module* getModule();
//
// returning an object that lives for the whole process. Its getVersion() must begin with
// "14.0.". This header is a binary contract with libraries built elsewhere: the order of
// the virtual operations and the layout of the settings records below must not change.
//
// Threads: start(), prestop() and stop() may be called from the command thread and from the
// end-of-file monitor thread; a module must tolerate both. Nothing is ever unloaded.
#pragma once

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

// Size of every setting's value buffers, terminator included.
#define VD_CONFIG_VALUE_SIZE 256

class Module {
  public:
    // One setting. Every value is text: booleans "true"/"false", ints decimal text, lists the
    // decimal index of the chosen entry of `options` ("0" first), strings free text.
    struct config {
        const char* name;  // not owned: a string literal of the module
        const char* type;  // "int", "boolean", "list" or "string" (not owned)
        char defaultValue[VD_CONFIG_VALUE_SIZE];
        char value[VD_CONFIG_VALUE_SIZE];
        std::vector<const char*> options;  // "list" only; not owned
    };

    // The settings of one module, in the order they were added. The daemon puts the boolean
    // "Enable Module" first; a module is enabled only while its value is exactly "true".
    struct moduleConfig {
        const char* moduleName;  // getName(), not owned
        std::vector<config> configs;
    };

    virtual ~Module() {}
    // 0 means load; anything else leaves the module out.
    virtual int shouldLoad() = 0;
    // Called once after registration; append the module's settings with the helpers below.
    virtual int init(moduleConfig& settings) = 0;
    // Start logging with a copy of the current settings.
    virtual int start(moduleConfig settings) = 0;
    // The wall clock jumped.
    virtual int systemTimeChange() = 0;
    // First phase of stopping: every enabled module gets prestop() before any gets stop().
    virtual int prestop() = 0;
    virtual int stop() = 0;
    // Both must stay valid for the life of the process.
    virtual const char* getName() = 0;
    virtual const char* getVersion() = 0;
    // Check (and may correct) changed settings. Objections are appended to `errors` in
    // pairs: the setting's name, then the message for it. A trailing unpaired element is
    // ignored. The result is ignored.
    virtual int configVal(moduleConfig& settings, std::vector<std::string>& errors) = 0;
    // Non-zero when the module's log stream hit end-of-file and wants a restart
    // (asked of the module named "LogcatModule" only).
    virtual int logcatEOFStatus() = 0;

    // Declares an int setting, or overwrites the value and default of an existing setting
    // of that name (any type). A value of 256 bytes or more aborts the process.
    void addConfigInt(moduleConfig& settings, const char* name, const char* value) {
        addConfigValue(settings, name, "int", value);
    }
    // The same for a boolean.
    void addConfigBoolean(moduleConfig& settings, const char* name, const char* value) {
        addConfigValue(settings, name, "boolean", value);
    }
    // The same for free text ("string"). A "Log Path" or "Storage Directory" string is a
    // folder ending in "/", which the daemon moves below the current storage root when needed.
    void addConfigString(moduleConfig& settings, const char* name, const char* value) {
        addConfigValue(settings, name, "string", value);
    }
    // Declares a list setting with value and default "0"; does nothing when the name exists.
    void addConfigList(moduleConfig& settings, const char* name, std::vector<const char*> options) {
        if (findConfig(settings, name) != nullptr) return;
        config c = {};
        c.name = name;
        c.type = "list";
        c.defaultValue[0] = '0';
        c.value[0] = '0';
        c.options = options;
        settings.configs.push_back(c);
    }
    // Reads the first boolean of that name: 0 and out = (value == "true"), or -1 when absent.
    int getConfigBoolean(moduleConfig& settings, const char* name, int& out) {
        for (const config& c : settings.configs) {
            if (sameText(c.name, name) && sameText(c.type, "boolean")) {
                out = strcmp(c.value, "true") == 0 ? 1 : 0;
                return 0;
            }
        }
        return -1;
    }

    // Reads the first string of that name: 0 and out = its value, or -1 when absent.
    int getConfigString(const moduleConfig& settings, const char* name, std::string& out) {
        for (const config& c : settings.configs) {
            if (sameText(c.name, name) && sameText(c.type, "string")) {
                out.assign(c.value, strnlen(c.value, VD_CONFIG_VALUE_SIZE));
                return 0;
            }
        }
        return -1;
    }

    // The settings of the module named "LTSModule", or null when none is loaded.
    moduleConfig* ltsSettings = nullptr;

  private:
    static config* findConfig(moduleConfig& settings, const char* name) {
        for (config& c : settings.configs) {
            if (sameText(c.name, name)) return &c;
        }
        return nullptr;
    }
    static bool sameText(const char* a, const char* b) {
        return a != nullptr && b != nullptr && strcmp(a, b) == 0;
    }
    // Bounds-checked copy: a source that does not fit is a fatal error. A null value is
    // taken as empty.
    static void checkedCopy(char (&dst)[VD_CONFIG_VALUE_SIZE], const char* src) {
        if (src == nullptr) src = "";
        size_t n = strlen(src);
        if (n >= VD_CONFIG_VALUE_SIZE) abort();
        memcpy(dst, src, n + 1);
    }
    static void addConfigValue(moduleConfig& settings, const char* name, const char* type,
                               const char* value) {
        if (config* c = findConfig(settings, name)) {
            checkedCopy(c->defaultValue, value);
            checkedCopy(c->value, value);
            return;
        }
        config c = {};
        c.name = name;
        c.type = type;
        checkedCopy(c.defaultValue, value);
        checkedCopy(c.value, value);
        settings.configs.push_back(c);
    }
};

// The enabled test: the first setting named "Enable Module" of type "boolean" decides, and
// only the exact value "true" enables. A module without one is disabled.
inline bool isModuleEnabled(const Module::moduleConfig& settings) {
    for (const Module::config& c : settings.configs) {
        if (c.name != nullptr && c.type != nullptr && strcmp(c.name, "Enable Module") == 0 &&
            strcmp(c.type, "boolean") == 0) {
            return strcmp(c.value, "true") == 0;
        }
    }
    return false;
}

// The entry point every module library exports.
extern "C" typedef Module* (*getModuleFn)();
