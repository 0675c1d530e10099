// One source for every test module library; its knobs are compile definitions (see
// CMakeLists.txt):
//
//   VDTEST_NAME        getName()      (may be nullptr)
//   VDTEST_VERSION     getVersion()   (may be nullptr)
//   VDTEST_SHOULD_LOAD shouldLoad() result, 0 = load
//   VDTEST_SETTINGS    what init() adds: 0 nothing, 1 every type, 2 the LTS setting, 3 the
//                      checker's sound layout, with one fault per VDBROKEN_* switch
//   VDTEST_NO_ENTRY    no "getModule" is exported
//   VDTEST_BLOCK_START start() never returns (lib_vd_blockstart.so, in faults/)
//
// The libraries, by file name (name, version):
//
//   lib_vd_alpha.so        "B", "14.0.0.1"
//   lib_vd_beta.so         "A", "14.0.3.1"
//   lib_vd_zzz.so          "ZZZ", "14.0.0.2"
//   lib_vd_new.so          "New", "14.0.99.7"
//   lib_vd_old.so          "Old", "14.0" (refused)
//   lib_vd_wrong.so        "Wrong", "114.0.1" (refused)
//   lib_vd_skip.so         "Skip", shouldLoad() 1
//   lib_vd_noentry.so      no getModule
//   lib_vd_nullname.so     getName() null
//   lib_vd_nullversion.so  getVersion() null
//   lib_vd_lts.so       "LTSModule": int "LTS Days" = "7"
//   lib_vd_settings.so  "SettingsModule" with every type (VDTEST_SETTINGS 1):
//                         int "Buffer Size (KB)" = "256"
//                         boolean "Verbose" = "false"
//                         list "Level" = "0", options "low", "medium", "high"
//                         string "Log Path" = "/sdcard/Tellwick/settings/"
//   libvd_x.so, lib_VD_x.so  valid modules named "Ignored" whose names the loader must skip
//
// configVal() of every test module objects to an int set to "0" with the pair (setting name,
// "<name> must be positive"). init() appends the module's name and a newline to the file
// VDTEST_INIT_LOG names, when set, so a test sees which modules were initialised and in what
// order. Each test copies the libraries it wants into its own device root
// (installTestModule), so every test gets fresh module objects though libraries are never
// closed.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "vigild/module.h"

#ifndef VDTEST_NAME
#define VDTEST_NAME "TestModule"
#endif
#ifndef VDTEST_VERSION
#define VDTEST_VERSION "14.0.0.1"
#endif
#ifndef VDTEST_SHOULD_LOAD
#define VDTEST_SHOULD_LOAD 0
#endif
#ifndef VDTEST_SETTINGS
#define VDTEST_SETTINGS 0
#endif

namespace {

// Free-text settings have no helper: the module appends them itself.
[[maybe_unused]] Module::config textSetting(const char* name, const char* type, const char* value) {
    Module::config c = {};
    c.name = name;
    c.type = type;
    strncpy(c.defaultValue, value, sizeof(c.defaultValue) - 1);
    strncpy(c.value, value, sizeof(c.value) - 1);
    return c;
}

class TestModule : public Module {
  public:
    int shouldLoad() override { return VDTEST_SHOULD_LOAD; }

    int init(moduleConfig& settings) override {
        if (const char* log = getenv("VDTEST_INIT_LOG")) {
            if (FILE* f = fopen(log, "a")) {
                const char* name = VDTEST_NAME;
                fprintf(f, "%s\n", name != nullptr ? name : "(null)");
                fclose(f);
            }
        }
#if VDTEST_SETTINGS == 1
        addConfigInt(settings, "Buffer Size (KB)", const_cast<char*>("256"));
        addConfigBoolean(settings, "Verbose", const_cast<char*>("false"));
        addConfigList(settings, "Level", {"low", "medium", "high"});
        settings.configs.push_back(textSetting("Log Path", "string", "/sdcard/Tellwick/settings/"));
#elif VDTEST_SETTINGS == 2
        addConfigInt(settings, "LTS Days", const_cast<char*>("7"));
#elif VDTEST_SETTINGS == 3
#ifdef VDBROKEN_ENABLE_NOT_FIRST
        settings.configs.clear();
        addConfigInt(settings, "Rotate size (KB)", const_cast<char*>("1024"));
        addConfigBoolean(settings, "Enable Module", const_cast<char*>("true"));
        return 0;
#endif
#ifdef VDBROKEN_ENABLE_NOT_BOOLEAN
        settings.configs[0].type = "int";
#endif
        addConfigInt(settings, "Rotate size (KB)", const_cast<char*>("1024"));
        addConfigBoolean(settings, "Verbose", const_cast<char*>("false"));
        addConfigList(settings, "Buffer", {"main", "system", "all"});
        settings.configs.push_back(textSetting("Log Path", "string", "/sdcard/Tellwick/broken/"));
#ifdef VDBROKEN_DUPLICATE
        settings.configs.push_back(textSetting("Verbose", "boolean", "true"));
#endif
#ifdef VDBROKEN_UNKNOWN_TYPE
        settings.configs.push_back(textSetting("Ratio", "float", "0.5"));
#endif
#ifdef VDBROKEN_LONG_VALUE
        config big = textSetting("Banner", "string", "");
        memset(big.value, 'x', sizeof(big.value));  // no terminator left
        settings.configs.push_back(big);
#endif
#ifdef VDBROKEN_LONG_DEFAULT_HELPER
        // The daemon's bounded copy aborts on this.
        std::string text(300, '7');
        addConfigInt(settings, "Huge", text.data());
#endif
#ifdef VDBROKEN_BAD_LIST
        strcpy(settings.configs[3].value, "3");
#endif
#ifdef VDBROKEN_BAD_INT
        strcpy(settings.configs[1].defaultValue, "12a");
#endif
#ifdef VDBROKEN_PATH_NOT_FOLDER
        strcpy(settings.configs[4].value, "/sdcard/Tellwick/broken");
#endif
#endif
        (void)settings;
        return 0;
    }

    int start(moduleConfig settings) override {
        (void)settings;
#ifdef VDTEST_BLOCK_START
        // Hangs as a module stuck in a driver call would; only a signal ends it. The marker
        // file (VDTEST_BLOCK_MARKER) says start() was entered.
        if (const char* marker = getenv("VDTEST_BLOCK_MARKER")) {
            close(open(marker, O_CREAT | O_WRONLY | O_CLOEXEC, 0644));
        }
        for (;;) pause();
#endif
        return 0;
    }
    int systemTimeChange() override { return 0; }
    int prestop() override { return 0; }
    int stop() override { return 0; }

    const char* getName() override { return VDTEST_NAME; }
    const char* getVersion() override { return VDTEST_VERSION; }

    // An int set to "0" is objected to: (name, "<name> must be positive").
    int configVal(moduleConfig& settings, std::vector<std::string>& errors) override {
        for (config& c : settings.configs) {
            if (strcmp(c.type, "int") == 0 && strcmp(c.value, "0") == 0) {
                errors.push_back(c.name);
                errors.push_back(std::string(c.name) + " must be positive");
            }
        }
#ifdef VDBROKEN_OBJECTS
        errors.push_back("Rotate size (KB)");
        errors.push_back("must be a power of two");
#endif
        return 0;
    }
    int logcatEOFStatus() override { return 0; }
};

}  // namespace

#ifndef VDTEST_NO_ENTRY
extern "C" __attribute__((visibility("default"))) Module* getModule() {
    static TestModule* module = new TestModule;
    return module;
}
#else
// Something to export, so the library is otherwise well formed.
extern "C" __attribute__((visibility("default"))) int notTheEntryPoint() { return 0; }
#endif
