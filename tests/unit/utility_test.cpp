#include "storage/utility.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <memory>
#include <random>

#include "core/log.h"
#include "fakes/test_platform.h"

using vigild::testing::TestPlatform;
namespace fs = std::filesystem;

namespace {

class UtilityTest : public ::testing::Test {
  protected:
    void SetUp() override { p.enableDebugLog(); }

    // A host symlink at `devicePath` pointing to `target` (a host path).
    void link(const std::string& target, const std::string& devicePath) {
        fs::create_directories(fs::path(p.hostPath(devicePath)).parent_path());
        ASSERT_EQ(symlink(target.c_str(), p.hostPath(devicePath).c_str()), 0);
    }
    bool isDir(const std::string& devicePath) {
        return fs::is_directory(fs::symlink_status(p.hostPath(devicePath)));
    }
    // Reads within a bound so a FIFO without a writer cannot hang the test.
    std::string read(const char* path) {
        std::string got = "<hung>";
        EXPECT_TRUE(vigild::testing::finishesWithin(
            [&] {
                std::unique_ptr<char[]> owned(fileReader(path));
                got = owned ? std::string(owned.get()) : std::string("<null>");
            },
            std::chrono::seconds(10)))
            << path;
        return got;
    }
    void sized(const std::string& path, off_t size) {
        p.writeFile(path, "");
        ASSERT_EQ(truncate(p.hostPath(path).c_str(), size), 0);
    }

    TestPlatform p;
};

int countOpenFds() {
    auto it = fs::directory_iterator("/proc/self/fd");
    return static_cast<int>(std::distance(fs::begin(it), fs::end(it)));
}

// Runs `f` with the soft limit of `resource` set to `value`.
template <typename F>
auto withLimit(int resource, rlim_t value, F f) {
    struct rlimit saved, changed;
    getrlimit(resource, &saved);
    changed = saved;
    changed.rlim_cur = value;
    setrlimit(resource, &changed);
    auto result = f();
    setrlimit(resource, &saved);
    return result;
}

}  // namespace

TEST_F(UtilityTest, StringHelpers) {
    struct {
        std::string text, pattern;
        int32_t n;
        std::string expected;
    } cases[] = {
        {"/sdcard/Tellwick/", "/", 1, "/sdcard/"},
        {"/sdcard/Tellwick/", "/", 2, "/sdcard/Tellwick/"},
        {"/sdcard/Tellwick/", "/", 3, "UNKNOWN"},
        {"/sdcard/Tellwick/", "/", 0, "/"},
        {"/sdcard/Tellwick/", "/", -5, "/"},
        {"/storage/1A2B-3C4D/x", "/", 2, "/storage/1A2B-3C4D/"},
        {"abab", "ab", 1, "aba"},  // index 0 never counts
        {"abab", "ab", 2, "UNKNOWN"},
        {"", "/", 1, "UNKNOWN"},
        {"", "/", 0, ""},
        {"/", "/", 1, "UNKNOWN"},
        {"a", "", 1, "a"},  // an empty pattern matches at index 1
        {"a", "", 2, "UNKNOWN"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(substrNthPlace(c.text, c.pattern, c.n), c.expected)
            << c.text << " / " << c.pattern << " / " << c.n;
    }
    std::pair<std::string, std::string> trims[] = {
        {" \t abc\n", "abc"}, {"abc\r", "abc\r"}, {"  ", ""},         {"", ""},
        {"\n\t\n", ""},       {"a b", "a b"},     {"\ra\r", "\ra\r"}, {" x ", "x"},
    };
    for (const auto& [in, out] : trims) EXPECT_EQ(trim(in), out) << "[" << in << "]";

    EXPECT_EQ(truncateFromSubstring("A: B", ": "), "B");
    EXPECT_TRUE(
        p.log().contains("truncateFromSubstring::truncate string::return str == B", kLogDebug));
    EXPECT_EQ(truncateFromSubstring("OK:/data/a.zip:x", ":"), "/data/a.zip:x");
    EXPECT_EQ(truncateFromSubstring("A:", ":"), "");
    for (const char* pattern : {"", "missing"}) {
        p.log().clear();
        EXPECT_EQ(truncateFromSubstring("A: B", pattern), "");
        EXPECT_TRUE(p.log().contains("truncateFromSubstring::substring not found in orginal string",
                                     kLogError));
    }

    std::vector<std::string> out = {"stale"};
    createVector("a\n\nb\n", '\n', out, true);
    EXPECT_EQ(out, (std::vector<std::string>{"a", "b"}));
    createVector("a\n\nb\n", '\n', out, false);
    EXPECT_EQ(out, (std::vector<std::string>{"a", "", "b"}));
    createVector(",x,", ',', out, false);
    EXPECT_EQ(out, (std::vector<std::string>{"", "x"}));
    createVector("", ',', out, false);
    EXPECT_TRUE(out.empty());
}

TEST_F(UtilityTest, IsNumberInRange) {
    struct {
        int32_t value, a, b;
        bool expected;
    } cases[] = {
        {5, 3, 10, true},
        {3, 3, 10, true},
        {11, 10, 0, true},
        {10, 10, 0, false},
        {1, 10, 0, false},
        {0, 10, 0, true},
        {-1, 10, 0, true},
        {INT32_MIN, INT32_MAX, INT32_MIN, true},
        {INT32_MAX, INT32_MAX, INT32_MIN, false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(isNumberInRange(c.value, c.a, c.b), c.expected)
            << c.value << " " << c.a << " " << c.b;
    }
}

TEST_F(UtilityTest, PropertiesForwardToThePlatform) {
    char value[vigild::platform::kPropValueMax];
    EXPECT_EQ(getprop(value, "persist.sys.vd.autostart", "UNKNOWN"), 7);
    EXPECT_STREQ(value, "UNKNOWN");
    EXPECT_EQ(setprop("persist.sys.vd.autostart", "true"), 0);
    EXPECT_EQ(getprop(value, "persist.sys.vd.autostart", "UNKNOWN"), 4);
    EXPECT_STREQ(value, "true");
    EXPECT_EQ(p.property("persist.sys.vd.autostart"), "true");
}

TEST(UtilityDebugBuildTest, DebuggableOrSwitch) {
    struct {
        const char* debuggable;  // nullptr: unset
        bool debugLog, expected;
    } cases[] = {
        {nullptr, false, false}, {"1", false, true},     {"0", false, false},
        {"10", false, true},     {"true", false, false}, {"0", true, true},
    };
    for (const auto& c : cases) {
        TestPlatform p;
        if (c.debuggable != nullptr) p.setProperty("ro.debuggable", c.debuggable);
        if (c.debugLog) p.enableDebugLog();
        EXPECT_EQ(isDebugBuildorDebugEnabled(), c.expected)
            << (c.debuggable ? c.debuggable : "unset") << " " << c.debugLog;
    }
}

TEST_F(UtilityTest, ExecuteCommandToStringKeepsTheLastVolumeLine) {
    std::pair<std::string, std::string> cases[] = {
        {"printf 'vol emulated\\npublic:179,1 mounted 1A2B\\n\\npublic:179,9 x\\nshort\\n'",
         "public:179,9 x"},
        {"printf 'a volume public:179,3 tail\\nnothing here\\n'", "public:179,3 tail"},
        {"echo public:179", "public:179"},  // exactly 10 characters still counts
        {"echo no volume at all; echo public:17", ""},
        {"true", ""},
        // Lines longer than the 128-byte pieces are joined back before the search.
        {"echo " + std::string(300, 'x') + "public:179,5", "public:179,5"},
        // The device's own commands are handled by the platform.
        {"setprop persist.sys.vd.x on", ""},
    };
    for (const auto& [command, expected] : cases) {
        EXPECT_EQ(ExecuteCommandToString(command.c_str()), expected) << command.substr(0, 40);
    }
    EXPECT_EQ(p.property("persist.sys.vd.x"), "on");
}

TEST_F(UtilityTest, FileReaderReadsOnlyBoundedRegularFiles) {
    p.writeFile("/sdcard/Tellwick/config.json", "{\"a\": 1}\n");
    EXPECT_EQ(read("/sdcard/Tellwick/config.json"), "{\"a\": 1}\n");
    p.writeFile("/sdcard/empty", "");
    EXPECT_EQ(read("/sdcard/empty"), "");
    sized("/sdcard/big", kFileReaderLimit);  // exactly at the limit is still read
    std::unique_ptr<char[]> big(fileReader("/sdcard/big"));
    ASSERT_NE(big, nullptr);
    EXPECT_EQ(big[kFileReaderLimit], '\0');

    p.writeFile("/outside/secret", "secret");
    link(p.hostPath("/outside/secret"), "/sdcard/link.json");
    p.makeDir("/sdcard/dir");
    ASSERT_EQ(mkfifo(p.hostPath("/sdcard/fifo").c_str(), 0644), 0);
    sized("/sdcard/huge", kFileReaderLimit + 1);
    for (const char* path :
         {"/sdcard/link.json", "/sdcard/dir", "/sdcard/fifo", "/sdcard/huge", "/sdcard/missing"}) {
        EXPECT_EQ(read(path), "") << path;
    }
    EXPECT_TRUE(p.log().contains("fileReader::not a regular file: /sdcard/dir", kLogError));
    EXPECT_TRUE(p.log().contains("fileReader::not a regular file: /sdcard/fifo", kLogError));
    EXPECT_EQ(p.log().count("fileReader::file too large: /sdcard/big (16777217 bytes)"), 0);
    EXPECT_TRUE(
        p.log().contains("fileReader::file too large: /sdcard/huge (16777217 bytes)", kLogError));

    EXPECT_TRUE(isFileExists("/sdcard/Tellwick/config.json"));
    EXPECT_FALSE(isFileExists("/sdcard/Tellwick/missing.json"));
    bool fifo = false;
    ASSERT_TRUE(vigild::testing::finishesWithin([&] { fifo = isFileExists("/sdcard/fifo"); },
                                                std::chrono::seconds(10)));
    EXPECT_TRUE(fifo);
}

TEST_F(UtilityTest, CopyFileIsByteExact) {
    std::string data(20 * 1024 * 1024, '\0');
    std::mt19937 random(42);
    for (char& c : data) c = static_cast<char>(random());
    p.writeFile("/data/bugreport.zip", data);
    // An existing longer destination is replaced, not partly overwritten.
    p.writeFile("/sdcard/Tellwick/bugreport.zip", std::string(21 * 1024 * 1024, 'x'));
    EXPECT_TRUE(copyFile("/data/bugreport.zip", "/sdcard/Tellwick/bugreport.zip"));
    EXPECT_TRUE(
        p.log().contains("copyFile::sourcePath == /data/bugreport.zip, destination path == "
                         "/sdcard/Tellwick/bugreport.zip",
                         kLogDebug));
    EXPECT_TRUE(p.readFile("/sdcard/Tellwick/bugreport.zip") == data);

    p.writeFile("/data/empty", "");
    EXPECT_TRUE(copyFile("/data/empty", "/sdcard/empty"));
    EXPECT_TRUE(p.exists("/sdcard/empty"));
    EXPECT_EQ(p.readFile("/sdcard/empty"), "");
}

TEST_F(UtilityTest, CopyFileRefusesBadSourcesAndReportsAShortCopy) {
    p.writeFile("/outside/secret", "secret");
    link(p.hostPath("/outside/secret"), "/sdcard/link");
    p.makeDir("/sdcard/dir");
    ASSERT_EQ(mkfifo(p.hostPath("/sdcard/fifo").c_str(), 0644), 0);
    std::pair<const char*, const char*> cases[] = {
        {"/sdcard/missing", "No such file or directory"},
        {"/sdcard/link", "Too many levels of symbolic links"},
        {"/sdcard/dir", "Is a directory"},
        {"/sdcard/fifo", "Invalid argument"},
    };
    for (const auto& [source, error] : cases) {
        p.log().clear();
        bool copied = true;
        ASSERT_TRUE(vigild::testing::finishesWithin(
            [&, source = source] { copied = copyFile(source, "/sdcard/out"); },
            std::chrono::seconds(10)));
        EXPECT_FALSE(copied) << source;
        EXPECT_TRUE(p.log().contains(
            std::string("Error: Could not open source file: error == ") + error + " ", kLogError))
            << source;
        EXPECT_FALSE(p.exists("/sdcard/out")) << source;
    }

    // A disk that fills half-way: the copy fails, says so and leaves nothing behind.
    p.writeFile("/data/src", std::string(2 * 1024 * 1024, 'a'));
    p.files().arm(1, ENOSPC);
    EXPECT_FALSE(copyFile("/data/src", "/sdcard/dest"));
    EXPECT_TRUE(
        p.log().contains("Error: Could not copy file contents to: /sdcard/dest", kLogDebug));
    for (const auto& e : fs::directory_iterator(p.hostPath("/sdcard"))) {
        EXPECT_NE(e.path().filename().string().rfind("dest", 0), 0u) << e.path();
    }
}

TEST_F(UtilityTest, CopyFileNeverWritesThroughALink) {
    p.writeFile("/data/src", "new content");
    p.writeFile("/outside/target", "precious");
    p.makeDir("/sdcard");

    // A hard link at the destination: the other name keeps its content.
    ASSERT_EQ(::link(p.hostPath("/outside/target").c_str(), p.hostPath("/sdcard/hard").c_str()), 0);
    EXPECT_TRUE(copyFile("/data/src", "/sdcard/hard"));
    EXPECT_EQ(p.readFile("/sdcard/hard"), "new content");
    EXPECT_EQ(p.readFile("/outside/target"), "precious");

    // Copying a file onto itself keeps its content.
    EXPECT_TRUE(copyFile("/data/src", "/data/src"));
    EXPECT_EQ(p.readFile("/data/src"), "new content");
}

TEST_F(UtilityTest, MkdirAllCreatesEveryLevel) {
    EXPECT_EQ(mkdir_all("/sdcard/Tellwick/a/b/"), 0);
    EXPECT_TRUE(isDir("/sdcard/Tellwick/a/b"));
    EXPECT_EQ(mkdir_all("/sdcard/Tellwick/a/b"), 0);  // already there
    EXPECT_EQ(mkdir_all("/sdcard//Tellwick/./c"), 0);
    EXPECT_TRUE(isDir("/sdcard/Tellwick/c"));
    EXPECT_EQ(mkdir_all("/"), 0);
    // An existing file as the last component counts as there, as mkdir's EEXIST does.
    p.writeFile("/sdcard/file", "x");
    EXPECT_EQ(mkdir_all("/sdcard/file"), 0);
}

TEST_F(UtilityTest, MkdirAllFailures) {
    p.writeFile("/sdcard/file", "x");
    p.makeDir("/outside");
    link(p.hostPath("/outside"), "/sdcard/Tellwick");
    std::string tooLong = "/sdcard/" + std::string(4096 - 8, 'a');
    std::pair<std::string, int> cases[] = {
        {tooLong, ENAMETOOLONG},
        // One less may pass mkdir's own check, but a component of over 255 bytes fails.
        {tooLong.substr(0, 4095), ENAMETOOLONG},
        {"/sdcard/file/sub", ENOTDIR},
        {"/sdcard/../escape", EINVAL},
        {"", ENOENT},
        {"/sdcard/Tellwick/logs/", ELOOP},  // links below the storage root are not followed
        {"/sdcard/Tellwick", ELOOP},
    };
    for (const auto& [path, error] : cases) {
        errno = 0;
        EXPECT_EQ(mkdir_all(path.c_str()), -1) << path.substr(0, 40);
        EXPECT_EQ(errno, error) << path.substr(0, 40);
    }
    EXPECT_FALSE(p.exists("/sdcard/aaaa"));
    EXPECT_FALSE(p.exists("/escape"));
    EXPECT_TRUE(fs::is_empty(p.hostPath("/outside")));
}

TEST_F(UtilityTest, MkdirAllFollowsTheStorageRootLink) {
    // On a device "/sdcard" is a system link into "/storage/".
    p.makeDir("/storage/emulated/0");
    link(p.hostPath("/storage/emulated/0"), "/sdcard");
    EXPECT_EQ(mkdir_all("/sdcard/Tellwick/"), 0);
    EXPECT_TRUE(isDir("/storage/emulated/0/Tellwick"));
    EXPECT_EQ(mkdir_all("/sdcard"), 0);
    p.makeDir("/mnt/card");
    link(p.hostPath("/mnt/card"), "/storage/1A2B-3C4D");
    EXPECT_EQ(mkdir_all("/storage/1A2B-3C4D/Tellwick/"), 0);
    EXPECT_TRUE(isDir("/mnt/card/Tellwick"));
}

TEST_F(UtilityTest, RemoveAllResults) {
    EXPECT_EQ(remove_all("/sdcard/missing"), -1);
    p.writeFile("/sdcard/file", "x");
    EXPECT_EQ(remove_all("/sdcard/file"), -1);
    EXPECT_FALSE(p.exists("/sdcard/file"));

    p.writeFile("/sdcard/Tellwick/logs/a.txt", "a");
    p.writeFile("/sdcard/Tellwick/logs/sub/b.txt", "b");
    p.makeDir("/sdcard/Tellwick/logs/empty");
    EXPECT_EQ(remove_all("/sdcard/Tellwick/logs"), 0);
    EXPECT_FALSE(p.exists("/sdcard/Tellwick/logs"));
    EXPECT_TRUE(p.exists("/sdcard/Tellwick"));
    for (const char* line :
         {"remove /sdcard/Tellwick/logs/a.txt", "remove /sdcard/Tellwick/logs/sub",
          "remove /sdcard/Tellwick/logs/sub/b.txt", "remove /sdcard/Tellwick/logs/empty"}) {
        EXPECT_TRUE(p.log().contains(line, kLogDebug)) << line;
    }
    // A trailing "/" shows in the entry paths as a double one.
    p.writeFile("/sdcard/secure/x", "x");
    EXPECT_EQ(remove_all("/sdcard/secure/"), 0);
    EXPECT_TRUE(p.log().contains("remove /sdcard/secure//x", kLogDebug));
    EXPECT_FALSE(p.exists("/sdcard/secure"));
}

TEST_F(UtilityTest, RemoveAllRemovesLinksNotTheirTargets) {
    p.writeFile("/outside/keep.txt", "keep");
    p.writeFile("/outside/sub/keep2.txt", "keep");
    p.writeFile("/sdcard/Tellwick/logs/a.txt", "a");
    link(p.hostPath("/outside"), "/sdcard/Tellwick/logs/to_dir");
    link(p.hostPath("/outside/keep.txt"), "/sdcard/Tellwick/logs/to_file");
    link("/nowhere", "/sdcard/Tellwick/logs/dangling");
    EXPECT_EQ(remove_all("/sdcard/Tellwick/logs"), 0);
    EXPECT_FALSE(p.exists("/sdcard/Tellwick/logs"));

    // The path itself a link: it is not a directory to open, so -1, and the link goes.
    link(p.hostPath("/outside"), "/sdcard/Tellwick/top");
    EXPECT_EQ(remove_all("/sdcard/Tellwick/top"), -1);
    EXPECT_FALSE(p.exists("/sdcard/Tellwick/top"));

    // A link on the way to the path: nothing is removed.
    link(p.hostPath("/outside"), "/sdcard/Tellwick/via");
    EXPECT_EQ(remove_all("/sdcard/Tellwick/via/sub"), -1);
    EXPECT_EQ(remove_all("/sdcard/../outside"), -1);
    EXPECT_EQ(p.readFile("/outside/keep.txt"), "keep");
    EXPECT_EQ(p.readFile("/outside/sub/keep2.txt"), "keep");
}

TEST_F(UtilityTest, RemoveAllHandlesVeryDeepTrees) {
    p.makeDir("/sdcard/deep");
    int fd = open(p.hostPath("/sdcard/deep").c_str(), O_RDONLY | O_DIRECTORY);
    for (int i = 0; i < 3000 && fd >= 0; i++) {
        ASSERT_EQ(mkdirat(fd, "d", 0755), 0);
        close(openat(fd, "f", O_WRONLY | O_CREAT, 0644));
        int next = openat(fd, "d", O_RDONLY | O_DIRECTORY);
        close(fd);
        fd = next;
    }
    ASSERT_GE(fd, 0);
    close(fd);

    int before = countOpenFds();
    // Far fewer descriptors than levels.
    int result = withLimit(RLIMIT_NOFILE, static_cast<rlim_t>(before + 100),
                           [] { return remove_all("/sdcard/deep"); });
    EXPECT_EQ(result, 0);
    EXPECT_FALSE(p.exists("/sdcard/deep"));
    EXPECT_EQ(countOpenFds(), before);
}
