#include "modcheck/modcheck.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "fakes/test_platform.h"

using vdtools::ModuleReport;
using vigild::testing::TestPlatform;

namespace {

const std::string kBroken = VIGILD_BROKEN_MODULE_DIR;

std::string library(const std::string& file) { return kBroken + "/" + file; }

// Each broken library has one finding: a fault, or the module's objection to its own default.
// The report names the user's path, not the scratch copy's, and every finding says what to
// change.
TEST(ModcheckTest, ReportsEachFaultOfTheBrokenLibraries) {
    const struct {
        std::string file;
        bool loaded;
        std::string finding;  // its beginning
    } cases[] = {
        {"lib_vd_no_entry.so", false, "no getModule: " + library("lib_vd_no_entry.so")},
        {"lib_vd_old_base.so", false,
         "wrong base version: \"14.1.0.0\" does not begin with \"14.0.\""},
        {"lib_vd_refuse.so", false,
         "shouldLoad() refuses: it returned non-zero, so the daemon leaves the module out"},
        {"lib_vd_enable_not_first.so", true, "\"Enable Module\" is not the first setting"},
        {"lib_vd_enable_not_boolean.so", true, "\"Enable Module\" is not of type \"boolean\""},
        {"lib_vd_duplicate.so", true, "duplicate setting name \"Verbose\" (settings 2 and 5)"},
        {"lib_vd_unknown_type.so", true, "setting \"Ratio\" has unknown type \"float\""},
        {"lib_vd_long_value.so", true, "setting \"Banner\" has a value of 256 bytes or more"},
        {"lib_vd_bad_list.so", true,
         "list \"Buffer\" has value \"3\", which is not an index of its 3 options"},
        {"lib_vd_bad_int.so", true,
         "int \"Rotate size (KB)\" has default \"12a\", which is not plain decimal text"},
        {"lib_vd_path_not_folder.so", true,
         "\"Log Path\" has value \"/sdcard/Tellwick/broken\", which is not a folder (an "
         "absolute path ending in \"/\")"},
        {"lib_vd_objects.so", true,
         "configVal objects to the default of \"Rotate size (KB)\": must be a power of two"},
        {"lib_vd_builtin_name.so", true,
         "module name \"QuickTapModule\" is taken by a module built into the daemon"},
        {"libvd_misnamed.so", true,
         "file name does not begin with \"lib_vd_\": the daemon never looks at it"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.file);
        TestPlatform p;
        ModuleReport report = vdtools::checkModuleLibrary(library(c.file));
        std::vector<std::string> findings = report.faults;
        findings.insert(findings.end(), report.objections.begin(), report.objections.end());
        EXPECT_EQ(report.loaded, c.loaded);
        ASSERT_EQ(findings.size(), 1u);
        EXPECT_EQ(findings[0].rfind(c.finding, 0), 0u) << findings[0];
        EXPECT_NE(vdtools::fixFor(findings[0]), "") << findings[0];
        EXPECT_FALSE(report.sound());
    }
}

TEST(ModcheckTest, SoundLibraryPassesAndLeavesNoCopyBehind) {
    TestPlatform p;
    ModuleReport report = vdtools::checkModuleLibrary(library("lib_vd_sound.so"));
    EXPECT_TRUE(report.sound()) << (report.faults.empty() ? "" : report.faults[0]);
    EXPECT_FALSE(p.exists("/system/lib64/lib_vd_sound.so"));
    // A file that is not a library at all.
    p.writeFile("/junk/lib_vd_text.so", "not an ELF file");
    report = vdtools::checkModuleLibrary(p.hostPath("/junk/lib_vd_text.so"));
    ASSERT_EQ(report.faults.size(), 1u);
    EXPECT_EQ(report.faults[0].rfind("cannot be loaded: ", 0), 0u) << report.faults[0];
}

// The tool itself: a library that aborts in init() is reported and the rest still checked.
TEST(ModcheckTest, ToolSurvivesAnAbortingLibraryAndSetsTheExitStatus) {
    auto run = [](const std::string& args, std::string* out) {
        return vigild::testing::runTool(VIGILD_BINARY_DIR "/tools/modcheck/vigild-modcheck", args,
                                        out);
    };
    std::string out;
    EXPECT_EQ(run(library("lib_vd_sound.so"), &out), 0) << out;
    EXPECT_EQ(out, library("lib_vd_sound.so") + ": checked: " + vdtools::kChecksMade + "\n" +
                       library("lib_vd_sound.so") +
                       ": OK: module \"SoundModule\" version 14.0.0.1, 5 settings\n");

    EXPECT_EQ(run(library("lib_vd_long_helper.so") + " " + library("lib_vd_sound.so"), &out), 1);
    EXPECT_NE(out.find(library("lib_vd_long_helper.so") +
                       ": FAIL: the daemon would die loading or initialising it: signal 6"),
              std::string::npos)
        << out;
    EXPECT_NE(out.find(library("lib_vd_long_helper.so") + ":   fix: "), std::string::npos) << out;
    EXPECT_NE(out.find("lib_vd_sound.so: OK:"), std::string::npos) << out;

    EXPECT_EQ(run("/nonexistent/lib_vd_x.so", &out), 1);
    EXPECT_EQ(run("", &out), 2);
}

}  // namespace
