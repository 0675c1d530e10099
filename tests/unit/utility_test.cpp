#include "storage/utility.h"

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
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

namespace {

class UtilityTest : public ::testing::Test {
  protected:
    void SetUp() override { p.enableDebugLog(); }

    // A host symlink at `devicePath` pointing to `target` (a host path).
    void link(const std::string& target, const std::string& devicePath) {
        std::filesystem::create_directories(
            std::filesystem::path(p.hostPath(devicePath)).parent_path());
        ASSERT_EQ(symlink(target.c_str(), p.hostPath(devicePath).c_str()), 0);
    }
    bool isDir(const std::string& devicePath) {
        return std::filesystem::is_directory(
            std::filesystem::symlink_status(p.hostPath(devicePath)));
    }
    static std::string readAll(char* data) {
        std::unique_ptr<char[]> owned(data);
        return owned ? std::string(owned.get()) : std::string("<null>");
    }

    TestPlatform p;
};

int countOpenFds() {
    int n = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        (void)entry;
        n++;
    }
    return n;
}

}  // namespace

TEST_F(UtilityTest, SubstrNthPlace) {
    struct Case {
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
    for (const Case& c : cases) {
        EXPECT_EQ(substrNthPlace(c.text, c.pattern, c.n), c.expected)
            << c.text << " / " << c.pattern << " / " << c.n;
    }
}

TEST_F(UtilityTest, Trim) {
    std::pair<std::string, std::string> cases[] = {
        {" \t abc\n", "abc"}, {"abc\r", "abc\r"}, {"  ", ""},         {"", ""},
        {"\n\t\n", ""},       {"a b", "a b"},     {"\ra\r", "\ra\r"}, {" x ", "x"},
    };
    for (const auto& [in, out] : cases) EXPECT_EQ(trim(in), out) << "[" << in << "]";
}

TEST_F(UtilityTest, TruncateFromSubstring) {
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
}

TEST_F(UtilityTest, CreateVector) {
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
    struct Case {
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
    for (const Case& c : cases) {
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
    struct Case {
        const char* debuggable;  // nullptr: unset
        bool debugLog;
        bool expected;
    } cases[] = {
        {nullptr, false, false}, {"1", false, true},     {"0", false, false},
        {"10", false, true},     {"true", false, false}, {"0", true, true},
    };
    for (const Case& c : cases) {
        TestPlatform p;
        if (c.debuggable != nullptr) p.setProperty("ro.debuggable", c.debuggable);
        if (c.debugLog) p.enableDebugLog();
        EXPECT_EQ(isDebugBuildorDebugEnabled(), c.expected)
            << (c.debuggable ? c.debuggable : "unset") << " " << c.debugLog;
    }
}

TEST_F(UtilityTest, ExecuteCommandToStringKeepsTheLastVolumeLine) {
    EXPECT_EQ(
        ExecuteCommandToString(
            "printf 'vol emulated\\npublic:179,1 mounted 1A2B\\n\\npublic:179,9 x\\nshort\\n'"),
        "public:179,9 x");
    EXPECT_EQ(ExecuteCommandToString("printf 'a volume public:179,3 tail\\nnothing here\\n'"),
              "public:179,3 tail");
    // "public:179" alone is exactly 10 characters, so it still counts.
    EXPECT_EQ(ExecuteCommandToString("echo public:179"), "public:179");
    EXPECT_EQ(ExecuteCommandToString("echo no volume at all; echo public:17"), "");
    EXPECT_EQ(ExecuteCommandToString("true"), "");
    // Lines longer than the 128-byte pieces are joined back before the search.
    std::string longLine = std::string(300, 'x') + "public:179,5";
    EXPECT_EQ(ExecuteCommandToString(("echo " + longLine).c_str()), "public:179,5");
    // The device's own commands are handled by the platform.
    EXPECT_EQ(ExecuteCommandToString("setprop persist.sys.vd.x on"), "");
    EXPECT_EQ(p.property("persist.sys.vd.x"), "on");
}

TEST_F(UtilityTest, FileReaderReadsRegularFiles) {
    p.writeFile("/sdcard/Tellwick/config.json", "{\"a\": 1}\n");
    EXPECT_EQ(readAll(fileReader("/sdcard/Tellwick/config.json")), "{\"a\": 1}\n");
    p.writeFile("/sdcard/empty", "");
    EXPECT_EQ(readAll(fileReader("/sdcard/empty")), "");
    // Exactly at the limit is still read.
    p.writeFile("/sdcard/big", "");
    ASSERT_EQ(truncate(p.hostPath("/sdcard/big").c_str(), kFileReaderLimit), 0);
    std::unique_ptr<char[]> big(fileReader("/sdcard/big"));
    ASSERT_NE(big, nullptr);
    EXPECT_EQ(big[kFileReaderLimit], '\0');
    EXPECT_EQ(p.log().count("fileReader::file too large: /sdcard/big (16777217 bytes)"), 0);
}

TEST_F(UtilityTest, FileReaderRefusesWhatIsNotARegularFile) {
    p.writeFile("/outside/secret", "secret");
    link(p.hostPath("/outside/secret"), "/sdcard/Tellwick/config.json");
    p.makeDir("/sdcard/dir");
    ASSERT_EQ(mkfifo(p.hostPath("/sdcard/fifo").c_str(), 0644), 0);
    p.writeFile("/sdcard/huge", "");
    ASSERT_EQ(truncate(p.hostPath("/sdcard/huge").c_str(), kFileReaderLimit + 1), 0);

    for (const char* path : {"/sdcard/Tellwick/config.json", "/sdcard/dir", "/sdcard/fifo",
                             "/sdcard/huge", "/sdcard/missing"}) {
        std::string got;
        // A FIFO without a writer must not block the reader.
        ASSERT_TRUE(vigild::testing::finishesWithin([&] { got = readAll(fileReader(path)); },
                                                    std::chrono::seconds(10)))
            << path;
        EXPECT_EQ(got, "") << path;
    }
    EXPECT_TRUE(p.log().contains("fileReader::not a regular file: /sdcard/dir", kLogError));
    EXPECT_TRUE(p.log().contains("fileReader::not a regular file: /sdcard/fifo", kLogError));
    EXPECT_TRUE(
        p.log().contains("fileReader::file too large: /sdcard/huge (16777217 bytes)", kLogError));
}

TEST_F(UtilityTest, IsFileExists) {
    p.writeFile("/sdcard/Tellwick/config.json", "{}");
    ASSERT_EQ(mkfifo(p.hostPath("/sdcard/fifo").c_str(), 0644), 0);
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

TEST_F(UtilityTest, CopyFileRefusesBadSources) {
    p.writeFile("/outside/secret", "secret");
    link(p.hostPath("/outside/secret"), "/sdcard/link");
    p.makeDir("/sdcard/dir");
    ASSERT_EQ(mkfifo(p.hostPath("/sdcard/fifo").c_str(), 0644), 0);
    struct Case {
        const char* source;
        const char* error;
    } cases[] = {
        {"/sdcard/missing", "No such file or directory"},
        {"/sdcard/link", "Too many levels of symbolic links"},
        {"/sdcard/dir", "Is a directory"},
        {"/sdcard/fifo", "Invalid argument"},
    };
    for (const Case& c : cases) {
        p.log().clear();
        bool copied = true;
        ASSERT_TRUE(vigild::testing::finishesWithin(
            [&] { copied = copyFile(c.source, "/sdcard/out"); }, std::chrono::seconds(10)));
        EXPECT_FALSE(copied) << c.source;
        EXPECT_TRUE(p.log().contains(
            std::string("Error: Could not open source file: error == ") + c.error + " ", kLogError))
            << c.source;
        EXPECT_FALSE(p.exists("/sdcard/out")) << c.source;
    }
}

TEST_F(UtilityTest, CopyFileNeverWritesThroughALink) {
    p.writeFile("/data/src", "new content");
    p.writeFile("/outside/target", "precious");
    p.makeDir("/outside/dir");

    // A link at the destination is replaced by the copy; its target stays as it was.
    link(p.hostPath("/outside/target"), "/sdcard/Tellwick/dest");
    EXPECT_TRUE(copyFile("/data/src", "/sdcard/Tellwick/dest"));
    EXPECT_EQ(p.readFile("/outside/target"), "precious");
    EXPECT_FALSE(std::filesystem::is_symlink(p.hostPath("/sdcard/Tellwick/dest")));
    EXPECT_EQ(p.readFile("/sdcard/Tellwick/dest"), "new content");

    // A linked folder on the way to the destination is refused.
    link(p.hostPath("/outside/dir"), "/sdcard/Tellwick/linked");
    EXPECT_FALSE(copyFile("/data/src", "/sdcard/Tellwick/linked/dest"));
    EXPECT_TRUE(std::filesystem::is_empty(p.hostPath("/outside/dir")));
    EXPECT_TRUE(p.log().contains(
        "Error: Could not open destination file: error == Too many levels of symbolic links ",
        kLogDebug));

    // A hard link at the destination: the other name keeps its content.
    ASSERT_EQ(::link(p.hostPath("/outside/target").c_str(), p.hostPath("/sdcard/hard").c_str()), 0);
    EXPECT_TRUE(copyFile("/data/src", "/sdcard/hard"));
    EXPECT_EQ(p.readFile("/outside/target"), "precious");
    EXPECT_EQ(p.readFile("/sdcard/hard"), "new content");

    // Copying a file onto itself keeps its content.
    EXPECT_TRUE(copyFile("/data/src", "/data/src"));
    EXPECT_EQ(p.readFile("/data/src"), "new content");
}

TEST_F(UtilityTest, CopyFileKeepsThePlainDestinationsInode) {
    // A watch on the active configuration file must see a write, not a replacement.
    p.writeFile("/sdcard/Tellwick/quicktap/wifi/config.json", "{\"short\":1}");
    p.writeFile("/sdcard/Tellwick/config.json", std::string(4096, 'x'));
    struct stat before, after;
    ASSERT_EQ(::stat(p.hostPath("/sdcard/Tellwick/config.json").c_str(), &before), 0);
    EXPECT_TRUE(copyFile("/sdcard/Tellwick/quicktap/wifi/config.json", "/sdcard/Tellwick/config.json"));
    ASSERT_EQ(::stat(p.hostPath("/sdcard/Tellwick/config.json").c_str(), &after), 0);
    EXPECT_EQ(before.st_ino, after.st_ino);
    EXPECT_EQ(p.readFile("/sdcard/Tellwick/config.json"), "{\"short\":1}");
}

TEST_F(UtilityTest, CopyFileReportsAShortCopy) {
    p.writeFile("/data/src", std::string(2 * 1024 * 1024, 'a'));
    p.makeDir("/sdcard");
    // A file size limit stands in for a full disk: every copy path fails with EFBIG.
    struct sigaction ignore = {}, old = {};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGXFSZ, &ignore, &old);
    struct rlimit saved;
    getrlimit(RLIMIT_FSIZE, &saved);
    struct rlimit small = saved;
    small.rlim_cur = 1024 * 1024;
    setrlimit(RLIMIT_FSIZE, &small);
    bool copied = copyFile("/data/src", "/sdcard/dest");
    setrlimit(RLIMIT_FSIZE, &saved);
    sigaction(SIGXFSZ, &old, nullptr);

    EXPECT_FALSE(copied);
    EXPECT_TRUE(
        p.log().contains("Error: Could not copy file contents to: /sdcard/dest", kLogDebug));
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
    std::string tooLong = "/sdcard/" + std::string(4096 - 8, 'a');
    ASSERT_EQ(tooLong.size(), 4096u);
    struct Case {
        std::string path;
        int error;
    } cases[] = {
        {tooLong, ENAMETOOLONG},
        {"/sdcard/file/sub", ENOTDIR},
        {"/sdcard/../escape", EINVAL},
        {"", ENOENT},
    };
    for (const Case& c : cases) {
        errno = 0;
        EXPECT_EQ(mkdir_all(c.path.c_str()), -1) << c.path.substr(0, 40);
        EXPECT_EQ(errno, c.error) << c.path.substr(0, 40);
    }
    EXPECT_FALSE(p.exists("/sdcard/aaaa"));
    EXPECT_FALSE(p.exists("/escape"));
    // One character less is a path mkdir itself may refuse, but mkdir_all tries it.
    errno = 0;
    EXPECT_EQ(mkdir_all(tooLong.substr(0, 4095).c_str()), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);  // a single component of over 255 bytes
}

TEST_F(UtilityTest, MkdirAllDoesNotFollowLinksBelowTheStorageRoot) {
    p.makeDir("/outside");
    link(p.hostPath("/outside"), "/sdcard/Tellwick");
    errno = 0;
    EXPECT_EQ(mkdir_all("/sdcard/Tellwick/logs/"), -1);
    EXPECT_EQ(errno, ELOOP);
    errno = 0;
    EXPECT_EQ(mkdir_all("/sdcard/Tellwick"), -1);  // the link itself
    EXPECT_EQ(errno, ELOOP);
    EXPECT_TRUE(std::filesystem::is_empty(p.hostPath("/outside")));
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
    errno = 0;
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
    EXPECT_EQ(p.readFile("/outside/keep.txt"), "keep");
    EXPECT_EQ(p.readFile("/outside/sub/keep2.txt"), "keep");

    // The path itself a link: it is not a directory to open, so -1, and the link goes.
    link(p.hostPath("/outside"), "/sdcard/Tellwick/top");
    EXPECT_EQ(remove_all("/sdcard/Tellwick/top"), -1);
    EXPECT_FALSE(p.exists("/sdcard/Tellwick/top"));
    EXPECT_EQ(p.readFile("/outside/keep.txt"), "keep");

    // A link on the way to the path: nothing is removed.
    link(p.hostPath("/outside"), "/sdcard/Tellwick/via");
    EXPECT_EQ(remove_all("/sdcard/Tellwick/via/sub"), -1);
    EXPECT_EQ(p.readFile("/outside/sub/keep2.txt"), "keep");
    EXPECT_EQ(remove_all("/sdcard/../outside"), -1);
    EXPECT_TRUE(p.exists("/outside/keep.txt"));
}

TEST_F(UtilityTest, RemoveAllHandlesVeryDeepTrees) {
    constexpr int kDepth = 3000;
    p.makeDir("/sdcard/deep");
    int fd = open(p.hostPath("/sdcard/deep").c_str(), O_RDONLY | O_DIRECTORY);
    ASSERT_GE(fd, 0);
    for (int i = 0; i < kDepth; i++) {
        ASSERT_EQ(mkdirat(fd, "d", 0755), 0);
        int f = openat(fd, "f", O_WRONLY | O_CREAT, 0644);
        ASSERT_GE(f, 0);
        close(f);
        int next = openat(fd, "d", O_RDONLY | O_DIRECTORY);
        close(fd);
        fd = next;
        ASSERT_GE(fd, 0);
    }
    close(fd);

    int before = countOpenFds();
    // Far fewer descriptors than levels.
    struct rlimit saved;
    getrlimit(RLIMIT_NOFILE, &saved);
    struct rlimit few = saved;
    few.rlim_cur = static_cast<rlim_t>(before + 100);
    setrlimit(RLIMIT_NOFILE, &few);
    int result = remove_all("/sdcard/deep");
    setrlimit(RLIMIT_NOFILE, &saved);

    EXPECT_EQ(result, 0);
    EXPECT_FALSE(p.exists("/sdcard/deep"));
    EXPECT_EQ(countOpenFds(), before);
}
