// Storage an app can write to, turned against the daemon: folders swapped for links while
// they are walked, configuration files that are not files, trees too deep or too wide, and
// log folder values that lead somewhere else.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "config/config_file.h"
#include "config/document.h"
#include "config/file_watch.h"
#include "core/log.h"
#include "core/module_registry.h"
#include "fakes/fake_module.h"
#include "fakes/test_platform.h"
#include "quicktap/quicktap.h"
#include "standin/standin_service.h"
#include "storage/bugreport.h"
#include "storage/log_deletion.h"
#include "storage/storage_root.h"
#include "storage/tree.h"
#include "storage/utility.h"

namespace {

namespace fsys = std::filesystem;
using namespace std::chrono_literals;
using vigild::testing::finishesWithin;
using vigild::testing::TestPlatform;

// VIGILD_HOSTILE_LONG=1 runs the full sizes (100,000 entries, 20,000 levels, 5,000 rounds).
bool longRun() { return getenv("VIGILD_HOSTILE_LONG") != nullptr; }

int openDescriptors() {
    int n = 0;
    for (const auto& entry : fsys::directory_iterator("/proc/self/fd")) {
        (void)entry;
        n++;
    }
    return n;
}

// A folder outside the device root with files named like the log tree's, so a walk that
// strays through a link would find something to delete or overwrite there.
class Canary {
  public:
    Canary() {
        char tmpl[] = "/tmp/vdcanary.XXXXXX";
        path_ = mkdtemp(tmpl) != nullptr ? tmpl : "";
        fsys::create_directories(path_ + "/inner");
        for (const char* name : {"/b.txt", "/inner/c.txt", "/config.json"}) {
            std::ofstream(path_ + name) << "canary";
        }
    }
    ~Canary() {
        std::error_code ec;
        fsys::remove_all(path_, ec);
    }
    const std::string& path() const { return path_; }
    // Exactly the planted files, untouched.
    ::testing::AssertionResult intact() const {
        std::set<std::string> found;
        for (const auto& e : fsys::recursive_directory_iterator(path_)) {
            std::string rel = e.path().string().substr(path_.size());
            found.insert(rel);
            if (e.is_regular_file()) {
                std::ifstream in(e.path());
                std::string content((std::istreambuf_iterator<char>(in)), {});
                if (content != "canary") return ::testing::AssertionFailure() << rel << " changed";
            }
        }
        std::set<std::string> planted = {"/b.txt", "/inner", "/inner/c.txt", "/config.json"};
        if (found != planted) return ::testing::AssertionFailure() << "entries changed";
        return ::testing::AssertionSuccess();
    }

  private:
    std::string path_;
};

// Swaps two names back and forth with RENAME_EXCHANGE until destroyed.
class Swapper {
  public:
    Swapper(std::string a, std::string b)
        : thread_([this, a = std::move(a), b = std::move(b)] {
              while (!stop_.load()) {
                  if (::renameat2(AT_FDCWD, a.c_str(), AT_FDCWD, b.c_str(), RENAME_EXCHANGE) == 0) {
                      swaps_++;
                  }
              }
          }) {
        // The walk starts only once the race is on (bounded: a few real seconds at most).
        auto deadline = std::chrono::steady_clock::now() + 5s;
        while (swaps_.load() == 0 && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::yield();
        }
    }
    ~Swapper() {
        stop_ = true;
        thread_.join();
    }
    int swaps() const { return swaps_.load(); }

  private:
    std::atomic<bool> stop_{false};
    std::atomic<int> swaps_{0};
    std::thread thread_;
};

class HostileStorageTest : public ::testing::Test {
  protected:
    void SetUp() override {
        p.setProperty("persist.sys.vd.storage_path", "/sdcard/");
        p.makeDir("/sdcard/Tellwick/");
    }
    // /sdcard/Tellwick/logs/{a.txt, sub/{b.txt, inner/c.txt}} and logs/lnk -> the canary.
    void plantTree() {
        std::error_code ec;
        fsys::remove_all(p.hostPath("/sdcard/Tellwick/logs"), ec);
        p.writeFile("/sdcard/Tellwick/logs/a.txt", "log");
        p.writeFile("/sdcard/Tellwick/logs/sub/b.txt", "log");
        p.writeFile("/sdcard/Tellwick/logs/sub/inner/c.txt", "log");
        fsys::create_directory_symlink(canary.path(), p.hostPath("/sdcard/Tellwick/logs/lnk"));
    }

    TestPlatform p;
    Canary canary;
};

TEST_F(HostileStorageTest, FolderSwappedForALinkDuringAWalkNeverReachesOutside) {
    const int rounds = longRun() ? 5000 : 60;
    struct Op {
        const char* name;
        std::function<void()> run;
    };
    const Op ops[] = {
        {"remove_all", [] { remove_all("/sdcard/Tellwick/logs"); }},
        {"deleteLogFilesUnsecure", [] { deleteLogFilesUnsecure("/sdcard/Tellwick/logs", 0); }},
        {"deleteUnsecureLogData", [] { deleteUnsecureLogData("/sdcard/Tellwick/logs"); }},
        {"copyFile",
         [] { copyFile("/sdcard/Tellwick/logs/a.txt", "/sdcard/Tellwick/logs/sub/b.txt"); }},
        {"copyFile new",
         [] { copyFile("/sdcard/Tellwick/logs/a.txt", "/sdcard/Tellwick/logs/sub/new"); }},
        {"mkdir_all", [] { mkdir_all("/sdcard/Tellwick/logs/sub/x/y/"); }},
    };
    const int fdsBefore = openDescriptors();
    for (const Op& op : ops) {
        int swaps = 0;
        for (int i = 0; i < rounds; i++) {
            plantTree();
            {
                Swapper swapper(p.hostPath("/sdcard/Tellwick/logs/sub"),
                                p.hostPath("/sdcard/Tellwick/logs/lnk"));
                op.run();
                op.run();
                swaps += swapper.swaps();
            }
            ASSERT_TRUE(canary.intact()) << op.name << " round " << i;
        }
        // The race really ran.
        EXPECT_GT(swaps, 0) << op.name;
    }
    EXPECT_EQ(openDescriptors(), fdsBefore);
}

// A link to the canary put in place of each folder (and of the last entry) below the storage
// root on the way of every write the daemon makes there: nothing outside is written, removed,
// created or handed to chown.
TEST_F(HostileStorageTest, ALinkAtAnyComponentOfAWritePathLeadsNowhere) {
    const std::string secureFolder = std::string("/sdcard/") + kSecureLogFolder;
    const std::string appFolder = "/sdcard/Android/data/com.tandril.tellwick";
    const struct {
        const char* name;
        std::string target;  // made before each case; a folder unless `file`
        bool file;
        std::function<void()> write;
    } paths[] = {
        {"save", "/sdcard/Tellwick/config.json", true,
         [] { saveFile("/sdcard/Tellwick/config.json", "{}"); }},
        {"save on a card", "/storage/1A2B-3C4D/Tellwick/config.json", true,
         [] { saveFile("/storage/1A2B-3C4D/Tellwick/config.json", "{}"); }},
        {"secure copy", secureFolder + "config.json", true,
         [] { copyConfigFileToSecurePath("/data/config.json"); }},
        {"quicktap switch", "/sdcard/Tellwick/config.json", true,
         [] { copyQuickTapConfigFilePath(); }},
        {"bug report copy", "/sdcard/Tellwick/TwBugreport-x.zip", true,
         [] { copyFile("/data/config.json", "/sdcard/Tellwick/TwBugreport-x.zip"); }},
        {"deletion", "/sdcard/Tellwick/logs/b.txt", true,
         [] { deleteLogFilesUnsecure("/sdcard/Tellwick/logs", 0); }},
        {"data deletion", "/sdcard/Tellwick/logs/b.txt", true,
         [] { deleteUnsecureLogData("/sdcard/Tellwick/logs"); }},
        {"backup deletion", "/sdcard/Tellwick/SecureBackup1.zip", true,
         [] { deleteSecureBackup("/sdcard/Tellwick/"); }},
        {"layout removal", secureFolder + "a.log", true,
         [] {
             removeSecureLogs("/sdcard/");
             deleteLogFilesSecure("/sdcard/", 0);
         }},
        {"remove_all", "/sdcard/Tellwick/logs/inner", false,
         [] { remove_all("/sdcard/Tellwick/logs/inner"); }},
        {"mkdir_all", "/sdcard/Tellwick/logs/inner", false,
         [] { mkdir_all("/sdcard/Tellwick/logs/inner/x/"); }},
        {"chown", appFolder, false,
         [this] {
             p.setProperty("persist.sys.vd.secure_mode", "true");
             getDefaultDirectory();
         }},
    };
    p.writeFile("/data/config.json", "{}");
    for (const auto& path : paths) {
        const std::vector<std::string> parts = vigild::storage::splitPath(path.target).parts;
        std::string planted;
        for (size_t i = 0; i < parts.size(); i++) {
            planted += "/" + parts[i];
            if (vigild::storage::isTrustedComponent(parts, i)) continue;
            SCOPED_TRACE(std::string(path.name) + ": link at " + planted);
            std::error_code ec;
            fsys::remove_all(p.hostPath("/sdcard"), ec);
            fsys::remove_all(p.hostPath("/storage"), ec);
            if (path.file) {
                p.writeFile(path.target, "log");
            } else {
                p.makeDir(path.target);
            }
            fsys::remove_all(p.hostPath(planted), ec);
            const bool last = i + 1 == parts.size();
            fsys::create_symlink(canary.path() + (last && path.file ? "/config.json" : ""),
                                 p.hostPath(planted));
            p.setProperty("persist.sys.vd.secure_mode", "false");
            const size_t commandsBefore = p.processes().commands().size();
            path.write();
            EXPECT_TRUE(canary.intact());
            EXPECT_EQ(p.processes().commands().size(), commandsBefore);
        }
    }
}

// Deep trees: a walk that recursed without a bound would overflow the stack, one that held
// every level open would run out of descriptors.
TEST_F(HostileStorageTest, DeepTreesEndCleanlyWithoutLeakingDescriptors) {
    const int depth = longRun() ? 20000 : 1000;
    auto plantDeep = [&] {
        int fd = open(p.hostPath("/sdcard/Tellwick/").c_str(), O_RDONLY | O_DIRECTORY);
        ASSERT_GE(fd, 0);
        for (int i = 0; i < depth; i++) {
            ASSERT_EQ(mkdirat(fd, "d", 0755), 0);
            int next = openat(fd, "d", O_RDONLY | O_DIRECTORY);
            close(fd);
            fd = next;
            ASSERT_GE(fd, 0);
        }
        int file = openat(fd, "log.txt", O_CREAT | O_WRONLY, 0644);
        close(file);
        close(fd);
    };
    const int fdsBefore = openDescriptors();

    plantDeep();
    int result = 0;
    ASSERT_TRUE(finishesWithin([&] { result = remove_all("/sdcard/Tellwick/d"); }, 60s));
    EXPECT_EQ(result, 0);
    EXPECT_FALSE(p.exists("/sdcard/Tellwick/d"));

    // The log deletion walks stop at a depth no log tree has, and say so.
    plantDeep();
    ASSERT_TRUE(
        finishesWithin([&] { result = deleteLogFilesUnsecure("/sdcard/Tellwick", 0); }, 60s));
    EXPECT_LT(result, 0);
    ASSERT_TRUE(finishesWithin([&] { result = deleteUnsecureLogData("/sdcard/Tellwick"); }, 60s));
    EXPECT_EQ(result, -1);
    EXPECT_TRUE(p.log().contains("deleteUnsecureLogData::Failed to delete directory", kLogError));
    EXPECT_EQ(remove_all("/sdcard/Tellwick/d"), 0);

    EXPECT_EQ(openDescriptors(), fdsBefore);
}

TEST_F(HostileStorageTest, WideTreesAreEmptied) {
    const int entries = longRun() ? 100000 : 5000;
    const std::string folder = p.hostPath("/sdcard/Tellwick/wide");
    auto plantWide = [&] {
        fsys::create_directories(folder + "/sub");
        int fd = open(folder.c_str(), O_RDONLY | O_DIRECTORY);
        ASSERT_GE(fd, 0);
        for (int i = 0; i < entries; i++) {
            std::string name = (i % 2 == 0 ? "f" : "sub/f") + std::to_string(i);
            int file = openat(fd, name.c_str(), O_CREAT | O_WRONLY, 0644);
            ASSERT_GE(file, 0);
            close(file);
        }
        close(fd);
    };
    const int fdsBefore = openDescriptors();
    for (int which = 0; which < 3; which++) {
        plantWide();
        int result = 1;
        ASSERT_TRUE(finishesWithin(
            [&] {
                if (which == 0) result = remove_all("/sdcard/Tellwick/wide");
                if (which == 1) result = deleteLogFilesUnsecure("/sdcard/Tellwick/wide", 0);
                if (which == 2) result = deleteUnsecureLogData("/sdcard/Tellwick/wide");
            },
            120s));
        EXPECT_EQ(result, 0) << which;
        std::error_code ec;
        EXPECT_TRUE(!fsys::exists(folder) || fsys::is_empty(folder)) << which;
        fsys::remove_all(folder, ec);
    }
    EXPECT_EQ(openDescriptors(), fdsBefore);
}

// The card pulled out (its folder removed) while an archive is copied onto it: the copy ends
// either way, holds nothing open afterwards and recreates nothing anywhere.
TEST_F(HostileStorageTest, CardRemovedDuringACopy) {
    p.writeFile("/bugreports/bugreport-big.zip", std::string(4 << 20, 'z'));
    const std::string card = p.hostPath("/storage/1A2B-3C4D");
    const int fdsBefore = openDescriptors();
    int copied = 0;
    for (int i = 0; i < 20; i++) {
        fsys::create_directories(card + "/Tellwick");
        std::atomic<bool> stop{false};
        std::thread remover([&] {
            std::error_code ec;
            while (!stop.load() && fsys::exists(card, ec)) fsys::remove_all(card, ec);
        });
        ASSERT_TRUE(finishesWithin(
            [&] {
                copied += copyFile("/bugreports/bugreport-big.zip",
                                   "/storage/1A2B-3C4D/Tellwick/TwBugreport-big.zip");
            },
            30s));
        stop = true;
        remover.join();
        std::error_code ec;
        fsys::remove_all(card, ec);
    }
    std::set<std::string> top;
    for (const auto& e : fsys::directory_iterator(p.root())) top.insert(e.path().filename());
    EXPECT_EQ(top, (std::set<std::string>{"bugreports", "sdcard", "storage"}));
    EXPECT_EQ(p.readFile("/bugreports/bugreport-big.zip").size(), 4u << 20);
    EXPECT_EQ(openDescriptors(), fdsBefore);
    RecordProperty("copies_finished_before_removal", copied);
}

// The bug report tool names its archive; the daemon copies and removes only what can be one:
// a regular file named by an absolute path without "..".
TEST_F(HostileStorageTest, BugreportToolNamingOtherFilesTouchesNothing) {
    vdstandin::StandinService service(p.root());
    ASSERT_TRUE(service.start());
    p.enableDebugLog();
    // A virtual clock step waits for the tool to end, so a slow start is not taken for a hang.
    p.clock().onSleep([](std::chrono::milliseconds) {
        siginfo_t info = {};
        waitid(P_ALL, 0, &info, WEXITED | WNOWAIT);
    });
    p.writeFile("/etc/passwd", "root:x:0:0");
    p.writeFile("/sdcard/Tellwick/config.json", "{}");
    p.makeDir("/bugreports/bugreport-dir.zip");
    fsys::create_symlink(p.hostPath("/etc/passwd"), p.hostPath("/bugreports/bugreport-l.zip"));
    const struct {
        const char* path;
        const char* error;
    } cases[] = {
        {"/../../etc/passwd", "Invalid argument"},
        {"/bugreports/../etc/bugreport-x", "Invalid argument"},
        {"/bugreports/bugreport-l.zip", "Invalid argument"},
        {"/bugreports/bugreport-dir.zip", "Invalid argument"},
        {"bugreport-relative.zip", "Invalid argument"},
        {"/bugreports/bugreport-gone.zip", "No such file or directory"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path);
        p.log().clear();
        p.setProperty("persist.sys.vd.tw_bugreport", "true");
        p.writeFile("/system/bin/bugreportz", std::string("#!/bin/sh\necho 'OK:") + c.path + "'\n");
        ASSERT_EQ(chmod(p.hostPath("/system/bin/bugreportz").c_str(), 0755), 0);
        EXPECT_EQ(bugreportPass(), kBugreportDone);
        EXPECT_TRUE(p.log().contains("Tw Bugreport::File copied failed", kLogError));
        EXPECT_TRUE(p.log().contains(
            std::string("Tw Bugreport::File deletion failed from src path ==  ") + c.error,
            kLogError));
        EXPECT_EQ(p.readFile("/etc/passwd"), "root:x:0:0");
        EXPECT_EQ(p.readFile("/sdcard/Tellwick/config.json"), "{}");
        EXPECT_TRUE(fsys::is_symlink(p.hostPath("/bugreports/bugreport-l.zip")));
        EXPECT_TRUE(fsys::is_directory(p.hostPath("/bugreports/bugreport-dir.zip")));
        EXPECT_FALSE(p.exists("/sdcard/Tellwick/TwBugreport-"));
    }
    EXPECT_EQ(service.bugreportStatuses(), std::vector<int>(std::size(cases), 0));

    // A regular file is the tool's archive whatever its name, as the worker's steps have it.
    p.writeFile("/data/report.zip", "zip");
    p.setProperty("persist.sys.vd.tw_bugreport", "true");
    p.writeFile("/system/bin/bugreportz", "#!/bin/sh\necho 'OK:/data/report.zip'\n");
    ASSERT_EQ(chmod(p.hostPath("/system/bin/bugreportz").c_str(), 0755), 0);
    EXPECT_EQ(bugreportPass(), kBugreportDone);
    EXPECT_EQ(p.readFile("/sdcard/Tellwick/TwBugreport-"), "zip");
    EXPECT_FALSE(p.exists("/data/report.zip"));
    EXPECT_EQ(service.bugreportStatuses().back(), 1);
}

// Something that is not a file where the configuration file should be.
class HostileConfigFileTest : public HostileStorageTest {
  protected:
    void SetUp() override {
        HostileStorageTest::SetUp();
        p.enableDebugLog();
    }
    std::string file() const { return p.hostPath("/sdcard/Tellwick/config.json"); }
};

TEST_F(HostileConfigFileTest, NoHangNoBlowUpAndTheLastGoodFileStays) {
    struct Case {
        const char* name;
        std::function<void(const std::string&)> plant;
        const char* readError;
    };
    const Case cases[] = {
        {"fifo", [](const std::string& f) { ASSERT_EQ(mkfifo(f.c_str(), 0644), 0); },
         "fileReader::not a regular file: /sdcard/Tellwick/config.json"},
        {"link to /dev/zero", [](const std::string& f) { fsys::create_symlink("/dev/zero", f); },
         "fileReader::could not open /sdcard/Tellwick/config.json: Too many levels of symbolic "
         "links"},
        {"link to /dev/urandom",
         [](const std::string& f) { fsys::create_symlink("/dev/urandom", f); },
         "fileReader::could not open /sdcard/Tellwick/config.json: Too many levels of symbolic "
         "links"},
        {"link outside",
         [this](const std::string& f) { fsys::create_symlink(canary.path() + "/config.json", f); },
         "fileReader::could not open /sdcard/Tellwick/config.json: Too many levels of symbolic "
         "links"},
        {"sparse 10 GiB",
         [](const std::string& f) {
             std::ofstream(f) << "{";
             ASSERT_EQ(truncate(f.c_str(), 10LL << 30), 0);
         },
         "fileReader::file too large: /sdcard/Tellwick/config.json (10737418240 bytes)"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        p.log().clear();
        std::error_code ec;
        fsys::remove(file(), ec);
        c.plant(file());

        EXPECT_TRUE(
            finishesWithin([] { delete[] fileReader("/sdcard/Tellwick/config.json"); }, 10s));
        EXPECT_TRUE(p.log().contains(c.readError, kLogError));
        int result = 0;
        EXPECT_TRUE(
            finishesWithin([&] { result = loadConfigFile("/sdcard/Tellwick/config.json"); }, 10s));
        EXPECT_TRUE(p.log().contains("config file load failed, load again", kLogError));
        EXPECT_TRUE(finishesWithin([] { watchConfig(); }, 10s));
        // Never written through: the link and the FIFO stay; the regular file holds the
        // defaults again.
        struct stat st;
        ASSERT_EQ(lstat(file().c_str(), &st), 0);
        if (c.name[0] == 'f') {
            EXPECT_TRUE(S_ISFIFO(st.st_mode));
        } else if (c.name[0] == 'l') {
            EXPECT_TRUE(S_ISLNK(st.st_mode));
        } else {
            EXPECT_TRUE(S_ISREG(st.st_mode));
            EXPECT_LT(st.st_size, 1 << 20);
            EXPECT_EQ(p.readFile("/sdcard/Tellwick/config.json").front(), '{');
        }
        EXPECT_TRUE(canary.intact());
        fsys::remove(file(), ec);
    }
}

// Log folder values that pass a prefix test but lead elsewhere, or that hide characters.
class LogPathTest : public HostileStorageTest {
  protected:
    Module::config& addPath(const std::string& value) {
        modules_.push_back(std::make_unique<vigild::testing::FakeModule>("ANRModule"));
        moduleRegistry.emplace_back(modules_.back().get());
        Module::config c = {};
        c.name = "Log Path";
        c.type = "string";
        snprintf(c.defaultValue, sizeof(c.defaultValue), "%s", "/sdcard/Tellwick/anr/");
        snprintf(c.value, sizeof(c.value), "%s", value.c_str());
        moduleRegistry.back().settings.configs.push_back(c);
        return moduleRegistry.back().settings.configs.back();
    }
    std::vector<std::unique_ptr<vigild::testing::FakeModule>> modules_;
};

TEST_F(LogPathTest, ValuesLeadingElsewhereAreMovedToTheModuleFolder) {
    const std::string hostile[] = {
        "/sdcard/../../etc/",
        "/sdcard/Tellwick/../../../etc/",
        "/sdcard/..",
        "/storage/emulated/0/..",
        "/data/",
        "/sdcard/Tellwick/anr\n/",
        "/sdcard/Tellwick/\x01x/",
        "/sdcard/Tellwick/anr\x7f/",
        "/sdcard/Tellwick/\xE2\x80\x8B"
        "anr/",
        "/sdcard/Tellwick/anr/\xEF\xBB\xBF",
        "/sdcard/Tellwick/anr/ ",
        "/sdcard/Tellwick/ anr/",
        "/sdcard/Tellwick/\xC2\xA0/",
    };
    const std::string kept[] = {
        "/sdcard/Tellwick/anr/",  "/sdcard/Tellwick/my logs/", "/sdcard/Tellwick/caf\xC3\xA9/",
        "/sdcard/Tellwick/a..b/", "/sdcard/Tellwick/./anr/",
    };
    for (bool viaDefaults : {false, true}) {
        for (const std::string& value : hostile) {
            SCOPED_TRACE(::testing::PrintToString(value) + (viaDefaults ? " defaults" : " doc"));
            moduleRegistry.clear();
            Module::config& c = addPath(value);
            if (viaDefaults) {
                resetConfigFileForTesting();
                updateConfigDefault(false);
            } else {
                free(getConfig());
            }
            EXPECT_STREQ(c.value, "/sdcard/Tellwick/anr/");
            EXPECT_TRUE(isCleanLogPath(c.value));
        }
        for (const std::string& value : kept) {
            SCOPED_TRACE(value + (viaDefaults ? " defaults" : " doc"));
            moduleRegistry.clear();
            Module::config& c = addPath(value);
            if (viaDefaults) {
                updateConfigDefault(false);
            } else {
                free(getConfig());
            }
            EXPECT_EQ(c.value, value);
        }
    }
    // Persisted log file paths go through the same test.
    EXPECT_EQ(persistLogPathUpdate(false, "/sdcard/../etc/x", "/sdcard/"),
              "/sdcard/Tellwick/persist/");
    EXPECT_EQ(persistLogPathUpdate(true, "/sdcard/Tellwick/persist/bootlog", "/sdcard/"),
              "/sdcard/Tellwick/persist/bootlog");
}

}  // namespace
