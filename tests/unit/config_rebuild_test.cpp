// Merging a deployed file by name: tolerated and refused shapes, the properties that win, and
// the QuickTap properties that follow the QuickTap module's settings.
#include "config/config_rebuild.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "config/config_file.h"
#include "config/config_validation.h"
#include "core/daemon_state.h"
#include "core/log.h"
#include "core/module_registry.h"
#include "fakes/fake_module.h"
#include "fakes/test_platform.h"
#include "quicktap/quicktap.h"

namespace {

using vigild::testing::FakeModule;
using vigild::testing::FakeModules;
using vigild::testing::makeSetting;
using vigild::testing::setting;
using vigild::testing::TestPlatform;

// One setting object of a document.
std::string entry(const char* name, const char* type, const char* value) {
    return std::string("{\"name\":\"") + name + "\",\"type\":\"" + type + "\",\"value\":\"" +
           value + "\",\"list\":[]}";
}
std::string module(const char* name, const std::vector<std::string>& settings) {
    std::string text = std::string("\"") + name + "\":{\"settings\":[";
    for (size_t i = 0; i < settings.size(); i++) text += (i ? "," : "") + settings[i];
    return text + "]}";
}
std::string document(const std::vector<std::string>& modules) {
    std::string text = "{";
    for (size_t i = 0; i < modules.size(); i++) text += (i ? "," : "") + modules[i];
    return text + "}";
}

class ConfigRebuildTest : public ::testing::Test {
  protected:
    void SetUp() override {
        resetConfigValidationForTesting();
        resetConfigFileForTesting();
        resetQuickTapForTesting();
        p_.setProperty("persist.sys.vd.storage_path", "/sdcard/");
        alpha_ = addModule("ANRModule");
        addSetting("Count", "int", "5");
        addSetting("Log Path", "string", "/sdcard/Tellwick/anr/");
        addSetting("Enable internal sdcard only", "boolean", "false");
        p_.setProperty("persist.sys.vd.internal_sd", "false");
        quickTap_ = addModule("QuickTapModule");
        strcpy(setting(1, 0).value, "false");
        addSetting("Select Module", "int", "0");
        addSetting("Log Duration (sec)", "list", "0",
                   {"0", "1800", "3600", "7200", "10800", "14400"});
    }

    FakeModule* addModule(const char* name) { return &modules_.add(name); }
    void addSetting(const char* name, const char* type, const char* value,
                    std::vector<const char*> options = {}) {
        moduleRegistry.back().settings.configs.push_back(
            makeSetting(name, type, value, std::move(options)));
    }

    std::string alphaModule(const char* count = "5", const char* path = "/sdcard/Tellwick/anr/") {
        return module("ANRModule", {entry("Enable Module", "boolean", "true"),
                                    entry("Count", "int", count), entry("Log Path", "string", path),
                                    entry("Enable internal sdcard only", "boolean", "false")});
    }
    std::string quickTapModule(const char* enable, const char* select, const char* duration) {
        return module("QuickTapModule", {entry("Enable Module", "boolean", enable),
                                         entry("Select Module", "int", select),
                                         entry("Log Duration (sec)", "list", duration)});
    }

    TestPlatform p_;
    FakeModules modules_;
    FakeModule* alpha_ = nullptr;
    FakeModule* quickTap_ = nullptr;
};

TEST_F(ConfigRebuildTest, ShapesTheFileMayAndMayNotHave) {
    struct Case {
        const char* what;
        std::string text;
        int result;
    };
    const std::string quickTap = quickTapModule("false", "0", "0");
    const Case cases[] = {
        {"the registry as it is", document({alphaModule(), quickTap}), 0},
        {"unknown module and setting",
         document({module("ANRModule", {entry("Enable Module", "boolean", "true"),
                                        entry("Count", "int", "5"), entry("Unknown", "int", "1"),
                                        entry("Log Path", "string", "/sdcard/Tellwick/anr/"),
                                        entry("Enable internal sdcard only", "boolean", "false")}),
                   quickTap, module("OtherModule", {})}),
         0},
        {"setting missing",
         document({module("ANRModule", {entry("Enable Module", "boolean", "true"),
                                        entry("Log Path", "string", "/sdcard/Tellwick/anr/"),
                                        entry("Enable internal sdcard only", "boolean", "false")}),
                   quickTap}),
         1},
        {"same name, other type",
         document({module("ANRModule",
                          {entry("Enable Module", "boolean", "true"), entry("Count", "string", "9"),
                           entry("Log Path", "string", "/sdcard/Tellwick/anr/"),
                           entry("Enable internal sdcard only", "boolean", "false")}),
                   quickTap}),
         1},
        {"QuickTap module missing off Alder", document({alphaModule()}), 0},
        {"module missing", document({quickTap}), -1},
        {"settings missing", document({"\"ANRModule\":{}", quickTap}), -1},
        // Not missing, only empty: every setting is "not found" and keeps its value.
        {"settings not an array", document({"\"ANRModule\":{\"settings\":5}", quickTap}), 1},
        {"unparsable", "{\"ANRModule\":", -1},
        {"entry without type is skipped",
         document(
             {module("ANRModule", {"{\"value\":\"x\"}", entry("Enable Module", "boolean", "true"),
                                   entry("Count", "int", "5"),
                                   entry("Log Path", "string", "/sdcard/Tellwick/anr/"),
                                   entry("Enable internal sdcard only", "boolean", "false")}),
              quickTap}),
         0},
        {"entry without name",
         document({module("ANRModule", {"{\"type\":\"int\",\"value\":\"1\"}"}), quickTap}), -1},
        {"name not a string",
         document({module("ANRModule", {"{\"type\":\"int\",\"name\":7}"}), quickTap}), -1},
        {"matching entry without value",
         document({module("ANRModule", {"{\"name\":\"Count\",\"type\":\"int\",\"value\":5}"}),
                   quickTap}),
         -1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(makeUpdateConfig(c.text.c_str()), c.result) << c.text;
        EXPECT_STREQ(setting(0, 1).value, "5");
    }
    EXPECT_EQ(makeUpdateConfig(nullptr), -1);

    p_.setProperty("ro.build.project", "Alder");
    EXPECT_EQ(makeUpdateConfig(document({alphaModule()}).c_str()), -1);
    EXPECT_TRUE(p_.log().contains("no module key found with name: QuickTapModule", 4));
}

TEST_F(ConfigRebuildTest, AnEntryWithoutANameEndsTheCallAtOnce) {
    p_.enableDebugLog();
    int judgedBefore = alpha_->judged;
    std::string text = document({module("ANRModule", {"{\"type\":\"int\",\"value\":\"1\"}"}),
                                 quickTapModule("false", "0", "0")});
    EXPECT_EQ(makeUpdateConfig(text.c_str()), -1);
    EXPECT_TRUE(p_.log().contains("makeUpdateConfig :BEGIN", kLogDebug));
    EXPECT_FALSE(p_.log().contains("makeUpdateConfig :END"));
    EXPECT_EQ(alpha_->judged, judgedBefore);
}

TEST_F(ConfigRebuildTest, SettingsWithoutANameOrTypeReadAsEmpty) {
    setting(0, 1).name = nullptr;
    setting(0, 1).type = nullptr;
    std::string text =
        document({module("ANRModule", {entry("", "", "7")}), quickTapModule("false", "0", "0")});
    EXPECT_EQ(makeUpdateConfig(text.c_str()), 1);
    EXPECT_STREQ(setting(0, 1).value, "7");
    updateConfigDefault(false);
    EXPECT_STREQ(setting(0, 2).value, "/sdcard/Tellwick/anr/");
}

TEST_F(ConfigRebuildTest, ChangedValuesAreAppliedAndMarkedAndTheModulesJudgeThem) {
    int judgedBefore = alpha_->judged;
    EXPECT_EQ(
        makeUpdateConfig(document({alphaModule("9"), quickTapModule("false", "0", "0")}).c_str()),
        1);
    EXPECT_STREQ(setting(0, 1).value, "9");
    EXPECT_EQ(moduleRegistry[0].restartNeeded, 1);
    EXPECT_EQ(moduleRegistry[1].restartNeeded, 0);
    EXPECT_EQ(alpha_->judged, judgedBefore + 1);
}

TEST_F(ConfigRebuildTest, TheInternalStoragePropertyWinsOverTheFile) {
    std::string text =
        module("ANRModule", {entry("Enable Module", "boolean", "true"), entry("Count", "int", "5"),
                             entry("Log Path", "string", "/sdcard/Tellwick/anr/"),
                             entry("Enable internal sdcard only", "boolean", "true")});
    EXPECT_EQ(makeUpdateConfig(document({text}).c_str()), 1);
    EXPECT_STREQ(setting(0, 3).value, "false");
    EXPECT_EQ(moduleRegistry[0].restartNeeded, 1);
}

TEST_F(ConfigRebuildTest, SecureModeKeepsTheLogPathButMarksTheModule) {
    p_.setProperty("persist.sys.vd.secure_mode", "true");
    EXPECT_EQ(makeUpdateConfig(document({alphaModule("5", "/sdcard/elsewhere/")}).c_str()), 1);
    EXPECT_STREQ(setting(0, 2).value, "/sdcard/Tellwick/anr/");
    EXPECT_EQ(moduleRegistry[0].restartNeeded, 1);
}

TEST_F(ConfigRebuildTest, QuickTapSettingsDriveTheQuickTapProperties) {
    struct Case {
        const char* enable;
        const char* select;
        const char* duration;
        const char* moduleTime;
        const char* timeCallback;
    };
    const Case cases[] = {
        {"true", "12", "3", "bluetooth_3", "true"},
        {"false", "23", "6", "default_6", "true"},  // taken as they are: the range test passes
        {"true", "1", "0", "audio_0", "false"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.moduleTime);
        makeUpdateConfig(
            document({alphaModule(), quickTapModule(c.enable, c.select, c.duration)}).c_str());
        EXPECT_STREQ(setting(1, 0).value, c.enable);
        EXPECT_STREQ(setting(1, 1).value, c.select);
        EXPECT_STREQ(setting(1, 2).value, c.duration);
        EXPECT_EQ(p_.property("persist.sys.vd.quick_tap"), c.enable);
        EXPECT_EQ(p_.property("persist.sys.vd.quick_tap_module_time"), c.moduleTime);
        EXPECT_EQ(p_.property("persist.sys.vd.quick_tap_time_cb"), c.timeCallback);
    }
}

TEST_F(ConfigRebuildTest, AtAQuickTapStartThePropertiesWinOverTheFile) {
    struct Case {
        const char* property;
        const char* select;
        const char* duration;
    };
    const Case cases[] = {
        {"12_3600", "12", "2"},  // seconds of an option stand for its index
        {"7_4", "7", "4"},       // 0 to 5 is an index already
        {"3_999", "3", "1"},     // no option of that length: the file's duration stays
    };
    quickTapModeAtStart = 1;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.property);
        p_.setProperty("persist.sys.vd.quick_tap_module_time", c.property);
        makeUpdateConfig(document({alphaModule(), quickTapModule("true", "5", "1")}).c_str());
        EXPECT_STREQ(setting(1, 1).value, c.select);
        EXPECT_STREQ(setting(1, 2).value, c.duration);
    }
    quickTapModeAtStart = 0;
    p_.setProperty("persist.sys.vd.quick_tap_module_time", "12_3600");
    makeUpdateConfig(document({alphaModule(), quickTapModule("true", "5", "1")}).c_str());
    EXPECT_STREQ(setting(1, 1).value, "5");
    EXPECT_EQ(p_.property("persist.sys.vd.quick_tap_module_time"), "audio_scanner_1");
}

}  // namespace
