// A module for vigild: copy this file, rename the class, the name and the settings, and fill
// in start() and stop() with the logging work.
#include <vigild/module.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

// Shown to the user and used as the key of the module in the configuration document.
constexpr const char* kName = "ExampleModule";
// Must begin with "14.0.": the daemon refuses any other base version.
constexpr const char* kVersion = "14.0.0.1";

class ExampleModule : public Module {
  public:
    // 0 means load. Return non-zero on devices this module has nothing to do on.
    int shouldLoad() override { return 0; }

    // The daemon has already put "Enable Module" first; add the module's own settings. Names
    // must stay valid for the life of the process: use string literals.
    int init(moduleConfig& settings) override {
        addConfigInt(settings, "Rotate size (KB)", "1024");
        addConfigBoolean(settings, "Verbose", "false");
        addConfigList(settings, "Buffer", {"main", "system", "all"});
        // A "Log Path" is a folder ending in "/"; the daemon moves it below the current storage
        // root when needed.
        addConfigString(settings, "Log Path", "/sdcard/Tellwick/example/");
        return 0;
    }

    // Gets a copy of the current settings; start the logging here, on a thread of your own if
    // it blocks: this call comes from the daemon's command thread.
    int start(moduleConfig settings) override {
        running_ = isModuleEnabled(settings);
        getConfigString(settings, "Log Path", folder_);
        return 0;
    }
    int systemTimeChange() override { return 0; }
    int prestop() override { return 0; }
    int stop() override {
        running_ = false;
        return 0;
    }
    const char* getName() override { return kName; }
    const char* getVersion() override { return kVersion; }

    // Objections go in pairs: the setting's name, then the message shown to the user.
    int configVal(moduleConfig& settings, std::vector<std::string>& errors) override {
        for (config& c : settings.configs) {
            if (strcmp(c.name, "Rotate size (KB)") == 0 && atoi(c.value) < 64) {
                errors.push_back(c.name);
                errors.push_back("must be at least 64");
            }
        }
        return 0;
    }
    int logcatEOFStatus() override { return 0; }

  private:
    bool running_ = false;
    std::string folder_;  // where the logs go, from "Log Path"
};

}  // namespace

extern "C" __attribute__((visibility("default"))) Module* getModule() {
    static ExampleModule module;
    return &module;
}
