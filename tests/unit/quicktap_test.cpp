#include "quicktap/quicktap.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

#include "core/builtin_modules.h"
#include "core/log.h"
#include "fakes/test_platform.h"

using vigild::testing::TestPlatform;

namespace {

constexpr const char* kModuleTime = "persist.sys.vd.quick_tap_module_time";

class QuickTapTest : public ::testing::Test {
  protected:
    QuickTapTest() { resetQuickTapForTesting(); }
    ~QuickTapTest() override { resetQuickTapForTesting(); }
    // nullptr: unset
    void setModuleTime(const char* value) {
        value ? p.setProperty(kModuleTime, value) : (void)p.properties().erase(kModuleTime);
        p.log().clear();
    }
    TestPlatform p;
};

TEST_F(QuickTapTest, TableRowsAndLookups) {
    EXPECT_TRUE(quickTapTable().empty());
    EXPECT_EQ(returnQuickTapModuleKey(12), "bluetooth");
    auto table = quickTapTable();
    ASSERT_EQ(table.size(), 22u);
    EXPECT_EQ(table.front().key, "audio");
    EXPECT_EQ(table.front().value, 1);
    EXPECT_EQ(table[14].key, "bluetooth_wifi");
    EXPECT_EQ(table[14].value, 15);
    EXPECT_EQ(table.back().key, "default");
    EXPECT_EQ(table.back().value, 22);

    createQuickTapKeyValue();
    EXPECT_EQ(quickTapTable().size(), 44u);
    EXPECT_EQ(returnQuickTapModuleKey(21), "wifi");
    for (int number : {0, 23, -1}) EXPECT_EQ(returnQuickTapModuleKey(number), "default");
}

TEST_F(QuickTapTest, TableBuiltAndReadFromSeveralThreads) {
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++) {
        threads.emplace_back([&wrong] {
            createQuickTapKeyValue();
            for (int i = 0; i < 200; i++) {
                if (returnQuickTapModuleKey(12) != "bluetooth") wrong++;
                if (returnQuickTapModuleKey(23) != "default") wrong++;
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(wrong.load(), 0);
    size_t rows = quickTapTable().size();
    // Four appends, plus one more when a lookup found the table empty first.
    EXPECT_TRUE(rows == 88u || rows == 110u) << rows;
}

TEST_F(QuickTapTest, PropertyReaders) {
    struct {
        const char* value;
        int number, timer;
        bool error;
    } cases[] = {
        {"12_3600", 12, 3600, false},
        {"bluetooth_2", 12, 2, false},
        {"bluetooth_wifi_5", 15, 5, false},
        {"default_0", 22, 0, false},
        {"nosuch_1", 22, 1, true},
        {"12_abc", 12, 0, true},
        {"12_", 12, 0, true},
        {"12_36x", 12, 0, true},
        {"99999999999_5", 0, 5, true},
        {"12", 0, 0, false},
        {nullptr, 0, 0, false},
    };
    for (const auto& c : cases) {
        setModuleTime(c.value);
        const char* label = c.value ? c.value : "(unset)";
        EXPECT_EQ(getQuickTapModFromProp(), c.number) << label;
        EXPECT_EQ(getQuickTapTimerFromProp(), c.timer) << label;
        bool logged = false;
        for (const auto& line : p.log().lines()) logged |= line.priority == kLogError;
        EXPECT_EQ(logged, c.error) << label;
    }
}

TEST_F(QuickTapTest, OnSwitchIsExact) {
    EXPECT_FALSE(isTwQuickTapModeEnabled());
    for (const char* value : {"true1", "TRUE", "true"}) {
        p.setProperty("persist.sys.vd.quick_tap", value);
        EXPECT_EQ(isTwQuickTapModeEnabled(), strcmp(value, "true") == 0) << value;
    }
}

TEST_F(QuickTapTest, CopiesThePreparedFileOfTheChosenCombination) {
    p.setProperty("persist.sys.vd.storage_path", "/sdcard/");
    p.writeFile("/sdcard/Tellwick/config.json", "active");
    p.writeFile("/sdcard/Tellwick/quicktap/bluetooth/config.json", "bluetooth preset");
    p.writeFile("/sdcard/Tellwick/quicktap/default/config.json", "default preset");

    std::pair<const char*, std::string> cases[] = {
        {"12_3600", "bluetooth"}, {"bluetooth_2", "bluetooth"}, {nullptr, "default"},
        {"40_1", "default"},      {"abc_1", "default"},         {"12", "bluetooth"}};
    for (const auto& [value, name] : cases) {
        setModuleTime(value);
        EXPECT_EQ(copyQuickTapConfigFilePath(),
                  "/sdcard/Tellwick/quicktap/" + name + "/config.json");
        EXPECT_EQ(p.readFile("/sdcard/Tellwick/config.json"), name + " preset");
        EXPECT_TRUE(p.log().contains("QuickTap::File copied successfully at destination", kLogInfo))
            << (value ? value : "(unset)");
    }

    // A missing prepared file leaves the active file.
    p.writeFile("/sdcard/Tellwick/config.json", "active");
    setModuleTime("3_1800");
    EXPECT_EQ(copyQuickTapConfigFilePath(),
              "/sdcard/Tellwick/quicktap/audio_bluetooth/config.json");
    EXPECT_TRUE(p.log().contains("QuickTap::File copied failed", kLogError));
    EXPECT_EQ(p.readFile("/sdcard/Tellwick/config.json"), "active");
}

TEST_F(QuickTapTest, ModuleDeclaresItsThreeSettingsDisabled) {
    QuickTapModule module;
    Module::moduleConfig settings{module.getName(), {}};
    char enabled[] = "true";
    module.addConfigBoolean(settings, "Enable Module", enabled);
    EXPECT_EQ(module.init(settings), 0);

    ASSERT_EQ(settings.configs.size(), 3u);
    const char* expected[3][3] = {{"Enable Module", "boolean", "false"},
                                  {"Select Module", "int", "0"},
                                  {"Log Duration (sec)", "list", "0"}};
    for (int i = 0; i < 3; i++) {
        EXPECT_STREQ(settings.configs[i].name, expected[i][0]);
        EXPECT_STREQ(settings.configs[i].type, expected[i][1]);
        EXPECT_STREQ(settings.configs[i].value, expected[i][2]);
    }
    EXPECT_STREQ(settings.configs[0].defaultValue, "false");
    EXPECT_FALSE(isModuleEnabled(settings));
    const Module::config& duration = settings.configs[2];
    std::vector<std::string> options(duration.options.begin(), duration.options.end());
    EXPECT_EQ(options, (std::vector<std::string>{"0", "1800", "3600", "7200", "10800", "14400"}));
}

}  // namespace
