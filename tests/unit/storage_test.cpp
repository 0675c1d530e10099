// Storage and log housekeeping: where logs go, deleting them and keeping one layout per storage
// root, the bug report capture and the file helpers, on storage an app can write to and turn
// against the daemon (links planted before or during a walk, files that are not files, trees
// too deep, a full disk, a tool that hangs or names other files).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <set>
#include <sstream>
#include <thread>

#include "config/config_file.h"
#include "config/document.h"
#include "core/daemon_state.h"
#include "core/log.h"
#include "core/module_registry.h"
#include "fakes/fake_module.h"
#include "fakes/test_platform.h"
#include "platform/fs.h"
#include "quicktap/quicktap.h"
#include "standin/standin_service.h"
#include "storage/bugreport.h"
#include "storage/log_deletion.h"
#include "storage/storage_root.h"
#include "storage/tree.h"
#include "storage/utility.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using vigild::testing::finishesWithin;
using vigild::testing::TestPlatform;

const std::string kSecure = "Android/data/com.tandril.tellwick/Tellwick/secure/log_data/";
const std::string kChown = "chown -R system:ext_data_rw /sdcard/Android/data/com.tandril.tellwick/";

std::vector<std::string> words(const std::string& text) {
    std::istringstream in(text);
    return {std::istream_iterator<std::string>(in), {}};
}

// A folder outside the storage roots with files named like logs, for links to lead to, and
// what it holds, to see that nothing there changed.
std::string outside(TestPlatform& p, bool plant = false) {
    for (const auto& file : words("b.txt inner/c.txt config.json Backup9.zip secret")) {
        if (plant) p.writeFile("/outside/" + file, "outside");
    }
    std::set<std::string> entries;
    for (const auto& e : fs::recursive_directory_iterator(p.hostPath("/outside"))) {
        const std::string path = e.path().string().substr(p.root().size());
        entries.insert(path + "=" + (e.is_regular_file() ? p.readFile(path) : "folder"));
    }
    return ::testing::PrintToString(entries);
}

long openDescriptors() { return std::distance(fs::directory_iterator("/proc/self/fd"), {}); }

// Swaps each named folder for a link to "/outside" the moment a walk logs its path ("remove
// /sdcard/Tellwick//sub"): after the walk has read the entry as a folder, before it goes in.
struct LinkWhenLogged : vigild::platform::LogSink {
    LinkWhenLogged(TestPlatform& p, std::set<std::string> folders)
        : p(p), folders(std::move(folders)) {
        vigild::platform::current().log = this;
    }
    ~LinkWhenLogged() override { vigild::platform::current().log = next; }
    void write(int priority, const char* tag, const char* text) override {
        next->write(priority, tag, text);
        std::string path = strchr(text, '/') ? strchr(text, '/') : "";
        for (size_t at; (at = path.find("//")) != std::string::npos;) path.erase(at, 1);
        if (folders.erase(path) == 0) return;
        fs::rename(p.hostPath(path), p.hostPath("/m" + std::to_string(folders.size())));
        fs::create_directory_symlink(p.hostPath("/outside"), p.hostPath(path));
    }
    TestPlatform& p;
    std::set<std::string> folders;  // still to swap
    vigild::platform::LogSink* const next = vigild::platform::current().log;
};

// Each row starts from a log in both layouts on internal storage and, with a card, on the
// card, and sets properties ("persist.sys.vd." left out). `kept` names the logs still there
// afterwards, i(nternal) or c(ard) and T(ellwick) or S(ecure), and "chown" when the app's
// folder was handed to its group.
TEST(StorageRootTest, RootAndLayoutByModeCardAndProperties) {
    // clang-format off
    const struct {
        const char *properties, *card, *root, *kept;
    } cases[] = {
        // Nothing chosen yet: no folder is touched.
        {"", nullptr, "/sdcard/", "iS iT"},
        {"storage_path=/data/logs/", nullptr, "/sdcard/", "iT"},
        // Secure mode empties the normal layout.
        {"storage_path=/sdcard/ secure_mode=true ro.tandril.platform.name=cedar2", nullptr, "/sdcard/", "iS chown"},
        {"storage_path=/sdcard/ secure_mode=true ro.tandril.platform.name=cedar", nullptr, "/sdcard/", "iS"},
        {"storage_path=/sdcard/ internal_sd=false", "1a2b-3c4d", "/storage/1a2b-3c4d/", "cT iT"},
        {"storage_path=/sdcard/", "1A2B3C4D", "/sdcard/", "cS cT iT"},
        {"storage_path=/sdcard/ internal_sd=true", "1A2B-3C4D", "/sdcard/", "cS cT iT"},
        // Secure logs go on a card only when it is encrypted.
        {"storage_path=/sdcard/ secure_mode=true vold.sdcard.state=mounted", "1A2B-3C4D", "/sdcard/", "cS cT iS chown"},
        {"storage_path=/sdcard/ secure_mode=true vold.sdcard.state=encrypted", "1A2B-3C4D", "/storage/1A2B-3C4D/", "cS iS"}};
    // clang-format on
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.properties) + " card " + (c.card ? c.card : "none"));
        TestPlatform p;
        std::map<std::string, std::string> logs = {{"iT", "/sdcard/Tellwick/old.log"},
                                                   {"iS", "/sdcard/" + kSecure + "old.log"}};
        if (c.card) {
            logs["cT"] = std::string("/storage/") + c.card + "/Tellwick/old.log";
            logs["cS"] = std::string("/storage/") + c.card + "/" + kSecure + "old.log";
        }
        for (const auto& [code, file] : logs) p.writeFile(file, "x");
        p.makeDir("/storage/emulated");
        for (const auto& set : words(c.properties)) {
            const std::string key = set.substr(0, set.find('='));
            const bool own = key.find('.') == std::string::npos;
            p.setProperty((own ? "persist.sys.vd." : "") + key, set.substr(key.size() + 1));
        }

        EXPECT_EQ(getDefaultDirectory(), c.root);

        EXPECT_EQ(p.property("persist.sys.vd.storage_path", "-"), *c.properties ? c.root : "-");
        std::string kept;
        for (const auto& [code, file] : logs) kept += p.exists(file) ? code + " " : "";
        for (const auto& run : p.processes().commands()) kept += run == kChown ? "chown " : run;
        EXPECT_EQ(kept, c.kept + std::string(" "));
    }
}

TEST(StorageRootTest, CardThatComesAndGoesWhileThreadsResolve) {
    TestPlatform p;
    p.setProperty("persist.sys.vd.storage_path", "/sdcard/");
    p.makeDir("/storage/1A2B-3C4D");
    auto resolve = [] {
        for (int i = 0; i < 25; i++) EXPECT_EQ(getDefaultDirectory(), "/storage/1A2B-3C4D/");
    };
    std::thread others[] = {std::thread(resolve), std::thread(resolve), std::thread(resolve)};
    resolve();
    for (auto& t : others) t.join();
    // Pulled out: the property still names it, so the card path comes back while the folders
    // are made on internal storage.
    fs::remove_all(p.hostPath("/storage/1A2B-3C4D"));
    EXPECT_EQ(getDefaultDirectory(), "/storage/1A2B-3C4D/");
    EXPECT_TRUE(p.exists("/sdcard/Tellwick"));
    EXPECT_FALSE(p.exists("/storage/1A2B-3C4D"));
    // A file on a card that is not there yet waits five tries for the card to mount.
    EXPECT_FALSE(isFileExistsExtSDcard("/storage/1A2B-3C4D/config.json"));
    EXPECT_EQ(p.clock().sleeps(), std::vector<std::chrono::milliseconds>(4, 5s));
    p.clock().onSleep([&](std::chrono::milliseconds) { p.makeDir("/storage/1A2B-3C4D"); });
    EXPECT_TRUE(isFileExistsExtSDcard("/storage/1A2B-3C4D/config.json"));
    EXPECT_FALSE(isFileExistsExtSDcard("/sdcard/Tellwick/missing.txt"));
    EXPECT_EQ(p.clock().sleeps().size(), 5u);
}

// A module's folder, by its name in any case (one row per kind: the lookup is one branch); a
// name that only starts like one is unknown; "TellwickLTS/" sits beside the normal layout.
TEST(StorageRootTest, ModuleLogFolders) {
    TestPlatform p;
    const auto rows = words(
        "btsnooplogmodule btsnooplog/ QXDMMODULE qxdm/logs/ ANRModule2 . LTSModule TellwickLTS/");
    for (size_t i = 0; i < rows.size(); i += 2) {
        const std::string folder = rows[i + 1] == "." ? "" : rows[i + 1];
        p.setProperty("persist.sys.vd.secure_mode", "false");
        EXPECT_EQ(returnCorrectedLogPath(rows[i], "/r/"),
                  (rows[i] == "LTSModule" ? "/r/" : "/r/Tellwick/") + folder);
        p.setProperty("persist.sys.vd.secure_mode", "true");
        EXPECT_EQ(returnCorrectedLogPath(rows[i], "/r/"), "/r/" + kSecure + folder);
    }
}

// The companion service answering and "/sdcard/" chosen as the storage root.
class StorageTest : public ::testing::Test {
  protected:
    void SetUp() override {
        p.enableDebugLog();
        ASSERT_TRUE(service.start());
        p.setProperty("persist.sys.vd.storage_path", "/sdcard/");
    }
    TestPlatform p;
    vdstandin::StandinService service{p.root()};
};
using LogDeletionTest = StorageTest;

// "delete_logs" as the companion service asks for it, in both layouts, each case once as it is
// and once with the walked folders swapped for links to outside (whose content then is out of
// the tree). Paths are below "/sdcard/Tellwick/", "S/" below the secure folder; "big/" holds
// more than one directory read.
TEST_F(LogDeletionTest, DeleteTypeByLayoutWithAndWithoutLinks) {
    constexpr int kNoService = 99;
    // clang-format off
    const struct {
        int type;
        const char *normal, *secure;  // what stays
    } cases[] = {
        {0, "TwInfo.txt config.json", "TwInfo.txt config.json"},
        {1, "TwInfo.txt config.json Backup1.zip sub/Backup2.zip", "TwInfo.txt config.json SecureBackup1.zip"},
        {2, "TwInfo.txt config.json config.json.rejected log.txt sub/a.log big/0.log", "TwInfo.txt config.json S/a.log S/modem/m.log"},
        {3, "TwInfo.txt config.json Backup1.zip sub/Backup2.zip", "TwInfo.txt config.json SecureBackup1.zip"},
        {kNoService, "TwInfo.txt config.json", "TwInfo.txt config.json"}};
    // clang-format on
    p.setProperty("ro.tandril.platform.name", "cedar");
    auto path = [](const std::string& name) {
        return name.rfind("S/", 0) == 0 ? "/sdcard/" + kSecure + name.substr(2)
                                        : "/sdcard/Tellwick/" + name;
    };
    const auto names = words(
        "TwInfo.txt config.json config.json.rejected Backup1.zip log.txt SecureBackup1.zip "
        "SecureBackup1.txt sub/a.log sub/Backup2.zip big/0.log S/a.log S/modem/m.log");
    for (const auto& c : cases) {
        if (c.type == kNoService) service.stop();
        service.updateAnswers([&](vdstandin::DeviceAnswers& a) { a.deleteLogsParam = c.type; });
        for (int run = 0; run < 4; run++) {
            const bool secure = run & 1, link = run & 2;
            SCOPED_TRACE(testing::Message() << "type " << c.type << " secure " << secure << link);
            for (const char* top : {"/sdcard", "/outside", "/m0", "/m1"})
                fs::remove_all(p.hostPath(top));
            for (const auto& name : names) p.writeFile(path(name), "log");
            for (int i = 1; i < 200 && !link && !secure && c.type % 2 == 0; i++) {
                std::ofstream(p.hostPath(path("big/")) + std::to_string(i) +
                              "-a-log-file-with-a-name-long-enough-to-fill-more-than-one-read");
            }
            p.makeDir(path("empty/deeper"));
            const std::string before = outside(p, true);
            p.setProperty("persist.sys.vd.secure_mode", secure ? "true" : "false");
            p.log().clear();
            std::set<std::string> linked;
            if (link) linked = {"/sdcard/Tellwick/sub", "/sdcard/" + kSecure + "modem"};
            // Type 2 leaves the secure folder alone.
            if (secure && c.type == 2) linked.erase("/sdcard/" + kSecure + "modem");
            LinkWhenLogged swap(p, linked);

            deleteTwLogs();

            EXPECT_EQ(swap.folders, std::set<std::string>());  // the walks went into each
            const auto kept = words(secure ? c.secure : c.normal);
            std::set<std::string> expected(kept.begin(), kept.end()), left;
            for (const auto& name : names) {
                const std::string file = path(name);
                // What was behind a link is outside the tree now.
                if (linked.count(file.substr(0, file.rfind('/')))) expected.erase(name);
                if (p.exists(file)) left.insert(name);
            }
            EXPECT_EQ(left, expected);
            EXPECT_EQ(p.exists(path("big")), c.type == 2 && !secure);
            EXPECT_FALSE(p.exists(path("empty")));
            EXPECT_EQ(outside(p), before);
            EXPECT_EQ(p.log().contains("Failed to obtain a handle on vd_service", kLogError),
                      c.type == kNoService);
        }
    }
}

TEST_F(LogDeletionTest, EdgesOfTheWalks) {
    // From internal storage, the card to clean is the one the companion service names.
    p.writeFile("/storage/1A2B-3C4D/Tellwick/SecureBackup1.zip", "x");
    for (int present : {0, 1}) {
        service.updateAnswers([&](vdstandin::DeviceAnswers& a) {
            a.sdcardPresent = present;
            a.sdcardPath = "/storage/1A2B-3C4D/";
        });
        removeSecureLogs("/sdcard/");
        EXPECT_EQ(p.exists("/storage/1A2B-3C4D/Tellwick/SecureBackup1.zip"), present == 0);
    }
    // A file in place of the top folder goes.
    p.writeFile("/sdcard/other.txt", "x");
    EXPECT_EQ(deleteLogFilesUnsecure("/sdcard/other.txt", 0), -1);
    EXPECT_FALSE(p.exists("/sdcard/other.txt"));
    // Taking over for secure mode stops at a folder it cannot empty.
    p.writeFile("/sdcard/Tellwick/a/config.json", "{}");
    EXPECT_EQ(deleteUnsecureLogData("/sdcard/Tellwick/"), -1);
    EXPECT_TRUE(p.log().contains("deleteUnsecureLogData::Failed to remove directory", kLogError));

    fs::remove_all(p.hostPath("/sdcard/Tellwick/a"));
    // Deep trees: a walk that recursed without a bound would overflow the stack, one that held
    // every level open would run out of descriptors. The log walks stop at a depth no log tree
    // has; remove_all goes to the end, holding far fewer descriptors than levels.
    std::string deep = p.hostPath("/sdcard/Tellwick");
    for (int i = 0; i < 1000; i++) deep += "/d";
    ASSERT_TRUE(fs::create_directories(deep));
    const long before = openDescriptors();
    EXPECT_EQ(deleteLogFilesUnsecure("/sdcard/Tellwick", 0), -1);
    EXPECT_EQ(deleteUnsecureLogData("/sdcard/Tellwick"), -1);
    EXPECT_TRUE(p.log().contains("deleteUnsecureLogData::Failed to delete directory", kLogError));
    struct rlimit saved;
    getrlimit(RLIMIT_NOFILE, &saved);
    const struct rlimit limited = {static_cast<rlim_t>(before + 100), saved.rlim_max};
    setrlimit(RLIMIT_NOFILE, &limited);
    const int removed = remove_all("/sdcard/Tellwick/d");
    setrlimit(RLIMIT_NOFILE, &saved);
    EXPECT_EQ(removed, 0);
    EXPECT_FALSE(p.exists("/sdcard/Tellwick/d"));
    EXPECT_EQ(openDescriptors(), before);
}

// "Internal storage only" goes with the other settings, so the document is saved on the card
// it frees (values back to defaults: CoreTest, ConfigTest; the secure copy: ConfigTest).
TEST_F(LogDeletionTest, ResetToDefaultSavesWhatItSendsOnTheFreedCard) {
    p.setProperty("persist.sys.vd.internal_sd", "true");
    p.makeDir("/storage/1A2B-3C4D");
    resetToDefault();
    EXPECT_EQ(p.property("persist.sys.vd.internal_sd"), "false");
    ASSERT_EQ(service.configs().size(), 1u);
    EXPECT_EQ(service.configs()[0], p.readFile("/storage/1A2B-3C4D/Tellwick/config.json"));
}

// A link to outside put in place of each folder below the storage root (and of the last entry)
// on the way of every write the daemon makes there: nothing outside is written, removed,
// created or handed to chown.
TEST(HostileStorageTest, ALinkAtAnyComponentOfAWritePathLeadsNowhere) {
    TestPlatform p;
    // Each path is made before its write: a file, or a folder when it ends in "/".
    // clang-format off
    const std::pair<std::string, std::function<void()>> cases[] = {
        {"/sdcard/Tellwick/config.json", [] { saveFile("/sdcard/Tellwick/config.json", "{}"); }},
        {"/storage/1A2B-3C4D/Tellwick/config.json", [] { saveFile("/storage/1A2B-3C4D/Tellwick/config.json", "{}"); }},
        {"/sdcard/" + kSecure + "config.json", [] { copyConfigFileToSecurePath("/data/config.json"); }},
        {"/sdcard/Tellwick/config.json", [] { copyQuickTapConfigFilePath(); }},
        {"/sdcard/Tellwick/TwBugreport-x.zip", [] { copyFile("/data/config.json", "/sdcard/Tellwick/TwBugreport-x.zip"); }},
        {"/sdcard/Tellwick/logs/b.txt", [] { deleteLogFilesUnsecure("/sdcard/Tellwick/logs", 0); }},
        {"/sdcard/Tellwick/logs/b.txt", [] { deleteUnsecureLogData("/sdcard/Tellwick/logs"); }},
        {"/sdcard/Tellwick/SecureBackup1.zip", [] { deleteSecureBackup("/sdcard/Tellwick/"); }},
        {"/sdcard/" + kSecure + "a.log", [] { removeSecureLogs("/sdcard/"); }},
        {"/sdcard/Tellwick/logs/inner/", [] { remove_all("/sdcard/Tellwick/logs/inner"); }},
        {"/sdcard/Tellwick/logs/inner/", [] { mkdir_all("/sdcard/Tellwick/logs/inner/x/"); }},
        {"/sdcard/Android/data/com.tandril.tellwick/", [&p] { p.setProperty("persist.sys.vd.secure_mode", "true"); getDefaultDirectory(); }}};
    // clang-format on
    p.writeFile("/data/config.json", "{}");
    for (const auto& [target, write] : cases) {
        const std::vector<std::string> parts = vigild::storage::splitPath(target).parts;
        std::string planted;
        for (size_t i = 0; i < parts.size(); i++) {
            planted += "/" + parts[i];
            if (vigild::storage::isTrustedComponent(parts, i)) continue;
            SCOPED_TRACE(target + ": link at " + planted);
            for (const char* top : {"/sdcard", "/storage", "/outside"})
                fs::remove_all(p.hostPath(top));
            target.back() == '/' ? p.makeDir(target) : p.writeFile(target, "log");
            const std::string before = outside(p, true);
            fs::remove_all(p.hostPath(planted));
            const bool file = i + 1 == parts.size() && target.back() != '/';
            fs::create_symlink(p.hostPath(file ? "/outside/config.json" : "/outside"),
                               p.hostPath(planted));
            p.setProperty("persist.sys.vd.secure_mode", "false");
            p.setProperty("persist.sys.vd.storage_path", "/sdcard/");
            const size_t commands = p.processes().commands().size();
            write();
            EXPECT_EQ(outside(p), before);
            EXPECT_EQ(p.processes().commands().size(), commands);
        }
    }
}

// Log folder values that could lead elsewhere or hide what they name are moved to the module's
// folder, whether they come in a document or from the file's defaults.
TEST(HostileStorageTest, LogFolderValuesLeadingElsewhere) {
    std::istringstream list(
        "/sdcard/Tellwick/my logs/|/sdcard/Tellwick/caf\xC3\xA9/|/sdcard/Tellwick/a..b/|"
        "/sdcard/Tellwick/./anr/|/sdcard/../../etc/|/storage/emulated/0/..|"
        "/sdcard/Tellwick/anr\n/|/sdcard/Tellwick/anr\x7f/|/sdcard/Tellwick/\xE2\x80\x8B\x61nr/|"
        "/sdcard/Tellwick/anr/\xEF\xBB\xBF|/sdcard/Tellwick/anr/ |/sdcard/Tellwick/ anr/|"
        "/sdcard/Tellwick/\xC2\xA0/");
    TestPlatform p;
    p.setProperty("persist.sys.vd.storage_path", "/sdcard/");
    vigild::testing::FakeModule module("ANRModule");
    int row = 0;
    for (std::string value; std::getline(list, value, '|'); row++) {
        const bool clean = row < 4;  // the first four name what they show
        EXPECT_EQ(isCleanLogPath(value), clean) << testing::PrintToString(value);
        for (bool fromDefaults : {false, true}) {
            vigild::testing::registerModule(module).settings.configs = {
                vigild::testing::makeSetting("Log Path", "string", value.c_str())};
            Module::config& c = moduleRegistry.back().settings.configs[0];
            snprintf(c.defaultValue, sizeof(c.defaultValue), "/sdcard/Tellwick/anr/");
            fromDefaults ? updateConfigDefault(false) : free(getConfig());
            EXPECT_EQ(c.value, clean ? value : "/sdcard/Tellwick/anr/") << fromDefaults;
            moduleRegistry.clear();
        }
    }
}

// A folder, a link to outside and a FIFO where files are looked for.
class FileTest : public ::testing::Test {
  protected:
    void SetUp() override {
        p.enableDebugLog();
        outside(p, true);
        p.makeDir("/sdcard/dir");
        link(p.hostPath("/outside/secret"), "/sdcard/link");
        ASSERT_EQ(mkfifo(p.hostPath("/sdcard/fifo").c_str(), 0644), 0);
    }
    void link(const std::string& hostTarget, const std::string& devicePath) {
        fs::create_directories(fs::path(p.hostPath(devicePath)).parent_path());
        ASSERT_EQ(symlink(hostTarget.c_str(), p.hostPath(devicePath).c_str()), 0);
    }
    TestPlatform p;
};

// Only a regular file of bounded size is read; nothing hangs on a FIFO.
TEST_F(FileTest, FileReader) {
    p.writeFile("/sdcard/config.json", "{}");
    p.writeFile("/sdcard/big", "");
    p.writeFile("/sdcard/huge", "");
    ASSERT_EQ(truncate(p.hostPath("/sdcard/big").c_str(), kFileReaderLimit), 0);
    ASSERT_EQ(truncate(p.hostPath("/sdcard/huge").c_str(), kFileReaderLimit + 1), 0);
    for (const auto& [path, result] : std::initializer_list<std::pair<const char*, std::string>>{
             // clang-format off
             {"/sdcard/config.json", "{}"},
             {"/sdcard/big", ""},  // at the limit: read
             {"/sdcard/link", "fileReader::could not open /sdcard/link: Too many levels of symbolic links"},
             {"/sdcard/dir", "fileReader::not a regular file: /sdcard/dir"},
             {"/sdcard/fifo", "fileReader::not a regular file: /sdcard/fifo"},
             {"/sdcard/huge", "fileReader::file too large: /sdcard/huge (16777217 bytes)"}}) {
        // clang-format on
        p.log().clear();
        std::string got = "<hung>";
        EXPECT_TRUE(finishesWithin(
            [&, path = path] { got = std::unique_ptr<char[]>(fileReader(path)).get(); }, 10s));
        EXPECT_EQ(got, result.front() == '{' ? result : "") << path;
        EXPECT_EQ(p.log().lines().size(), result.front() == 'f' ? 1u : 0u) << path;
        EXPECT_TRUE(result.front() != 'f' || p.log().contains(result, kLogError)) << path;
    }
    bool fifo = false;
    ASSERT_TRUE(finishesWithin([&] { fifo = isFileExists("/sdcard/fifo"); }, 10s));
    EXPECT_TRUE(fifo);
}

TEST_F(FileTest, CopyFile) {
    const std::string before = outside(p);
    // Byte-exact past one copy chunk, and a longer file in its place is replaced whole; a hard
    // link there keeps its other name's content; a copy onto itself keeps the file.
    std::string data;  // NUL bytes included; no stretch of it repeats another
    for (int i = 0; data.size() < 3 * 1024 * 1024 + 7; i++) data += std::to_string(i) + '\0';
    p.writeFile("/data/bugreport.zip", data);
    p.writeFile("/sdcard/Tellwick/bugreport.zip", std::string(4 * 1024 * 1024, 'x'));
    EXPECT_TRUE(copyFile("/data/bugreport.zip", "/sdcard/Tellwick/bugreport.zip"));
    EXPECT_TRUE(p.readFile("/sdcard/Tellwick/bugreport.zip") == data);
    ASSERT_EQ(::link(p.hostPath("/outside/secret").c_str(), p.hostPath("/sdcard/hard").c_str()), 0);
    EXPECT_TRUE(copyFile("/data/bugreport.zip", "/sdcard/hard"));
    EXPECT_TRUE(copyFile("/data/bugreport.zip", "/data/bugreport.zip"));
    EXPECT_TRUE(p.readFile("/data/bugreport.zip") == data);

    // Failures, each with its line, leave nothing behind. A disk that fills half-way: the first
    // write fails after half of it.
    const std::string open = "Error: Could not open source file: error == ";
    for (const auto& [source, destination, line] :
         std::initializer_list<std::tuple<const char*, const char*, std::string>>{
             // clang-format off
             {"/sdcard/missing", "/sdcard/out", open + "No such file or directory "},
             {"/sdcard/link", "/sdcard/out", open + "Too many levels of symbolic links "},
             {"/sdcard/dir", "/sdcard/out", open + "Is a directory "},
             {"/sdcard/fifo", "/sdcard/out", open + "Invalid argument "},
             {"/data/bugreport.zip", "/storage/1A2B-3C4D/Tellwick/x.zip", "Error: Could not open destination file: error == No such file or directory "},
             {"/data/bugreport.zip", "/sdcard/full", "Error: Could not copy file contents to: /sdcard/full"}}) {
        // clang-format on
        p.files().arm(std::string(destination) == "/sdcard/full" ? 1 : 0, ENOSPC);
        bool copied = true;
        ASSERT_TRUE(
            finishesWithin([&, s = source, d = destination] { copied = copyFile(s, d); }, 10s));
        EXPECT_FALSE(copied) << source;
        EXPECT_TRUE(p.log().contains(line)) << line;
    }
    // Tellwick, dir, link, fifo, hard
    EXPECT_EQ(std::distance(fs::directory_iterator(p.hostPath("/sdcard")), {}), 5);
    EXPECT_FALSE(p.exists("/storage"));
    EXPECT_EQ(outside(p), before);
}

TEST_F(FileTest, MkdirAllAndRemoveAll) {
    const std::string before = outside(p);
    // On a device a card's folder is a system link: it is followed, no other one is.
    p.makeDir("/mnt/card");
    link(p.hostPath("/mnt/card"), "/storage/1A2B-3C4D");
    for (const char* there : {"/sdcard/Tellwick/a/b/", "/sdcard//Tellwick/./a", "/", "/sdcard/fifo",
                              "/storage/1A2B-3C4D/Tellwick/"}) {
        EXPECT_EQ(mkdir_all(there), 0) << there;
    }
    EXPECT_TRUE(fs::is_directory(p.hostPath("/sdcard/Tellwick/a/b")));
    EXPECT_TRUE(fs::is_directory(p.hostPath("/mnt/card/Tellwick")));
    link(p.hostPath("/outside"), "/sdcard/Tellwick/linked");
    // A path over the limit, a way out of the root, a link as the folder to make (links on the
    // way: HostileStorageTest).
    for (const auto& [path, error] : std::initializer_list<std::pair<std::string, int>>{
             {"/sdcard/" + std::string(4096 - 8, 'a'), ENAMETOOLONG},
             {"/sdcard/../escape", EINVAL},
             {"/sdcard/Tellwick/linked/", ELOOP}}) {
        errno = 0;
        EXPECT_EQ(mkdir_all(path.c_str()), -1) << path.substr(0, 40);
        EXPECT_EQ(errno, error) << path.substr(0, 40);
    }
    EXPECT_FALSE(p.exists("/escape"));

    EXPECT_EQ(remove_all("/sdcard/missing"), -1);
    EXPECT_EQ(remove_all("/sdcard/fifo"), -1);  // not a directory: removed all the same
    EXPECT_FALSE(p.exists("/sdcard/fifo"));
    // Links inside go as links; one given as the path goes, and nothing behind it.
    p.writeFile("/sdcard/logs/sub/b.txt", "b");
    link(p.hostPath("/outside"), "/sdcard/logs/to_dir");
    link(p.hostPath("/outside/secret"), "/sdcard/logs/sub/to_file");
    EXPECT_EQ(remove_all("/sdcard/link"), -1);
    EXPECT_EQ(remove_all("/sdcard/logs/"), 0);
    EXPECT_FALSE(p.exists("/sdcard/logs"));
    EXPECT_FALSE(fs::is_symlink(p.hostPath("/sdcard/link")));
    EXPECT_EQ(outside(p), before);
}

bool hasChildren() { return waitpid(-1, nullptr, WNOHANG) != -1 || errno != ECHILD; }

class BugreportTest : public StorageTest {
  protected:
    void SetUp() override {
        StorageTest::SetUp();
        p.makeDir("/sdcard/Tellwick");
        p.setProperty("persist.sys.vd.tw_bugreport", "true");
        // Virtual time passes at once, so a tool still starting would count as hung: each
        // step waits (without reaping) until a child of this process has ended; the worker's
        // 30-second poll ends the test's run of it.
        p.clock().onSleep([](std::chrono::milliseconds d) {
            siginfo_t info = {};
            waitid(P_ALL, 0, &info, WEXITED | WNOWAIT);
            if (d == 30s) exitRequested = 1;
        });
    }
    void writeTool(const std::string& body) {
        p.writeFile("/system/bin/bugreportz", "#!/bin/sh\n" + body + "\n");
        ASSERT_EQ(chmod(p.hostPath("/system/bin/bugreportz").c_str(), 0755), 0);
    }
};

// What the tool prints decides what is filed: only a regular file named by an absolute path
// without ".." is copied and removed, and the service hears the outcome either way. The worker
// runs a report only for a request of exactly "true", and one per request.
TEST_F(BugreportTest, ToolOutputDecidesWhatIsFiled) {
    // clang-format off
    auto refused = [](const std::string& error) {
        return "Error: Could not open source file: error == " + error + " |Tw Bugreport::File copied failed|"
               "Tw Bugreport::File deletion failed from src path ==  " + error;
    };
    const std::string absent = "Tw Bugreport::bugreport file is not present";
    const struct {
        const char* script;  // nullptr: no tool at all
        int exit;
        const char* saved;  // where the archive was filed, or nothing
        std::string lines;  // expected log lines, "|" between them
    } cases[] = {
        {"echo 'Bugreport in progress'; echo 'OK:/bugreports/bugreport-dev-2020.zip'", 0, "/sdcard/Tellwick/TwBugreport-dev-2020.zip",
         "TwBugreportz::twBugreportSrcPath == /bugreports/bugreport-dev-2020.zip\n|Tw Bugreport::File copied successfully at destination|"
         "Tw Bugreport::File deleted successfully from src path|Tw Bugreport: bugreportz finished normally|"
         "Tw Bugreport: report saved as /sdcard/Tellwick/TwBugreport-dev-2020.zip"},
        // Any regular file is the tool's archive, whatever its name.
        {"echo 'OK:/data/report.zip'", 0, "/sdcard/Tellwick/TwBugreport-", ""},
        {"echo 'FAIL:no space left'", 3, nullptr, absent + "|Tw Bugreport: the tool named no archive; its last output line: "
                                                          "\"FAIL:no space left\"|Tw Bugreport: bugreportz failed with exit status 3"},
        {nullptr, 1, nullptr, absent},
        // Only the last chunk read counts.
        {"echo 'OK:/data/report.zip'; head -c 6000 /dev/zero | tr '\\0' x", 0, nullptr, absent},
        {"echo 'OK:/bugreports/bugreport-gone.zip'", 0, nullptr, refused("No such file or directory")},
        {"echo 'OK:/../../etc/passwd'", 0, nullptr, refused("Invalid argument")},
        {"echo 'OK:/bugreports/bugreport-link.zip'", 0, nullptr, refused("Invalid argument")},
        {"echo 'OK:/bugreports/bugreport-dir.zip'", 0, nullptr, refused("Invalid argument")},
        {"echo 'OK:bugreport-relative.zip'", 0, nullptr, refused("Invalid argument")}};
    // clang-format on
    p.writeFile("/etc/passwd", "root:x:0:0");
    p.makeDir("/bugreports/bugreport-dir.zip");
    fs::create_symlink(p.hostPath("/etc/passwd"), p.hostPath("/bugreports/bugreport-link.zip"));
    for (const auto& c : cases) {
        SCOPED_TRACE(c.script ? c.script : "no tool");
        p.log().clear();
        service.clearRecords();
        p.writeFile("/bugreports/bugreport-dev-2020.zip", "zip");
        p.writeFile("/data/report.zip", "zip");
        fs::remove(p.hostPath("/system/bin/bugreportz"));
        if (c.script) writeTool(std::string(c.script) + "\nexit " + std::to_string(c.exit));
        for (const char* request : {"TRUE", "true ", "true"}) {
            p.setProperty("persist.sys.vd.tw_bugreport", request);
            exitRequested = 0;
            generateBugreport();
        }

        EXPECT_EQ(service.bugreportStatuses(), (std::vector<int>{c.saved ? 1 : 0}));
        EXPECT_EQ(p.property("persist.sys.vd.tw_bugreport"), "false");
        EXPECT_TRUE(p.log().contains(
            "bugreportz exited with status: status == " + std::to_string(c.exit), kLogError));
        std::istringstream lines(c.lines);
        for (std::string line; std::getline(lines, line, '|');)
            EXPECT_TRUE(p.log().contains(line)) << line;
        if (c.saved) {
            EXPECT_EQ(p.readFile(c.saved), "zip");
            fs::remove(p.hostPath(c.saved));
        }
        // The archive named goes; nothing else is touched, nothing else is filed.
        EXPECT_EQ(p.exists("/bugreports/bugreport-dev-2020.zip") + p.exists("/data/report.zip"),
                  c.saved ? 1 : 2);
        EXPECT_TRUE(fs::is_empty(p.hostPath("/sdcard/Tellwick")));
        EXPECT_EQ(p.readFile("/etc/passwd"), "root:x:0:0");
        EXPECT_TRUE(fs::is_symlink(p.hostPath("/bugreports/bugreport-link.zip")));
        EXPECT_TRUE(fs::is_directory(p.hostPath("/bugreports/bugreport-dir.zip")));
    }
}

// A tool that keeps its output open is killed after ten minutes of platform time; one that
// closes it but stays gets a bounded grace, then is ended with its group.
TEST_F(BugreportTest, HangingToolsAreKilled) {
    writeTool("exec sleep 1000");  // exec: the killed process is the one holding the pipe
    p.clock().onSleep(nullptr);
    ASSERT_TRUE(finishesWithin([] { EXPECT_EQ(bugreportPass(), kBugreportDone); }, 10s));
    EXPECT_EQ(p.clock().sleeps(), std::vector<std::chrono::milliseconds>(600, 1s));
    EXPECT_TRUE(p.log().contains("bugreportz did not exit normally", kLogError));
    EXPECT_EQ(service.bugreportStatuses(), std::vector<int>{0});
    EXPECT_FALSE(hasChildren());

    // It inherits none of the daemon's descriptors.
    const int held = vigild::fs::open("/held", O_RDONLY | O_CREAT, 0644);
    const std::string closed = p.hostPath("/closed");
    // Output closed before the fork: a child still redirecting its copy would hold the pipe.
    writeTool("ls -l /proc/$$/fd > " + p.hostPath("/fds") +
              "\nexec >&- 2>&-\nsleep 1000 &\necho $! > " + p.hostPath("/grandchild") + "\ntouch " +
              closed + "\nexec sleep 1000");
    // Platform time stands still until the tool has closed its output.
    p.clock().onSleep([&](std::chrono::milliseconds) {
        vigild::testing::eventually([&] { return access(closed.c_str(), F_OK) == 0; }, 10s);
    });
    ASSERT_TRUE(finishesWithin([] { bugreportPass(); }, 10s));
    EXPECT_TRUE(p.log().contains(
        "Tw Bugreport::bugreportz closed its output but did not exit, killing it", kLogError));
    EXPECT_FALSE(hasChildren());
    EXPECT_EQ(p.readFile("/fds").find(p.hostPath("/held")), std::string::npos);
    close(held);
    // Gone, or a zombie waiting for init.
    auto goneOrZombie = [&] {
        std::ifstream in("/proc/" + std::to_string(std::stoi(p.readFile("/grandchild"))) + "/stat");
        std::string pid, name, state;
        return !(in >> pid >> name >> state) || state == "Z";
    };
    EXPECT_TRUE(vigild::testing::eventually(goneOrZombie, 10s));
}

// Without the service the child is reaped quietly and the archive waits for the next poll.
TEST_F(BugreportTest, WithoutTheServiceTheRequestStays) {
    service.stop();
    p.writeFile("/bugreports/bugreport-dev-2020.zip", "zip");
    writeTool("echo 'OK:/bugreports/bugreport-dev-2020.zip'");
    EXPECT_EQ(bugreportPass(), kBugreportNoService);
    EXPECT_TRUE(p.log().contains("Failed to obtain a handle on vd_service", kLogError));
    EXPECT_EQ(p.property("persist.sys.vd.tw_bugreport"), "true");
    EXPECT_TRUE(p.exists("/bugreports/bugreport-dev-2020.zip"));
    EXPECT_FALSE(hasChildren());
    EXPECT_FALSE(p.log().contains("bugreportz exited with status: status == 0"));
}

}  // namespace
