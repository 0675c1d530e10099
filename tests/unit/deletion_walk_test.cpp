// The deletion walk reads folders by descriptor and removes an emptied folder as soon as its
// last entry is gone; these cases cover what that must never change: folders larger than one
// read, and folders that keep something.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdio>
#include <string>

#include "fakes/test_platform.h"
#include "storage/log_deletion.h"

using vigild::testing::TestPlatform;

namespace {

// Long names, so a few hundred fill more than one directory read.
std::string fileName(int i) {
    char name[96];
    snprintf(name, sizeof(name), "radio-capture-%05d-with-a-rather-long-descriptive-name.log", i);
    return name;
}

TEST(DeletionWalk, FoldersLargerThanOneReadAreEmptiedAndRemoved) {
    TestPlatform p;
    const int kFiles = 1500;  // about 100 KiB of directory entries
    for (int i = 0; i < kFiles; i++) p.writeFile("/sdcard/Tellwick/big/" + fileName(i), "x");
    p.writeFile("/sdcard/Tellwick/big/inner/last.log", "x");
    EXPECT_EQ(deleteLogFilesUnsecure("/sdcard/Tellwick/", 0), 0);
    EXPECT_FALSE(p.exists("/sdcard/Tellwick"));
}

TEST(DeletionWalk, FoldersThatKeepSomethingStayWithTheirParents) {
    struct Case {
        int type;
        const char* kept;   // stays, with every folder above it
        const char* goner;  // goes
    };
    const Case cases[] = {
        {0, "/sdcard/Tellwick/a/b/config.json", "/sdcard/Tellwick/a/b/x.log"},
        {0, "/sdcard/Tellwick/a/TwInfo.txt", "/sdcard/Tellwick/a/b/x.log"},
        {1, "/sdcard/Tellwick/a/b/Backup7.zip", "/sdcard/Tellwick/a/b/x.log"},
        {2, "/sdcard/Tellwick/a/b/x.log", "/sdcard/Tellwick/a/b/Backup7.zip"},
    };
    for (const Case& c : cases) {
        TestPlatform p;
        for (int i = 0; i < 300; i++) p.writeFile("/sdcard/Tellwick/a/" + fileName(i), "x");
        p.writeFile(c.kept, "keep");
        p.writeFile(c.goner, "x");
        p.writeFile("/sdcard/Tellwick/sibling/y.log", "x");
        deleteLogFilesUnsecure("/sdcard/Tellwick/", c.type);
        EXPECT_EQ(p.readFile(c.kept), "keep") << c.kept << " type " << c.type;
        EXPECT_FALSE(p.exists(c.goner)) << c.goner << " type " << c.type;
        // Ordinary files next to the kept one follow the type; a folder left empty goes.
        EXPECT_EQ(p.exists("/sdcard/Tellwick/a/" + fileName(0)), c.type == 2) << c.type;
        EXPECT_EQ(p.exists("/sdcard/Tellwick/sibling"), c.type == 2) << c.type;
    }
}

TEST(DeletionWalk, EmptyFoldersAtEveryDepthGo) {
    TestPlatform p;
    p.makeDir("/sdcard/Tellwick/e1/e2/e3");
    p.makeDir("/sdcard/Tellwick/e4");
    p.writeFile("/sdcard/Tellwick/config.json", "{}");
    EXPECT_EQ(deleteLogFilesUnsecure("/sdcard/Tellwick/", 0), 0);
    EXPECT_FALSE(p.exists("/sdcard/Tellwick/e1"));
    EXPECT_FALSE(p.exists("/sdcard/Tellwick/e4"));
    EXPECT_EQ(p.readFile("/sdcard/Tellwick/config.json"), "{}");
}

}  // namespace
