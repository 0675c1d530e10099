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

std::vector<std::string> texts(const std::vector<vdtools::LintFinding>& findings) {
    std::vector<std::string> out;
    for (const auto& finding : findings) out.push_back(finding.text);
    return out;
}

struct Case {
    const char* what;
    std::function<std::string(const std::string&)> file;
    std::vector<std::string> errors;
    std::vector<std::string> warnings;
    const char* verdict;
    size_t changes = 0;  // against the defaults
};

// The daemon's own diagnosis of a file, then its load and the modules' configVal.
TEST_F(ConfigLintTest, TableOfFiles) {
    const std::string defaults = vdtools::defaultDocument();
    auto edit = [](std::function<void(json_t*)> f) {
        return [f](const std::string& d) { return edited(d, f); };
    };
    constexpr const char* kApplied = "vigild would apply the file as it is";
    constexpr const char* kRefused =
        "vigild would refuse this file: every setting goes back to its default, and the file is "
        "kept as \"config.json.rejected\"";
    const Case cases[] = {
        {"sound", [](const std::string& d) { return d; }, {}, {}, kApplied},
        {"broken JSON",
         [](const std::string&) {
             return std::string("{\"SoundModule\": {\n  \"settings\": [,]}}");
         },
         {"not valid JSON: unexpected token near ','"},
         {},
         kRefused},
        {"misspelt module",
         edit([](json_t* d) {
             json_object_set(d, "SoundModul", json_object_get(d, "SoundModule"));
             json_object_del(d, "SoundModule");
         }),
         {"unknown module \"SoundModul\" where module \"SoundModule\" is missing"},
         {},
         kRefused},
        {"extra setting, unknown module",
         edit([](json_t* d) {
             json_array_append_new(json_object_get(json_object_get(d, "SoundModule"), "settings"),
                                   json_pack("{s:s,s:s,s:s,s:[]}", "name", "Extra", "type", "int",
                                             "value", "1", "list"));
             json_object_set_new(d, "Ghost", json_object());
         }),
         {},
         {"module \"SoundModule\" has no setting \"Extra\": it is ignored",
          "unknown module \"Ghost\": it is ignored"},
         kApplied},
        {"bad int, list index past its options",
         edit([](json_t* d) {
             setValue(d, 1, "12a");
             setValue(d, 3, "7");
         }),
         {},
         {"setting \"Rotate size (KB)\" of module \"SoundModule\": \"12a\" is not a valid int",
          "setting \"Buffer\" of module \"SoundModule\": \"7\" is not one of its 3 options (0 "
          "to 2)"},
         kApplied,
         2},
        {"foreign path",
         edit([](json_t* d) { setValue(d, 4, "/data/elsewhere/anr/"); }),
         {},
         {"\"SoundModule\" / \"Log Path\": \"/data/elsewhere/anr/\" would be corrected to "
          "\"/sdcard/Tellwick/\""},
         "vigild would apply the file and correct 1 value(s) (see warnings)",
         1},
        {"wrong type, missing setting",
         edit([](json_t* d) {
             json_object_set_new(soundSetting(d, 1), "type", json_string("string"));
             json_array_remove(json_object_get(json_object_get(d, "SoundModule"), "settings"), 2);
         }),
         {},
         {"setting \"Rotate size (KB)\" of module \"SoundModule\" has type \"string\", not "
          "\"int\": it is ignored and the setting keeps its value",
          "setting \"Verbose\" of module \"SoundModule\" is missing: it keeps its value"},
         kApplied},
        {"nameless entry",
         edit([](json_t* d) { json_object_del(soundSetting(d, 2), "name"); }),
         {"a setting of module \"SoundModule\" has a \"type\" but no \"name\": the whole file is "
          "refused"},
         {},
         kRefused},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        TestPlatform fresh;
        ASSERT_TRUE(vdtools::prepareRegistry(modules_).empty());
        LintResult result = vdtools::lintConfig(c.file(defaults));
        EXPECT_EQ(texts(result.errors), c.errors);
        EXPECT_EQ(texts(result.warnings), c.warnings);
        EXPECT_EQ(result.verdict, c.verdict);
        EXPECT_EQ(result.changes.size(), c.changes);
        EXPECT_EQ(result.sound(), c.errors.empty() && c.warnings.empty());
    }
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
    EXPECT_EQ(out, p.hostPath("/good.json") + ": vigild would apply the file as it is\n" +
                       p.hostPath("/good.json") + ": sound\n");
    // Without the module library the file names a module the device does not have; a broken
    // file is placed as compilers place errors.
    EXPECT_EQ(run("check " + p.hostPath("/good.json"), &out), 1) << out;
    EXPECT_NE(out.find(":1:"), std::string::npos) << out;
    EXPECT_NE(out.find("warning: unknown module \"SoundModule\": it is ignored"), std::string::npos)
        << out;
    EXPECT_EQ(run("check " + p.hostPath("/bad.json"), &out), 1) << out;
    EXPECT_NE(out.find(p.hostPath("/bad.json") + ":1:22: error: not valid JSON"), std::string::npos)
        << out;
    // Each module judges the file with its own configVal.
    const std::string objecting = p.root() + "/objecting";
    std::filesystem::create_directories(objecting);
    std::filesystem::copy_file(std::string(VIGILD_BROKEN_MODULE_DIR) + "/lib_vd_objects.so",
                               objecting + "/lib_vd_objects.so");
    ASSERT_EQ(run("defaults --modules " + objecting, &out), 0) << out;
    p.writeFile("/objected.json", out);
    EXPECT_EQ(run("check " + p.hostPath("/objected.json") + " --modules " + objecting, &out), 1);
    EXPECT_NE(out.find("warning: module \"BrokenModule\" objects to \"Rotate size (KB)\": must be "
                       "a power of two"),
              std::string::npos)
        << out;
    EXPECT_EQ(run("check " + p.hostPath("/missing.json"), &out), 2) << out;
    EXPECT_EQ(run("check " + p.hostPath("/good.json") + " --prop bad", &out), 2) << out;
}

}  // namespace
