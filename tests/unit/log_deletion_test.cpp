#include "storage/log_deletion.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <map>
#include <string>

#include "core/builtin_modules.h"
#include "core/log.h"
#include "core/module_registry.h"
#include "fakes/test_platform.h"
#include "standin/standin_service.h"
#include "storage/storage_root.h"

using vigild::testing::TestPlatform;

namespace {

const std::string kSecure = "Android/data/com.tandril.tellwick/Tellwick/secure/log_data/";

class LogDeletionTest : public ::testing::Test {
  protected:
    LogDeletionTest() { p.enableDebugLog(); }

    // A link at `devicePath` to the host file of `targetDevicePath`.
    void link(const std::string& targetDevicePath, const std::string& devicePath) {
        ASSERT_EQ(symlink(p.hostPath(targetDevicePath).c_str(), p.hostPath(devicePath).c_str()), 0);
    }
    // Gone, not even a dangling link left.
    bool gone(const std::string& devicePath) {
        struct stat st;
        return lstat(p.hostPath(devicePath).c_str(), &st) != 0;
    }
    void writeAll(const std::string& top, std::initializer_list<const char*> files) {
        for (const char* file : files) p.writeFile(top + file, "x");
    }

    TestPlatform p;
};

// The normal layout used by the delete-type table.
void writeNormalTree(TestPlatform& p, const std::string& top) {
    for (const char* file : {"TwInfo.txt", "config.json", "Backup1.zip", "log.txt", "sub/a.log",
                             "sub/Backup2.zip", "sub/config.json", "only/b.log"}) {
        p.writeFile(top + file, "x");
    }
    p.makeDir(top + "empty");
}

TEST(LogDeletionTypes, NormalAndSecureLayoutByDeleteType) {
    // Which paths survive, per delete type. -1 (a failed service call) and 3 act as 1.
    const std::vector<std::string> paths = {
        "TwInfo.txt",      "config.json",     "Backup1.zip", "log.txt", "sub/a.log",
        "sub/Backup2.zip", "sub/config.json", "only/b.log",  "only",    "empty"};
    const std::vector<bool> one = {true, true, true, false, false, true, true, false, false, false};
    const std::map<int, std::vector<bool>> survivors = {
        {0, {true, true, false, false, false, false, true, false, false, false}},
        {1, one},
        {2, {true, true, false, true, true, false, true, true, true, false}},
        {-1, one},
        {3, one},
    };
    for (const auto& [type, expected] : survivors) {
        TestPlatform p;
        writeNormalTree(p, "/sdcard/Tellwick/");
        EXPECT_EQ(deleteLogFilesUnsecure("/sdcard/Tellwick/", type), 0) << "type " << type;
        for (size_t i = 0; i < paths.size(); i++) {
            EXPECT_EQ(p.exists("/sdcard/Tellwick/" + paths[i]), expected[i])
                << "type " << type << ": " << paths[i];
        }
    }

    struct {
        int type;
        bool secureKept, secureBackupKept;
    } cases[] = {{0, false, false}, {1, false, true}, {2, true, false}, {-1, false, true}};
    for (const auto& c : cases) {
        TestPlatform p;
        for (const std::string& file : {"/sdcard/" + kSecure + "modem/m.log",
                                        std::string("/sdcard/Tellwick/SecureBackup1.zip"),
                                        std::string("/sdcard/Tellwick/Backup1.zip"),
                                        std::string("/sdcard/Tellwick/config.json")}) {
            p.writeFile(file, "x");
        }
        EXPECT_EQ(deleteLogFilesSecure("/sdcard/", c.type), 0);
        EXPECT_EQ(p.exists("/sdcard/" + kSecure + "modem/m.log"), c.secureKept) << c.type;
        EXPECT_EQ(p.exists("/sdcard/Tellwick/SecureBackup1.zip"), c.secureBackupKept) << c.type;
        EXPECT_TRUE(p.exists("/sdcard/Tellwick/Backup1.zip")) << c.type;
        EXPECT_TRUE(p.exists("/sdcard/Tellwick/config.json")) << c.type;
    }
}

TEST_F(LogDeletionTest, MissingPlainOrEmptiedTopFolder) {
    p.writeFile("/sdcard/other.txt", "x");
    EXPECT_EQ(deleteLogFilesUnsecure("/sdcard/Tellwick/", 0), -1);
    EXPECT_TRUE(p.exists("/sdcard/other.txt"));
    EXPECT_TRUE(p.log().contains("deleteSecureBackup::End"));

    p.writeFile("/sdcard/Tellwick", "a file where the folder should be");
    EXPECT_EQ(deleteLogFilesUnsecure("/sdcard/Tellwick/", 0), -1);
    EXPECT_FALSE(p.exists("/sdcard/Tellwick"));

    EXPECT_EQ(deleteSecureBackup("/sdcard/Tellwick/"), -1);
    EXPECT_EQ(deleteUnsecureLogData("/sdcard/Tellwick/"), -1);
    EXPECT_TRUE(p.log().contains("deleteUnsecureLogData::End"));

    // A top folder emptied by the walk goes too.
    p.writeFile("/sdcard/Tellwick/log.txt", "x");
    EXPECT_EQ(deleteLogFilesUnsecure("/sdcard/Tellwick/", 0), 0);
    EXPECT_FALSE(p.exists("/sdcard/Tellwick"));
}

TEST_F(LogDeletionTest, LogLinesNameEntriesAsFormed) {
    p.writeFile("/sdcard/Tellwick/sub/a.log", "x");
    deleteLogFilesUnsecure("/sdcard/Tellwick/", 0);
    int at = -1;
    for (const char* line : {
             "deleteLogFilesUnsecure::Start::path = /sdcard/Tellwick/, deleteLogType== 0",
             "remove /sdcard/Tellwick//sub",
             "deleteLogFilesUnsecure::Start::path = /sdcard/Tellwick//sub, deleteLogType== 0",
             "remove /sdcard/Tellwick//sub/a.log",
             "deleteSecureBackup::End",
             "deleteSecureBackup::End",
         }) {
        at = p.log().indexOf(line, at + 1);
        ASSERT_GE(at, 0) << line;
    }

    // The other layout's folder is emptied with the path as the root gave it.
    p.log().clear();
    p.writeFile("/sdcard/" + kSecure + "a.log", "x");
    p.writeFile("/sdcard/Tellwick/SecureBackup1.zip", "x");
    deleteLogFilesSecure("/sdcard/", 0);
    EXPECT_TRUE(p.log().contains("remove /sdcard/" + kSecure + "/a.log"));
    EXPECT_TRUE(
        p.log().contains("deleteSecureBackup::remove = /sdcard/Tellwick//SecureBackup1.zip"));

    // Entry paths are cut where their buffer ends.
    std::string longPath = "/sdcard/Tellwick/";
    for (int i = 0; i < 6; i++) longPath += std::string(200, 'a' + i) + "/";
    p.writeFile(longPath + "f.log", "x");
    p.log().clear();
    deleteLogFilesUnsecure("/sdcard/Tellwick/", 0);
    EXPECT_FALSE(p.exists("/sdcard/Tellwick"));
    const std::string full = "/sdcard/Tellwick//" + longPath.substr(17) + "f.log";
    EXPECT_TRUE(p.log().contains("remove " + full.substr(0, 1034)));
}

TEST_F(LogDeletionTest, LinksInsideEitherLayoutAreRemovedNotFollowed) {
    p.writeFile("/outside/dir/precious.txt", "keep");
    p.writeFile("/sdcard/" + kSecure + "a.log", "x");
    link("/outside/dir", "/sdcard/" + kSecure + "link");
    p.writeFile("/sdcard/Tellwick/log.txt", "x");
    link("/outside/dir", "/sdcard/Tellwick/link");
    link("/outside/dir", "/sdcard/Tellwick/SecureBackupLink.zip.d");

    removeSecureLogs("/sdcard/");
    EXPECT_FALSE(p.exists("/sdcard/" + kSecure));
    EXPECT_TRUE(gone("/sdcard/Tellwick/SecureBackupLink.zip.d"));
    EXPECT_EQ(p.readFile("/outside/dir/precious.txt"), "keep");

    removeUnsecureLogs("/sdcard/");
    EXPECT_TRUE(gone("/sdcard/Tellwick/link"));
    EXPECT_FALSE(p.exists("/sdcard/Tellwick/log.txt"));
    EXPECT_EQ(p.readFile("/outside/dir/precious.txt"), "keep");
}

TEST_F(LogDeletionTest, UnsecureDataKeepsConfigurationInfoAndSecureBackups) {
    writeAll("/sdcard/Tellwick/",
             {"config.json", "TwInfo.txt", "SecureBackup-1.zip", "log.txt", "SecureBackup-1.txt",
              "xSecureBackup.zip", "a/config.json", "a/b/c.log", "Backup1.zip"});
    EXPECT_EQ(deleteUnsecureLogData("/sdcard/Tellwick/"), -1) << "a/ keeps its config.json";
    EXPECT_TRUE(p.log().contains("deleteUnsecureLogData::Failed to remove directory", kLogError));

    std::filesystem::remove(p.hostPath("/sdcard/Tellwick/a/config.json"));
    EXPECT_EQ(deleteUnsecureLogData("/sdcard/Tellwick/"), 0);
    for (const char* kept : {"config.json", "TwInfo.txt", "SecureBackup-1.zip"}) {
        EXPECT_TRUE(p.exists(std::string("/sdcard/Tellwick/") + kept)) << kept;
    }
    for (const char* removed :
         {"SecureBackup-1.txt", "xSecureBackup.zip", "log.txt", "Backup1.zip", "a"}) {
        EXPECT_FALSE(p.exists(std::string("/sdcard/Tellwick/") + removed)) << removed;
    }
}

TEST_F(LogDeletionTest, RemoveLogsFromCardRootCleansBothRoots) {
    p.writeFile("/storage/1A2B-3C4D/" + kSecure + "a.log", "x");
    p.writeFile("/sdcard/" + kSecure + "b.log", "x");
    writeAll("/storage/1A2B-3C4D/Tellwick/", {"SecureBackup1.zip", "log.txt", "config.json"});
    writeAll("/sdcard/Tellwick/", {"SecureBackup2.zip", "log.txt"});

    removeSecureLogs("/storage/1A2B-3C4D/");
    EXPECT_FALSE(p.exists("/storage/1A2B-3C4D/" + kSecure));
    EXPECT_FALSE(p.exists("/sdcard/" + kSecure));
    EXPECT_FALSE(p.exists("/storage/1A2B-3C4D/Tellwick/SecureBackup1.zip"));
    EXPECT_FALSE(p.exists("/sdcard/Tellwick/SecureBackup2.zip"));
    EXPECT_TRUE(p.exists("/storage/1A2B-3C4D/Tellwick/log.txt"));

    removeUnsecureLogs("/storage/1A2B-3C4D/");
    EXPECT_FALSE(p.exists("/storage/1A2B-3C4D/Tellwick/log.txt"));
    EXPECT_TRUE(p.exists("/storage/1A2B-3C4D/Tellwick/config.json"));
    EXPECT_FALSE(p.exists("/sdcard/Tellwick/log.txt"));
    EXPECT_TRUE(p.log().contains("removeUnsecureLogs::End"));
}

TEST_F(LogDeletionTest, RemoveSecureLogsFromInternalAsksServiceForTheCard) {
    p.writeFile("/storage/1A2B-3C4D/Tellwick/SecureBackup1.zip", "x");
    removeSecureLogs("/sdcard/");
    EXPECT_TRUE(p.exists("/storage/1A2B-3C4D/Tellwick/SecureBackup1.zip")) << "no service";

    vdstandin::StandinService service(p.root());
    ASSERT_TRUE(service.start());
    service.updateAnswers([](vdstandin::DeviceAnswers& a) {
        a.sdcardPresent = 0;
        a.sdcardPath = "/storage/1A2B-3C4D";
    });
    removeSecureLogs("/sdcard/");
    EXPECT_TRUE(p.exists("/storage/1A2B-3C4D/Tellwick/SecureBackup1.zip")) << "no card";

    service.updateAnswers([](vdstandin::DeviceAnswers& a) { a.sdcardPresent = 1; });
    removeSecureLogs("/sdcard/");
    EXPECT_FALSE(p.exists("/storage/1A2B-3C4D/Tellwick/SecureBackup1.zip"));
}

TEST_F(LogDeletionTest, DeleteTwLogsTakesTheTypeFromTheService) {
    p.setProperty("persist.sys.vd.storage_path", "/sdcard/");
    // Without a service everything goes.
    writeNormalTree(p, "/sdcard/Tellwick/");
    deleteTwLogs();
    EXPECT_TRUE(p.log().contains("Failed to obtain a handle on vd_service", kLogError));
    EXPECT_FALSE(p.exists("/sdcard/Tellwick/Backup1.zip"));
    EXPECT_FALSE(p.exists("/sdcard/Tellwick/log.txt"));
    EXPECT_TRUE(p.exists("/sdcard/Tellwick/config.json"));
    EXPECT_TRUE(p.log().contains("deleteLogs::finish"));

    vdstandin::StandinService service(p.root());
    ASSERT_TRUE(service.start());
    service.updateAnswers([](vdstandin::DeviceAnswers& a) { a.deleteLogsParam = 2; });
    writeNormalTree(p, "/sdcard/Tellwick/");
    p.log().clear();
    deleteTwLogs();
    EXPECT_FALSE(p.log().contains("Failed to obtain a handle on vd_service"));
    EXPECT_FALSE(p.exists("/sdcard/Tellwick/Backup1.zip"));
    EXPECT_TRUE(p.exists("/sdcard/Tellwick/log.txt"));

    // Secure mode, same type: the secure folder stays, secure backups go.
    p.setProperty("persist.sys.vd.secure_mode", "true");
    p.writeFile("/sdcard/" + kSecure + "a.log", "x");
    p.writeFile("/sdcard/Tellwick/SecureBackup1.zip", "x");
    deleteTwLogs();
    EXPECT_TRUE(p.exists("/sdcard/" + kSecure + "a.log"));
    EXPECT_FALSE(p.exists("/sdcard/Tellwick/SecureBackup1.zip"));
}

TEST_F(LogDeletionTest, CopyConfigFileToSecurePath) {
    // Secure mode: the root's resolution makes the secure folder (normal mode removes it).
    p.setProperty("persist.sys.vd.storage_path", "/sdcard/");
    p.setProperty("persist.sys.vd.secure_mode", "true");
    p.writeFile("/sdcard/Tellwick/config.json", "{\"a\": 1}");
    EXPECT_TRUE(copyConfigFileToSecurePath("  /sdcard/Tellwick/config.json\n"));
    EXPECT_EQ(p.readFile("/sdcard/" + kSecure + "config.json"), "{\"a\": 1}");
    EXPECT_TRUE(p.log().contains("copyConfigFileToSecurePath::isCopied 1"));
    EXPECT_FALSE(copyConfigFileToSecurePath("/sdcard/Tellwick/missing.json"));
}

TEST_F(LogDeletionTest, ResetToDefaultRestoresSettingsSavesAndSends) {
    static QuickTapModule quickTap;
    moduleRegistry.emplace_back(&quickTap);
    quickTap.init(moduleRegistry.back().settings);
    for (Module::config& c : moduleRegistry.back().settings.configs) strcpy(c.value, "1");

    vdstandin::StandinService service(p.root());
    ASSERT_TRUE(service.start());
    p.setProperty("persist.sys.vd.storage_path", "/sdcard/");
    p.setProperty("persist.sys.vd.internal_sd", "true");
    resetToDefault();

    for (const Module::config& c : moduleRegistry.back().settings.configs) {
        EXPECT_STREQ(c.value, c.defaultValue) << c.name;
    }
    EXPECT_EQ(p.property("persist.sys.vd.internal_sd"), "false");
    EXPECT_NE(p.readFile("/sdcard/Tellwick/config.json").find("QuickTapModule"), std::string::npos);
    auto configs = service.configs();
    ASSERT_EQ(configs.size(), 1u);
    EXPECT_NE(configs[0].find("QuickTapModule"), std::string::npos) << configs[0];
}

}  // namespace
