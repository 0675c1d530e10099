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
#include "fakes/test_platform.h"

namespace {

using vigild::testing::TestPlatform;
using Events = std::vector<std::string>;

class EofModule : public Module {
  public:
    EofModule(std::string name, Events& journal) : name_(std::move(name)), j_(journal) {}
    int shouldLoad() override { return 0; }
    int init(moduleConfig&) override { return 0; }
    int start(moduleConfig) override { return j_.push_back(name_ + ":start"), 0; }
    int systemTimeChange() override { return 0; }
    int prestop() override { return j_.push_back(name_ + ":prestop"), 0; }
    int stop() override { return j_.push_back(name_ + ":stop"), 0; }
    const char* getName() override { return name_.c_str(); }
    const char* getVersion() override { return "14.0.0.1"; }
    int configVal(moduleConfig&, std::vector<std::string>&) override { return 0; }
    int logcatEOFStatus() override {
        j_.push_back(name_ + ":eof?");
        return eof ? 1 : 0;
    }
    bool eof = true;

  private:
    std::string name_;
    Events& j_;
};

class EofMonitorTest : public ::testing::Test {
  protected:
    modulePair& add(const std::string& name, const char* enable = "true") {
        modules.push_back(std::make_unique<EofModule>(name, journal));
        moduleRegistry.emplace_back(modules.back().get());
        strcpy(moduleRegistry.back().settings.configs[0].value, enable);
        return moduleRegistry.back();
    }
    // Runs the monitor until `sleeps` sleeps have passed; `atSleep` runs at each (1-based),
    // after a "sleep" mark is journaled.
    void run(size_t sleeps, std::function<void(size_t)> atSleep = nullptr) {
        p.clock().onSleep([&, sleeps, atSleep](std::chrono::milliseconds d) {
            EXPECT_EQ(d, std::chrono::seconds(60));
            journal.push_back("sleep");
            size_t n = p.clock().sleepCount();
            if (atSleep) atSleep(n);
            if (n >= sleeps) exitRequested = 1;
        });
        monitorEOF();
    }
    EofModule& module(size_t i) { return *modules[i]; }

    TestPlatform p;
    Events journal;
    std::vector<std::unique_ptr<EofModule>> modules;
};

TEST_F(EofMonitorTest, WithoutLogcatModuleOnlySleeps) {
    add("A");
    add("LogcatModul");
    runState = kStateRunning;
    run(4);
    EXPECT_EQ(journal, (Events{"sleep", "sleep", "sleep", "sleep"}));
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
    EXPECT_EQ(journal, expected);
    EXPECT_EQ(
        p.log().count("vigild::EOF! detected, starting counter measures to restart Logcat module",
                      kLogInfo),
        3);
    EXPECT_EQ(runState.load(), kStateRunning);
}

TEST_F(EofMonitorTest, NotAskedWhileStopped) {
    add("LogcatModule");
    run(3, [&](size_t n) {
        if (n == 2) runState = kStateRunning;
    });
    // Asked only after the daemon started; a healthy stream is asked once per cycle.
    EXPECT_EQ(journal, (Events{"sleep", "sleep", "LogcatModule:eof?", "LogcatModule:prestop",
                               "LogcatModule:stop", "LogcatModule:start", "sleep"}));
}

TEST_F(EofMonitorTest, DisabledModuleIsReReadUntilEnabled) {
    modulePair& logcat = add("LogcatModule", "false");
    runState = kStateRunning;
    module(0).eof = false;
    run(4, [&](size_t n) {
        if (n == 2) strcpy(logcat.settings.configs[0].value, "true");
    });
    EXPECT_EQ(journal, (Events{"sleep", "sleep", "LogcatModule:eof?", "sleep", "LogcatModule:eof?",
                               "sleep"}));
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
    EXPECT_EQ(journal, (Events{"LogcatModule:eof?", "sleep", "LogcatModule:eof?", "sleep",
                               "LogcatModule:eof?", "LogcatModule:prestop", "LogcatModule:stop",
                               "LogcatModule:start", "sleep"}));
}

TEST_F(EofMonitorTest, CursorIsNeverResetPastTheEnd) {
    // No usable "Enable Module" at the first search: the cursor runs off the end for good.
    modulePair& logcat = add("LogcatModule");
    logcat.settings.configs[0].type = "int";
    runState = kStateRunning;
    run(4, [&](size_t n) {
        if (n == 1) logcat.settings.configs[0].type = "boolean";
    });
    EXPECT_EQ(journal, (Events{"sleep", "sleep", "sleep", "sleep"}));
}

TEST_F(EofMonitorTest, ReturnsAtOnceWhenExitIsAlreadyRequested) {
    add("LogcatModule");
    runState = kStateRunning;
    exitRequested = 1;
    monitorEOF();
    EXPECT_TRUE(journal.empty());
    EXPECT_EQ(p.clock().sleepCount(), 0u);
}

}  // namespace
