// The real vigild binary against a temporary device root, driven through the in-process
// stand-in companion service, with the real logcat module installed, and against faults around
// it: the service killed mid-call, bug report tools that misbehave, a full disk, a module whose
// start never returns. Time is scaled down; every wait is bounded real time on a real event.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "fakes/daemon_process.h"
#include "fakes/fake_module.h"
#include "fakes/test_platform.h"
#include "standin/standin_service.h"
#include "vigild/module.h"

namespace {

namespace fsys = std::filesystem;
using namespace std::chrono_literals;
using vigild::testing::eventually;
using vigild::testing::withSetting;

constexpr auto kTimeout = 15s;
constexpr const char* kConfigFile = "/sdcard/Tellwick/config.json";
constexpr const char* kLogcatLog = "/sdcard/Tellwick/logcat/logcat.log";
constexpr const char* kOwn = "Tellwick Settings";
constexpr const char* kNotifications = "Enable notifications";
const std::string kVigild = std::string(VIGILD_BINARY_DIR) + "/vigild";

int countOf(const std::string& text, const std::string& needle) {
    int n = 0;
    for (size_t at = 0; (at = text.find(needle, at)) != std::string::npos; at++) n++;
    return n;
}

// "true" or "false" as the document's notification switch says, "" for a torn document.
std::string notifications(const std::string& document) {
    const std::string same = withSetting(document, "", "", "");
    if (same.empty()) return "";
    return withSetting(document, kOwn, kNotifications, "true") == same ? "true" : "false";
}

class DaemonE2ETest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(daemon.makeRoot("/tmp/vde"));
        daemon.installModule(std::string(VIGILD_BINARY_DIR) + "/modules/logcat/lib_vd_logcat.so");
        fsys::create_directories(daemon.hostPath("/sdcard/Tellwick"));
        fsys::create_directories(daemon.hostPath("/bugreports"));
        startService();
    }
    void TearDown() override {
        daemon.kill();
        if (mounted) umount2(daemon.hostPath("/sdcard/Tellwick").c_str(), MNT_DETACH);
    }
    void startService() {
        service = std::make_unique<vdstandin::StandinService>(daemon.root());
        ASSERT_TRUE(service->start());
    }
    void launch(const std::vector<std::string>& env = {}) {
        ASSERT_TRUE(daemon.launch(env));
        ASSERT_TRUE(fetching()) << "the daemon never asked for a command";
    }
    bool fetching() {
        return eventually([&] { return service->waitingForCommand() > 0; }, kTimeout);
    }
    bool inState(int state) {
        return eventually(
            [&] { return !service->states().empty() && service->states().back() == state; },
            kTimeout);
    }
    bool logged(const std::string& file, const std::string& text, int times = 1) {
        return eventually([&] { return countOf(daemon.readFile(file), text) >= times; }, kTimeout);
    }
    std::string fetchConfig() { return vigild::testing::fetchConfig(*service, kTimeout); }
    void configSet(const std::string& document) {
        service->queueConfig(document);
        service->queueCommand("config_set:");
    }
    // One bug report request to its end: the status reported, -1 when none came.
    int bugreport(const std::string& tool) {
        daemon.writeBugreportTool(tool);
        size_t before = service->bugreportStatuses().size();
        daemon.setProperty("persist.sys.vd.tw_bugreport", "true");
        if (!eventually([&] { return service->bugreportStatuses().size() > before; }, 20s))
            return -1;
        EXPECT_TRUE(logged("/dev/__properties__/persist.sys.vd.tw_bugreport", "false"));
        return service->bugreportStatuses().back();
    }

    vigild::testing::DaemonProcess daemon{kVigild};
    std::unique_ptr<vdstandin::StandinService> service;
    bool mounted = false;
};

// What someone bringing the daemon up sees: a misspelt variable named, a rejected file explained
// and kept, one summary line, reminders at a falling rate while no service answers, one line
// once it does.
TEST_F(DaemonE2ETest, DiagnosticsOfAFirstStart) {
    service->stop();
    const std::string rejected = "{\n  \"Tellwick Settings\": {\"settings\": [,]}\n}\n";
    std::ofstream(daemon.hostPath(kConfigFile)) << rejected;
    ASSERT_TRUE(daemon.launch({"VIGILD_TIME_SCLAE=1"}));
    ASSERT_TRUE(logged("/vigild.stderr", "still not reachable after 4 min"));
    const std::string text = daemon.readFile("/vigild.stderr");
    const std::string socket = "socket " + daemon.root() + "/dev/binder/com.tandril.vd.Ivd_service";
    EXPECT_EQ(countOf(text, "vd_service not reachable yet; looking for it at " + socket), 1);
    // After 1, 2 and 4 minutes (8 may just have come), against a line per retry.
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
    EXPECT_EQ(countOf(text, "vigild 14.0.15.19 started: device root " + daemon.root() +
                                "/, storage root /sdcard/ (normal layout, internal), modules: "
                                "Tellwick Settings 14.0.0.0, LogcatModule 14.0.1.0, QuickTapModule "
                                "14.0.1.0; skipped: none; companion service: " +
                                socket),
              1);
    startService();
    EXPECT_TRUE(logged("/vigild.stderr", "vd_service connected (" + socket + ")"));
}

// A root that cannot be one ends the daemon at once with one line and status 2.
TEST(DaemonCommandLineTest, BadDeviceRootEndsTheDaemonWithStatusTwo) {
    const std::pair<std::string, std::string> cases[] = {
        {"", "vigild: VIGILD_ROOT must be set to the absolute path of the device root"},
        {"VIGILD_ROOT=/nonexistent/root",
         "vigild: VIGILD_ROOT /nonexistent/root: No such file or directory"},
        {"VIGILD_ROOT=" + kVigild, "vigild: VIGILD_ROOT " + kVigild + ": not a directory"},
    };
    std::string out;
    for (const auto& [env, line] : cases) {
        EXPECT_EQ(vigild::testing::runTool("env -u VIGILD_ROOT " + env + " " + kVigild, "", &out),
                  2);
        EXPECT_EQ(out, line + "\n");
    }
}

// A changed module is restarted with its new settings, an unchanged one is left running.
TEST_F(DaemonE2ETest, ChangesRestartOnlyTheChangedModule) {
    const char* header = "--- LogcatModule started ---";
    auto command = [](const char* word) {
        return std::string("for i in $(seq 30); do echo ") + word + " $i; sleep 1; done";
    };
    launch();
    configSet(withSetting(fetchConfig(), "LogcatModule", "Command", command("tick").c_str()));
    ASSERT_TRUE(logged(kConfigFile, "echo tick"));
    service->queueCommand("start:");
    ASSERT_TRUE(inState(1));
    ASSERT_TRUE(logged(kLogcatLog, "tick 1"));

    const std::string tock =
        withSetting(fetchConfig(), "LogcatModule", "Command", command("tock").c_str());
    configSet(tock);
    ASSERT_TRUE(logged(kLogcatLog, "tock 1"));
    EXPECT_EQ(countOf(daemon.readFile(kLogcatLog), header), 2);
    size_t states = service->states().size();
    configSet(withSetting(tock, kOwn, kNotifications, "false"));
    ASSERT_TRUE(eventually(
        [&] {
            auto flags = service->notificationFlags();
            return !flags.empty() && flags.back() == 0 && service->states().size() > states &&
                   service->states().back() == 1;
        },
        kTimeout));
    EXPECT_EQ(countOf(daemon.readFile(kLogcatLog), header), 2);
}

TEST_F(DaemonE2ETest, ServiceGoingAwayOrKilledInTheMiddleOfCallsAgainAndAgain) {
    const int rounds = getenv("VIGILD_HOSTILE_LONG") != nullptr ? 200 : 45;
    launch();
    service->queueCommand("start:");
    ASSERT_TRUE(inState(1));
    service->stop();
    // One line for the loss, one for the return, none per retry in between.
    ASSERT_TRUE(logged("/vigild.stderr", "vd_service lost; looking for it"));
    startService();
    ASSERT_TRUE(fetching()) << "the daemon did not reconnect";
    const std::string fds = "/proc/" + std::to_string(daemon.pid()) + "/fd";
    auto descriptors = [&] { return std::distance(fsys::directory_iterator(fds), {}); };
    const auto baseline = descriptors();
    EXPECT_EQ(countOf(daemon.readFile("/vigild.stderr"), "vd_service connected ("), 2);
    EXPECT_EQ(countOf(daemon.readFile("/vigild.stderr"), "vd_service lost; looking for it"), 1);
    // The new service believes "stopped": the daemon's own state wins.
    service->queueCommand("refresh_state");
    EXPECT_TRUE(inState(1));

    const std::string document = fetchConfig();
    ASSERT_EQ(notifications(document), "true");
    for (int i = 0; i < rounds; i++) {
        SCOPED_TRACE(i);
        const char* value = i % 2 == 0 ? "false" : "true";
        size_t echoes = service->configs().size();
        configSet(withSetting(document, kOwn, kNotifications, value));
        if (i % 3 == 1) {  // the document taken, the daemon applying and saving it
            service->waitUntil([](const auto& records) { return records.size() > 1; }, kTimeout);
        } else if (i % 3 == 2) {  // the whole command answered
            ASSERT_TRUE(eventually([&] { return service->configs().size() > echoes; }, kTimeout));
            EXPECT_EQ(notifications(service->configs().back()), value);
        }
        service->stop();
        // Never torn: whatever the daemon was doing, the file holds a whole document.
        EXPECT_NE(notifications(daemon.readFile(kConfigFile)), "");
        startService();
        ASSERT_TRUE(fetching()) << "the daemon did not reconnect";
    }
    // What the daemon holds is what it keeps on storage.
    const std::string held = fetchConfig();
    EXPECT_TRUE(eventually([&] { return daemon.readFile(kConfigFile) == held; }, kTimeout));
    // A connection or file left open per round would show here.
    EXPECT_TRUE(eventually([&] { return descriptors() <= baseline; }, kTimeout)) << baseline;
}

TEST_F(DaemonE2ETest, FullDiskDuringABugreportCopyAndAConfigurationSave) {
    mounted =
        mount("tmpfs", daemon.hostPath("/sdcard/Tellwick").c_str(), "tmpfs", 0, "size=256k") == 0;
    if (!mounted) GTEST_SKIP() << "cannot mount a tmpfs: " << strerror(errno);
    launch();
    const std::string document = fetchConfig();
    ASSERT_TRUE(eventually([&] { return !daemon.readFile(kConfigFile).empty(); }, kTimeout));
    // An archive larger than the disk: the copy fails and is reported.
    std::ofstream(daemon.hostPath("/bugreports/bugreport-big.zip")) << std::string(1 << 20, 'z');
    EXPECT_EQ(bugreport("echo 'OK:/bugreports/bugreport-big.zip'"), 0);
    // Whatever the copy left, fill the disk: the save fails and the file stays the last good one.
    std::ofstream(daemon.hostPath("/sdcard/Tellwick/filler")) << std::string(1 << 20, 'f');
    const std::string lastGood = daemon.readFile(kConfigFile);
    ASSERT_EQ(notifications(lastGood), "true");
    size_t echoes = service->configs().size();
    configSet(withSetting(document, kOwn, kNotifications, "false"));
    ASSERT_TRUE(eventually([&] { return service->configs().size() > echoes; }, kTimeout));
    EXPECT_EQ(daemon.readFile(kConfigFile), lastGood);
    ASSERT_TRUE(daemon.alive());
    // Room again: the next change is saved.
    fsys::remove(daemon.hostPath("/sdcard/Tellwick/filler"));
    fsys::remove(daemon.hostPath("/sdcard/Tellwick/TwBugreport-big.zip"));
    configSet(withSetting(document, kOwn, kNotifications, "false"));
    EXPECT_TRUE(eventually([&] { return notifications(daemon.readFile(kConfigFile)) == "false"; },
                           kTimeout));
}

// A module whose start() never returns holds the command thread: the state stays "transition"
// and commands wait, while the file watch and the bug report worker go on working.
TEST_F(DaemonE2ETest, ModuleWhoseStartNeverReturns) {
    daemon.installModule(std::string(VIGILD_TEST_MODULE_DIR) + "/faults/lib_vd_blockstart.so");
    const std::string marker = daemon.root() + "/start-entered";
    launch({"VDTEST_BLOCK_MARKER=" + marker});
    service->queueCommand("start:");
    ASSERT_TRUE(eventually([&] { return fsys::exists(marker); }, kTimeout));
    ASSERT_TRUE(inState(2));
    // A deleted configuration file is written back.
    ASSERT_TRUE(fsys::remove(daemon.hostPath(kConfigFile)));
    EXPECT_TRUE(eventually([&] { return notifications(daemon.readFile(kConfigFile)) == "true"; },
                           kTimeout));
    std::ofstream(daemon.hostPath("/bugreports/bugreport-hung.zip")) << "zip";
    EXPECT_EQ(bugreport("echo 'OK:/bugreports/bugreport-hung.zip'"), 1);
    EXPECT_EQ(daemon.readFile("/sdcard/Tellwick/TwBugreport-hung.zip"), "zip");
    EXPECT_EQ(service->states().back(), 2);
    EXPECT_EQ(service->waitingForCommand(), 0);
}

// The real logcat module loaded in this process, as the daemon loads it: a stop that never waits
// for its stream, and storage it must not write to.
TEST(LogcatModuleTest, StopNeverWaitsAndNoWriteLeavesTheStorage) {
    void* lib = dlopen(VIGILD_BINARY_DIR "/modules/logcat/lib_vd_logcat.so", RTLD_LAZY);
    ASSERT_NE(lib, nullptr) << dlerror();
    Module* m = reinterpret_cast<getModuleFn>(dlsym(lib, "getModule"))();
    char tmpl[] = "/tmp/vdl.XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    const std::string root = tmpl;
    setenv("VIGILD_ROOT", root.c_str(), 1);
    Module::moduleConfig settings;
    settings.moduleName = m->getName();
    settings.configs.push_back(vigild::testing::makeSetting("Enable Module", "boolean", "true"));
    m->init(settings);
    auto set = [&](const char* name, const char* value) {
        for (Module::config& c : settings.configs) {
            if (strcmp(c.name, name) == 0) snprintf(c.value, sizeof(c.value), "%s", value);
        }
    };

    // A grandchild in a session of its own escapes the kill of the group and keeps the pipe.
    set("Command", "setsid sleep 30 & echo $! > \"$VIGILD_ROOT/escaped\"; exec sleep 30");
    ASSERT_EQ(m->start(settings), 0);
    ASSERT_TRUE(eventually(
        [&] { return fsys::exists(root + "/escaped") && fsys::file_size(root + "/escaped") > 0; },
        5s));
    auto before = std::chrono::steady_clock::now();
    m->stop();
    EXPECT_LT(std::chrono::steady_clock::now() - before, 5s);
    pid_t escaped = 0;
    if (std::ifstream(root + "/escaped") >> escaped && escaped > 0) kill(escaped, SIGKILL);

    // Never through a link below the storage root, never outside it.
    fsys::create_directories(root + "/outside");
    fsys::create_directory_symlink(root + "/outside", root + "/sdcard/Tellwick/linked");
    set("Command", "echo leaked");
    // clang-format off
    for (const auto& [path, refused] : std::initializer_list<std::pair<const char*, bool>>{
             {"/sdcard/Tellwick/linked/", false}, {"/sdcard/../outside/", true}, {"relative/", true},
             {"/outside/", true}, {"/storage/../outside/", true}}) {
        // clang-format on
        SCOPED_TRACE(path);
        set("Log Path", path);
        EXPECT_EQ(m->start(settings), -1);
        EXPECT_TRUE(fsys::is_empty(root + "/outside"));
        std::vector<std::string> errors;
        m->configVal(settings, errors);
        EXPECT_EQ(errors.empty() ? "" : errors[0], refused ? "Log Path" : "");
    }
    // As on a device, "/sdcard" may be a link the system made to the real storage.
    fsys::remove_all(root + "/sdcard");
    fsys::create_directories(root + "/storage/emulated/0");
    fsys::create_directory_symlink(root + "/storage/emulated/0", root + "/sdcard");
    set("Log Path", "/sdcard/Tellwick/logcat/");
    set("Command", "echo through");
    ASSERT_EQ(m->start(settings), 0);
    ASSERT_TRUE(eventually([&] { return m->logcatEOFStatus() != 0; }, 5s));
    m->stop();
    std::string line;
    std::getline(std::ifstream(root + "/storage/emulated/0/Tellwick/logcat/logcat.log"), line);
    EXPECT_EQ(line, "--- LogcatModule started ---");
    fsys::remove_all(root);
}

}  // namespace
