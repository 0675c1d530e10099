#include "storage/log_deletion.h"

#include <dirent.h>
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
    bool isLink(const std::string& devicePath) {
        struct stat st;
        return lstat(p.hostPath(devicePath).c_str(), &st) == 0 && S_ISLNK(st.st_mode);
    }
    bool gone(const std::string& devicePath) {
        struct stat st;
        return lstat(p.hostPath(devicePath).c_str(), &st) != 0;
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

TEST(LogDeletionTypes, NormalLayoutByDeleteType) {
    // Which paths survive, per delete type. -1 (a failed service call) and 3 act as 1.
    const std::vector<std::string> paths = {
        "TwInfo.txt",      "config.json",     "Backup1.zip", "log.txt", "sub/a.log",
        "sub/Backup2.zip", "sub/config.json", "only/b.log",  "only",    "empty"};
    const std::map<int, std::vector<bool>> survivors = {
        {0, {true, true, false, false, false, false, true, false, false, false}},
        {1, {true, true, true, false, false, true, true, false, false, false}},
        {2, {true, true, false, true, true, false, true, true, true, false}},
        {-1, {true, true, true, false, false, true, true, false, false, false}},
        {3, {true, true, true, false, false, true, true, false, false, false}},
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
}

TEST(LogDeletionTypes, SecureLayoutByDeleteType) {
    struct Case {
        int type;
        bool secureKept;
        bool secureBackupKept;
    };
    for (const Case& c : {Case{0, false, false}, Case{1, false, true}, Case{2, true, false},
                          Case{-1, false, true}}) {
        TestPlatform p;
        p.writeFile("/sdcard/" + kSecure + "modem/m.log", "x");
        p.writeFile("/sdcard/Tellwick/SecureBackup1.zip", "x");
        p.writeFile("/sdcard/Tellwick/Backup1.zip", "x");
        p.writeFile("/sdcard/Tellwick/config.json", "x");
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

TEST_F(LogDeletionTest, LinksAreRemovedAsLinksNeverFollowed) {
    p.writeFile("/outside/dir/precious.txt", "keep");
    p.writeFile("/outside/file.txt", "keep");
    p.writeFile("/sdcard/Tellwick/log.txt", "x");
    p.makeDir("/sdcard/Tellwick/sub");
    link("/outside/dir", "/sdcard/Tellwick/dirlink");
    link("/outside/file.txt", "/sdcard/Tellwick/sub/filelink");
    link("/outside/dir", "/sdcard/Tellwick/Backup-link");

    EXPECT_EQ(deleteLogFilesUnsecure("/sdcard/Tellwick/", 0), 0);
    EXPECT_EQ(p.readFile("/outside/dir/precious.txt"), "keep");
    EXPECT_EQ(p.readFile("/outside/file.txt"), "keep");
    EXPECT_TRUE(gone("/sdcard/Tellwick/dirlink"));
    EXPECT_TRUE(gone("/sdcard/Tellwick/sub/filelink"));
    EXPECT_TRUE(gone("/sdcard/Tellwick/Backup-link"));
    EXPECT_TRUE(gone("/sdcard/Tellwick"));
}

TEST_F(LogDeletionTest, LinkAsTopFolderIsNotWalked) {
    p.writeFile("/outside/dir/precious.txt", "keep");
    p.writeFile("/outside/dir/SecureBackup1.zip", "keep");
    p.makeDir("/sdcard");
    link("/outside/dir", "/sdcard/Tellwick");

    EXPECT_EQ(deleteSecureBackup("/sdcard/Tellwick/"), -1);
    EXPECT_EQ(deleteUnsecureLogData("/sdcard/Tellwick/"), -1);
    EXPECT_EQ(deleteLogFilesUnsecure("/sdcard/Tellwick/", 0), -1);
    EXPECT_EQ(p.readFile("/outside/dir/precious.txt"), "keep");
    EXPECT_EQ(p.readFile("/outside/dir/SecureBackup1.zip"), "keep");
}

TEST_F(LogDeletionTest, LinkOnTheWayToTheTopFolderIsNotFollowed) {
    const std::string outside = "/outside/";
    p.writeFile(outside + "Tellwick/log.txt", "keep");
    p.writeFile(outside + "Tellwick/SecureBackup1.zip", "keep");
    p.writeFile(outside + kSecure + "a.log", "keep");
    p.makeDir("/sdcard");
    link("/outside", "/sdcard/x");

    EXPECT_EQ(deleteLogFilesUnsecure("/sdcard/x/Tellwick/", 0), -1);
    EXPECT_EQ(deleteSecureBackup("/sdcard/x/Tellwick/"), -1);
    EXPECT_EQ(deleteUnsecureLogData("/sdcard/x/Tellwick/"), -1);
    deleteLogFilesSecure("/sdcard/x/", 0);
    removeSecureLogs("/sdcard/x/");
    removeUnsecureLogs("/sdcard/x/");
    for (const char* file : {"Tellwick/log.txt", "Tellwick/SecureBackup1.zip"}) {
        EXPECT_EQ(p.readFile(outside + file), "keep") << file;
    }
    EXPECT_EQ(p.readFile(outside + kSecure + "a.log"), "keep");
    EXPECT_TRUE(isLink("/sdcard/x"));
}

TEST_F(LogDeletionTest, LogLinesNameEntriesAsFormed) {
    p.writeFile("/sdcard/Tellwick/sub/a.log", "x");
    deleteLogFilesUnsecure("/sdcard/Tellwick/", 0);
    const char* const walk[] = {
        "deleteLogFilesUnsecure::Start::path = /sdcard/Tellwick/, deleteLogType== 0",
        "remove /sdcard/Tellwick//sub",
        "deleteLogFilesUnsecure::Start::path = /sdcard/Tellwick//sub, deleteLogType== 0",
        "remove /sdcard/Tellwick//sub/a.log",
        "deleteSecureBackup::End",
        "deleteSecureBackup::End",
    };
    int at = -1;
    for (const char* line : walk) {
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

TEST_F(LogDeletionTest, LinksInsideTheOtherLayoutAreNotFollowed) {
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

int openDescriptors() {
    int n = 0;
    if (DIR* dir = opendir("/proc/self/fd")) {
        while (readdir(dir) != nullptr) n++;
        closedir(dir);
    }
    return n;
}

TEST_F(LogDeletionTest, VeryDeepTreeFailsCleanly) {
    std::string deep = "/sdcard/Tellwick";
    for (int i = 0; i < 300; i++) deep += "/d";
    p.writeFile(deep + "/bottom.log", "x");
    p.writeFile("/sdcard/Tellwick/top.log", "x");
    const int before = openDescriptors();

    EXPECT_LT(deleteLogFilesUnsecure("/sdcard/Tellwick/", 0), 0);
    EXPECT_FALSE(p.exists("/sdcard/Tellwick/top.log"));
    EXPECT_TRUE(p.exists(deep + "/bottom.log"));

    EXPECT_EQ(deleteUnsecureLogData("/sdcard/Tellwick/"), -1);
    EXPECT_TRUE(p.log().contains("deleteUnsecureLogData::Failed to delete directory", kLogError));
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(LogDeletionTest, UnsecureDataKeepsConfigurationInfoAndSecureBackups) {
    for (const char* file :
         {"config.json", "TwInfo.txt", "SecureBackup-1.zip", "log.txt", "SecureBackup-1.txt",
          "xSecureBackup.zip", "a/config.json", "a/b/c.log", "Backup1.zip"}) {
        p.writeFile(std::string("/sdcard/Tellwick/") + file, "x");
    }
    EXPECT_EQ(deleteUnsecureLogData("/sdcard/Tellwick/"), -1) << "a/ keeps its config.json";
    EXPECT_TRUE(p.log().contains("deleteUnsecureLogData::Failed to remove directory", kLogError));

    std::filesystem::remove(p.hostPath("/sdcard/Tellwick/a/config.json"));
    EXPECT_EQ(deleteUnsecureLogData("/sdcard/Tellwick/"), 0);
    EXPECT_TRUE(p.exists("/sdcard/Tellwick/config.json"));
    EXPECT_TRUE(p.exists("/sdcard/Tellwick/TwInfo.txt"));
    EXPECT_TRUE(p.exists("/sdcard/Tellwick/SecureBackup-1.zip"));
    EXPECT_FALSE(p.exists("/sdcard/Tellwick/SecureBackup-1.txt"));
    EXPECT_FALSE(p.exists("/sdcard/Tellwick/xSecureBackup.zip"));
    EXPECT_FALSE(p.exists("/sdcard/Tellwick/log.txt"));
    EXPECT_FALSE(p.exists("/sdcard/Tellwick/Backup1.zip"));
    EXPECT_FALSE(p.exists("/sdcard/Tellwick/a"));
}

TEST_F(LogDeletionTest, RemoveSecureLogsFromCardRoot) {
    p.writeFile("/storage/1A2B-3C4D/" + kSecure + "a.log", "x");
    p.writeFile("/sdcard/" + kSecure + "b.log", "x");
    p.writeFile("/storage/1A2B-3C4D/Tellwick/SecureBackup1.zip", "x");
    p.writeFile("/storage/1A2B-3C4D/Tellwick/log.txt", "x");
    p.writeFile("/sdcard/Tellwick/SecureBackup2.zip", "x");

    removeSecureLogs("/storage/1A2B-3C4D/");
    EXPECT_FALSE(p.exists("/storage/1A2B-3C4D/" + kSecure));
    EXPECT_FALSE(p.exists("/sdcard/" + kSecure));
    EXPECT_FALSE(p.exists("/storage/1A2B-3C4D/Tellwick/SecureBackup1.zip"));
    EXPECT_FALSE(p.exists("/sdcard/Tellwick/SecureBackup2.zip"));
    EXPECT_TRUE(p.exists("/storage/1A2B-3C4D/Tellwick/log.txt"));
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

TEST_F(LogDeletionTest, RemoveUnsecureLogsCleansCardAndInternal) {
    p.writeFile("/storage/1A2B-3C4D/Tellwick/log.txt", "x");
    p.writeFile("/storage/1A2B-3C4D/Tellwick/config.json", "x");
    p.writeFile("/sdcard/Tellwick/log.txt", "x");
    removeUnsecureLogs("/storage/1A2B-3C4D/");
    EXPECT_FALSE(p.exists("/storage/1A2B-3C4D/Tellwick/log.txt"));
    EXPECT_TRUE(p.exists("/storage/1A2B-3C4D/Tellwick/config.json"));
    EXPECT_FALSE(p.exists("/sdcard/Tellwick/log.txt"));
    EXPECT_TRUE(p.log().contains("removeUnsecureLogs::End"));
}

TEST_F(LogDeletionTest, DeleteTwLogsWithoutServiceDeletesEverything) {
    p.setProperty("persist.sys.vd.storage_path", "/sdcard/");
    writeNormalTree(p, "/sdcard/Tellwick/");
    deleteTwLogs();
    EXPECT_TRUE(p.log().contains("Failed to obtain a handle on vd_service", kLogError));
    EXPECT_FALSE(p.exists("/sdcard/Tellwick/Backup1.zip"));
    EXPECT_FALSE(p.exists("/sdcard/Tellwick/log.txt"));
    EXPECT_TRUE(p.exists("/sdcard/Tellwick/config.json"));
    EXPECT_TRUE(p.log().contains("deleteLogs::finish"));
}

TEST_F(LogDeletionTest, DeleteTwLogsTakesTheTypeFromTheService) {
    vdstandin::StandinService service(p.root());
    ASSERT_TRUE(service.start());
    service.updateAnswers([](vdstandin::DeviceAnswers& a) { a.deleteLogsParam = 2; });
    p.setProperty("persist.sys.vd.storage_path", "/sdcard/");
    writeNormalTree(p, "/sdcard/Tellwick/");
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
    std::string saved = p.readFile("/sdcard/Tellwick/config.json");
    EXPECT_NE(saved.find("QuickTapModule"), std::string::npos) << saved;
    auto configs = service.configs();
    ASSERT_EQ(configs.size(), 1u);
    EXPECT_NE(configs[0].find("QuickTapModule"), std::string::npos) << configs[0];
}

}  // namespace
