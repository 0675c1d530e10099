#include "config_lint/config_lint.h"

#include <gtest/gtest.h>
#include <jansson.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "fakes/run_tool.h"
#include "fakes/test_platform.h"

using vdtools::LintResult;
using vigild::testing::TestPlatform;

namespace {

// One library module: SoundModule with "Enable Module", "Rotate size (KB)" (int 1024),
// "Verbose" (boolean false), "Buffer" (list of 3) and "Log Path".
class ConfigLintTest : public ::testing::Test {
  protected:
    void SetUp() override {
        modules_ = p.root() + "/host-modules";
        std::filesystem::create_directories(modules_);
        std::filesystem::copy_file(std::string(VIGILD_BROKEN_MODULE_DIR) + "/lib_vd_sound.so",
                                   modules_ + "/lib_vd_sound.so");
        ASSERT_TRUE(vdtools::prepareRegistry(modules_).empty());
    }

    TestPlatform p;
    std::string modules_;
};

// The default document with one change made to it.
std::string edited(const std::string& defaults, const std::function<void(json_t*)>& edit) {
    json_t* doc = json_loads(defaults.c_str(), 0, nullptr);
    edit(doc);
    char* text = json_dumps(doc, 0);
    std::string out = text;
    free(text);
    json_decref(doc);
    return out;
}

json_t* soundSetting(json_t* doc, size_t index) {
    return json_array_get(json_object_get(json_object_get(doc, "SoundModule"), "settings"), index);
}

void setValue(json_t* doc, size_t index, const char* value) {
    json_object_set_new(soundSetting(doc, index), "value", json_string(value));
}

struct Case {
    const char* what;
    std::function<std::string(const std::string&)> file;
    std::vector<std::string> errors;
    std::vector<std::string> warnings;
};

TEST_F(ConfigLintTest, TableOfFiles) {
    const std::string defaults = vdtools::defaultDocument();
    auto edit = [](std::function<void(json_t*)> f) {
        return [f](const std::string& d) { return edited(d, f); };
    };
    const Case cases[] = {
        {"sound", [](const std::string& d) { return d; }, {}, {}},
        {"broken JSON",
         [](const std::string&) {
             return std::string("{\"SoundModule\": {\n  \"settings\": [,]}}");
         },
         {"line 2, column 16: unexpected token near ','"},
         {}},
        {"missing module",
         edit([](json_t* d) { json_object_del(d, "SoundModule"); }),
         {"module \"SoundModule\" is missing: vigild would reset every setting to its default "
          "and apply the file again"},
         {}},
        {"extra setting",
         edit([](json_t* d) {
             json_array_append_new(json_object_get(json_object_get(d, "SoundModule"), "settings"),
                                   json_pack("{s:s,s:s,s:s,s:[]}", "name", "Extra", "type", "int",
                                             "value", "1", "list"));
         }),
         {},
         {"\"SoundModule\" / \"Extra\" is unknown: vigild ignores it"}},
        {"bad int",
         edit([](json_t* d) { setValue(d, 1, "12a"); }),
         {"\"SoundModule\" / \"Rotate size (KB)\": \"12a\" does not fit type \"int\" (Value "
          "recived does not fit the expected format it was defined for)"},
         {}},
        {"foreign path",
         edit([](json_t* d) { setValue(d, 4, "/data/elsewhere/anr/"); }),
         {},
         {"\"SoundModule\" / \"Log Path\": \"/data/elsewhere/anr/\" would be corrected to "
          "\"/sdcard/Tellwick/\""}},
        {"missing setting",
         edit([](json_t* d) {
             json_array_remove(json_object_get(json_object_get(d, "SoundModule"), "settings"), 2);
         }),
         {},
         {"\"SoundModule\" / \"Verbose\" is missing: it keeps its current value"}},
        {"nameless entry",
         edit([](json_t* d) { json_object_del(soundSetting(d, 2), "name"); }),
         {"module \"SoundModule\": setting entry 2 has no \"name\": vigild stops reading the file "
          "there"},
         {"\"SoundModule\" / \"Verbose\" is missing: it keeps its current value"}},
        {"list index past its options",
         edit([](json_t* d) { setValue(d, 3, "7"); }),
         {},
         {"\"SoundModule\" / \"Buffer\": \"7\" is not an index of its 3 options"}},
        {"unknown module",
         edit([](json_t* d) { json_object_set_new(d, "Ghost", json_object()); }),
         {},
         {"module \"Ghost\" is unknown: vigild ignores it"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        TestPlatform fresh;
        ASSERT_TRUE(vdtools::prepareRegistry(modules_).empty());
        LintResult result = vdtools::lintConfig(c.file(defaults));
        EXPECT_EQ(result.errors, c.errors);
        EXPECT_EQ(result.warnings, c.warnings);
        EXPECT_EQ(result.sound(), c.errors.empty() && c.warnings.empty());
    }
}

TEST_F(ConfigLintTest, ChangesAgainstTheDefaultsAndWinningProperties) {
    std::string defaults = vdtools::defaultDocument();
    TestPlatform fresh;
    // The property decides internal-only storage, whatever the file says.
    fresh.setProperty("persist.sys.vd.internal_sd", "false");
    ASSERT_TRUE(vdtools::prepareRegistry(modules_).empty());
    std::string file = edited(defaults, [](json_t* d) {
        setValue(d, 2, "true");
        json_t* ours =
            json_array_get(json_object_get(json_object_get(d, "Tellwick Settings"), "settings"), 2);
        json_object_set_new(ours, "value", json_string("true"));
    });
    LintResult result = vdtools::lintConfig(file);
    EXPECT_TRUE(result.errors.empty());
    EXPECT_EQ(result.warnings,
              std::vector<std::string>{"\"Tellwick Settings\" / \"Enable internal sdcard only\": "
                                       "\"true\" would become \"false\""});
    EXPECT_EQ(result.changes,
              std::vector<std::string>{"\"SoundModule\" / \"Verbose\": \"false\" -> \"true\""});
}

TEST_F(ConfigLintTest, DefaultsListEveryModuleInRegistryOrder) {
    std::string text = vdtools::defaultDocument();
    json_t* doc = json_loads(text.c_str(), 0, nullptr);
    ASSERT_NE(doc, nullptr) << text;
    std::vector<std::string> keys;
    const char* key;
    json_t* value;
    json_object_foreach(doc, key, value) keys.push_back(key);
    json_decref(doc);
    EXPECT_EQ(keys,
              (std::vector<std::string>{"Tellwick Settings", "SoundModule", "QuickTapModule"}));
    EXPECT_TRUE(vdtools::lintConfig(text).sound());
}

TEST_F(ConfigLintTest, ToolExitStatus) {
    const std::string tool = std::string(VIGILD_BINARY_DIR) + "/tools/config_lint/vigild-config";
    auto run = [&](const std::string& args, std::string* out) {
        return vigild::testing::runTool(tool, args, out);
    };
    std::string defaults;
    ASSERT_EQ(run("defaults --modules " + modules_, &defaults), 0) << defaults;
    p.writeFile("/good.json", defaults);
    p.writeFile("/bad.json", "{\"Tellwick Settings\": ");
    std::string out;
    EXPECT_EQ(run("check " + p.hostPath("/good.json") + " --modules " + modules_, &out), 0) << out;
    EXPECT_EQ(out, p.hostPath("/good.json") + ": sound\n");
    // Without the module library the file names a module the device does not have.
    EXPECT_EQ(run("check " + p.hostPath("/good.json"), &out), 1) << out;
    EXPECT_NE(out.find("warning: module \"SoundModule\" is unknown: vigild ignores it"),
              std::string::npos)
        << out;
    EXPECT_EQ(run("check " + p.hostPath("/bad.json"), &out), 1) << out;
    EXPECT_NE(out.find(": error: line 1, column "), std::string::npos) << out;
    EXPECT_EQ(run("check " + p.hostPath("/missing.json"), &out), 2) << out;
    EXPECT_EQ(run("check " + p.hostPath("/good.json") + " --prop bad", &out), 2) << out;
}

}  // namespace
