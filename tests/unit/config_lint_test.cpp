// vigild-config check: the daemon's own diagnosis of a file, placed by line and column, and
// what the daemon would do with it.
#include "config_lint/config_lint.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <tuple>

#include "fakes/test_platform.h"

namespace {

constexpr const char* kApplied = "vigild would apply the file as it is";
constexpr const char* kRefused =
    "vigild would refuse this file: every setting goes back to its default, and the file is "
    "kept as \"config.json.rejected\"";

// SoundModule: "Enable Module", "Rotate size (KB)" (int 1024), "Verbose" (boolean false),
// "Buffer" (list of 3) and "Log Path".
class ConfigLintTest : public ::testing::Test {
  protected:
    void SetUp() override { modules_ = library("lib_vd_sound.so"); }
    std::string library(const std::string& name) {
        const std::string folder = p_.root() + "/" + name + ".d";
        std::filesystem::create_directories(folder);
        std::filesystem::copy_file(std::string(VIGILD_BROKEN_MODULE_DIR) + "/" + name,
                                   folder + "/" + name);
        return folder;
    }
    static int run(const std::string& args, std::string* out) {
        const std::string tool =
            std::string(VIGILD_BINARY_DIR) + "/tools/config_lint/vigild-config";
        return vigild::testing::runTool(tool, args, out);
    }
    // Checks `text` as a file, with the libraries of the folder `modules` ("" for none).
    int check(const std::string& text, const std::string& modules, std::string* out) {
        p_.writeFile("/config.json", text);
        const std::string with = modules.empty() ? "" : " --modules " + modules;
        return run("check " + p_.hostPath("/config.json") + with, out);
    }

    vigild::testing::TestPlatform p_;
    std::string modules_;
};

// Each file is the defaults with one text replaced: its one finding ("line:column: kind:
// text"), the verdict, and how many values it changes against the defaults.
TEST_F(ConfigLintTest, FindingsAndVerdicts) {
    const std::tuple<std::string, std::string, std::string, std::string, size_t> rows[] = {
        {"", "", "", kApplied, 0},
        {R"("SoundModule")", R"("SoundModul")",
         "1:291: error: unknown module \"SoundModul\" where module \"SoundModule\" is missing",
         kRefused, 0},
        {R"("Tellwick Settings")", R"("Ghost": {}, "Tellwick Settings")",
         "1:2: warning: unknown module \"Ghost\": it is ignored", kApplied, 0},
        {R"("/sdcard/Tellwick/broken/", "list": []})",
         R"("/sdcard/Tellwick/broken/", "list": []}, {"name": "Extra", "type": "int", "value": "1"})",
         "1:713: warning: module \"SoundModule\" has no setting \"Extra\": it is ignored", kApplied,
         0},
        {R"("1024")", R"("12a")",
         "1:439: warning: setting \"Rotate size (KB)\" of module \"SoundModule\": \"12a\" is not a "
         "valid int",
         kApplied, 1},
        {R"("Buffer", "type": "list", "value": "0")", R"("Buffer", "type": "list", "value": "7")",
         "1:574: warning: setting \"Buffer\" of module \"SoundModule\": \"7\" is not one of its 3 "
         "options (0 to 2)",
         kApplied, 1},
        {"/sdcard/Tellwick/broken/", "/data/elsewhere/anr/",
         "1:663: warning: \"SoundModule\" / \"Log Path\": \"/data/elsewhere/anr/\" would be "
         "corrected to \"/sdcard/Tellwick/\"",
         "vigild would apply the file and correct 1 value(s) (see warnings)", 1},
        {R"("name": "Verbose", )", "",
         "1:469: error: a setting of module \"SoundModule\" has a \"type\" but no \"name\": the "
         "whole file is refused",
         kRefused, 0},
        {"", "{\"SoundModule\": {\n  \"settings\": [,]}}",
         "2:16: error: not valid JSON: unexpected token near ','", kRefused, 0},
    };
    for (const auto& [from, to, finding, verdict, changes] : rows) {
        vigild::testing::TestPlatform fresh;
        ASSERT_TRUE(vdtools::prepareRegistry(modules_).empty());
        std::string text = vdtools::defaultDocument();
        text = from.empty() && !to.empty() ? to : text.replace(text.find(from), from.size(), to);
        const vdtools::LintResult result = vdtools::lintConfig(text);
        std::string found;
        for (const auto& f : result.errors)
            found += std::to_string(f.line) + ":" + std::to_string(f.column) + ": error: " + f.text;
        for (const auto& f : result.warnings)
            found +=
                std::to_string(f.line) + ":" + std::to_string(f.column) + ": warning: " + f.text;
        EXPECT_EQ(found, finding) << text;
        EXPECT_EQ(result.verdict, verdict);
        EXPECT_EQ(result.changes.size(), changes);
    }
}

// The tool prints findings as compilers do (file:line:column) and exits 0 for a sound file, 1
// for one with findings (a module's own objections included), 2 when it cannot check.
TEST_F(ConfigLintTest, TheToolsOutputAndExitStatus) {
    std::string defaults, objected, out;
    ASSERT_EQ(run("defaults --modules " + modules_, &defaults), 0);
    const std::string file = p_.hostPath("/config.json");
    EXPECT_EQ(check(defaults, modules_, &out), 0);
    EXPECT_EQ(out, file + ": " + kApplied + "\n" + file + ": sound\n");
    // Without the library the file names a module the device does not have.
    EXPECT_EQ(check(defaults, "", &out), 1);
    EXPECT_EQ(out, file + ":1:291: warning: unknown module \"SoundModule\": it is ignored\n" +
                       file + ": " + kApplied + "\n" + file + ": 0 error(s), 1 warning(s)\n");
    const std::string objecting = library("lib_vd_objects.so");
    ASSERT_EQ(run("defaults --modules " + objecting, &objected), 0);
    EXPECT_EQ(check(objected, objecting, &out), 1);
    EXPECT_NE(out.find("warning: module \"BrokenModule\" objects to \"Rotate size (KB)\": must be "
                       "a power of two"),
              std::string::npos)
        << out;
    EXPECT_EQ(run("check " + p_.hostPath("/missing.json"), &out), 2);
}

}  // namespace
