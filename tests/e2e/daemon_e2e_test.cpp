// The real vigild binary against a temporary device root, driven through the in-process
// stand-in companion service, with the real logcat module library installed. Time is scaled
// down, and every wait is bounded real time on something the daemon does.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "fakes/daemon_process.h"
#include "fakes/eventually.h"
#include "fakes/run_tool.h"
#include "standin/standin_service.h"

namespace {

namespace fsys = std::filesystem;
using namespace std::chrono_literals;
using vigild::testing::eventually;
using vigild::testing::withSetting;

constexpr auto kTimeout = 15s;
constexpr const char* kConfigFile = "/sdcard/Tellwick/config.json";
constexpr const char* kLogcatLog = "/sdcard/Tellwick/logcat/logcat.log";
constexpr const char* kStartHeader = "--- LogcatModule started ---";
constexpr const char* kAutostart = "/dev/__properties__/persist.sys.vd.autostart";

int countOf(const std::string& text, const std::string& needle) {
    int n = 0;
    for (size_t pos = text.find(needle); pos != std::string::npos;
         pos = text.find(needle, pos + needle.size())) {
        n++;
    }
    return n;
}

class DaemonE2ETest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(daemon_.makeRoot("/tmp/vde"));
        daemon_.installModule(std::string(VIGILD_BINARY_DIR) + "/modules/logcat/lib_vd_logcat.so");
        startService();
    }

    void TearDown() override {
        daemon_.kill();
        if (service_) service_->stop();
    }

    void startService() {
        service_ = std::make_unique<vdstandin::StandinService>(daemon_.root());
        ASSERT_TRUE(service_->start());
    }

    void launchDaemon() {
        ASSERT_TRUE(daemon_.launch());
        ASSERT_TRUE(eventually([&] { return service_->waitingForCommand() > 0; }, kTimeout))
            << "the daemon never asked for a command";
    }

    bool waitForState(int state) {
        return eventually(
            [&] {
                auto states = service_->states();
                return !states.empty() && states.back() == state;
            },
            kTimeout);
    }

    std::string fetchConfig() { return vigild::testing::fetchConfig(*service_, kTimeout); }

    int logcatStarts() const { return countOf(daemon_.read(kLogcatLog), kStartHeader); }

    vigild::testing::DaemonProcess daemon_{std::string(VIGILD_BINARY_DIR) + "/vigild"};
    std::unique_ptr<vdstandin::StandinService> service_;
};

// What someone bringing the daemon up sees: a misspelt variable named, a rejected file explained
// and kept, one summary line, reminders at a falling rate while no service answers, and one
// line once it does.
TEST_F(DaemonE2ETest, DiagnosticsOfAFirstStart) {
    service_->stop();
    const std::string rejected = "{\n  \"Tellwick Settings\": {\"settings\": [,]}\n}\n";
    fsys::create_directories(daemon_.host("/sdcard/Tellwick"));
    std::ofstream(daemon_.host(kConfigFile)) << rejected;
    ASSERT_TRUE(daemon_.launch({"VIGILD_TIME_SCLAE=1"}));
    auto log = [&] { return daemon_.read("/vigild.stderr"); };
    ASSERT_TRUE(eventually([&] { return countOf(log(), "still not reachable after 4 min") > 0; },
                           kTimeout));
    const std::string text = log();
    const std::string socket =
        "socket " + daemon_.root() + "/dev/binder/com.tandril.vd.Ivd_service";
    EXPECT_EQ(countOf(text, "vd_service not reachable yet; looking for it at " + socket), 1);
    // After 1, 2 and 4 minutes (8 may just have come), against a line per retry.
    EXPECT_GE(countOf(text, "vd_service still not reachable after "), 3);
    EXPECT_LE(countOf(text, "vd_service still not reachable after "), 4);
    EXPECT_GE(countOf(text, "Waited trying to connect to service again"), 200);
    EXPECT_EQ(countOf(text,
                      "vigild: unknown variable VIGILD_TIME_SCLAE is ignored; did you mean "
                      "VIGILD_TIME_SCALE?"),
              1);
    EXPECT_EQ(countOf(text,
                      "config file /sdcard/Tellwick/config.json rejected: line 2, column 38: "
                      "not valid JSON: unexpected token near ','; every setting is reset to "
                      "its default; the rejected file is kept as "
                      "/sdcard/Tellwick/config.json.rejected"),
              1);
    EXPECT_EQ(daemon_.read("/sdcard/Tellwick/config.json.rejected"), rejected);
    EXPECT_EQ(countOf(text, "vigild 14.0.15.19 started: device root " + daemon_.root() +
                                "/, storage root /sdcard/ (normal layout, internal), modules: "
                                "Tellwick Settings 14.0.0.0, LogcatModule 14.0.1.0, QuickTapModule "
                                "14.0.1.0; skipped: none; companion service: " +
                                socket),
              1);
    startService();
    EXPECT_TRUE(eventually(
        [&] { return countOf(log(), "vd_service connected (" + socket + ")") == 1; }, kTimeout));
}

// A root that cannot be one ends the daemon at once with one line; --help and --version never
// start it.
TEST(DaemonCommandLineTest, BadDeviceRootAndTheTwoQuestions) {
    const std::string vigild = std::string(VIGILD_BINARY_DIR) + "/vigild";
    const std::pair<std::string, std::string> cases[] = {
        {"", "vigild: VIGILD_ROOT must be set to the absolute path of the device root"},
        {"VIGILD_ROOT=/nonexistent/root",
         "vigild: VIGILD_ROOT /nonexistent/root: No such file or directory"},
        {"VIGILD_ROOT=" + vigild, "vigild: VIGILD_ROOT " + vigild + ": not a directory"},
    };
    std::string out;
    for (const auto& [env, line] : cases) {
        EXPECT_EQ(vigild::testing::runTool("env -u VIGILD_ROOT " + env + " " + vigild, "", &out),
                  2);
        EXPECT_EQ(out, line + "\n");
    }
    EXPECT_EQ(vigild::testing::runTool("env -u VIGILD_ROOT " + vigild, "--version", &out), 0);
    EXPECT_EQ(out, "vigild 14.0.15.19\n");
    EXPECT_EQ(vigild::testing::runTool("env -u VIGILD_ROOT " + vigild, "--help", &out), 0);
    EXPECT_EQ(out.rfind("Usage: vigild", 0), 0u) << out;
}

TEST_F(DaemonE2ETest, ConfigSetRestartsOnlyTheChangedModule) {
    launchDaemon();
    service_->queueCommand("fresh_connect");
    ASSERT_TRUE(eventually(
        [&] {
            for (const auto& [name, version] : service_->versions()) {
                if (name == "LogcatModule" && version == "14.0.1.0") return true;
            }
            return false;
        },
        kTimeout));
    EXPECT_EQ(service_->versions().front(),
              (std::pair<std::string, std::string>("vigild", "14.0.15.19")));

    // While stopped a change is only stored: a long command, so no end of stream interferes.
    const char* longCommand =
        "for i in 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15; do echo tick $i; "
        "sleep 1; done";
    service_->queueConfig(withSetting(fetchConfig(), "LogcatModule", "Command", longCommand));
    service_->queueCommand("config_set:");
    ASSERT_TRUE(eventually(
        [&] { return daemon_.read(kConfigFile).find("tick $i") != std::string::npos; }, kTimeout));
    EXPECT_EQ(logcatStarts(), 0);

    service_->queueCommand("start:");
    ASSERT_TRUE(waitForState(1));
    ASSERT_TRUE(eventually(
        [&] { return daemon_.read(kLogcatLog).find("tick 1") != std::string::npos; }, kTimeout));
    EXPECT_EQ(logcatStarts(), 1);

    // A change to the logcat module's own command restarts it with the new command.
    std::string document = withSetting(fetchConfig(), "LogcatModule", "Command",
                                       "for i in 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15; do echo "
                                       "tock $i; sleep 1; done");
    service_->queueConfig(document);
    service_->queueCommand("config_set:");
    ASSERT_TRUE(eventually(
        [&] { return daemon_.read(kLogcatLog).find("tock 1") != std::string::npos; }, kTimeout));
    EXPECT_EQ(logcatStarts(), 2);
    ASSERT_TRUE(waitForState(1));

    // A change to the daemon's own settings leaves the logcat module running.
    size_t statesBefore = service_->states().size();
    service_->queueConfig(
        withSetting(document, "Tellwick Settings", "Enable notifications", "false"));
    service_->queueCommand("config_set:");
    ASSERT_TRUE(eventually(
        [&] {
            auto flags = service_->notificationFlags();
            return !flags.empty() && flags.back() == 0 &&
                   service_->states().size() > statesBefore && service_->states().back() == 1;
        },
        kTimeout));
    EXPECT_EQ(logcatStarts(), 2);
    EXPECT_TRUE(daemon_.alive());
}

TEST_F(DaemonE2ETest, AutostartAfterARestartOfTheDaemon) {
    launchDaemon();
    EXPECT_TRUE(service_->states().empty() || service_->states().back() == 0);
    service_->queueCommand("start:");
    ASSERT_TRUE(waitForState(1));
    EXPECT_EQ(daemon_.read(kAutostart), "true");
    ASSERT_TRUE(eventually([&] { return logcatStarts() == 1; }, kTimeout));

    daemon_.kill();
    service_->clearRecords();
    launchDaemon();
    // No command was given: the daemon resumes logging on its own.
    ASSERT_TRUE(waitForState(1));
    EXPECT_TRUE(eventually([&] { return logcatStarts() == 2; }, kTimeout));

    service_->queueCommand("stop:");
    ASSERT_TRUE(waitForState(0));
    EXPECT_EQ(daemon_.read(kAutostart), "false");
}

TEST_F(DaemonE2ETest, LogcatStreamEndIsRestartedWhileRunning) {
    launchDaemon();
    service_->queueCommand("start:");
    ASSERT_TRUE(waitForState(1));
    service_->queueConfig(withSetting(fetchConfig(), "LogcatModule", "Command", "echo burst"));
    service_->queueCommand("config_set:");
    // The stream ends at once, so the end-of-file monitor restarts it every poll.
    EXPECT_TRUE(
        eventually([&] { return countOf(daemon_.read(kLogcatLog), "burst") >= 3; }, kTimeout));

    EXPECT_TRUE(daemon_.alive());
}

TEST_F(DaemonE2ETest, DeletedConfigurationFileIsWrittenBack) {
    launchDaemon();
    ASSERT_TRUE(eventually([&] { return fsys::exists(daemon_.host(kConfigFile)); }, kTimeout));
    const std::string document = fetchConfig();
    ASSERT_FALSE(document.empty());

    fsys::remove(daemon_.host(kConfigFile));
    ASSERT_TRUE(eventually([&] { return fsys::exists(daemon_.host(kConfigFile)); }, kTimeout));
    EXPECT_TRUE(eventually([&] { return daemon_.read(kConfigFile) == document; }, kTimeout));
    EXPECT_TRUE(daemon_.alive());
}

TEST_F(DaemonE2ETest, ServiceGoingAwayAndComingBack) {
    launchDaemon();
    service_->queueCommand("start:");
    ASSERT_TRUE(waitForState(1));

    service_->stop();
    // One line for the loss, one for the return; none per retry in between.
    auto log = [&] { return daemon_.read("/vigild.stderr"); };
    ASSERT_TRUE(eventually([&] { return countOf(log(), "vd_service lost; looking for it") == 1; },
                           kTimeout));
    service_ = std::make_unique<vdstandin::StandinService>(daemon_.root());
    ASSERT_TRUE(service_->start());
    ASSERT_TRUE(eventually([&] { return service_->waitingForCommand() > 0; }, kTimeout))
        << "the daemon did not reconnect";
    EXPECT_EQ(countOf(log(), "vd_service connected ("), 2);
    EXPECT_EQ(countOf(log(), "vd_service lost; looking for it"), 1);

    // The new service believes "stopped"; the daemon's own state wins.
    service_->queueCommand("refresh_state");
    ASSERT_TRUE(waitForState(1));
    bool asked = false;
    for (const vdstandin::Record& r : service_->records()) asked |= r.method == "getState";
    EXPECT_TRUE(asked);
    EXPECT_TRUE(daemon_.alive());
}

TEST_F(DaemonE2ETest, HungBugreportToolIsKilledAndTheNextRequestWorks) {
    daemon_.writeBugreportTool("exec sleep 1000");
    launchDaemon();
    daemon_.setProperty("persist.sys.vd.tw_bugreport", "true");
    // Ten minutes of device time, a few seconds at this time scale.
    ASSERT_TRUE(eventually([&] { return !service_->bugreportStatuses().empty(); }, 20s));
    EXPECT_EQ(service_->bugreportStatuses(), (std::vector<int>{0}));
    EXPECT_TRUE(eventually(
        [&] { return daemon_.read("/dev/__properties__/persist.sys.vd.tw_bugreport") == "false"; },
        kTimeout));

    fsys::create_directories(daemon_.host("/bugreports"));
    std::ofstream(daemon_.host("/bugreports/bugreport-e2e.zip")) << "zip bytes";
    daemon_.writeBugreportTool("echo 'OK:/bugreports/bugreport-e2e.zip'");
    daemon_.setProperty("persist.sys.vd.tw_bugreport", "true");
    ASSERT_TRUE(eventually([&] { return service_->bugreportStatuses().size() == 2; }, kTimeout));
    EXPECT_EQ(service_->bugreportStatuses().back(), 1);
    EXPECT_EQ(daemon_.read("/sdcard/Tellwick/TwBugreport-e2e.zip"), "zip bytes");
    EXPECT_FALSE(fsys::exists(daemon_.host("/bugreports/bugreport-e2e.zip")));
    EXPECT_TRUE(daemon_.alive());
}

}  // namespace
