// The real vigild binary against a temporary device root, driven through the in-process
// stand-in companion service, with the real logcat module library installed. Time is scaled
// down, and every wait is bounded real time on something the daemon does.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <jansson.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "fakes/eventually.h"
#include "standin/standin_service.h"

extern char** environ;

namespace {

namespace fsys = std::filesystem;
using namespace std::chrono_literals;
using vigild::testing::eventually;

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

// `document` with the setting `name` of module `module` set to `value`.
std::string withSetting(const std::string& document, const char* module, const char* name,
                        const char* value) {
    json_t* root = json_loads(document.c_str(), 0, nullptr);
    json_t* settings = json_object_get(json_object_get(root, module), "settings");
    for (size_t i = 0; i < json_array_size(settings); i++) {
        json_t* entry = json_array_get(settings, i);
        const char* entryName = json_string_value(json_object_get(entry, "name"));
        if (entryName != nullptr && std::string(entryName) == name) {
            json_object_set_new(entry, "value", json_string(value));
        }
    }
    char* text = json_dumps(root, 0);
    std::string result = text != nullptr ? text : "";
    free(text);
    json_decref(root);
    return result;
}

class DaemonE2ETest : public ::testing::Test {
  protected:
    void SetUp() override {
        char tmpl[] = "/tmp/vde.XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        root_ = tmpl;
        fsys::create_directories(host("/sdcard"));
        fsys::create_directories(host("/system/lib64"));
        fsys::copy_file(fsys::path(VIGILD_BINARY_DIR) / "modules/logcat/lib_vd_logcat.so",
                        host("/system/lib64/lib_vd_logcat.so"));
        // As after an earlier boot: the storage root is known, so the module's own log
        // folder is kept instead of being moved to the top folder.
        fsys::create_directories(host("/dev/__properties__"));
        std::ofstream(host("/dev/__properties__/persist.sys.vd.storage_path")) << "/sdcard/";
        startService();
    }

    void TearDown() override {
        killDaemon();
        if (service_) service_->stop();
        std::error_code ec;
        fsys::remove_all(root_, ec);
    }

    std::string host(const std::string& devicePath) const { return root_ + devicePath; }

    std::string read(const std::string& devicePath) const {
        std::ifstream in(host(devicePath), std::ios::binary);
        std::stringstream ss;
        ss << in.rdbuf();
        return ss.str();
    }

    void startService() {
        service_ = std::make_unique<vdstandin::StandinService>(root_);
        ASSERT_TRUE(service_->start());
    }

    void launchDaemon() {
        std::string rootVar = "VIGILD_ROOT=" + root_;
        std::vector<std::string> env = {rootVar, "VIGILD_TIME_SCALE=0.01"};
        for (char** e = environ; *e != nullptr; e++) {
            std::string var = *e;
            if (var.rfind("VIGILD_", 0) != 0) env.push_back(var);
        }
        std::vector<char*> envp;
        for (std::string& var : env) envp.push_back(var.data());
        envp.push_back(nullptr);
        std::string binary = std::string(VIGILD_BINARY_DIR) + "/vigild";
        std::string logFile = root_ + "/vigild.stderr";
        char* argv[] = {binary.data(), nullptr};
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, logFile.c_str(),
                                         O_WRONLY | O_CREAT | O_APPEND, 0644);
        ASSERT_EQ(posix_spawn(&daemon_, binary.c_str(), &actions, nullptr, argv, envp.data()), 0);
        posix_spawn_file_actions_destroy(&actions);
        ASSERT_TRUE(eventually([&] { return service_->waitingForCommand() > 0; }, kTimeout))
            << "the daemon never asked for a command";
    }

    void killDaemon() {
        if (daemon_ <= 0) return;
        kill(daemon_, SIGKILL);
        waitpid(daemon_, nullptr, 0);
        daemon_ = -1;
    }

    bool daemonAlive() { return daemon_ > 0 && waitpid(daemon_, nullptr, WNOHANG) == 0; }

    bool waitForState(int state) {
        return eventually(
            [&] {
                auto states = service_->states();
                return !states.empty() && states.back() == state;
            },
            kTimeout);
    }

    // Sends "config_get:" and returns the document the daemon answers with.
    std::string fetchConfig() {
        size_t before = service_->configs().size();
        service_->queueCommand("config_get:");
        EXPECT_TRUE(eventually([&] { return service_->configs().size() > before; }, kTimeout));
        auto configs = service_->configs();
        return configs.empty() ? "" : configs.back();
    }

    // Writes a property as the store does: a temporary file renamed over it.
    void setProperty(const std::string& name, const std::string& value) {
        std::string temp = host("/dev/__properties__/.e2e-" + name);
        std::ofstream(temp) << value;
        fsys::rename(temp, host("/dev/__properties__/" + name));
    }

    void writeTool(const std::string& body) {
        fsys::create_directories(host("/system/bin"));
        std::string path = host("/system/bin/bugreportz");
        std::ofstream(path) << "#!/bin/sh\n" << body << "\n";
        fsys::permissions(path, fsys::perms::owner_all);
    }

    int logcatStarts() const { return countOf(read(kLogcatLog), kStartHeader); }

    std::string root_;
    pid_t daemon_ = -1;
    std::unique_ptr<vdstandin::StandinService> service_;
};

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
    ASSERT_TRUE(eventually([&] { return read(kConfigFile).find("tick $i") != std::string::npos; },
                           kTimeout));
    EXPECT_EQ(logcatStarts(), 0);

    service_->queueCommand("start:");
    ASSERT_TRUE(waitForState(1));
    ASSERT_TRUE(
        eventually([&] { return read(kLogcatLog).find("tick 1") != std::string::npos; }, kTimeout));
    EXPECT_EQ(logcatStarts(), 1);

    // A change to the logcat module's own command restarts it with the new command.
    std::string document = withSetting(fetchConfig(), "LogcatModule", "Command",
                                       "for i in 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15; do echo "
                                       "tock $i; sleep 1; done");
    service_->queueConfig(document);
    service_->queueCommand("config_set:");
    ASSERT_TRUE(
        eventually([&] { return read(kLogcatLog).find("tock 1") != std::string::npos; }, kTimeout));
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
    EXPECT_TRUE(daemonAlive());
}

TEST_F(DaemonE2ETest, AutostartAfterARestartOfTheDaemon) {
    launchDaemon();
    EXPECT_TRUE(service_->states().empty() || service_->states().back() == 0);
    service_->queueCommand("start:");
    ASSERT_TRUE(waitForState(1));
    EXPECT_EQ(read(kAutostart), "true");
    ASSERT_TRUE(eventually([&] { return logcatStarts() == 1; }, kTimeout));

    killDaemon();
    service_->clearRecords();
    launchDaemon();
    // No command was given: the daemon resumes logging on its own.
    ASSERT_TRUE(waitForState(1));
    EXPECT_TRUE(eventually([&] { return logcatStarts() == 2; }, kTimeout));

    service_->queueCommand("stop:");
    ASSERT_TRUE(waitForState(0));
    EXPECT_EQ(read(kAutostart), "false");
}

TEST_F(DaemonE2ETest, LogcatStreamEndIsRestartedWhileRunning) {
    launchDaemon();
    service_->queueCommand("start:");
    ASSERT_TRUE(waitForState(1));
    service_->queueConfig(withSetting(fetchConfig(), "LogcatModule", "Command", "echo burst"));
    service_->queueCommand("config_set:");
    // The stream ends at once, so the end-of-file monitor restarts it every poll.
    EXPECT_TRUE(eventually([&] { return countOf(read(kLogcatLog), "burst") >= 3; }, kTimeout));

    EXPECT_TRUE(daemonAlive());
}

TEST_F(DaemonE2ETest, DeletedConfigurationFileIsWrittenBack) {
    launchDaemon();
    ASSERT_TRUE(eventually([&] { return fsys::exists(host(kConfigFile)); }, kTimeout));
    const std::string document = fetchConfig();
    ASSERT_FALSE(document.empty());

    fsys::remove(host(kConfigFile));
    ASSERT_TRUE(eventually([&] { return fsys::exists(host(kConfigFile)); }, kTimeout));
    EXPECT_TRUE(eventually([&] { return read(kConfigFile) == document; }, kTimeout));
    EXPECT_TRUE(daemonAlive());
}

TEST_F(DaemonE2ETest, ServiceGoingAwayAndComingBack) {
    launchDaemon();
    service_->queueCommand("start:");
    ASSERT_TRUE(waitForState(1));

    service_->stop();
    service_ = std::make_unique<vdstandin::StandinService>(root_);
    ASSERT_TRUE(service_->start());
    ASSERT_TRUE(eventually([&] { return service_->waitingForCommand() > 0; }, kTimeout))
        << "the daemon did not reconnect";

    // The new service believes "stopped"; the daemon's own state wins.
    service_->queueCommand("refresh_state");
    ASSERT_TRUE(waitForState(1));
    bool asked = false;
    for (const vdstandin::Record& r : service_->records()) asked |= r.method == "getState";
    EXPECT_TRUE(asked);
    EXPECT_TRUE(daemonAlive());
}

TEST_F(DaemonE2ETest, HungBugreportToolIsKilledAndTheNextRequestWorks) {
    writeTool("exec sleep 1000");
    launchDaemon();
    setProperty("persist.sys.vd.tw_bugreport", "true");
    // Ten minutes of device time, a few seconds at this time scale.
    ASSERT_TRUE(eventually([&] { return !service_->bugreportStatuses().empty(); }, 20s));
    EXPECT_EQ(service_->bugreportStatuses(), (std::vector<int>{0}));
    EXPECT_TRUE(eventually(
        [&] { return read("/dev/__properties__/persist.sys.vd.tw_bugreport") == "false"; },
        kTimeout));

    fsys::create_directories(host("/bugreports"));
    std::ofstream(host("/bugreports/bugreport-e2e.zip")) << "zip bytes";
    writeTool("echo 'OK:/bugreports/bugreport-e2e.zip'");
    setProperty("persist.sys.vd.tw_bugreport", "true");
    ASSERT_TRUE(eventually([&] { return service_->bugreportStatuses().size() == 2; }, kTimeout));
    EXPECT_EQ(service_->bugreportStatuses().back(), 1);
    EXPECT_EQ(read("/sdcard/Tellwick/TwBugreport-e2e.zip"), "zip bytes");
    EXPECT_FALSE(fsys::exists(host("/bugreports/bugreport-e2e.zip")));
    EXPECT_TRUE(daemonAlive());
}

}  // namespace
