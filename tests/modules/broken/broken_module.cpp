// One source for the checker's module libraries: each is sound except for the one fault its
// VDBROKEN_* switch turns on (see ../broken_modules.cmake).
#include <cstring>
#include <string>
#include <vector>

#include "vigild/module.h"

#ifndef VDBROKEN_NAME
#define VDBROKEN_NAME "BrokenModule"
#endif
#ifndef VDBROKEN_VERSION
#define VDBROKEN_VERSION "14.0.0.1"
#endif

namespace {

Module::config makeSetting(const char* name, const char* type, const char* value) {
    Module::config c = {};
    c.name = name;
    c.type = type;
    strncpy(c.defaultValue, value, sizeof(c.defaultValue) - 1);
    strncpy(c.value, value, sizeof(c.value) - 1);
    return c;
}

class BrokenModule : public Module {
  public:
    int shouldLoad() override {
#ifdef VDBROKEN_REFUSE
        return 1;
#else
        return 0;
#endif
    }

    int init(moduleConfig& settings) override {
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
        settings.configs.push_back(makeSetting("Log Path", "string", "/sdcard/Tellwick/broken/"));
#ifdef VDBROKEN_DUPLICATE
        settings.configs.push_back(makeSetting("Verbose", "boolean", "true"));
#endif
#ifdef VDBROKEN_UNKNOWN_TYPE
        settings.configs.push_back(makeSetting("Ratio", "float", "0.5"));
#endif
#ifdef VDBROKEN_LONG_VALUE
        config big = makeSetting("Banner", "string", "");
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
        return 0;
    }

    int start(moduleConfig) override { return 0; }
    int systemTimeChange() override { return 0; }
    int prestop() override { return 0; }
    int stop() override { return 0; }
    const char* getName() override { return VDBROKEN_NAME; }
    const char* getVersion() override { return VDBROKEN_VERSION; }

    int configVal(moduleConfig& settings, std::vector<std::string>& errors) override {
        (void)settings;
#ifdef VDBROKEN_OBJECTS
        errors.push_back("Rotate size (KB)");
        errors.push_back("must be a power of two");
#else
        (void)errors;
#endif
        return 0;
    }
    int logcatEOFStatus() override { return 0; }
};

}  // namespace

#ifndef VDBROKEN_NO_ENTRY
extern "C" Module* getModule() {
    static BrokenModule module;
    return &module;
}
#else
extern "C" Module* getModuleButMisspelt() {
    static BrokenModule module;
    return &module;
}
#endif
