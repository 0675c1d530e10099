#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "core/builtin_modules.h"
#include "core/debug_singleton.h"
#include "core/log.h"
#include "core/module_registry.h"
#include "fakes/fake_module.h"
#include "fakes/test_platform.h"
#include "standin/standin_service.h"
#include "vigild/module.h"

using vigild::testing::TestPlatform;

namespace {

// A module whose setting helpers the tests call directly.
class HelperModule : public vigild::testing::FakeModule {
  public:
    HelperModule() : FakeModule("Helper", "14.0.0.0") {}
};

Module::config* find(Module::moduleConfig& settings, const char* name) {
    for (Module::config& c : settings.configs) {
        if (strcmp(c.name, name) == 0) return &c;
    }
    return nullptr;
}

std::vector<std::string> names(const Module::moduleConfig& settings) {
    std::vector<std::string> out;
    for (const Module::config& c : settings.configs) out.push_back(c.name);
    return out;
}

}  // namespace

TEST(ModulePairTest, StartsWithAnEnabledModuleSettingAndTheName) {
    HelperModule m;
    modulePair entry(&m);
    ASSERT_EQ(entry.settings.configs.size(), 1u);
    const Module::config& c = entry.settings.configs[0];
    EXPECT_STREQ(c.name, "Enable Module");
    EXPECT_STREQ(c.type, "boolean");
    EXPECT_STREQ(c.value, "true");
    EXPECT_STREQ(c.defaultValue, "true");
    EXPECT_STREQ(entry.settings.moduleName, "Helper");
    EXPECT_EQ(entry.restartNeeded.load(), 0);
    EXPECT_TRUE(isModuleEnabled(entry.settings));
}

TEST(SettingHelpersTest, AddOverwritesValueAndDefaultButKeepsTheType) {
    HelperModule m;
    Module::moduleConfig s{};
    m.addConfigInt(s, "Size", "10");
    s.configs[0].value[0] = '7';  // a changed current value
    m.addConfigBoolean(s, "Size", "true");
    ASSERT_EQ(s.configs.size(), 1u);
    EXPECT_STREQ(s.configs[0].type, "int");
    EXPECT_STREQ(s.configs[0].value, "true");
    EXPECT_STREQ(s.configs[0].defaultValue, "true");

    m.addConfigBoolean(s, "Flag", "false");
    m.addConfigInt(s, "Flag", "3");
    ASSERT_EQ(s.configs.size(), 2u);
    EXPECT_STREQ(s.configs[1].type, "boolean");
    EXPECT_STREQ(s.configs[1].value, "3");
}

TEST(SettingHelpersTest, ListStartsAtZeroAndIsNeverRedeclared) {
    HelperModule m;
    Module::moduleConfig s{};
    m.addConfigList(s, "Level", {"low", "high"});
    ASSERT_EQ(s.configs.size(), 1u);
    EXPECT_STREQ(s.configs[0].type, "list");
    EXPECT_STREQ(s.configs[0].value, "0");
    EXPECT_STREQ(s.configs[0].defaultValue, "0");
    strcpy(s.configs[0].value, "1");

    m.addConfigList(s, "Level", {"a", "b", "c"});
    ASSERT_EQ(s.configs.size(), 1u);
    EXPECT_STREQ(s.configs[0].value, "1");
    ASSERT_EQ(s.configs[0].options.size(), 2u);
    EXPECT_STREQ(s.configs[0].options[1], "high");

    // A list does not replace a setting of another type either.
    m.addConfigInt(s, "Count", "5");
    m.addConfigList(s, "Count", {"x"});
    EXPECT_STREQ(s.configs[1].type, "int");
    EXPECT_TRUE(s.configs[1].options.empty());
}

TEST(SettingHelpersTest, GettersReadOnlyTheirOwnTypeAndBooleansOnlyExactTrue) {
    HelperModule m;
    Module::moduleConfig s{};
    m.addConfigInt(s, "Number", "true");
    m.addConfigBoolean(s, "Flag", "true");
    int out = 42;
    EXPECT_EQ(m.getConfigBoolean(s, "Number", out), -1);
    EXPECT_EQ(out, 42);
    EXPECT_EQ(m.getConfigBoolean(s, "Missing", out), -1);
    EXPECT_EQ(out, 42);
    // Strings the same way: only a "string" of that name.
    m.addConfigString(s, "Folder", "/sdcard/x/");
    std::string folder = "kept";
    EXPECT_EQ(m.getConfigString(s, "Flag", folder), -1);
    EXPECT_EQ(folder, "kept");
    EXPECT_EQ(m.getConfigString(s, "Folder", folder), 0);
    EXPECT_EQ(folder, "/sdcard/x/");

    const struct {
        const char* value;
        int expected;
    } rows[] = {{"true", 1}, {"True", 0}, {"TRUE", 0}, {"1", 0}, {"true ", 0}, {"", 0}};
    for (const auto& row : rows) {
        m.addConfigBoolean(s, "Flag", row.value);
        out = -5;
        EXPECT_EQ(m.getConfigBoolean(s, "Flag", out), 0) << row.value;
        EXPECT_EQ(out, row.expected) << "'" << row.value << "'";
    }
}

TEST(SettingHelpersTest, EnabledOnlyByTheFirstBooleanEnableModuleHoldingTrue) {
    HelperModule m;
    struct Row {
        const char* label;
        std::vector<std::pair<const char*, const char*>> settings;  // type, value
        bool enabled;
    };
    const Row rows[] = {
        {"none", {}, false},
        {"true", {{"boolean", "true"}}, true},
        {"false", {{"boolean", "false"}}, false},
        {"capitalised", {{"boolean", "True"}}, false},
        {"digit", {{"boolean", "1"}}, false},
        {"int before boolean", {{"int", "false"}, {"boolean", "true"}}, true},
        {"int only", {{"int", "true"}}, false},
        {"first boolean decides", {{"boolean", "false"}, {"boolean", "true"}}, false},
    };
    for (const Row& row : rows) {
        Module::moduleConfig s{};
        for (const auto& [type, value] : row.settings) {
            Module::config c = {};
            c.name = "Enable Module";
            c.type = type;
            strcpy(c.value, value);
            s.configs.push_back(c);
        }
        EXPECT_EQ(isModuleEnabled(s), row.enabled) << row.label;
    }
}

TEST(SettingHelpersDeathTest, ValuesOf255BytesFitAnd256Abort) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    HelperModule m;
    Module::moduleConfig s{};
    std::string longest(255, 'x');
    m.addConfigInt(s, "Int", longest.data());
    m.addConfigBoolean(s, "Bool", longest.data());
    EXPECT_EQ(std::string(s.configs[1].defaultValue), longest);

    std::string tooLong(256, 'x');
    EXPECT_DEATH(
        {
            HelperModule m;
            Module::moduleConfig s{};
            m.addConfigInt(s, "Int", tooLong.data());
        },
        "");
    EXPECT_DEATH(
        {
            HelperModule m;
            Module::moduleConfig s{};
            m.addConfigBoolean(s, "Bool", "false");
            m.addConfigBoolean(s, "Bool", tooLong.data());
        },
        "");
}

class VigildModuleTest : public ::testing::Test {
  protected:
    TestPlatform p;
    VigildModule module;
};

TEST_F(VigildModuleTest, InitReplacesEverythingWithThreeSettings) {
    modulePair entry(&module);
    module.init(entry.settings);
    module.init(entry.settings);
    EXPECT_EQ(names(entry.settings),
              (std::vector<std::string>{"Enable notifications", "Enable debug logs",
                                        "Enable internal sdcard only"}));
    EXPECT_STREQ(entry.settings.configs[0].value, "true");
    EXPECT_STREQ(entry.settings.configs[1].value, "false");
    EXPECT_STREQ(entry.settings.configs[2].value, "false");
    for (const Module::config& c : entry.settings.configs) EXPECT_STREQ(c.type, "boolean");
    // It has nothing to start, so the run-state loops must pass it by.
    EXPECT_FALSE(isModuleEnabled(entry.settings));
}

TEST_F(VigildModuleTest, InitTakesTheInternalCardSwitch) {
    p.setProperty("persist.sys.vd.internal_sd", "true");
    debugSingleton::resetForTesting();
    modulePair entry(&module);
    module.init(entry.settings);
    EXPECT_STREQ(find(entry.settings, "Enable internal sdcard only")->value, "true");
    EXPECT_STREQ(find(entry.settings, "Enable internal sdcard only")->defaultValue, "true");
}

TEST_F(VigildModuleTest, ConfigValWritesPropertiesAndNotifiesTheService) {
    vdstandin::StandinService service(p.root());
    ASSERT_TRUE(service.start());
    modulePair entry(&module);
    module.init(entry.settings);

    struct Row {
        const char* notifications;
        const char* debug;
        const char* internal;
        int notify;
        const char* debugWord;
        const char* internalWord;
    };
    const Row rows[] = {
        {"false", "true", "true", 0, "true", "true"},
        {"true", "TRUE", "1", 1, "false", "false"},
    };
    std::vector<int> expectedFlags;
    for (const Row& row : rows) {
        strcpy(find(entry.settings, "Enable notifications")->value, row.notifications);
        strcpy(find(entry.settings, "Enable debug logs")->value, row.debug);
        strcpy(find(entry.settings, "Enable internal sdcard only")->value, row.internal);
        std::vector<std::string> errors;
        EXPECT_EQ(module.configVal(entry.settings, errors), 0);
        EXPECT_TRUE(errors.empty());
        expectedFlags.push_back(row.notify);

        EXPECT_EQ(p.property("persist.sys.vd.debug_log"), row.debugWord);
        EXPECT_EQ(p.property("persist.sys.vd.internal_sd"), row.internalWord);
        // Values are written back as the words they were read as.
        EXPECT_STREQ(find(entry.settings, "Enable debug logs")->value, row.debugWord);
        EXPECT_STREQ(find(entry.settings, "Enable internal sdcard only")->value, row.internalWord);
        EXPECT_STREQ(find(entry.settings, "Enable internal sdcard only")->defaultValue,
                     row.internalWord);
        EXPECT_EQ(debugSingleton::getInstance().internalSd.load(), row.notify == 0);
        // The debug switch waits for the next start.
        EXPECT_FALSE(debugSingleton::getInstance().debugLog.load());
    }
    EXPECT_EQ(service.notificationFlags(), expectedFlags);
    EXPECT_FALSE(p.log().contains("Failed to obtain a handle on vd_service"));
}

TEST_F(VigildModuleTest, ConfigValWithoutTheServiceStillAppliesTheRest) {
    modulePair entry(&module);
    module.init(entry.settings);
    strcpy(find(entry.settings, "Enable internal sdcard only")->value, "true");
    std::vector<std::string> errors;
    module.configVal(entry.settings, errors);
    EXPECT_TRUE(p.log().contains("Failed to obtain a handle on vd_service", kLogError));
    EXPECT_EQ(p.property("persist.sys.vd.debug_log"), "false");
    EXPECT_EQ(p.property("persist.sys.vd.internal_sd"), "true");
    EXPECT_TRUE(debugSingleton::getInstance().internalSd.load());
}
