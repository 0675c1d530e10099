// The command table, one command at a time, and the fetch loop against the stand-in
// service: exact matching, the config_set road, the reconnect pair and a service that
// goes away and comes back.
#include "core/command_loop.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "config/document.h"
#include "core/daemon_state.h"
#include "core/log.h"
#include "core/module_registry.h"
#include "core/run_state.h"
#include "fakes/eventually.h"
#include "fakes/fake_module.h"
#include "fakes/test_platform.h"
#include "service/ivd_service.h"
#include "standin/standin_service.h"

namespace {

using namespace std::chrono_literals;
using vigild::testing::FakeModule;
using vigild::testing::registerModule;
using vigild::testing::TestPlatform;

bool hasMethod(const vdstandin::StandinService& s, const std::string& method) {
    for (const auto& r : s.records()) {
        if (r.method == method) return true;
    }
    return false;
}

class CommandLoopTest : public ::testing::Test {
  protected:
    void SetUp() override {
        resetRunStateForTesting();
        p.enableDebugLog();
        p.makeDir("/sdcard/Tellwick");
        registerModule(a);
        registerModule(recovery);
        ASSERT_TRUE(service.start());
    }
    const char* enableA() { return moduleRegistry[0].settings.configs[0].value; }

    TestPlatform p;
    vdstandin::StandinService service{p.root()};
    FakeModule a{"A"};
    FakeModule recovery{"RecoveryModule"};
};

TEST_F(CommandLoopTest, EveryCommandOfTheTableRunsItsAction) {
    const struct {
        std::string command;
        std::string debugLine;
        std::function<void()> before;
        std::function<void()> check;
    } cases[] = {
        {"start:", "Executing start command", [] {},
         [&] {
             EXPECT_EQ(runState.load(), kStateRunning);
             EXPECT_EQ(a.starts.load(), 1);
         }},
        {"refresh_time", "Executing refresh_time command",
         [&] {
             p.clock().queueWallTimes({1000, 900});
         },
         [&] { EXPECT_EQ(a.timeChanges.load(), 1); }},
        {"recovery_copy", "Executing Copy Recovery Logs command", [] {},
         [&] { EXPECT_EQ(recovery.starts.load(), 2); }},
        {"stop:", "Executing stop command", [] {},
         [&] {
             EXPECT_EQ(runState.load(), kStateStopped);
             EXPECT_EQ(a.stops.load(), 1);
         }},
        {"config_get:", "Executing config_get command", [] {},
         [&] { EXPECT_EQ(service.configs().size(), 1u); }},
        {"config_set:", "Executing config_set command",
         [&] {
             // The current document with A's "Enable Module" turned off.
             char* text = getConfig();
             std::string doc(text);
             free(text);
             size_t at = doc.find("\"true\"");
             ASSERT_NE(at, std::string::npos);
             service.queueConfig(doc.replace(at, 6, "\"false\""));
         },
         [&] {
             EXPECT_TRUE(hasMethod(service, "receiveConfig"));
             EXPECT_STREQ(enableA(), "false");
         }},
        {"fresh_connect", "Executing fresh_connect command", [] {},
         [&] {
             auto versions = service.versions();
             ASSERT_FALSE(versions.empty());
             EXPECT_EQ(versions.front(),
                       std::make_pair(std::string("vigild"), std::string("14.0.15.19")));
         }},
        {"refresh_config", "Executing refresh_config command", [] {},
         [&] { EXPECT_TRUE(p.log().contains("watchConfig :BEGIN")); }},
        {"refresh_state", "Executing refresh_state command", [] {},
         [&] { EXPECT_TRUE(hasMethod(service, "getState")); }},
        {"reset_to_default", "reset to default command", [] {},
         [&] { EXPECT_STREQ(enableA(), "true"); }},
        {"delete_logs", "delete logs command", [] {},
         [&] { EXPECT_TRUE(hasMethod(service, "getDeleteLogsParam")); }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.command);
        c.before();
        service.clearRecords();
        sp<Ivd_service> proxy = Ivd_service::getInterface();
        ASSERT_NE(proxy, nullptr);
        p.log().clear();

        dispatchCommand(c.command, *proxy);

        EXPECT_EQ(p.log().indexOf(c.debugLine), 0);
        EXPECT_FALSE(p.log().contains("Recevied unknown command, ignoring"));
        c.check();
    }
}

TEST_F(CommandLoopTest, OnlyWholeExactWordsAreCommands) {
    for (const char* text : {"start", "Start:", "start: ", " start:", "start:\n",
                             "START:", "fresh_connect:", "stop", "config_set", "Error", ""}) {
        SCOPED_TRACE(std::string("[") + text + "]");
        p.log().clear();
        sp<Ivd_service> proxy = Ivd_service::getInterface();
        dispatchCommand(text, *proxy);
        EXPECT_EQ(p.log().count("Recevied unknown command, ignoring", kLogError), 1);
    }
    EXPECT_EQ(runState.load(), kStateStopped);
    EXPECT_EQ(a.starts.load(), 0);
    EXPECT_TRUE(service.records().empty());
}

// Runs the loop on its own thread. A test that fails early still ends it: `unblock` makes
// a pending waitForResponse return.
class LoopRunner {
  public:
    explicit LoopRunner(std::function<void()> unblock)
        : unblock_(std::move(unblock)), thread_([this] {
              vd_service_handler();
              done_ = true;
          }) {}
    ~LoopRunner() {
        if (!done_) {
            exitRequested = 1;
            unblock_();
        }
        thread_.join();
    }
    bool finished(std::chrono::milliseconds timeout) {
        return vigild::testing::eventually([this] { return done_.load(); }, timeout);
    }

  private:
    std::atomic<bool> done_{false};
    std::function<void()> unblock_;
    std::thread thread_;
};

using vigild::testing::eventually;

TEST_F(CommandLoopTest, LoopRunsCommandsInOrderWithAFreshFetchEach) {
    {
        LoopRunner loop([&] { service.stop(); });
        service.queueCommand("start:");
        service.queueCommand("start:");
        service.queueCommand("Start:");
        // Back in waitForResponse after the third command: only then ask it to end.
        ASSERT_TRUE(eventually(
            [&] {
                return p.log().contains("message is: Start:") && service.waitingForCommand() == 1;
            },
            10s));
        exitRequested = 1;
        service.queueCommand("stop:");
        ASSERT_TRUE(loop.finished(10s));
    }
    const std::vector<std::string> expected = {
        "message is: start:",
        "Executing start command",
        "message is: start:",
        "Executing start command",
        "vigild is running or transitioning no need to start",
        "message is: Start:",
        "Recevied unknown command, ignoring",
        "message is: stop:",
        "Executing stop command"};
    size_t from = 0;
    for (const std::string& line : expected) {
        int at = p.log().indexOf(line, from);
        ASSERT_GE(at, 0) << line;
        from = static_cast<size_t>(at) + 1;
    }
    int fetches = 0;
    for (const auto& r : service.records()) fetches += r.method == "waitForResponse";
    EXPECT_EQ(fetches, 4);
    EXPECT_EQ(a.starts.load(), 1);
    EXPECT_EQ(runState.load(), kStateStopped);
    EXPECT_EQ(lastCommand, "stop:");
}

TEST_F(CommandLoopTest, UnreachableServiceRetriesOncePerSecond) {
    service.stop();
    p.clock().onSleep([&](std::chrono::milliseconds) {
        if (p.clock().sleepCount() == 3) exitRequested = 1;
    });
    ASSERT_TRUE(vigild::testing::finishesWithin(messageHandler, 10s));

    EXPECT_EQ(p.clock().sleeps(), (std::vector<std::chrono::milliseconds>{1s, 1s, 1s}));
    std::string errors;
    for (const auto& line : p.log().lines()) {
        if (line.priority == kLogError) errors += line.text + "|";
    }
    const std::string attempt =
        "Failed to obtain a handle to the vd_service|Failed to obtain a handle on vd_service|"
        "Waited trying to connect to service again|";
    EXPECT_EQ(errors, attempt + attempt + attempt);
    EXPECT_FALSE(p.log().contains("Waited trying to connect to service again", kLogDebug));
}

TEST_F(CommandLoopTest, ServiceThatGoesAwayIsFoundAgain) {
    vdstandin::StandinService second(p.root());
    p.clock().onSleep([&](std::chrono::milliseconds) {
        if (p.clock().sleepCount() == 2) {
            ASSERT_TRUE(second.start());
        }
    });
    LoopRunner loop([&] {
        service.stop();
        second.stop();
    });
    ASSERT_TRUE(eventually([&] { return service.waitingForCommand() == 1; }, 10s));
    service.stop();
    ASSERT_TRUE(eventually([&] { return second.waitingForCommand() == 1; }, 10s));
    exitRequested = 1;
    second.queueCommand("start:");
    ASSERT_TRUE(loop.finished(10s));

    // The dead peer reads as "Error", an unknown command (more than once when a connect
    // slipped in while the service was closing); then two failed connects.
    EXPECT_GE(p.log().count("Recevied unknown command, ignoring"), 1);
    EXPECT_EQ(p.log().count("Waited trying to connect to service again"), 2);
    EXPECT_EQ(second.states(), (std::vector<int>{2, 1}));
}

}  // namespace
