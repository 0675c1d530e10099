// The settings are changed by the command thread (a received document) and by the file watch
// (a deployed file) while the run state and the end-of-file monitor read them. Each reader
// must see a whole value; under ThreadSanitizer an unlocked writer shows up here as a race.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "config/config_rebuild.h"
#include "config/config_validation.h"
#include "core/module_registry.h"
#include "core/run_state.h"
#include "fakes/fake_module.h"
#include "fakes/test_platform.h"

namespace {

using vigild::testing::TestPlatform;

class JudgingModule : public vigild::testing::FakeModule {
  public:
    JudgingModule() : FakeModule("LogcatModule") {}
    // Corrects a value on every judgement, as real modules may.
    int configVal(moduleConfig& settings, std::vector<std::string>& errors) override {
        for (config& c : settings.configs) {
            if (strcmp(c.name, "Checked") == 0) snprintf(c.value, sizeof(c.value), "yes");
        }
        return FakeModule::configVal(settings, errors);
    }
};

std::string document(bool enabled, char fill) {
    return std::string(R"({"LogcatModule":{"settings":[)") +
           R"({"name":"Enable Module","type":"boolean","value":")" + (enabled ? "true" : "false") +
           R"(","list":[]},)" + R"({"name":"Filter","type":"string","value":")" +
           std::string(200, fill) +
           R"(","list":[]},{"name":"Checked","type":"string","value":"no","list":[]}]}})";
}

// A whole value: one character repeated 200 times.
bool isWhole(const char* value) {
    size_t n = strlen(value);
    if (n != 200) return false;
    for (size_t i = 1; i < n; i++) {
        if (value[i] != value[0]) return false;
    }
    return value[0] == 'a' || value[0] == 'b';
}

TEST(SettingsRaceTest, ReceivedAndDeployedChangesNeverTearWhatReadersSee) {
    TestPlatform platform;
    JudgingModule module;
    moduleRegistry.reserve(1);
    moduleRegistry.emplace_back(&module);
    for (const char* name : {"Filter", "Checked"}) {
        Module::config c = {};
        c.name = name;
        c.type = "string";
        snprintf(c.defaultValue, sizeof(c.defaultValue), "%s", std::string(200, 'a').c_str());
        snprintf(c.value, sizeof(c.value), "%s", c.defaultValue);
        moduleRegistry[0].settings.configs.push_back(c);
    }
    modulePair& entry = moduleRegistry[0];

    constexpr int kRounds = 300;
    std::atomic<bool> done{false};
    std::atomic<int> torn{0}, enabledSeen{0};
    // The end-of-file monitor and the run state: a look at the enable flag, a copy for start.
    std::thread reader([&] {
        while (!done.load()) {
            if (isEntryEnabled(entry)) enabledSeen++;
            Module::moduleConfig copy = copySettings(entry);
            if (copy.configs.size() != 3 || !isWhole(copy.configs[1].value)) torn++;
        }
    });
    // The file watch applying a deployed file.
    std::thread watch([&] {
        for (int i = 0; i < kRounds; i++) makeUpdateConfig(document(i % 2 == 0, 'b').c_str());
    });
    // The command thread applying a received document.
    for (int i = 0; i < kRounds; i++) updateConfig(document(i % 3 != 0, i % 2 ? 'a' : 'b').c_str());
    moduleValConfig(0);
    watch.join();
    done = true;
    reader.join();

    EXPECT_EQ(torn.load(), 0);
    EXPECT_TRUE(isWhole(entry.settings.configs[1].value));
    // The judged copy's correction reaches the registry.
    EXPECT_STREQ(entry.settings.configs[2].value, "yes");
    EXPECT_GE(module.judged.load(), kRounds + 1);
    EXPECT_GT(entry.restartNeeded.load(), 0);
}

}  // namespace
