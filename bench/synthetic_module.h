// A module with a fixed, realistic mix of 25 settings ("Enable Module" included): ints,
// booleans, lists and two free-text settings, one of them a "Log Path" inside the storage
// root. Used in-process by the benchmarks and built as a library for the start-up run.
#pragma once

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "vigild/module.h"

namespace vdbench {

class SyntheticModule : public Module {
  public:
    explicit SyntheticModule(std::string name, std::string version = "14.0.0.1")
        : name_(std::move(name)), version_(std::move(version)) {}

    int shouldLoad() override { return 0; }
    int init(moduleConfig& settings) override {
        static const char* const kInts[] = {"Buffer Size (KB)",   "Rotate Count", "Max File (MB)",
                                            "Poll Interval (ms)", "Queue Depth",  "Retries",
                                            "Sample Rate",        "Level Mask"};
        static const char* const kBools[] = {"Verbose", "Compress", "Timestamp",  "Kernel",
                                             "Radio",   "Events",   "Crash Only", "Upload"};
        static const char* const kLists[] = {"Log Level", "Format", "Priority",
                                             "Rotation",  "Filter", "Encoding"};
        char value[32];
        int i = 0;
        for (const char* name : kInts) {
            snprintf(value, sizeof(value), "%d", 64 << (i++ % 6));
            addConfigInt(settings, name, value);
        }
        for (const char* name : kBools) {
            addConfigBoolean(settings, name, const_cast<char*>(i++ % 2 ? "true" : "false"));
        }
        for (const char* name : kLists) {
            addConfigList(settings, name, {"verbose", "debug", "info", "warning", "error"});
        }
        addString(settings, "Log Path", ("/sdcard/Tellwick/" + name_ + "/").c_str());
        addString(settings, "Tag Filter", "*:V ActivityManager:I");
        return 0;
    }
    int start(moduleConfig) override { return 0; }
    int systemTimeChange() override { return 0; }
    int prestop() override { return 0; }
    int stop() override { return 0; }
    const char* getName() override { return name_.c_str(); }
    const char* getVersion() override { return version_.c_str(); }
    int configVal(moduleConfig&, std::vector<std::string>&) override { return 0; }
    int logcatEOFStatus() override { return 0; }

  private:
    static void addString(moduleConfig& settings, const char* name, const char* value) {
        config c = {};
        c.name = name;
        c.type = "string";
        snprintf(c.defaultValue, sizeof(c.defaultValue), "%s", value);
        snprintf(c.value, sizeof(c.value), "%s", value);
        settings.configs.push_back(c);
    }

    std::string name_;
    std::string version_;
};

}  // namespace vdbench
