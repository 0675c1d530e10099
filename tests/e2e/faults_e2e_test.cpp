// The real daemon against faults around it: the companion service killed in the middle of
// calls, a bug report tool that crashes or prints garbage, a full disk, a module whose start
// never returns. Time is scaled down; every wait is bounded real time on a real event.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <jansson.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "standin/standin_service.h"

extern char** environ;

namespace {

namespace fsys = std::filesystem;
using namespace std::chrono_literals;

constexpr auto kTimeout = 15s;
constexpr const char* kConfigFile = "/sdcard/Tellwick/config.json";
constexpr const char* kBugreportProp = "/dev/__properties__/persist.sys.vd.tw_bugreport";

bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(20ms);
    }
    return true;
}

// The value of setting `name` of `module` in a document, or "" when absent or unparsable.
std::string settingOf(const std::string& document, const char* module, const char* name) {
    json_t* root = json_loads(document.c_str(), 0, nullptr);
    std::string value;
    json_t* settings = json_object_get(json_object_get(root, module), "settings");
    for (size_t i = 0; i < json_array_size(settings); i++) {
        json_t* entry = json_array_get(settings, i);
        const char* entryName = json_string_value(json_object_get(entry, "name"));
        if (entryName != nullptr && strcmp(entryName, name) == 0) {
            const char* v = json_string_value(json_object_get(entry, "value"));
            value = v != nullptr ? v : "";
        }
    }
    json_decref(root);
    return value;
}

std::string withSetting(const std::string& document, const char* module, const char* name,
                        const char* value) {
    json_t* root = json_loads(document.c_str(), 0, nullptr);
    json_t* settings = json_object_get(json_object_get(root, module), "settings");
    for (size_t i = 0; i < json_array_size(settings); i++) {
        json_t* entry = json_array_get(settings, i);
        const char* entryName = json_string_value(json_object_get(entry, "name"));
        if (entryName != nullptr && strcmp(entryName, name) == 0) {
            json_object_set_new(entry, "value", json_string(value));
        }
    }
    char* text = json_dumps(root, 0);
    std::string result = text != nullptr ? text : "";
    free(text);
    json_decref(root);
    return result;
}

constexpr const char* kDaemonModule = "Tellwick Settings";
constexpr const char* kNotifications = "Enable notifications";

class FaultsE2ETest : public ::testing::Test {
  protected:
    void SetUp() override {
        char tmpl[] = "/tmp/vdf.XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        root_ = tmpl;
        fsys::create_directories(host("/sdcard/Tellwick"));
        fsys::create_directories(host("/system/lib64"));
        fsys::create_directories(host("/dev/__properties__"));
        std::ofstream(host("/dev/__properties__/persist.sys.vd.storage_path")) << "/sdcard/";
        startService();
    }
    void TearDown() override {
        killDaemon();
        if (service_) service_->stop();
        if (mounted_) umount2(host("/sdcard/Tellwick").c_str(), MNT_DETACH);
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
    void launchDaemon(std::vector<std::string> extraEnv = {}) {
        std::vector<std::string> env = {"VIGILD_ROOT=" + root_, "VIGILD_TIME_SCALE=0.01"};
        for (char** e = environ; *e != nullptr; e++) {
            if (std::string(*e).rfind("VIGILD_", 0) != 0) env.push_back(*e);
        }
        for (std::string& var : extraEnv) env.push_back(var);
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
        ASSERT_TRUE(waitingForCommand()) << "the daemon never asked for a command";
    }
    bool waitingForCommand() {
        return eventually([&] { return service_->waitingForCommand() > 0; }, kTimeout);
    }
    void killDaemon() {
        if (daemon_ <= 0) return;
        kill(daemon_, SIGKILL);
        waitpid(daemon_, nullptr, 0);
        daemon_ = -1;
    }
    bool daemonAlive() { return daemon_ > 0 && waitpid(daemon_, nullptr, WNOHANG) == 0; }

    std::string fetchConfig() {
        size_t before = service_->configs().size();
        service_->queueCommand("config_get:");
        EXPECT_TRUE(eventually([&] { return service_->configs().size() > before; }, kTimeout));
        auto configs = service_->configs();
        return configs.empty() ? "" : configs.back();
    }
    void setProperty(const std::string& name, const std::string& value) {
        std::string temp = host("/dev/__properties__/.f-" + name);
        std::ofstream(temp) << value;
        fsys::rename(temp, host("/dev/__properties__/" + name));
    }
    void writeTool(const std::string& body) {
        fsys::create_directories(host("/system/bin"));
        std::string path = host("/system/bin/bugreportz");
        std::string temp = path + ".new";
        std::ofstream(temp) << "#!/bin/sh\n" << body << "\n";
        fsys::permissions(temp, fsys::perms::owner_all);
        fsys::rename(temp, path);
    }
    // One bug report request to its end: the status the daemon reported, -1 when none came.
    int requestBugreport() {
        size_t before = service_->bugreportStatuses().size();
        setProperty("persist.sys.vd.tw_bugreport", "true");
        if (!eventually([&] { return service_->bugreportStatuses().size() > before; }, 20s)) {
            return -1;
        }
        EXPECT_TRUE(eventually([&] { return read(kBugreportProp) == "false"; }, kTimeout));
        return service_->bugreportStatuses().back();
    }
    bool mountSmallDisk(const char* size) {
        mounted_ = mount("tmpfs", host("/sdcard/Tellwick").c_str(), "tmpfs", 0, size) == 0;
        return mounted_;
    }

    std::string root_;
    pid_t daemon_ = -1;
    bool mounted_ = false;
    std::unique_ptr<vdstandin::StandinService> service_;
};

TEST_F(FaultsE2ETest, ServiceKilledInTheMiddleOfCallsAgainAndAgain) {
    const int rounds = getenv("VIGILD_HOSTILE_LONG") != nullptr ? 200 : 45;
    launchDaemon();
    const std::string document = fetchConfig();
    ASSERT_FALSE(settingOf(document, kDaemonModule, kNotifications).empty());

    for (int i = 0; i < rounds; i++) {
        SCOPED_TRACE(i);
        const char* value = i % 2 == 0 ? "false" : "true";
        size_t echoes = service_->configs().size();
        service_->queueConfig(withSetting(document, kDaemonModule, kNotifications, value));
        service_->queueCommand("config_set:");
        switch (i % 3) {
            case 0:  // before or while the command is taken
                break;
            case 1:  // the document taken, the daemon busy applying and saving it
                service_->waitUntil(
                    [](const std::vector<vdstandin::Record>& records) {
                        for (const auto& r : records) {
                            if (r.method == "receiveConfig") return true;
                        }
                        return false;
                    },
                    kTimeout);
                break;
            case 2:  // the whole command answered
                ASSERT_TRUE(
                    eventually([&] { return service_->configs().size() > echoes; }, kTimeout));
                EXPECT_EQ(settingOf(service_->configs().back(), kDaemonModule, kNotifications),
                          value);
                break;
        }
        service_->stop();
        // Never torn: whatever the daemon was doing, the file holds a whole document.
        EXPECT_FALSE(settingOf(read(kConfigFile), kDaemonModule, kNotifications).empty());
        startService();
        ASSERT_TRUE(waitingForCommand()) << "the daemon did not reconnect";
        ASSERT_TRUE(daemonAlive());
    }

    // What the daemon holds is what it keeps on storage.
    std::string held = fetchConfig();
    ASSERT_FALSE(settingOf(held, kDaemonModule, kNotifications).empty());
    EXPECT_TRUE(eventually([&] { return read(kConfigFile) == held; }, kTimeout));
    // And it still takes a change.
    service_->queueConfig(withSetting(held, kDaemonModule, kNotifications, "false"));
    service_->queueCommand("config_set:");
    EXPECT_TRUE(eventually(
        [&] { return settingOf(read(kConfigFile), kDaemonModule, kNotifications) == "false"; },
        kTimeout));
}

TEST_F(FaultsE2ETest, BugreportToolThatCrashesOrPrintsGarbageNeverTouchesOtherFiles) {
    // Files the tool's "OK:" line may name but which are not the tool's archives.
    fsys::create_directories(host("/etc"));
    std::ofstream(host("/etc/passwd")) << "root:x:0:0";
    fsys::create_directories(host("/bugreports"));
    fsys::create_symlink(host("/etc/passwd"), host("/bugreports/bugreport-link.zip"));
    fsys::create_directory(host("/bugreports/bugreport-dir.zip"));
    launchDaemon();
    const std::string config = read(kConfigFile);
    ASSERT_FALSE(config.empty());

    const struct {
        const char* name;
        const char* tool;
    } cases[] = {
        {"crash", "echo 'OK:/bugreports/bugreport-x.zip'\nkill -SEGV $$"},
        {"random bytes", "head -c 300000 /dev/urandom"},
        {"huge output", "head -c 30000000 /dev/zero | tr '\\0' 'O'"},
        {"OK without a path", "echo 'OK:'"},
        {"OK outside the root", "echo 'OK:/../../etc/passwd'"},
        {"OK on a link", "echo 'OK:/bugreports/bugreport-link.zip'"},
        {"OK on a folder", "echo 'OK:/bugreports/bugreport-dir.zip'"},
        {"OK on a device", "echo 'OK:/dev/bugreport-zero'"},
    };
    fsys::create_symlink("/dev/zero", host("/dev/bugreport-zero"));
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        writeTool(c.tool);
        EXPECT_EQ(requestBugreport(), 0);
        ASSERT_TRUE(daemonAlive());
        EXPECT_EQ(read("/etc/passwd"), "root:x:0:0");
        EXPECT_TRUE(fsys::is_symlink(host("/bugreports/bugreport-link.zip")));
        EXPECT_TRUE(fsys::is_directory(host("/bugreports/bugreport-dir.zip")));
        EXPECT_TRUE(fsys::is_symlink(host("/dev/bugreport-zero")));
        EXPECT_EQ(read(kConfigFile), config);
        for (const auto& e : fsys::directory_iterator(host("/sdcard/Tellwick"))) {
            EXPECT_NE(e.path().filename().string().rfind("TwBugreport-", 0), 0u) << e.path();
        }
    }
    // A well-behaved tool still works afterwards.
    std::ofstream(host("/bugreports/bugreport-good.zip")) << "zip";
    writeTool("echo 'OK:/bugreports/bugreport-good.zip'");
    EXPECT_EQ(requestBugreport(), 1);
    EXPECT_EQ(read("/sdcard/Tellwick/TwBugreport-good.zip"), "zip");
}

TEST_F(FaultsE2ETest, FullDiskDuringABugreportCopyAndAConfigurationSave) {
    if (!mountSmallDisk("size=256k")) GTEST_SKIP() << "cannot mount a tmpfs: " << strerror(errno);
    launchDaemon();
    const std::string document = fetchConfig();
    ASSERT_TRUE(eventually([&] { return !read(kConfigFile).empty(); }, kTimeout));

    // An archive larger than the disk: the copy fails and is reported.
    fsys::create_directories(host("/bugreports"));
    {
        std::ofstream archive(host("/bugreports/bugreport-big.zip"), std::ios::binary);
        archive << std::string(1 << 20, 'z');
    }
    writeTool("echo 'OK:/bugreports/bugreport-big.zip'");
    EXPECT_EQ(requestBugreport(), 0);
    ASSERT_TRUE(daemonAlive());

    // Whatever the copy left, fill what is left of the disk: the next save cannot be written,
    // and the file on storage stays the last good document.
    {
        std::ofstream filler(host("/sdcard/Tellwick/filler"), std::ios::binary);
        filler << std::string(1 << 20, 'f');
    }
    const std::string lastGood = read(kConfigFile);
    ASSERT_FALSE(settingOf(lastGood, kDaemonModule, kNotifications).empty());
    size_t echoes = service_->configs().size();
    service_->queueConfig(withSetting(document, kDaemonModule, kNotifications, "false"));
    service_->queueCommand("config_set:");
    ASSERT_TRUE(eventually([&] { return service_->configs().size() > echoes; }, kTimeout));
    EXPECT_EQ(read(kConfigFile), lastGood);
    ASSERT_TRUE(daemonAlive());

    // Room again: the next change is saved.
    fsys::remove(host("/sdcard/Tellwick/filler"));
    fsys::remove(host("/sdcard/Tellwick/TwBugreport-big.zip"));
    service_->queueConfig(withSetting(document, kDaemonModule, kNotifications, "false"));
    service_->queueCommand("config_set:");
    EXPECT_TRUE(eventually(
        [&] { return settingOf(read(kConfigFile), kDaemonModule, kNotifications) == "false"; },
        kTimeout));
}

// The command loop is one thread: a module that never returns from start() holds it, so the
// state stays "transition" and commands wait. The file watch and the bug report worker run on
// their own threads and go on working.
TEST_F(FaultsE2ETest, ModuleWhoseStartNeverReturns) {
    fsys::copy_file(fsys::path(VIGILD_TEST_MODULE_DIR) / "faults/lib_vd_blockstart.so",
                    host("/system/lib64/lib_vd_blockstart.so"));
    const std::string marker = root_ + "/start-entered";
    launchDaemon({"VDTEST_BLOCK_MARKER=" + marker});
    service_->queueCommand("start:");
    ASSERT_TRUE(eventually([&] { return fsys::exists(marker); }, kTimeout));
    ASSERT_TRUE(eventually(
        [&] { return !service_->states().empty() && service_->states().back() == 2; }, kTimeout));

    // The file watch puts a deleted configuration file back.
    ASSERT_TRUE(fsys::remove(host(kConfigFile)));
    EXPECT_TRUE(eventually([&] { return !read(kConfigFile).empty(); }, kTimeout));

    // The bug report worker files an archive.
    fsys::create_directories(host("/bugreports"));
    std::ofstream(host("/bugreports/bugreport-hung.zip")) << "zip";
    writeTool("echo 'OK:/bugreports/bugreport-hung.zip'");
    EXPECT_EQ(requestBugreport(), 1);
    EXPECT_EQ(read("/sdcard/Tellwick/TwBugreport-hung.zip"), "zip");

    // The command loop is still inside start(): the state never left "transition".
    EXPECT_EQ(service_->states().back(), 2);
    EXPECT_EQ(service_->waitingForCommand(), 0);
    EXPECT_TRUE(daemonAlive());
}

}  // namespace
