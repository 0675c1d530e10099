// The daemon core on the test platform: start-up waits and autostart, the command table, run-state
// transitions and their races, the end-of-file monitor, the wall-clock check and the modules:
// the library scan, the registry order and the daemon's own settings module.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "config/config_rebuild.h"
#include "config/config_validation.h"
#include "core/builtin_modules.h"
#include "core/command_loop.h"
#include "core/daemon_state.h"
#include "core/debug_singleton.h"
#include "core/eof_monitor.h"
#include "core/log.h"
#include "core/module_loader.h"
#include "core/module_registry.h"
#include "core/run_state.h"
#include "core/vigild.h"
#include "fakes/fake_module.h"
#include "fakes/test_platform.h"
#include "service/ivd_service.h"
#include "standin/standin_service.h"

namespace {

using namespace std::chrono_literals;
using vigild::testing::FakeModule;
using vigild::testing::installTestModule;
using vigild::testing::installTestModules;
using vigild::testing::TestPlatform;
using Events = std::vector<std::string>;
using Sleeps = std::vector<std::chrono::milliseconds>;
using States = std::vector<int>;

void setEnabled(modulePair& entry, bool enabled) {
    strcpy(entry.settings.configs[0].value, enabled ? "true" : "false");
}

class CoreTest : public ::testing::Test {
  protected:
    void SetUp() override {
        moduleRegistry.reserve(16);  // tests hold entry references across add()
        ASSERT_TRUE(service.start());
    }
    // A module journaling "Name:start:N" (N settings handed over), prestop, stop, time, eof?.
    modulePair& add(const std::string& name, bool enabled = true) {
        modules.add(name, enabled ? "true" : "false").journalTo(&journal);
        return moduleRegistry.back();
    }

    TestPlatform p;
    vdstandin::StandinService service{p.root()};
    vigild::testing::Journal journal;
    vigild::testing::FakeModules modules;
};

TEST(StartupTest, WaitsAreBoundedAndTheStorageWaitStopsTheService) {
    TestPlatform p;
    p.writeFile("/sdcard", "a file where the folder should be");
    EXPECT_EQ(duringBootCheckFileSystemAvailability("/sdcard/Tellwick/"), 1);
    EXPECT_EQ(p.clock().sleeps(), Sleeps(40, 5s));
    int calls = 0;
    EXPECT_FALSE(waitForStorage([&] { return calls++, std::string(); }));
    EXPECT_EQ(calls, 121);
    EXPECT_EQ(p.clock().sleeps(), Sleeps(40 + 120, 5s));
    // Tools match these lines word for word, misspellings included.
    EXPECT_TRUE(p.log().contains("No file system avaiable error, try 120 of 600", kLogInfo));
    EXPECT_TRUE(p.log().contains(
        "Error accessing file system after 600 ties. No internel or externel sdcard found ",
        kLogError));
    EXPECT_EQ(p.processes().commands(), Events{"setprop ctl.stop vigild"});
}

TEST_F(CoreTest, BootStartsOnlyOnAnExactTrueAndDropsALeftOverBugreportRequest) {
    p.makeDir("/system/lib64");
    for (const char* autostart : {"true", "TRUE"}) {
        SCOPED_TRACE(autostart);
        p.setProperty("persist.sys.vd.tw_bugreport", "true");
        p.setProperty("persist.sys.vd.autostart", autostart);
        DaemonThreads threads;
        ASSERT_EQ(bootDaemon(threads), kBootReady);
        exitRequested = 1;
        threads.monitorEOF.join();
        exitRequested = 0;
        const bool started = strcmp(autostart, "true") == 0;
        EXPECT_EQ(runState.load(), started ? kStateRunning : kStateStopped);
        EXPECT_EQ(p.property("persist.sys.vd.tw_bugreport"), "false");
        if (started) stop();
        moduleRegistry.clear();  // the loader keeps owning the built-ins
    }
}

TEST_F(CoreTest, EveryCommandOfTheTableRunsItsAction) {
    FakeModule& a = modules.add("A");
    FakeModule& recovery = modules.add("RecoveryModule");
    p.makeDir("/sdcard/Tellwick");
    auto enabledA = [] { return std::string(moduleRegistry[0].settings.configs[0].value); };
    auto firstCall = [&] { return service.records().at(0).method; };
    const auto vigild = std::make_pair(std::string("vigild"), std::string("14.0.15.19"));
    const std::pair<std::string, std::function<bool()>> cases[] = {
        // clang-format off
        {"start:", [&] { return a.starts == 1 && runState == 1; }},
        {"refresh_time", [&] { return a.timeChanges == 1; }},
        {"recovery_copy", [&] { return recovery.starts == 2; }},
        {"stop:", [&] { return a.stops == 1 && runState == 0; }},
        {"recovery_copy", [&] { return recovery.starts == 2; }},  // not started while stopped
        {"config_get:", [&] { return service.configs().size() == 1; }},
        {"config_set:", [&] { return enabledA() == "false"; }},
        {"fresh_connect", [&] { return service.versions().at(0) == vigild; }},
        {"refresh_config", [&] { return service.validUserFlags() == std::vector<int>{0}; }},
        {"refresh_state", [&] { return firstCall() == "getState"; }},
        {"reset_to_default", [&] { return enabledA() == "true"; }},
        {"delete_logs", [&] { return firstCall() == "getDeleteLogsParam"; }},
        // Only the whole exact word is a command.
        {"start", nullptr}, {"Start:", nullptr}, {" start:", nullptr}, {"fresh_connect:", nullptr},
        // clang-format on
    };
    for (const auto& [command, done] : cases) {
        SCOPED_TRACE("[" + command + "]");
        if (command == "refresh_time") p.clock().queueWallTimes({1000, 900});
        if (command == "config_set:") {  // the document "config_get:" sent, with A disabled
            std::string doc = service.configs().at(0);
            service.queueConfig(doc.replace(doc.find("\"true\""), 6, "\"false\""));
        }
        service.clearRecords();
        sp<Ivd_service> proxy = Ivd_service::getInterface();
        ASSERT_NE(proxy, nullptr);
        p.log().clear();
        dispatchCommand(command, *proxy);
        EXPECT_EQ(p.log().count("Recevied unknown command, ignoring", kLogError), done ? 0 : 1);
        if (done) {
            EXPECT_TRUE(done());
        } else {
            EXPECT_TRUE(service.records().empty());  // nothing ran
        }
    }
}

TEST_F(CoreTest, RefusedTransitionsOnlyResendTheState) {
    modulePair& a = add("A");
    const std::tuple<const char*, void (*)(), States> cases[] = {
        {"vigild is running or transitioning no need to start", start, {1, 2}},
        {"vigild is stopped or transitioning no need to stop", stop, {0, 2}},
        {"vigild is not running no need to restart modules", restartModules, {0, 2}}};
    for (const auto& [line, op, refusedIn] : cases) {
        for (int from : refusedIn) {
            SCOPED_TRACE(line + std::string(" from ") + std::to_string(from));
            p.log().clear();
            service.clearRecords();
            runState = from;
            a.restartNeeded = 1;
            op();
            EXPECT_EQ(runState.load(), from);
            EXPECT_EQ(service.states(), States{from});
            EXPECT_EQ(a.restartNeeded.load(), 1);  // the next start uses the new settings anyway
            EXPECT_TRUE(p.log().contains(line, kLogInfo));
        }
    }
    EXPECT_TRUE(journal.events().empty());
    EXPECT_EQ(p.property("persist.sys.vd.autostart"), "");  // neither set nor cleared
}

// One life of four modules, a step per row: what each transition does to whom.
TEST_F(CoreTest, TransitionsTouchEnabledAndMarkedModulesInRegistryOrder) {
    // A module without "Enable Module" (like the daemon's own) counts as disabled.
    add("Own").settings.configs.clear();
    add("A");
    add("B", false);
    add("C");
    const struct {
        const char* step;
        void (*op)();
        std::vector<int> marks;  // registry entries marked for restart
        std::vector<std::pair<int, bool>> enable;
        Events events;
        int state;
    } steps[] = {
        // clang-format off
        {"start", start, {}, {}, {"A:start:1", "C:start:1"}, 1},
        {"restart of the marked C only", restartModules, {3}, {}, {"C:prestop", "C:stop", "C:start:1"}, 1},
        {"a change disables A and enables B", restartModules, {1, 2}, {{1, false}, {2, true}},
         {"A:prestop", "B:prestop", "A:stop", "B:stop", "B:start:1"}, 1},
        {"A marked again: stopped already, not stopped twice", restartModules, {1}, {}, {}, 1},
        {"stop: every prestop before any stop", stop, {}, {}, {"B:prestop", "C:prestop", "B:stop", "C:stop"}, 0},
        // clang-format on
    };
    for (const auto& s : steps) {
        SCOPED_TRACE(s.step);
        journal.clear();
        service.clearRecords();
        for (int i : s.marks) moduleRegistry[i].restartNeeded = 1;
        for (const auto& [i, on] : s.enable) setEnabled(moduleRegistry[i], on);
        s.op();
        EXPECT_EQ(journal.events(), s.events);
        EXPECT_EQ(service.states(), (States{2, s.state}));
        EXPECT_EQ(p.property("persist.sys.vd.autostart"), s.state ? "true" : "false");
        for (const modulePair& entry : moduleRegistry) EXPECT_EQ(entry.restartNeeded.load(), 0);
    }
}

// Another thread acting at a fixed point inside a transition: one outcome, whatever the timing.
TEST_F(CoreTest, RacesWithATransitionResolveOneWay) {
    modulePair& a = add("A");
    modulePair& logcat = add("LogcatModule");
    modules[1].eof = true;
    p.clock().onSleep([](auto) { exitRequested = 1; });
    const struct {
        const char* race;
        const char* point;
        std::function<void()> other, run;
        Events events;
        int state;
    } races[] = {
        // clang-format off
        {"the file watch marks a module once the restart has taken the marks",
         "restartModules.marksTaken", [&] { logcat.restartNeeded = 1; }, [&] { a.restartNeeded = 1; restartModules(); },
         {"A:prestop", "A:stop", "A:start:1"}, kStateRunning},
        {"stop: lands between the end-of-file answer and the restart", "monitorEOF.beforeRestart",
         stop, monitorEOF,
         {"LogcatModule:eof?", "A:prestop", "LogcatModule:prestop", "A:stop", "LogcatModule:stop"},
         kStateStopped},
        // clang-format on
    };
    start();
    for (const auto& r : races) {
        SCOPED_TRACE(r.race);
        journal.clear();
        vigild::testing::AtSyncPoint at(r.point, r.other);
        r.run();
        EXPECT_EQ(journal.events(), r.events);
        EXPECT_EQ(runState.load(), r.state);
        EXPECT_EQ(logcat.restartNeeded.load(), 1);  // a mark set after the taking waits
    }
}

TEST_F(CoreTest, OnlyABackwardJumpOfMoreThanTenSecondsWhileRunningNotifiesModules) {
    add("A");
    add("B", false);
    // first reading, second reading, run state, notified
    const std::tuple<time_t, time_t, int, bool> cases[] = {
        {1000, 989, 1, true},  {1000, 990, 1, false}, {1000, 4600, 1, false},
        {1000, 900, 0, false}, {1000, 900, 2, false},
    };
    for (const auto& [t1, t2, state, notified] : cases) {
        SCOPED_TRACE(std::to_string(t2) + " in " + std::to_string(state));
        journal.clear();
        runState = state;
        p.clock().queueWallTimes({t1, t2});
        p.log().clear();
        systemTimeCheker();
        EXPECT_EQ(journal.events(), notified ? Events{"A:time"} : Events{});
        EXPECT_EQ(p.log().contains("System time has changed notify the modules", kLogInfo),
                  notified);
    }
}

// The monitor runs on the test thread; each 60-second sleep is a step ("sleep") after which
// the row's change (at sleep n) takes effect, and the run ends after the third.
TEST_F(CoreTest, EndOfFileMonitorRestartsTheEnabledLogcatModuleOncePerCycle) {
    const Events restart = {"eof?", "prestop", "stop", "start:1"}, asked = {"eof?"};
    const struct {
        const char* name;
        bool enabled, running;
        int runAt, enableAt, disableAt, eofAt;  // 0: never
        std::vector<Events> steps;
    } cases[] = {
        // clang-format off
        {"end of file on every call", true, true, 0, 0, 0, 1, {restart, restart, restart}},
        {"not asked while stopped", true, false, 2, 0, 0, 1, {{}, {}, restart}},
        {"disabled: re-read until enabled", false, true, 0, 2, 0, 0, {{}, {}, asked}},
        {"disabled while watched: asked until a restart", true, true, 0, 0, 1, 2, {asked, asked, restart}},
        // clang-format on
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        FakeModule& m = modules.add("LogcatModule", c.enabled ? "true" : "false");
        m.journalTo(&journal);
        m.eof = c.eofAt == 1;
        runState = c.running ? kStateRunning : kStateStopped;
        journal.clear();
        size_t n = 0;
        p.clock().onSleep([&](std::chrono::milliseconds d) {
            EXPECT_EQ(d, 60s);
            journal.add("sleep");
            if (++n == 3) exitRequested = 1;
            if (n == size_t(c.runAt)) runState = kStateRunning;
            if (n == size_t(c.enableAt) || n == size_t(c.disableAt)) {
                setEnabled(moduleRegistry[0], n == size_t(c.enableAt));
            }
            if (n == size_t(c.eofAt)) m.eof = true;
        });
        monitorEOF();
        Events expected;
        for (const Events& step : c.steps) {
            for (const std::string& e : step) expected.push_back("LogcatModule:" + e);
            expected.push_back("sleep");
        }
        EXPECT_EQ(journal.events(), expected);
        moduleRegistry.clear();
        exitRequested = 0;
    }
    p.clock().onSleep(nullptr);
    EXPECT_EQ(
        p.log().count("vigild::EOF! detected, starting counter measures to restart Logcat module",
                      kLogInfo),
        5);
}

// A module judges a copy of its settings; what it changed there comes back whole. addConfigInt
// on an existing setting moves its default too, or a later "reset_to_default" restores the old.
TEST_F(CoreTest, AJudgedCopyComesBackWithEveryFieldTheModuleChanged) {
    modulePair& a = add("A");
    a.settings.configs.push_back(vigild::testing::makeSetting("Level", "list", "1", {"x", "y"}));
    Module::moduleConfig before = copySettings(a), judged = before;
    strcpy(judged.configs[1].defaultValue, "0");
    judged.configs[1].options.push_back("z");
    storeChangedValues(a, before, judged);
    EXPECT_STREQ(a.settings.configs[1].defaultValue, "0");
    EXPECT_EQ(a.settings.configs[1].options.size(), 3u);
}

// Settings changed by a received document (command thread) and a deployed file (file watch)
// while the run state and the monitor read them: readers see whole values and a module's
// correction reaches the registry. Under ThreadSanitizer an unlocked writer shows up as a race.
TEST(SettingsRaceTest, ReceivedAndDeployedChangesNeverTearWhatReadersSee) {
    TestPlatform p;
    struct Judging : FakeModule {
        Judging() : FakeModule("LogcatModule") {}
        int configVal(moduleConfig& s, std::vector<std::string>& errors) override {
            strcpy(s.configs[2].value, "yes");
            return FakeModule::configVal(s, errors);
        }
    } module;
    modulePair& entry = vigild::testing::registerModule(module);
    const std::string a(200, 'a'), b(200, 'b');
    for (const char* name : {"Filter", "Checked"}) {
        entry.settings.configs.push_back(vigild::testing::makeSetting(name, "string", a.c_str()));
    }
    auto document = [](int i, const std::string& filter) {
        return std::string(R"({"LogcatModule":{"settings":[{"name":"Enable Module","type":)") +
               R"("boolean","value":")" + (i % 3 ? "true" : "false") +
               R"(","list":[]},{"name":"Filter","type":"string","value":")" + filter +
               R"(","list":[]},{"name":"Checked","type":"string","value":"no","list":[]}]}})";
    };
    std::atomic<bool> done{false};
    std::atomic<int> torn{0};
    std::thread reader([&] {
        while (!done) {
            isEntryEnabled(entry);
            const std::string v = copySettings(entry).configs.at(1).value;
            torn += v != a && v != b;
        }
    });
    std::thread watch([&] {
        for (int i = 0; i < 300; i++) makeUpdateConfig(document(i, b).c_str());
    });
    for (int i = 0; i < 300; i++) updateConfig(document(i + 1, i % 2 ? a : b).c_str());
    moduleValConfig(0);
    watch.join();
    done = true;
    reader.join();
    EXPECT_EQ(torn.load(), 0);
    EXPECT_STREQ(entry.settings.configs[2].value, "yes");
    EXPECT_GT(entry.restartNeeded.load(), 0);
}

// ---- modules --------------------------------------------------------------------------------

TEST(ModuleLoaderTest, LoadsOnlyRightLibrariesSortedBetweenTheBuiltIns) {
    TestPlatform p;
    setenv("VDTEST_INIT_LOG", p.hostPath("/inits").c_str(), 1);
    ASSERT_TRUE(installTestModules(
        p.root(),
        {"lib_vd_zzz.so", "lib_vd_alpha.so", "lib_vd_beta.so", "lib_vd_new.so", "lib_vd_old.so",
         "lib_vd_wrong.so", "lib_vd_skip.so", "lib_vd_noentry.so", "lib_vd_nullname.so",
         "lib_vd_nullversion.so", "lib_vd_lts.so", "libvd_x.so", "lib_VD_x.so"}));
    p.writeFile("/system/lib64/lib_vd_garbage.so", "This is not a shared library.\n");
    // Nothing behind the prefix, or no library suffix: tried like any other.
    ASSERT_TRUE(installTestModule(p.root(), "lib_vd_alpha.so", "lib_vd_"));
    ASSERT_TRUE(installTestModule(p.root(), "lib_vd_new.so", "lib_vd_new.txt"));

    EXPECT_EQ(buildModuleRegistry(), 0);
    unsetenv("VDTEST_INIT_LOG");
    Events names;
    for (const modulePair& entry : moduleRegistry) names.push_back(entry.settings.moduleName);
    EXPECT_EQ(names, (Events{"Tellwick Settings", "A", "B", "B", "LTSModule", "New", "New", "ZZZ",
                             "QuickTapModule"}));
    // init once each, in registry order; a refused module is never initialised.
    EXPECT_EQ(p.readFile("/inits"), "A\nB\nB\nLTSModule\nNew\nNew\nZZZ\n");
    // The "LTSModule" settings are handed to every module, the built-ins too.
    for (const modulePair& entry : moduleRegistry) {
        EXPECT_EQ(entry.module->ltsSettings, &moduleRegistry[4].settings);
    }
    EXPECT_TRUE(
        p.log().contains("Module: Wrong is using a different base version and cannot be "
                         "loaded. Needed base version 14.0.X.X, actual version 114.0.1",
                         kLogError));
    EXPECT_TRUE(p.log().contains(
        "Module: Skip is present but not loaded based off of the module determination", kLogInfo));
    // Each refusal is kept, by file, for the start-up summary.
    EXPECT_EQ(skippedLibraries().size(), 7u);
}

TEST(ModuleContractTest, TheDaemonsOwnSettingsGoToPropertiesAndTheService) {
    TestPlatform p;
    p.setProperty("persist.sys.vd.internal_sd", "true");
    resetDebugSwitchesForTesting();
    VigildModule module;
    modulePair entry(&module);
    module.init(entry.settings);
    auto value = [&](int i) { return entry.settings.configs.at(i).value; };
    EXPECT_STREQ(value(2), "true");  // "Enable internal sdcard only", from the property
    EXPECT_FALSE(isModuleEnabled(entry.settings));  // nothing to start: the run state passes it by
    vdstandin::StandinService service(p.root());
    ASSERT_TRUE(service.start());
    // Values are written back as the words they were read as.
    const std::vector<Events> rows = {
        // notifications, debug logs, internal only -> debug_log, internal_sd
        {"false", "true", "true", "true", "true"},
        {"true", "TRUE", "1", "false", "false"},
    };
    for (const Events& row : rows) {
        for (int i = 0; i < 3; i++) strcpy(value(i), row[i].c_str());
        std::vector<std::string> errors;
        module.configVal(entry.settings, errors);
        EXPECT_EQ(p.property("persist.sys.vd.debug_log") + value(1), row[3] + row[3]);
        EXPECT_EQ(p.property("persist.sys.vd.internal_sd") + value(2), row[4] + row[4]);
        EXPECT_EQ(debugSingleton::getInstance().internalSd.load(), row[4] == "true");
        EXPECT_FALSE(debugSingleton::getInstance().debugLog.load());  // waits for the next start
    }
    EXPECT_EQ(service.notificationFlags(), (std::vector<int>{0, 1}));
}

}  // namespace
