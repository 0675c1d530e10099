// Start-up: the boot folder, the storage wait counts on the virtual clock, and the order
// of the steps up to the long-running threads.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "core/daemon_state.h"
#include "core/log.h"
#include "core/module_registry.h"
#include "core/run_state.h"
#include "core/vigild.h"
#include "fakes/test_platform.h"
#include "standin/standin_service.h"

namespace {

using namespace std::chrono_literals;
using vigild::testing::TestPlatform;
using Sleeps = std::vector<std::chrono::milliseconds>;

TEST(BootFolderTest, GivesUpAfterFortyTriesFiveSecondsApart) {
    TestPlatform p;
    p.enableDebugLog();
    p.writeFile("/sdcard", "a file where the folder should be");

    EXPECT_EQ(duringBootCheckFileSystemAvailability("/sdcard/Tellwick/"), 1);

    EXPECT_EQ(p.clock().sleeps(), Sleeps(40, 5s));
    EXPECT_TRUE(p.log().contains("vigild::Attempt no :: 1 :: Failed to create directory: "));
    EXPECT_TRUE(p.log().contains("vigild::Attempt no :: 40 :: Failed to create directory: "));
    EXPECT_FALSE(p.log().contains("vigild::Attempt no :: 41 :: Failed to create directory: "));
    EXPECT_TRUE(
        p.log().contains("vigild::Exhausted all attempts. Unable to create directory: ", kLogInfo));
}

TEST(StorageWaitTest, NoStorageStopsTheServiceAfter121Tries) {
    TestPlatform p;
    int calls = 0;
    EXPECT_FALSE(waitForStorage([&] { return calls++, std::string(); }));

    EXPECT_EQ(calls, 121);
    EXPECT_EQ(p.clock().sleeps(), Sleeps(120, 5s));
    EXPECT_TRUE(p.log().contains("No file system avaiable error, try 0 of 600", kLogInfo));
    EXPECT_TRUE(p.log().contains("No file system avaiable error, try 120 of 600", kLogInfo));
    EXPECT_FALSE(p.log().contains("No file system avaiable error, try 121 of 600"));
    EXPECT_TRUE(p.log().contains(
        "Error accessing file system after 600 ties. No internel or externel sdcard found ",
        kLogError));
    EXPECT_EQ(p.processes().commands(), (std::vector<std::string>{"setprop ctl.stop vigild"}));
    EXPECT_EQ(p.property("ctl.stop"), "vigild");
}

class BootTest : public ::testing::Test {
  protected:
    void SetUp() override {
        resetRunStateForTesting();
        p.enableDebugLog();
        p.makeDir("/system/lib64");
        p.setProperty("persist.sys.vd.tw_bugreport", "true");
        ASSERT_TRUE(service.start());
    }
    void TearDown() override {
        // The monitor is the one thread bootDaemon leaves running.
        exitRequested = 1;
        if (threads.monitorEOF.joinable()) threads.monitorEOF.join();
        freeBuiltins();
    }
    // The library folder is empty, so every module was made with new by start-up; the
    // daemon keeps them for its life, a test gives them back.
    static void freeBuiltins() {
        for (modulePair& entry : moduleRegistry) delete entry.module;
        moduleRegistry.clear();
    }
    int line(const std::string& text) { return p.log().indexOf(text); }
    bool hasPrefix(const std::string& prefix) {
        for (const auto& l : p.log().lines()) {
            if (l.text.rfind(prefix, 0) == 0) return true;
        }
        return false;
    }
    size_t writeIndex(const std::string& key, const std::string& value) {
        auto writes = p.properties().writes();
        for (size_t i = 0; i < writes.size(); i++) {
            if (writes[i] == std::make_pair(key, value)) return i;
        }
        return SIZE_MAX;
    }

    TestPlatform p;
    vdstandin::StandinService service{p.root()};
    DaemonThreads threads;
};

TEST_F(BootTest, AutostartRunsInOrderBeforeTheWatchAndTheBugreportReset) {
    p.setProperty("persist.sys.vd.autostart", "true");

    ASSERT_EQ(bootDaemon(threads), kBootReady);

    std::vector<std::string> order = {
        "vd begin",
        "vigild::duringBootCheckFileSystemAvailability::path == /sdcard/Tellwick/",
        "vd so loaded init them: Tellwick Settings",
        "vd so loaded init them: QuickTapModule",
        "start():BEGIN",
        "start():END",
        "watchConfig :BEGIN",
    };
    int previous = -1;
    for (const std::string& text : order) {
        int at = line(text);
        EXPECT_GT(at, previous) << text;
        previous = at;
    }
    EXPECT_GT(line("vigild::monitorEOF::BEGIN"), line("vd so loaded init them: QuickTapModule"));
    EXPECT_EQ(runState.load(), kStateRunning);
    EXPECT_EQ(moduleRegistry.size(), 2u);
    EXPECT_LT(writeIndex("persist.sys.vd.autostart", "true"),
              writeIndex("persist.sys.vd.tw_bugreport", "false"));
    EXPECT_EQ(p.property("persist.sys.vd.tw_bugreport"), "false");
    // The one-shot threads have run and are joined; only the monitor is left running.
    EXPECT_TRUE(hasPrefix("Current vigild state is "));
    EXPECT_FALSE(threads.systemTimeCheker.joinable());
    EXPECT_FALSE(threads.syncServiceState.joinable());
    EXPECT_FALSE(threads.watchConfig.joinable());
    EXPECT_TRUE(threads.monitorEOF.joinable());
    EXPECT_FALSE(threads.messageHandler.joinable());
}

TEST_F(BootTest, WithoutAutostartTheDaemonStaysStopped) {
    for (const char* value : {"", "TRUE", "1"}) {
        SCOPED_TRACE(value);
        if (*value != '\0') p.setProperty("persist.sys.vd.autostart", value);
        DaemonThreads fresh;
        ASSERT_EQ(bootDaemon(fresh), kBootReady);
        exitRequested = 1;
        fresh.monitorEOF.join();
        exitRequested = 0;
        freeBuiltins();

        EXPECT_EQ(runState.load(), kStateStopped);
        EXPECT_FALSE(p.log().contains("start():BEGIN"));
        EXPECT_EQ(p.property("persist.sys.vd.tw_bugreport"), "false");
    }
}

TEST_F(BootTest, UnreadableLibraryFolderStartsNothing) {
    std::filesystem::remove(p.hostPath("/system/lib64"));

    EXPECT_EQ(bootDaemon(threads), kBootNoLibraryFolder);

    EXPECT_TRUE(p.log().contains("Error trying to open /system/lib64/", kLogError));
    EXPECT_FALSE(threads.monitorEOF.joinable());
    EXPECT_FALSE(threads.systemTimeCheker.joinable());
    EXPECT_EQ(moduleRegistry.size(), 1u);
    EXPECT_EQ(p.property("persist.sys.vd.tw_bugreport"), "true");
}

}  // namespace
