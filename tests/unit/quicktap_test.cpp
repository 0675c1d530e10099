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
    struct Case {
        const char* value;  // nullptr: unset
        int number;
        int timer;
        bool error;
    };
    const Case cases[] = {
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
    for (const Case& c : cases) {
        if (c.value != nullptr) {
            p.setProperty(kModuleTime, c.value);
        } else {
            p.properties().erase(kModuleTime);
        }
        p.log().clear();
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
    p.setProperty("persist.sys.vd.quick_tap", "true1");
    EXPECT_FALSE(isTwQuickTapModeEnabled());
    p.setProperty("persist.sys.vd.quick_tap", "true");
    EXPECT_TRUE(isTwQuickTapModeEnabled());
}

TEST_F(QuickTapTest, CopiesThePreparedFileOfTheChosenCombination) {
    p.setProperty("persist.sys.vd.storage_path", "/sdcard/");
    p.writeFile("/sdcard/Tellwick/config.json", "active");
    p.writeFile("/sdcard/Tellwick/quicktap/bluetooth/config.json", "bluetooth preset");
    p.writeFile("/sdcard/Tellwick/quicktap/default/config.json", "default preset");

    struct Case {
        const char* value;  // nullptr: unset
        const char* name;
    };
    for (const Case& c :
         {Case{"12_3600", "bluetooth"}, Case{"bluetooth_2", "bluetooth"}, Case{nullptr, "default"},
          Case{"40_1", "default"}, Case{"abc_1", "default"}, Case{"12", "bluetooth"}}) {
        if (c.value != nullptr) {
            p.setProperty(kModuleTime, c.value);
        } else {
            p.properties().erase(kModuleTime);
        }
        p.log().clear();
        std::string expected = std::string("/sdcard/Tellwick/quicktap/") + c.name + "/config.json";
        EXPECT_EQ(copyQuickTapConfigFilePath(), expected);
        EXPECT_EQ(p.readFile("/sdcard/Tellwick/config.json"), std::string(c.name) + " preset");
        EXPECT_TRUE(p.log().contains("QuickTap::File copied successfully at destination", kLogInfo))
            << (c.value ? c.value : "(unset)");
    }
}

TEST_F(QuickTapTest, MissingPreparedFileLeavesTheActiveFile) {
    p.setProperty("persist.sys.vd.storage_path", "/sdcard/");
    p.writeFile("/sdcard/Tellwick/config.json", "active");
    p.setProperty(kModuleTime, "3_1800");
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
    const Module::config& enable = settings.configs[0];
    EXPECT_STREQ(enable.name, "Enable Module");
    EXPECT_STREQ(enable.type, "boolean");
    EXPECT_STREQ(enable.value, "false");
    EXPECT_STREQ(enable.defaultValue, "false");
    EXPECT_FALSE(isModuleEnabled(settings));

    const Module::config& select = settings.configs[1];
    EXPECT_STREQ(select.name, "Select Module");
    EXPECT_STREQ(select.type, "int");
    EXPECT_STREQ(select.value, "0");

    const Module::config& duration = settings.configs[2];
    EXPECT_STREQ(duration.name, "Log Duration (sec)");
    EXPECT_STREQ(duration.type, "list");
    EXPECT_STREQ(duration.value, "0");
    std::vector<std::string> options(duration.options.begin(), duration.options.end());
    EXPECT_EQ(options, (std::vector<std::string>{"0", "1800", "3600", "7200", "10800", "14400"}));
}

}  // namespace
