// The daemon core on the test platform: start-up waits and order, the command table, run-state
// transitions and their races, the end-of-file monitor, the wall-clock check and the modules:
// the library scan, the registry order and the daemon's own settings module.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "config/config_rebuild.h"
#include "config/config_validation.h"
#include "config/document.h"
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
        p.enableDebugLog();
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
    {
        TestPlatform p;
        p.enableDebugLog();
        p.writeFile("/sdcard", "a file where the folder should be");
        EXPECT_EQ(duringBootCheckFileSystemAvailability("/sdcard/Tellwick/"), 1);
        EXPECT_EQ(p.clock().sleeps(), Sleeps(40, 5s));
        EXPECT_TRUE(p.log().contains("vigild::Attempt no :: 40 :: Failed to create directory: "));
        EXPECT_TRUE(p.log().contains("vigild::Exhausted all attempts. Unable to create directory: ",
                                     kLogInfo));
    }
    TestPlatform p;
    int calls = 0;
    EXPECT_FALSE(waitForStorage([&] { return calls++, std::string(); }));
    EXPECT_EQ(calls, 121);
    EXPECT_EQ(p.clock().sleeps(), Sleeps(120, 5s));
    // Tools match these lines word for word, misspellings included.
    EXPECT_TRUE(p.log().contains("No file system avaiable error, try 0 of 600", kLogInfo));
    EXPECT_TRUE(p.log().contains("No file system avaiable error, try 120 of 600", kLogInfo));
    EXPECT_TRUE(p.log().contains(
        "Error accessing file system after 600 ties. No internel or externel sdcard found ",
        kLogError));
    EXPECT_EQ(p.processes().commands(), Events{"setprop ctl.stop vigild"});
}

TEST_F(CoreTest, BootRunsItsStepsInOrderAndStartsOnlyOnAnExactTrue) {
    p.makeDir("/system/lib64");
    for (const char* autostart : {"true", "TRUE"}) {
        SCOPED_TRACE(autostart);
        p.log().clear();
        p.setProperty("persist.sys.vd.tw_bugreport", "true");
        p.setProperty("persist.sys.vd.autostart", autostart);
        DaemonThreads threads;
        ASSERT_EQ(bootDaemon(threads), kBootReady);
        exitRequested = 1;
        threads.monitorEOF.join();
        exitRequested = 0;
        const bool started = strcmp(autostart, "true") == 0;
        Events order = {"vd begin",
                        "vigild::duringBootCheckFileSystemAvailability::path == /sdcard/Tellwick/",
                        "vd so loaded init them: Tellwick Settings",
                        "vd so loaded init them: QuickTapModule", "watchConfig :BEGIN"};
        if (started) order.insert(order.end() - 1, {"start():BEGIN", "start():END"});
        for (size_t i = 1; i < order.size(); i++) {
            EXPECT_GT(p.log().indexOf(order[i]), p.log().indexOf(order[i - 1])) << order[i];
        }
        EXPECT_EQ(runState.load(), started ? kStateRunning : kStateStopped);
        EXPECT_EQ(p.property("persist.sys.vd.tw_bugreport"), "false");
        if (started) stop();
        for (modulePair& entry : moduleRegistry) delete entry.module;
        moduleRegistry.clear();
    }
}

TEST_F(CoreTest, EveryCommandOfTheTableWritesItsLineAndRunsItsAction) {
    FakeModule& a = modules.add("A");
    FakeModule& recovery = modules.add("RecoveryModule");
    p.makeDir("/sdcard/Tellwick");
    auto enabledA = [] { return std::string(moduleRegistry[0].settings.configs[0].value); };
    auto queueDisablingA = [&] {
        char* text = getConfig();
        std::string doc(text);
        free(text);
        service.queueConfig(doc.replace(doc.find("\"true\""), 6, "\"false\""));
    };
    auto called = [&](const char* method) {
        const auto records = service.records();
        return std::any_of(records.begin(), records.end(),
                           [&](auto& r) { return r.method == method; });
    };
    const auto vigild = std::make_pair(std::string("vigild"), std::string("14.0.15.19"));
    const struct {
        std::string command, line;
        std::function<bool()> done;
    } cases[] = {
        // clang-format off
        {"start:", "Executing start command", [&] { return a.starts == 1 && runState == 1; }},
        {"refresh_time", "Executing refresh_time command", [&] { return a.timeChanges == 1; }},
        {"recovery_copy", "Executing Copy Recovery Logs command", [&] { return recovery.starts == 2; }},
        {"stop:", "Executing stop command", [&] { return a.stops == 1 && runState == 0; }},
        {"config_get:", "Executing config_get command", [&] { return service.configs().size() == 1; }},
        {"config_set:", "Executing config_set command", [&] { return enabledA() == "false"; }},
        {"fresh_connect", "Executing fresh_connect command", [&] { return service.versions().at(0) == vigild; }},
        {"refresh_config", "Executing refresh_config command", [&] { return p.log().contains("watchConfig :BEGIN"); }},
        {"refresh_state", "Executing refresh_state command", [&] { return called("getState"); }},
        {"reset_to_default", "reset to default command", [&] { return enabledA() == "true"; }},
        {"delete_logs", "delete logs command", [&] { return called("getDeleteLogsParam"); }},
        // Only the whole exact word is a command.
        {"start", "", nullptr}, {"Start:", "", nullptr}, {"start: ", "", nullptr}, {" start:", "", nullptr},
        {"fresh_connect:", "", nullptr}, {"config_set", "", nullptr}, {"", "", nullptr},
        // clang-format on
    };
    for (const auto& c : cases) {
        SCOPED_TRACE("[" + c.command + "]");
        if (c.command == "refresh_time") p.clock().queueWallTimes({1000, 900});
        if (c.command == "config_set:") queueDisablingA();
        service.clearRecords();
        sp<Ivd_service> proxy = Ivd_service::getInterface();
        ASSERT_NE(proxy, nullptr);
        p.log().clear();
        dispatchCommand(c.command, *proxy);
        EXPECT_EQ(p.log().count("Recevied unknown command, ignoring", kLogError), c.done ? 0 : 1);
        if (c.done) {
            EXPECT_EQ(p.log().indexOf(c.line), 0);
            EXPECT_TRUE(c.done());
        } else {
            EXPECT_TRUE(service.records().empty());  // nothing ran
        }
    }
}

TEST_F(CoreTest, RefusedTransitionsOnlyResendTheState) {
    modulePair& a = add("A");
    const struct {
        void (*op)();
        States refusedIn;
        const char* line;
    } cases[] = {
        {start, {1, 2}, "vigild is running or transitioning no need to start"},
        {stop, {0, 2}, "vigild is stopped or transitioning no need to stop"},
        {restartModules, {0, 2}, "vigild is not running no need to restart modules"},
    };
    for (const auto& c : cases) {
        for (int from : c.refusedIn) {
            SCOPED_TRACE(c.line + std::string(" from ") + std::to_string(from));
            service.clearRecords();
            runState = from;
            a.restartNeeded = 1;
            c.op();
            EXPECT_EQ(runState.load(), from);
            EXPECT_EQ(service.states(), States{from});
            EXPECT_TRUE(p.log().contains(c.line, kLogInfo));
            EXPECT_EQ(a.restartNeeded.load(), 1);  // the next start uses the new settings anyway
        }
    }
    EXPECT_TRUE(journal.events().empty());
    // The property store holds enableDebugLog's switch and nothing else.
    std::filesystem::directory_iterator store(p.hostPath("/dev/__properties__")), end;
    EXPECT_EQ(std::distance(store, end), 1);
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
        p.log().clear();
        runState = state;
        p.clock().queueWallTimes({t1, t2});
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
        vigild::testing::FakeModules owned;
        FakeModule& m = owned.add("LogcatModule", c.enabled ? "true" : "false");
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
    EXPECT_EQ(p.log().count("vigild::EOF! detected, starting counter measures to restart Logcat "
                            "module",
                            kLogInfo),
              5);
}

// Settings changed by a received document (command thread) and a deployed file (file watch)
// while the run state and the monitor read them: readers see whole values and a module's
// correction reaches the registry. Under ThreadSanitizer an unlocked writer shows up as a race.
// A module judges a copy of its settings; what it changed there comes back whole. addConfigInt
// on an existing setting moves its default too, or a later "reset_to_default" restores the old.
TEST_F(CoreTest, AJudgedCopyComesBackWithEveryFieldTheModuleChanged) {
    modulePair& a = add("A");
    a.settings.configs.push_back(vigild::testing::makeSetting("Level", "list", "1", {"x", "y"}));
    Module::moduleConfig before = copySettings(a), judged = before;
    strcpy(judged.configs[1].defaultValue, "0");
    strcpy(judged.configs[1].value, "0");
    judged.configs[1].options.push_back("z");
    storeChangedValues(a, before, judged);
    EXPECT_STREQ(a.settings.configs[1].defaultValue, "0");
    EXPECT_STREQ(a.settings.configs[1].value, "0");
    EXPECT_EQ(a.settings.configs[1].options.size(), 3u);
}

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

std::vector<std::string> registryNames() {
    std::vector<std::string> out;
    for (const modulePair& entry : moduleRegistry) out.push_back(entry.settings.moduleName);
    return out;
}

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
    p.enableDebugLog();

    EXPECT_EQ(buildModuleRegistry(), 0);
    unsetenv("VDTEST_INIT_LOG");
    EXPECT_EQ(registryNames(), (Events{"Tellwick Settings", "A", "B", "B", "LTSModule", "New",
                                       "New", "ZZZ", "QuickTapModule"}));
    // init once each, in registry order; a refused module is never initialised.
    EXPECT_EQ(p.readFile("/inits"), "A\nB\nB\nLTSModule\nNew\nNew\nZZZ\n");
    // The "LTSModule" settings are handed to every module, the built-ins too.
    for (const modulePair& entry : moduleRegistry) {
        EXPECT_EQ(entry.module->ltsSettings, &moduleRegistry[4].settings);
    }
    auto& log = p.log();
    for (const auto& [name, version] :
         std::initializer_list<std::pair<std::string, std::string>>{{"Old", "14.0"},
                                                                    {"Wrong", "114.0.1"},
                                                                    {"(null)", "14.0.0.1"},
                                                                    {"NullVersion", "(null)"}}) {
        EXPECT_TRUE(log.contains("Module: " + name +
                                     " is using a different base version and cannot be loaded. "
                                     "Needed base version 14.0.X.X, actual version " +
                                     version,
                                 kLogError))
            << name;
    }
    EXPECT_TRUE(log.contains(
        "Module: Skip is present but not loaded based off of the module determination", kLogInfo));
    EXPECT_TRUE(log.contains("name is lib_vd_garbage.so", kLogError));
    EXPECT_FALSE(log.contains("vd so file found: libvd_x.so") ||
                 log.contains("vd so file found: lib_VD_x.so"));
    // Only dlopen failures stop before "post open".
    EXPECT_EQ(log.count("post open", kLogDebug), 13);
    EXPECT_EQ(log.count("Post create", kLogDebug), 7);
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
