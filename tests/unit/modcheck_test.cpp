#include "modcheck/modcheck.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "fakes/run_tool.h"
#include "fakes/test_platform.h"

using vdtools::ModuleReport;
using vigild::testing::TestPlatform;

namespace {

const std::string kBroken = VIGILD_BROKEN_MODULE_DIR;

std::string library(const std::string& file) { return kBroken + "/" + file; }

ModuleReport check(const std::string& file) {
    TestPlatform p;
    return vdtools::checkModuleLibrary(library(file));
}

struct Case {
    const char* file;
    bool loaded;
    std::vector<std::string> findings;  // faults then objections, exactly
};

TEST(ModcheckTest, ReportsEachFaultOfTheBrokenLibraries) {
    const Case cases[] = {
        {"lib_vd_old_base.so",
         false,
         {"wrong base version: \"14.1.0.0\" does not begin with \"14.0.\""}},
        {"lib_vd_refuse.so",
         false,
         {"shouldLoad() refuses: it returned non-zero, so the daemon leaves the module out"}},
        {"lib_vd_enable_not_first.so", true, {"\"Enable Module\" is not the first setting"}},
        {"lib_vd_enable_not_boolean.so", true, {"\"Enable Module\" is not of type \"boolean\""}},
        {"lib_vd_duplicate.so", true, {"duplicate setting name \"Verbose\" (settings 2 and 5)"}},
        {"lib_vd_unknown_type.so", true, {"setting \"Ratio\" has unknown type \"float\""}},
        {"lib_vd_long_value.so", true, {"setting \"Banner\" has a value of 256 bytes or more"}},
        {"lib_vd_bad_list.so",
         true,
         {"list \"Buffer\" has value \"3\", which is not an index of its 3 options"}},
        {"lib_vd_bad_int.so",
         true,
         {"int \"Rotate size (KB)\" has default \"12a\", which is not plain decimal text"}},
        {"lib_vd_path_not_folder.so",
         true,
         {"\"Log Path\" has value \"/sdcard/Tellwick/broken\", which is not a folder (an "
          "absolute path ending in \"/\")"}},
        {"lib_vd_objects.so",
         true,
         {"configVal objects to the default of \"Rotate size (KB)\": must be a power of two"}},
        {"lib_vd_builtin_name.so",
         true,
         {"module name \"QuickTapModule\" is taken by a module built into the daemon"}},
        {"libvd_misnamed.so",
         true,
         {"file name does not begin with \"lib_vd_\": the daemon never looks at it"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.file);
        ModuleReport report = check(c.file);
        std::vector<std::string> findings = report.faults;
        findings.insert(findings.end(), report.objections.begin(), report.objections.end());
        EXPECT_EQ(report.loaded, c.loaded);
        EXPECT_EQ(findings, c.findings);
        EXPECT_FALSE(report.sound());
    }
}

TEST(ModcheckTest, MissingEntryNamesTheSymbol) {
    ModuleReport report = check("lib_vd_no_entry.so");
    ASSERT_EQ(report.faults.size(), 1u);
    EXPECT_EQ(report.faults[0].rfind("no getModule: ", 0), 0u) << report.faults[0];
    EXPECT_NE(report.faults[0].find("getModule"), std::string::npos);
    // The user's path, not the scratch copy's.
    EXPECT_NE(report.faults[0].find(library("lib_vd_no_entry.so")), std::string::npos);
}

TEST(ModcheckTest, SoundLibraryPassesAndLeavesNoCopyBehind) {
    TestPlatform p;
    ModuleReport report = vdtools::checkModuleLibrary(library("lib_vd_sound.so"));
    EXPECT_TRUE(report.sound()) << (report.faults.empty() ? "" : report.faults[0]);
    EXPECT_EQ(report.name, "SoundModule");
    EXPECT_EQ(report.version, "14.0.0.1");
    EXPECT_EQ(report.settingCount, 5u);
    EXPECT_FALSE(p.exists("/system/lib64/lib_vd_sound.so"));
    // A file that is not a library at all.
    p.writeFile("/junk/lib_vd_text.so", "not an ELF file");
    report = vdtools::checkModuleLibrary(p.hostPath("/junk/lib_vd_text.so"));
    ASSERT_EQ(report.faults.size(), 1u);
    EXPECT_EQ(report.faults[0].rfind("cannot be loaded: ", 0), 0u) << report.faults[0];
}

Module::config setting(const char* name, const char* type, const char* value) {
    Module::config c = {};
    c.name = name;
    c.type = type;
    snprintf(c.value, sizeof(c.value), "%s", value);
    snprintf(c.defaultValue, sizeof(c.defaultValue), "%s", value);
    return c;
}

TEST(ModcheckTest, SettingRulesFollowTheDaemon) {
    Module::moduleConfig settings{"M", {setting("Enable Module", "boolean", "true")}};
    // The daemon's int rule is a length test: "x" reads as 0, one character, and passes.
    settings.configs.push_back(setting("A", "int", "x"));
    settings.configs.push_back(setting("B", "int", "-12"));
    Module::config list = setting("C", "list", "2");
    list.options = {"a", "b", "c"};
    settings.configs.push_back(list);
    settings.configs.push_back(setting("storage directory", "string", "/storage/ABCD-1234/"));
    settings.configs.push_back(setting("Log Path", "int", "7"));  // not a path setting
    EXPECT_TRUE(vdtools::checkSettings(settings).empty());

    const std::pair<Module::config, std::string> bad[] = {
        {setting("Enable Module", "boolean", "True"), "duplicate setting name \"Enable Module\""},
        {setting("D", "boolean", "1"), "boolean \"D\" has value \"1\", not \"true\" or \"false\""},
        {setting("E", "int", "05"), "int \"E\" has value \"05\", which is not plain decimal text"},
        {setting("F", "list", "0"),
         "list \"F\" has value \"0\", which is not an index of its 0 "
         "options"},
        {setting("LOG PATH", "string", "relative/"),
         "\"LOG PATH\" has value \"relative/\", which "
         "is not a folder (an absolute path ending in "
         "\"/\")"},
        {setting(nullptr, "int", "1"), "setting 6 has no name"},
    };
    for (const auto& [c, expected] : bad) {
        SCOPED_TRACE(expected);
        Module::moduleConfig one = settings;
        one.configs.push_back(c);
        std::vector<std::string> faults = vdtools::checkSettings(one);
        ASSERT_FALSE(faults.empty());
        EXPECT_EQ(faults[0].substr(0, expected.size()), expected);
    }
    EXPECT_EQ(vdtools::checkSettings({"M", {}}),
              std::vector<std::string>{"has no settings: \"Enable Module\" must come first"});
}

// The tool itself: a library that aborts in init() is reported and the rest still checked.
TEST(ModcheckTest, ToolSurvivesAnAbortingLibraryAndSetsTheExitStatus) {
    const std::string tool = std::string(VIGILD_BINARY_DIR) + "/tools/modcheck/vigild-modcheck";
    auto run = [&](const std::string& args, std::string* out) {
        return vigild::testing::runTool(tool, args, out);
    };
    std::string out;
    EXPECT_EQ(run(library("lib_vd_sound.so"), &out), 0) << out;
    EXPECT_EQ(out, library("lib_vd_sound.so") +
                       ": OK: module \"SoundModule\" version 14.0.0.1, 5 settings\n");

    EXPECT_EQ(run(library("lib_vd_long_helper.so") + " " + library("lib_vd_sound.so"), &out), 1);
    EXPECT_NE(out.find(library("lib_vd_long_helper.so") +
                       ": the daemon would die loading or initialising it: signal 6"),
              std::string::npos)
        << out;
    EXPECT_NE(out.find("lib_vd_sound.so: OK:"), std::string::npos) << out;

    EXPECT_EQ(run("/nonexistent/lib_vd_x.so", &out), 1);
    EXPECT_EQ(run("", &out), 2);
}

}  // namespace
