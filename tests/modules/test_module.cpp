// One source for every test module library; test_module_probe.h lists the knobs.
#include <cstring>
#include <string>
#include <vector>

#include "test_module_probe.h"

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

class TestModule : public Module {
  public:
    TestModule() : probe_(vdtest::registerProbe(this)) {}

    int shouldLoad() override { return VDTEST_SHOULD_LOAD; }

    int init(moduleConfig& settings) override {
        probe_->inits++;
        vdtest::recordEvent(VDTEST_NAME, "init");
#if VDTEST_SETTINGS == 1
        addConfigInt(settings, "Buffer Size (KB)", const_cast<char*>("256"));
        addConfigBoolean(settings, "Verbose", const_cast<char*>("false"));
        addConfigList(settings, "Level", {"low", "medium", "high"});
        // Free-text settings have no helper: the module appends them itself.
        config path = {};
        path.name = "Log Path";
        path.type = "string";
        strcpy(path.defaultValue, "/sdcard/Tellwick/settings/");
        strcpy(path.value, "/sdcard/Tellwick/settings/");
        settings.configs.push_back(path);
#elif VDTEST_SETTINGS == 2
        addConfigInt(settings, "LTS Days", const_cast<char*>("7"));
#else
        (void)settings;
#endif
        return 0;
    }

    int start(moduleConfig settings) override {
        probe_->recordStart(settings);
        probe_->starts++;
        vdtest::recordEvent(VDTEST_NAME, "start");
        return 0;
    }
    int systemTimeChange() override {
        probe_->systemTimeChanges++;
        vdtest::recordEvent(VDTEST_NAME, "systemTimeChange");
        return 0;
    }
    int prestop() override {
        probe_->prestops++;
        vdtest::recordEvent(VDTEST_NAME, "prestop");
        return 0;
    }
    int stop() override {
        probe_->stops++;
        vdtest::recordEvent(VDTEST_NAME, "stop");
        return 0;
    }

    const char* getName() override {
#ifdef VDTEST_NULL_NAME
        return nullptr;
#else
        return VDTEST_NAME;
#endif
    }
    const char* getVersion() override {
#ifdef VDTEST_NULL_VERSION
        return nullptr;
#else
        return VDTEST_VERSION;
#endif
    }

    int configVal(moduleConfig& settings, std::vector<std::string>& errors) override {
        probe_->configVals++;
        vdtest::recordEvent(VDTEST_NAME, "configVal");
        for (config& c : settings.configs) {
            std::string name = c.name;
            if (strcmp(c.value, "reject") == 0) {
                errors.push_back(name);
                errors.push_back(name + " rejected");
            } else if (strcmp(c.type, "int") == 0 && strcmp(c.value, "0") == 0) {
                errors.push_back(name);
                errors.push_back(name + " must be positive");
            } else if (strcmp(c.value, "unpaired") == 0) {
                errors.push_back(name);
            } else if (strcmp(c.type, "boolean") == 0 && strcmp(c.value, "yes") == 0) {
                strcpy(c.value, "true");
            }
        }
        probe_->recordErrors(errors);
        return 0;
    }

    int logcatEOFStatus() override {
        probe_->eofQueries++;
        return probe_->eofStatus.load();
    }

  private:
    vdtest::Probe* probe_;
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
