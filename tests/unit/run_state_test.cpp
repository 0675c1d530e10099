// Run state control: transitions, refusals, the prestop/stop order, restarts of marked
// modules, the state sync with the service and the wall-clock jump check.
#include "core/run_state.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/daemon_state.h"
#include "core/log.h"
#include "core/module_registry.h"
#include "fakes/fake_module.h"
#include "fakes/test_platform.h"
#include "standin/standin_service.h"

namespace {

using vigild::testing::FakeModules;
using vigild::testing::Journal;
using vigild::testing::TestPlatform;

class RunStateTest : public ::testing::Test {
  protected:
    void SetUp() override {
        resetRunStateForTesting();
        // Tests hold entry references across add(): the registry must not move.
        moduleRegistry.reserve(16);
        p.enableDebugLog();
        ASSERT_TRUE(service.start());
    }

    // Registers a module; `enabled` sets its "Enable Module" value.
    modulePair& add(const std::string& name, bool enabled = true) {
        // A start is journaled with the number of settings it was handed.
        modules.add(name, enabled ? "true" : "false").journalTo(&journal, true);
        return moduleRegistry.back();
    }
    static void setEnabled(modulePair& entry, bool enabled) {
        strcpy(entry.settings.configs[0].value, enabled ? "true" : "false");
    }

    TestPlatform p;
    vdstandin::StandinService service{p.root()};
    Journal journal;
    FakeModules modules;
};

using Events = std::vector<std::string>;

TEST_F(RunStateTest, UpdateStateMapsWordsAndReportsEachChange) {
    const struct {
        const char* word;
        int code;
    } cases[] = {{"stopped", 0}, {"running", 1}, {"transition", 2}, {"Running", 2},
                 {"stoped", 2},  {"", 2},        {"stopped ", 2}};
    std::vector<int> expected;
    for (const auto& c : cases) {
        updateState(c.word);
        EXPECT_EQ(runState.load(), c.code) << c.word;
        expected.push_back(c.code);
    }
    EXPECT_EQ(service.states(), expected);
}

TEST_F(RunStateTest, WithoutServiceTheStateStillChangesAndSyncComparesAgainstMinusOne) {
    service.stop();
    syncServiceState();
    EXPECT_TRUE(p.log().contains("Current vigild state is 0 and service state is -1"));
    EXPECT_TRUE(p.log().contains("state mismatch ", kLogError));
    updateState("running");
    EXPECT_EQ(runState.load(), 1);
    EXPECT_TRUE(p.log().contains("Failed to obtain a handle on vd_service", kLogError));
}

TEST_F(RunStateTest, StartStartsOnlyEnabledModulesWithTheirSettings) {
    // A module without "Enable Module" (like the daemon's own) counts as disabled.
    modulePair& own = add("Tellwick Settings");
    own.settings.configs.clear();
    add("A");
    add("B", false);
    add("C");

    start();

    EXPECT_EQ(journal.events(), (Events{"A:start:1", "C:start:1"}));
    EXPECT_EQ(runState.load(), 1);
    EXPECT_EQ(service.states(), (std::vector<int>{2, 1}));
    EXPECT_EQ(p.property("persist.sys.vd.autostart"), "true");
}

TEST_F(RunStateTest, RefusalsOnlyResendTheState) {
    add("A");
    const struct {
        int from;
        void (*op)();
        const char* line;
    } cases[] = {
        {1, start, "vigild is running or transitioning no need to start"},
        {2, start, "vigild is running or transitioning no need to start"},
        {0, stop, "vigild is stopped or transitioning no need to stop"},
        {2, stop, "vigild is stopped or transitioning no need to stop"},
        {0, restartModules, "vigild is not running no need to restart modules"},
        {2, restartModules, "vigild is not running no need to restart modules"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line + std::string(" from ") + std::to_string(c.from));
        service.clearRecords();
        p.log().clear();
        runState = c.from;
        c.op();
        EXPECT_EQ(runState.load(), c.from);
        EXPECT_EQ(service.states(), (std::vector<int>{c.from}));
        EXPECT_TRUE(p.log().contains(c.line, kLogInfo));
    }
    EXPECT_TRUE(journal.events().empty());
    EXPECT_EQ(p.properties().writes().size(), 1u);  // only enableDebugLog's own write
}

TEST_F(RunStateTest, StopGivesEveryPrestopBeforeAnyStop) {
    add("A");
    add("B", false);
    add("C");
    start();
    journal.clear();
    service.clearRecords();

    stop();

    EXPECT_EQ(journal.events(), (Events{"A:prestop", "C:prestop", "A:stop", "C:stop"}));
    EXPECT_EQ(runState.load(), 0);
    EXPECT_EQ(service.states(), (std::vector<int>{2, 0}));
    EXPECT_EQ(p.property("persist.sys.vd.autostart"), "false");
}

TEST_F(RunStateTest, RestartTouchesOnlyMarkedModules) {
    add("A");
    modulePair& b = add("B");
    add("C");
    modulePair& d = add("D", false);
    start();
    journal.clear();
    b.restartNeeded = 1;
    d.restartNeeded = 1;  // marked but neither enabled nor started: left alone

    restartModules();

    EXPECT_EQ(journal.events(), (Events{"B:prestop", "B:stop", "B:start:1"}));
    EXPECT_EQ(b.restartNeeded.load(), 0);
    EXPECT_EQ(d.restartNeeded.load(), 0);
    EXPECT_EQ(runState.load(), 1);
}

TEST_F(RunStateTest, AMarkSetDuringARestartWaitsForTheNextOne) {
    modulePair& a = add("A");
    modulePair& b = add("B");
    start();
    journal.clear();
    a.restartNeeded = 1;
    // The file watch marks B once this restart has decided whom to stop.
    vigild::testing::AtSyncPoint watch("restartModules.marksTaken", [&] { b.restartNeeded = 1; });
    restartModules();
    EXPECT_EQ(journal.events(), (Events{"A:prestop", "A:stop", "A:start:1"}));
    EXPECT_EQ(b.restartNeeded.load(), 1);
}

TEST_F(RunStateTest, StoringAJudgedCopyKeepsEveryFieldTheModuleChanged) {
    modulePair& a = add("A");
    a.settings.configs.push_back(vigild::testing::makeSetting("Level", "int", "1"));
    Module::moduleConfig before = copySettings(a), judged = before;
    // addConfigInt on an existing setting sets its default as well as its value.
    strcpy(judged.configs[1].defaultValue, "5");
    strcpy(judged.configs[1].value, "5");
    storeChangedValues(a, before, judged);
    EXPECT_STREQ(a.settings.configs[1].defaultValue, "5");
    EXPECT_STREQ(a.settings.configs[1].value, "5");
}

TEST_F(RunStateTest, RestartStopsAModuleDisabledWhileRunning) {
    modulePair& a = add("A");
    modulePair& b = add("B", false);
    start();
    journal.clear();
    // The change disables A and enables B.
    setEnabled(a, false);
    setEnabled(b, true);
    a.restartNeeded = 1;
    b.restartNeeded = 1;

    restartModules();

    EXPECT_EQ(journal.events(),
              (Events{"A:prestop", "B:prestop", "A:stop", "B:stop", "B:start:1"}));

    // A is stopped now: a second change that marks it again does not stop it twice.
    journal.clear();
    a.restartNeeded = 1;
    restartModules();
    EXPECT_TRUE(journal.events().empty());
}

TEST_F(RunStateTest, RestartWhileStoppedKeepsTheFlagsAndAllDisabledStillEndsRunning) {
    modulePair& a = add("A", false);
    a.restartNeeded = 1;
    restartModules();
    EXPECT_EQ(a.restartNeeded.load(), 1);
    start();
    EXPECT_TRUE(journal.events().empty());
    EXPECT_EQ(runState.load(), 1);
}

TEST_F(RunStateTest, SyncPushesTheDaemonStateWhenTheServiceDisagrees) {
    const struct {
        std::optional<int> serviceSays;
        int daemon;
        bool mismatch;
    } cases[] = {{0, 0, false}, {1, 1, false}, {-1, 0, true}, {0, 1, true}, {1, 2, true}};
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.serviceSays.value_or(99)) + " vs " +
                     std::to_string(c.daemon));
        service.updateAnswers(
            [&](vdstandin::DeviceAnswers& a) { a.stateOverride = c.serviceSays; });
        service.clearRecords();
        p.log().clear();
        runState = c.daemon;

        syncServiceState();

        EXPECT_TRUE(p.log().contains("Current vigild state is " + std::to_string(c.daemon) +
                                     " and service state is " + std::to_string(*c.serviceSays)));
        EXPECT_EQ(p.log().contains("state mismatch ", kLogError), c.mismatch);
        EXPECT_EQ(runState.load(), c.daemon);
        std::vector<int> sent = service.states();
        if (c.mismatch) {
            EXPECT_EQ(sent.back(), c.daemon);
        } else {
            EXPECT_TRUE(sent.empty());
        }
    }
}

TEST_F(RunStateTest, OnlyABackwardJumpBetweenTheReadingsNotifiesModules) {
    add("A");
    add("B", false);
    const struct {
        time_t t1, t2;
        int state;
        bool notified;
    } cases[] = {
        {1000, 989, 1, true},    // back 11 s
        {1000, 990, 1, false},   // back exactly 10 s
        {1000, 1000, 1, false},  // no change
        {1000, 4600, 1, false},  // forward an hour
        {1000, 900, 0, false},   // stopped
        {1000, 900, 2, false},   // in transition
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.t1) + "->" + std::to_string(c.t2));
        journal.clear();
        p.log().clear();
        runState = c.state;
        p.clock().queueWallTimes({c.t1, c.t2});

        systemTimeCheker();

        EXPECT_EQ(journal.events(), c.notified ? Events{"A:time"} : Events{});
        EXPECT_EQ(p.log().contains("System time has changed notify the modules", kLogInfo),
                  c.notified);
    }
}

TEST_F(RunStateTest, QuickTapModeReloadsBeforeStarting) {
    add("A");
    p.setProperty("persist.sys.vd.quick_tap", "true");
    start();
    const auto lines = p.log().lines();
    EXPECT_TRUE(std::any_of(lines.begin(), lines.end(), [](const auto& l) {
        return l.priority == kLogInfo &&
               l.text.rfind("start()::Tw QuickTap is enabled::file to pick == ", 0) == 0;
    }));
    EXPECT_EQ(quickTapModeAtStart.load(), 0);
    EXPECT_EQ(journal.events(), (Events{"A:start:1"}));
    EXPECT_EQ(runState.load(), 1);
}

}  // namespace
