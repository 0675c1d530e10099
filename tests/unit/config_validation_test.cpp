// Received documents: the checks and their messages, the apply by position, the modules'
// objections sent back, and the whole setConfig sequence against the stand-in service.
#include "config/config_validation.h"

#include <gtest/gtest.h>
#include <jansson.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "config/config_file.h"
#include "core/daemon_state.h"
#include "core/log.h"
#include "core/module_registry.h"
#include "fakes/fake_module.h"
#include "fakes/test_platform.h"
#include "standin/standin_service.h"

namespace {

using vigild::testing::FakeModule;
using vigild::testing::FakeModules;
using vigild::testing::makeSetting;
using vigild::testing::setting;
using vigild::testing::TestPlatform;

struct JsonRelease {
    void operator()(json_t* j) const { json_decref(j); }
};
using JsonPtr = std::unique_ptr<json_t, JsonRelease>;

class ConfigValidationTest : public ::testing::Test {
  protected:
    void SetUp() override {
        resetConfigValidationForTesting();
        resetConfigFileForTesting();
        alpha_ = addModule("AlphaModule");
        addSetting(0, "Count", "int", "5");
        addSetting(0, "Level", "list", "1", {"low", "mid", "high"});
        addSetting(0, "Label", "string", "abc");
        beta_ = addModule("BetaModule");
        addSetting(1, "Enable internal sdcard only", "boolean", "false");
    }

    FakeModule* addModule(const char* name) { return &modules_.add(name); }
    void addSetting(size_t entry, const char* name, const char* type, const char* value,
                    std::vector<const char*> options = {}) {
        moduleRegistry[entry].settings.configs.push_back(
            makeSetting(name, type, value, std::move(options)));
    }

    // The document of the registry as it stands, built independently of the daemon.
    static json_t* registryDocument() {
        json_t* document = json_object();
        for (modulePair& entry : moduleRegistry) {
            json_t* settings = json_array();
            for (const Module::config& c : entry.settings.configs) {
                json_t* list = json_array();
                for (const char* option : c.options)
                    json_array_append_new(list, json_string(option));
                json_array_append_new(
                    settings, json_pack("{s:s,s:s,s:s,s:o}", "name", c.name ? c.name : "", "type",
                                        c.type ? c.type : "", "value", c.value, "list", list));
            }
            json_object_set_new(document, entry.module->getName(),
                                json_pack("{s:o}", "settings", settings));
        }
        return document;
    }
    static std::string dump(json_t* document) {
        char* text = json_dumps(document, 0);
        std::string result = text;
        free(text);
        return result;
    }
    // The registry's document with one change made to it.
    static std::string documentWith(const std::function<void(json_t*)>& change) {
        JsonPtr document(registryDocument());
        change(document.get());
        return dump(document.get());
    }
    static json_t* settingOf(json_t* document, const char* module, size_t index) {
        return json_array_get(json_object_get(json_object_get(document, module), "settings"),
                              index);
    }
    // The registry's document with one setting's value replaced.
    static std::string withValue(const char* module, size_t index, const std::string& value) {
        return documentWith([&](json_t* d) {
            json_object_set_new(settingOf(d, module, index), "value", json_string(value.c_str()));
        });
    }

    bool errorLogged(const std::string& text) { return p_.log().contains(text, kLogError); }

    TestPlatform p_;
    FakeModules modules_;
    FakeModule* alpha_ = nullptr;
    FakeModule* beta_ = nullptr;
};

TEST_F(ConfigValidationTest, AcceptsTheRegistrysOwnDocumentExtraListEntriesAndAnyString) {
    EXPECT_EQ(validateConfig(documentWith([](json_t*) {}).c_str()), 0);
    EXPECT_STREQ(setting(0, 1).value, "5");
    for (const auto& line : p_.log().lines()) EXPECT_NE(line.priority, kLogError) << line.text;
    std::string text = documentWith([](json_t* d) {
        json_object_set_new(settingOf(d, "AlphaModule", 2), "list",
                            json_pack("[ssss]", "low", "mid", "high", "extra"));
        json_object_set_new(settingOf(d, "AlphaModule", 3), "value", json_string("12a anything"));
    });
    EXPECT_EQ(validateConfig(text.c_str()), 0);
}

TEST_F(ConfigValidationTest, RefusesBadDocumentsWithTheMessageOfTheStepThatFoundThem) {
    struct BadDocument {
        const char* what;
        std::function<void(json_t*)> change;
        std::string message;
    };
    auto setField = [](const char* module, size_t index, const char* key, json_t* value) {
        return [=](json_t* d) { json_object_set_new(settingOf(d, module, index), key, value); };
    };
    const std::string formatError =
        "Value recived does not fit the expected format it was defined for";
    const std::string arrayError = "Error in module JSON format expected array";
    std::vector<BadDocument> cases = {
        {"one module too many",
         [](json_t* d) { json_object_set_new(d, "ExtraModule", json_pack("{s:[]}", "settings")); },
         "The number of elements in the recived Json string is not equal to the number sent"},
        {"one module too few", [](json_t* d) { json_object_del(d, "BetaModule"); },
         "The number of elements in the recived Json string is not equal to the number sent"},
        {"module renamed",
         [](json_t* d) {
             json_object_set(d, "GammaModule", json_object_get(d, "BetaModule"));
             json_object_del(d, "BetaModule");
         },
         arrayError},
        {"settings not an array",
         [](json_t* d) {
             json_object_set_new(json_object_get(d, "BetaModule"), "settings", json_object());
         },
         arrayError},
        {"one setting too few",
         [](json_t* d) {
             json_array_remove(json_object_get(json_object_get(d, "AlphaModule"), "settings"), 3);
         },
         "Error wrong number of elements returned in module AlphaModule"},
        {"settings swapped",
         [](json_t* d) {
             json_t* settings = json_object_get(json_object_get(d, "AlphaModule"), "settings");
             json_t* first = json_incref(json_array_get(settings, 0));
             json_array_remove(settings, 0);
             json_array_insert_new(settings, 1, first);
         },
         "Error setting name was not the same Count Enable Module"},
        {"name missing", [](json_t* d) { json_object_del(settingOf(d, "AlphaModule", 1), "name"); },
         "Error setting name was not the same  Count"},
        {"name not a string", setField("AlphaModule", 1, "name", json_integer(3)),
         "Error setting name was not the same  Count"},
        {"setting not an object",
         [](json_t* d) {
             json_array_set_new(json_object_get(json_object_get(d, "AlphaModule"), "settings"), 1,
                                json_string("Count"));
         },
         "Error setting name was not the same  Count"},
        {"type differs", setField("AlphaModule", 1, "type", json_string("string")),
         "Error setting type was not the same"},
        {"type missing", [](json_t* d) { json_object_del(settingOf(d, "AlphaModule", 1), "type"); },
         "Error setting type was not the same"},
        {"value missing",
         [](json_t* d) { json_object_del(settingOf(d, "AlphaModule", 1), "value"); },
         "Value was not pressent"},
        {"value a number", setField("AlphaModule", 1, "value", json_integer(5)),
         "Value was not pressent"},
        {"boolean capitalised", setField("AlphaModule", 0, "value", json_string("True")),
         formatError},
        {"boolean as digit", setField("BetaModule", 1, "value", json_string("1")), formatError},
        {"list missing", [](json_t* d) { json_object_del(settingOf(d, "AlphaModule", 2), "list"); },
         arrayError},
        {"list not an array", setField("AlphaModule", 3, "list", json_string("[]")), arrayError},
        {"list entry differs",
         setField("AlphaModule", 2, "list", json_pack("[sss]", "low", "MID", "high")),
         "Error list values do not match"},
        {"list entry not a string",
         setField("AlphaModule", 2, "list", json_pack("[sis]", "low", 2, "high")),
         "Error list values do not match"},
        {"list too short", setField("AlphaModule", 2, "list", json_pack("[ss]", "low", "mid")),
         "Error list values do not match"},
    };
    for (const BadDocument& c : cases) {
        SCOPED_TRACE(c.what);
        p_.log().clear();
        std::string text = documentWith(c.change);
        EXPECT_EQ(validateConfig(text.c_str()), -1);
        EXPECT_EQ(p_.log().count(c.message, kLogError), 1) << text;
    }
}

TEST_F(ConfigValidationTest, NumberFormatIsALengthTestOnly) {
    struct Case {
        size_t index;  // 1 int, 2 list
        const char* value;
        bool accepted;
    };
    const Case cases[] = {
        {1, "12", true},
        {1, "12a", false},
        {1, "+5", false},
        {1, "05", false},
        {1, " 5", false},
        {1, "", false},
        {1, "x", true},
        {1, "-1", true},
        {1, "-0", false},
        {1, "2147483647", true},
        {1, "-2147483648", true},
        {1, "2147483648", false},
        {2, "-1", false},
        {2, "7", true},
        {2, "-2147483648", false},
        {2, "x", true},
        {1, "99999999999999999999", false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.index == 1 ? "int " : "list ") + "'" + c.value + "'");
        EXPECT_EQ(validateConfig(withValue("AlphaModule", c.index, c.value).c_str()),
                  c.accepted ? 0 : -1);
    }
}

TEST_F(ConfigValidationTest, UnparsableTextLogsJanssonsLineAndText) {
    const char* text = "{\"AlphaModule\":";
    json_error_t error;
    ASSERT_EQ(json_loads(text, 0, &error), nullptr);
    char expected[300];
    snprintf(expected, sizeof(expected), "error: on line %d: %s\n", error.line, error.text);
    EXPECT_EQ(validateConfig(text), -1);
    EXPECT_TRUE(errorLogged(expected));
    EXPECT_EQ(validateConfig(nullptr), -1);
}

TEST_F(ConfigValidationTest, UpdateConfigCopiesChangedValuesByPositionAndMarksOnlyThoseModules) {
    updateConfig(documentWith([](json_t*) {}).c_str());
    EXPECT_EQ(moduleRegistry[0].restartNeeded, 0);
    EXPECT_EQ(moduleRegistry[1].restartNeeded, 0);

    std::string longValue(400, 'v');
    std::string changed = documentWith([&](json_t* d) {
        json_object_set_new(settingOf(d, "AlphaModule", 1), "value", json_string("9"));
        // Position decides, not the name.
        json_object_set_new(settingOf(d, "AlphaModule", 3), "name", json_string("Other"));
        json_object_set_new(settingOf(d, "AlphaModule", 3), "value",
                            json_string(longValue.c_str()));
    });
    EXPECT_EQ(updateConfig(changed.c_str()), 0);
    EXPECT_STREQ(setting(0, 1).value, "9");
    EXPECT_EQ(std::string(setting(0, 3).value), longValue.substr(0, VD_CONFIG_VALUE_SIZE - 1));
    EXPECT_EQ(moduleRegistry[0].restartNeeded, 1);
    EXPECT_EQ(moduleRegistry[1].restartNeeded, 0);

    EXPECT_EQ(updateConfig(withValue("BetaModule", 1, "true").c_str()), 1);
    EXPECT_EQ(moduleRegistry[1].restartNeeded, 1);
}

TEST_F(ConfigValidationTest, UpdateConfigSurvivesTextsThatDoNotFit) {
    const char* texts[] = {
        nullptr,
        "",
        "not json",
        "[1,2,3]",
        "{\"AlphaModule\":{\"settings\":{}}}",
        "{\"AlphaModule\":{\"settings\":[1,{\"value\":7},{\"name\":\"x\"}]}}",
        "{\"AlphaModule\":7,\"BetaModule\":{\"settings\":null}}",
    };
    for (const char* text : texts) {
        SCOPED_TRACE(text ? text : "(null)");
        updateConfig(text);
        EXPECT_STREQ(setting(0, 1).value, "5");
        EXPECT_EQ(moduleRegistry[0].restartNeeded, 0);
    }
    // What fits is applied: Count sits at position 1 of the only module given.
    updateConfig("{\"AlphaModule\":{\"settings\":[{},{\"value\":\"8\"}]}}");
    EXPECT_STREQ(setting(0, 1).value, "8");
    EXPECT_STREQ(setting(0, 0).value, "true");
}

TEST_F(ConfigValidationTest, SettingsWithoutANameOrTypeReadAsEmpty) {
    addSetting(1, "placeholder", "int", "3");
    setting(1, 2).name = nullptr;
    setting(1, 2).type = nullptr;
    std::string text = documentWith([](json_t* d) {
        json_t* s = settingOf(d, "BetaModule", 2);
        json_object_set_new(s, "name", json_string(""));
        json_object_set_new(s, "type", json_string(""));
    });
    EXPECT_EQ(validateConfig(text.c_str()), 0);
    std::string renamed = documentWith([](json_t* d) {
        json_object_set_new(settingOf(d, "BetaModule", 2), "name", json_string("x"));
    });
    EXPECT_EQ(validateConfig(renamed.c_str()), -1);
    EXPECT_TRUE(errorLogged("Error setting name was not the same x "));

    updateConfig(withValue("BetaModule", 2, "4").c_str());
    EXPECT_STREQ(setting(1, 2).value, "4");
    moduleRestartNeeded("/sdcard/none.json");
}

TEST_F(ConfigValidationTest, ModuleRestartNeededMarksEnabledModulesOnlyWhenTheFileIsMissing) {
    strcpy(setting(1, 0).value, "false");
    moduleRestartNeeded("");
    EXPECT_EQ(moduleRegistry[0].restartNeeded, 0);

    p_.writeFile("/sdcard/Tellwick/config.json", "{}");
    moduleRestartNeeded("/sdcard/Tellwick/config.json");
    EXPECT_EQ(moduleRegistry[0].restartNeeded, 0);

    moduleRestartNeeded("/sdcard/Tellwick/missing.json");
    EXPECT_EQ(moduleRegistry[0].restartNeeded, 1);
    EXPECT_EQ(moduleRegistry[1].restartNeeded, 0);
}

class ConfigApplyTest : public ConfigValidationTest {
  protected:
    void SetUp() override {
        ConfigValidationTest::SetUp();
        service_ = std::make_unique<vdstandin::StandinService>(p_.root());
        ASSERT_TRUE(service_->start());
    }
    void TearDown() override { service_->stop(); }
    std::unique_ptr<vdstandin::StandinService> service_;
};

TEST_F(ConfigApplyTest, EnablingTheBluetoothSnoopModuleNotifiesTheServiceDisablingDoesNot) {
    addModule("BTSnoopLogModule");
    strcpy(setting(2, 0).value, "false");
    updateConfig(withValue("BTSnoopLogModule", 0, "true").c_str());
    EXPECT_TRUE(btSnoopConfigChanged);
    EXPECT_EQ(service_->btSnoopFlags(), std::vector<int>{1});
    EXPECT_STREQ(setting(2, 0).value, "true");

    updateConfig(withValue("BTSnoopLogModule", 0, "false").c_str());
    EXPECT_FALSE(btSnoopConfigChanged);
    EXPECT_EQ(service_->btSnoopFlags(), std::vector<int>{1});
    EXPECT_STREQ(setting(2, 0).value, "false");
}

TEST_F(ConfigApplyTest, ObjectionsAreSentAsOneDocumentOnlyInModeOne) {
    moduleValConfig(1);
    EXPECT_TRUE(service_->errorMessages().empty());

    beta_->objections = {"Enable internal sdcard only", "no card", "dangling"};
    alpha_->objections = {"Count", "too big", "Label", "bad \"label\""};
    moduleValConfig(0);
    EXPECT_TRUE(service_->errorMessages().empty());

    moduleValConfig(1);
    ASSERT_EQ(service_->errorMessages().size(), 1u);
    EXPECT_EQ(service_->errorMessages()[0],
              "{\"AlphaModule\": {\"Count\": \"too big\", \"Label\": \"bad \\\"label\\\"\"}, "
              "\"BetaModule\": {\"Enable internal sdcard only\": \"no card\"}}");

    // A lone unpaired element still makes the module answer, with an empty object.
    alpha_->objections.clear();
    beta_->objections = {"unpaired"};
    moduleValConfig(1);
    ASSERT_EQ(service_->errorMessages().size(), 2u);
    EXPECT_EQ(service_->errorMessages()[1], "{\"BetaModule\": {}}");
}

TEST_F(ConfigApplyTest, AcceptedDocumentIsAppliedSavedAndSentBack) {
    std::string text = withValue("AlphaModule", 1, "42");
    char* owned = strdup(text.c_str());
    setConfig(owned);
    EXPECT_STREQ(owned, text.c_str());  // still the caller's
    free(owned);

    EXPECT_STREQ(setting(0, 1).value, "42");
    EXPECT_EQ(p_.property("persist.sys.vd.storage_path"), "/sdcard/");
    std::string saved = p_.readFile("/sdcard/Tellwick/config.json");
    EXPECT_EQ(validateConfig(saved.c_str()), 0);
    EXPECT_NE(saved.find("\"value\": \"42\""), std::string::npos) << saved;
    ASSERT_FALSE(service_->configs().empty());
    EXPECT_EQ(service_->configs().back(), saved);
    // Not running: the restart is refused and the mark stays for the next one.
    EXPECT_EQ(moduleRegistry[0].restartNeeded, 1);
    EXPECT_FALSE(errorLogged(
        "There was an error with the loaded config.  Staying with current known settings"));
}

TEST_F(ConfigApplyTest, ChangingInternalStorageMarksEveryEnabledModule) {
    strcpy(setting(0, 0).value, "true");
    // The file watch applies a document of its own in between: the change is still this one's.
    const std::string unchanged = withValue("BetaModule", 1, "true");
    vigild::testing::AtSyncPoint watch("setConfig.applied",
                                       [&] { updateConfig(unchanged.c_str()); });
    setConfig(withValue("BetaModule", 1, "true").c_str());
    EXPECT_EQ(moduleRegistry[0].restartNeeded, 1);
    EXPECT_EQ(moduleRegistry[1].restartNeeded, 1);
}

TEST_F(ConfigApplyTest, RejectedDocumentFallsBackToDefaultsAndIsThenAppliedAsFarAsItFits) {
    strcpy(setting(0, 1).value, "7");
    strcpy(setting(0, 3).value, "zzz");
    std::string text = documentWith([](json_t* d) {
        json_object_set_new(settingOf(d, "AlphaModule", 1), "value", json_string("9"));
        json_object_set_new(settingOf(d, "AlphaModule", 3), "value", json_string("abc"));
        json_object_set_new(d, "ExtraModule", json_pack("{s:[]}", "settings"));
    });
    setConfig(text.c_str());
    EXPECT_TRUE(errorLogged(
        "The number of elements in the recived Json string is not equal to the number sent"));
    EXPECT_FALSE(errorLogged(
        "There was an error with the loaded config.  Staying with current known settings"));
    EXPECT_STREQ(setting(0, 1).value, "9");
    EXPECT_STREQ(setting(0, 3).value, "abc");
    ASSERT_FALSE(service_->configs().empty());
    EXPECT_NE(service_->configs().back().find("\"value\": \"9\""), std::string::npos);
}

TEST_F(ConfigApplyTest, WhenTheDefaultsFailTooNothingIsSentOrRestarted) {
    p_.enableDebugLog();
    addSetting(0, "Broken", "int", "12a");
    strcpy(setting(0, 1).value, "7");
    setConfig("{}");
    EXPECT_TRUE(errorLogged(
        "There was an error with the loaded config.  Staying with current known settings"));
    EXPECT_TRUE(p_.log().contains("setConfig:END", kLogDebug));
    EXPECT_STREQ(setting(0, 1).value, "5");  // the reset happened
    EXPECT_TRUE(service_->configs().empty());
    EXPECT_TRUE(service_->states().empty());
    EXPECT_FALSE(p_.log().contains("restartModules():BEGIN"));
    EXPECT_FALSE(p_.log().contains("updateConfig:BEGIN"));
}

}  // namespace
