// The logcat end-of-file monitor, driven by the virtual clock: every 60-second sleep is a
// step the hook can act on, and the monitor runs on the test thread until the hook ends it.
#include "core/eof_monitor.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "core/daemon_state.h"
#include "core/log.h"
#include "core/module_registry.h"
#include "core/run_state.h"
#include "fakes/fake_module.h"
#include "fakes/test_platform.h"

namespace {

using vigild::testing::FakeModule;
using vigild::testing::FakeModules;
using vigild::testing::Journal;
using vigild::testing::TestPlatform;
using Events = std::vector<std::string>;

class EofMonitorTest : public ::testing::Test {
  protected:
    modulePair& add(const std::string& name, const char* enable = "true") {
        FakeModule& m = modules.add(name, enable);
        m.journalTo(&journal);
        m.eof = true;
        return moduleRegistry.back();
    }
    // Runs the monitor until `sleeps` sleeps have passed; `atSleep` runs at each (1-based),
    // after a "sleep" mark is journaled.
    void run(size_t sleeps, std::function<void(size_t)> atSleep = nullptr) {
        p.clock().onSleep([&, sleeps, atSleep](std::chrono::milliseconds d) {
            EXPECT_EQ(d, std::chrono::seconds(60));
            journal.add("sleep");
            size_t n = p.clock().sleepCount();
            if (atSleep) atSleep(n);
            if (n >= sleeps) exitRequested = 1;
        });
        monitorEOF();
    }
    FakeModule& module(size_t i) { return modules[i]; }

    TestPlatform p;
    Journal journal;
    FakeModules modules;
};

TEST_F(EofMonitorTest, WithoutLogcatModuleOnlySleeps) {
    add("A");
    add("LogcatModul");
    runState = kStateRunning;
    run(4);
    EXPECT_EQ(journal.events(), (Events{"sleep", "sleep", "sleep", "sleep"}));
}

TEST_F(EofMonitorTest, EndOfFileOnEveryCallRestartsOncePerCycle) {
    add("A");
    add("LogcatModule");
    runState = kStateRunning;
    run(3);
    const Events restart = {"LogcatModule:eof?", "LogcatModule:prestop", "LogcatModule:stop",
                            "LogcatModule:start"};
    Events expected;
    for (int cycle = 0; cycle < 3; cycle++) {
        expected.insert(expected.end(), restart.begin(), restart.end());
        expected.push_back("sleep");
    }
    EXPECT_EQ(journal.events(), expected);
    EXPECT_EQ(
        p.log().count("vigild::EOF! detected, starting counter measures to restart Logcat module",
                      kLogInfo),
        3);
    EXPECT_EQ(runState.load(), kStateRunning);
}

TEST_F(EofMonitorTest, AStopThatComesFirstWinsOverTheRestart) {
    add("LogcatModule");
    runState = kStateRunning;
    // The command thread's "stop:" lands between the end-of-file answer and the restart.
    vigild::testing::AtSyncPoint command("monitorEOF.beforeRestart", [] { stop(); });
    run(1);
    EXPECT_EQ(journal.events(),
              (Events{"LogcatModule:eof?", "LogcatModule:prestop", "LogcatModule:stop", "sleep"}));
    EXPECT_EQ(runState.load(), kStateStopped);
}

TEST_F(EofMonitorTest, NotAskedWhileStopped) {
    add("LogcatModule");
    run(3, [&](size_t n) {
        if (n == 2) runState = kStateRunning;
    });
    // Asked only after the daemon started; a healthy stream is asked once per cycle.
    EXPECT_EQ(journal.events(),
              (Events{"sleep", "sleep", "LogcatModule:eof?", "LogcatModule:prestop",
                      "LogcatModule:stop", "LogcatModule:start", "sleep"}));
}

TEST_F(EofMonitorTest, DisabledModuleIsReReadUntilEnabled) {
    modulePair& logcat = add("LogcatModule", "false");
    runState = kStateRunning;
    module(0).eof = false;
    run(4, [&](size_t n) {
        if (n == 2) strcpy(logcat.settings.configs[0].value, "true");
    });
    EXPECT_EQ(journal.events(), (Events{"sleep", "sleep", "LogcatModule:eof?", "sleep",
                                        "LogcatModule:eof?", "sleep"}));
}

TEST_F(EofMonitorTest, WhileWatchingTheEnableSettingIsNotReRead) {
    modulePair& logcat = add("LogcatModule");
    runState = kStateRunning;
    module(0).eof = false;
    run(3, [&](size_t n) {
        if (n == 1) strcpy(logcat.settings.configs[0].value, "false");
        if (n == 2) module(0).eof = true;
    });
    // Disabled after the first look, it is still asked and restarted once; then the fresh
    // look finds it disabled.
    EXPECT_EQ(journal.events(), (Events{"LogcatModule:eof?", "sleep", "LogcatModule:eof?", "sleep",
                                        "LogcatModule:eof?", "LogcatModule:prestop",
                                        "LogcatModule:stop", "LogcatModule:start", "sleep"}));
}

TEST_F(EofMonitorTest, CursorIsNeverResetPastTheEnd) {
    // No usable "Enable Module" at the first search: the cursor runs off the end for good.
    modulePair& logcat = add("LogcatModule");
    logcat.settings.configs[0].type = "int";
    runState = kStateRunning;
    run(4, [&](size_t n) {
        if (n == 1) logcat.settings.configs[0].type = "boolean";
    });
    EXPECT_EQ(journal.events(), (Events{"sleep", "sleep", "sleep", "sleep"}));
}

TEST_F(EofMonitorTest, ReturnsAtOnceWhenExitIsAlreadyRequested) {
    add("LogcatModule");
    runState = kStateRunning;
    exitRequested = 1;
    monitorEOF();
    EXPECT_TRUE(journal.events().empty());
    EXPECT_EQ(p.clock().sleepCount(), 0u);
}

}  // namespace
