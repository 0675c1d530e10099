#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/log.h"
#include "fakes/test_platform.h"
#include "platform/fs.h"

using vigild::testing::TestPlatform;

TEST(TestPlatformTest, DebugLinesNeedTheSwitch) {
    TestPlatform p;
    LOGD("hidden %d", 1);
    LOGI("shown %d", 2);
    EXPECT_FALSE(p.log().contains("hidden 1"));
    EXPECT_TRUE(p.log().contains("shown 2", kLogInfo));
    p.enableDebugLog();
    LOGD("visible %s", "now");
    EXPECT_TRUE(p.log().contains("visible now", kLogDebug));
}

TEST(FsTest, DevicePathsStayInsideTheRoot) {
    TestPlatform p;
    namespace fs = vigild::fs;
    EXPECT_EQ(fs::hostPath("/sdcard/x"), p.root() + "/sdcard/x");
    EXPECT_EQ(fs::mkdir("/sdcard", 0777), 0);
    EXPECT_TRUE(fs::isDirectory("/sdcard"));
    EXPECT_TRUE(fs::isDirectory("/sdcard/"));
    EXPECT_FALSE(fs::isDirectory("/sdcard/missing"));

    int fd = fs::open("/sdcard/a.txt", O_WRONLY | O_CREAT, 0644);
    ASSERT_GE(fd, 0);
    close(fd);
    EXPECT_TRUE(p.exists("/sdcard/a.txt"));
    EXPECT_EQ(fs::rename("/sdcard/a.txt", "/sdcard/b.txt"), 0);
    EXPECT_EQ(fs::access("/sdcard/b.txt", R_OK), 0);
    EXPECT_FALSE(fs::isDirectory("/sdcard/b.txt"));
    // A file named with a trailing "/" fails, as on a device.
    struct stat st;
    EXPECT_EQ(fs::stat("/sdcard/b.txt/", &st), -1);

    // ".." never climbs above the device's "/".
    EXPECT_EQ(fs::hostPath("/../../sdcard/b.txt"), p.root() + "/sdcard/b.txt");
    FILE* f = fs::fopen("/../sdcard/b.txt", "r");
    ASSERT_NE(f, nullptr);
    fclose(f);

    ASSERT_EQ(symlink("/nowhere", p.hostPath("/sdcard/link").c_str()), 0);
    EXPECT_EQ(fs::lstat("/sdcard/link", &st), 0);
    EXPECT_TRUE(S_ISLNK(st.st_mode));
    EXPECT_EQ(fs::stat("/sdcard/link", &st), -1);
    EXPECT_EQ(fs::unlink("/sdcard/link"), 0);
    EXPECT_EQ(fs::remove("/sdcard/b.txt"), 0);
    EXPECT_EQ(fs::rmdir("/sdcard"), 0);
    EXPECT_FALSE(p.exists("/sdcard"));
    EXPECT_EQ(fs::opendir("/sdcard"), nullptr);
}
