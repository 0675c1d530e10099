// QuickTap: the combination table, the two properties that pick a preset, and the copy of the
// chosen preset over the active configuration file.
#include "quicktap/quicktap.h"

#include <gtest/gtest.h>

#include <iterator>
#include <sstream>

#include "core/builtin_modules.h"
#include "core/log.h"
#include "fakes/fake_module.h"
#include "fakes/test_platform.h"
#include "storage/utility.h"

namespace {

// The numbers are what the companion app writes into the property: every row is pinned.
TEST(QuickTapTest, CombinationTableAndModuleSettings) {
    vigild::testing::TestPlatform p;
    std::istringstream table(
        "audio audio_battery audio_bluetooth audio_cellular audio_scanner audio_wifi battery "
        "battery_bluetooth battery_cellular battery_scanner battery_wifi bluetooth "
        "bluetooth_cellular bluetooth_scanner bluetooth_wifi cellular cellular_scanner "
        "cellular_wifi scanner scanner_wifi wifi default");
    const std::vector<std::string> names{std::istream_iterator<std::string>(table), {}};
    // A second build appends a copy, which changes no answer.
    createQuickTapKeyValue();
    createQuickTapKeyValue();
    EXPECT_EQ(quickTapTable().size(), 44u);
    for (int n = 1; n <= 22; n++) EXPECT_EQ(returnQuickTapModuleKey(n), names[n - 1]);
    for (int number : {0, 23, -1}) EXPECT_EQ(returnQuickTapModuleKey(number), "default");

    QuickTapModule module;
    // Registration enables every module first; QuickTap stays off until configured.
    Module::moduleConfig settings{
        "QuickTapModule", {vigild::testing::makeSetting("Enable Module", "boolean", "true")}};
    EXPECT_EQ(module.init(settings), 0);
    std::string declared;
    for (const auto& c : settings.configs) {
        declared += std::string(c.name) + " " + c.type + " " + c.value + " (";
        for (const auto& option : c.options) declared += std::string(option) + " ";
        declared += ") ";
    }
    EXPECT_EQ(declared,
              "Enable Module boolean false () Select Module int 0 () "
              "Log Duration (sec) list 0 (0 1800 3600 7200 10800 14400 ) ");
}

TEST(QuickTapTest, PropertiesPickTheCombinationAndThePresetIsCopied) {
    vigild::testing::TestPlatform p;
    p.setProperty("persist.sys.vd.storage_path", "/sdcard/");
    p.writeFile("/sdcard/Tellwick/quicktap/bluetooth/config.json", "bluetooth preset");
    p.writeFile("/sdcard/Tellwick/quicktap/default/config.json", "default preset");
    // clang-format off
    const struct {
        const char* value;  // nullptr: unset
        int number, timer;
        bool error;          // an error line about the value
        const char* preset;  // the combination copied
        bool prepared;       // its file exists; otherwise the active file stays
    } cases[] = {
        {"12_3600", 12, 3600, false, "bluetooth", true},
        {"bluetooth_2", 12, 2, false, "bluetooth", true},  // the name in place of the number
        {"bluetooth_wifi_5", 15, 5, false, "bluetooth_wifi", false},
        {"3_1800", 3, 1800, false, "audio_bluetooth", false},
        {"nosuch_1", 22, 1, true, "default", true}, {"12_abc", 12, 0, true, "bluetooth", true},
        {"99999999999_5", 0, 5, true, "default", true}, {"12", 0, 0, false, "bluetooth", true},
        {"40_1", 40, 1, false, "default", true}, {nullptr, 0, 0, false, "default", true}};
    // clang-format on
    for (const auto& c : cases) {
        SCOPED_TRACE(c.value ? c.value : "(unset)");
        p.setProperty("persist.sys.vd.quick_tap_module_time", c.value ? c.value : "");
        p.log().clear();
        EXPECT_EQ(getQuickTapModFromProp(), c.number);
        EXPECT_EQ(getQuickTapTimerFromProp(), c.timer);
        bool errorLine = false;
        for (const auto& line : p.log().lines()) errorLine |= line.priority == kLogError;
        EXPECT_EQ(errorLine, c.error);

        p.writeFile("/sdcard/Tellwick/config.json", "active");
        EXPECT_EQ(copyQuickTapConfigFilePath(),
                  std::string("/sdcard/Tellwick/quicktap/") + c.preset + "/config.json");
        EXPECT_EQ(p.readFile("/sdcard/Tellwick/config.json"),
                  c.prepared ? std::string(c.preset) + " preset" : "active");
        EXPECT_TRUE(c.prepared ? p.log().contains(
                                     "QuickTap::File copied successfully at destination", kLogInfo)
                               : p.log().contains("QuickTap::File copied failed", kLogError));
    }
    // The switch is exactly "true".
    for (const char* value : {"true1", "TRUE", "true"}) {
        p.setProperty("persist.sys.vd.quick_tap", value);
        EXPECT_EQ(isTwQuickTapModeEnabled(), std::string(value) == "true") << value;
    }
}

}  // namespace
