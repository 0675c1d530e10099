// The real daemon against faults around it: the companion service killed in the middle of
// calls, a bug report tool that crashes or prints garbage, a full disk, a module whose start
// never returns. Time is scaled down; every wait is bounded real time on a real event.
#include <gtest/gtest.h>
#include <jansson.h>
#include <stdlib.h>
#include <sys/mount.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "fakes/daemon_process.h"
#include "fakes/eventually.h"
#include "standin/standin_service.h"

namespace {

namespace fsys = std::filesystem;
using namespace std::chrono_literals;
using vigild::testing::eventually;
using vigild::testing::withSetting;

constexpr auto kTimeout = 15s;
constexpr const char* kConfigFile = "/sdcard/Tellwick/config.json";
constexpr const char* kBugreportProp = "/dev/__properties__/persist.sys.vd.tw_bugreport";

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

constexpr const char* kDaemonModule = "Tellwick Settings";
constexpr const char* kNotifications = "Enable notifications";

class FaultsE2ETest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(daemon_.makeRoot("/tmp/vdf"));
        fsys::create_directories(daemon_.host("/sdcard/Tellwick"));
        startService();
    }
    void TearDown() override {
        daemon_.kill();
        if (service_) service_->stop();
        if (mounted_) umount2(daemon_.host("/sdcard/Tellwick").c_str(), MNT_DETACH);
    }

    void startService() {
        service_ = std::make_unique<vdstandin::StandinService>(daemon_.root());
        ASSERT_TRUE(service_->start());
    }
    void launchDaemon(std::vector<std::string> extraEnv = {}) {
        ASSERT_TRUE(daemon_.launch(extraEnv));
        ASSERT_TRUE(waitingForCommand()) << "the daemon never asked for a command";
    }
    bool waitingForCommand() {
        return eventually([&] { return service_->waitingForCommand() > 0; }, kTimeout);
    }
    std::string fetchConfig() { return vigild::testing::fetchConfig(*service_, kTimeout); }
    // One bug report request to its end: the status the daemon reported, -1 when none came.
    int requestBugreport() {
        size_t before = service_->bugreportStatuses().size();
        daemon_.setProperty("persist.sys.vd.tw_bugreport", "true");
        if (!eventually([&] { return service_->bugreportStatuses().size() > before; }, 20s)) {
            return -1;
        }
        EXPECT_TRUE(eventually([&] { return daemon_.read(kBugreportProp) == "false"; }, kTimeout));
        return service_->bugreportStatuses().back();
    }
    bool mountSmallDisk(const char* size) {
        mounted_ = mount("tmpfs", daemon_.host("/sdcard/Tellwick").c_str(), "tmpfs", 0, size) == 0;
        return mounted_;
    }

    vigild::testing::DaemonProcess daemon_{std::string(VIGILD_BINARY_DIR) + "/vigild"};
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
        EXPECT_FALSE(settingOf(daemon_.read(kConfigFile), kDaemonModule, kNotifications).empty());
        startService();
        ASSERT_TRUE(waitingForCommand()) << "the daemon did not reconnect";
        ASSERT_TRUE(daemon_.alive());
    }

    // What the daemon holds is what it keeps on storage.
    std::string held = fetchConfig();
    ASSERT_FALSE(settingOf(held, kDaemonModule, kNotifications).empty());
    EXPECT_TRUE(eventually([&] { return daemon_.read(kConfigFile) == held; }, kTimeout));
    // And it still takes a change.
    service_->queueConfig(withSetting(held, kDaemonModule, kNotifications, "false"));
    service_->queueCommand("config_set:");
    EXPECT_TRUE(eventually(
        [&] {
            return settingOf(daemon_.read(kConfigFile), kDaemonModule, kNotifications) == "false";
        },
        kTimeout));
}

TEST_F(FaultsE2ETest, BugreportToolThatCrashesOrPrintsGarbageNeverTouchesOtherFiles) {
    // Files the tool's "OK:" line may name but which are not the tool's archives.
    fsys::create_directories(daemon_.host("/etc"));
    std::ofstream(daemon_.host("/etc/passwd")) << "root:x:0:0";
    fsys::create_directories(daemon_.host("/bugreports"));
    fsys::create_symlink(daemon_.host("/etc/passwd"),
                         daemon_.host("/bugreports/bugreport-link.zip"));
    fsys::create_directory(daemon_.host("/bugreports/bugreport-dir.zip"));
    launchDaemon();
    const std::string config = daemon_.read(kConfigFile);
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
    fsys::create_symlink("/dev/zero", daemon_.host("/dev/bugreport-zero"));
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        daemon_.writeBugreportTool(c.tool);
        EXPECT_EQ(requestBugreport(), 0);
        ASSERT_TRUE(daemon_.alive());
        EXPECT_EQ(daemon_.read("/etc/passwd"), "root:x:0:0");
        EXPECT_TRUE(fsys::is_symlink(daemon_.host("/bugreports/bugreport-link.zip")));
        EXPECT_TRUE(fsys::is_directory(daemon_.host("/bugreports/bugreport-dir.zip")));
        EXPECT_TRUE(fsys::is_symlink(daemon_.host("/dev/bugreport-zero")));
        EXPECT_EQ(daemon_.read(kConfigFile), config);
        for (const auto& e : fsys::directory_iterator(daemon_.host("/sdcard/Tellwick"))) {
            EXPECT_NE(e.path().filename().string().rfind("TwBugreport-", 0), 0u) << e.path();
        }
    }
    // A well-behaved tool still works afterwards.
    std::ofstream(daemon_.host("/bugreports/bugreport-good.zip")) << "zip";
    daemon_.writeBugreportTool("echo 'OK:/bugreports/bugreport-good.zip'");
    EXPECT_EQ(requestBugreport(), 1);
    EXPECT_EQ(daemon_.read("/sdcard/Tellwick/TwBugreport-good.zip"), "zip");
}

TEST_F(FaultsE2ETest, FullDiskDuringABugreportCopyAndAConfigurationSave) {
    if (!mountSmallDisk("size=256k")) GTEST_SKIP() << "cannot mount a tmpfs: " << strerror(errno);
    launchDaemon();
    const std::string document = fetchConfig();
    ASSERT_TRUE(eventually([&] { return !daemon_.read(kConfigFile).empty(); }, kTimeout));

    // An archive larger than the disk: the copy fails and is reported.
    fsys::create_directories(daemon_.host("/bugreports"));
    {
        std::ofstream archive(daemon_.host("/bugreports/bugreport-big.zip"), std::ios::binary);
        archive << std::string(1 << 20, 'z');
    }
    daemon_.writeBugreportTool("echo 'OK:/bugreports/bugreport-big.zip'");
    EXPECT_EQ(requestBugreport(), 0);
    ASSERT_TRUE(daemon_.alive());

    // Whatever the copy left, fill what is left of the disk: the next save cannot be written,
    // and the file on storage stays the last good document.
    {
        std::ofstream filler(daemon_.host("/sdcard/Tellwick/filler"), std::ios::binary);
        filler << std::string(1 << 20, 'f');
    }
    const std::string lastGood = daemon_.read(kConfigFile);
    ASSERT_FALSE(settingOf(lastGood, kDaemonModule, kNotifications).empty());
    size_t echoes = service_->configs().size();
    service_->queueConfig(withSetting(document, kDaemonModule, kNotifications, "false"));
    service_->queueCommand("config_set:");
    ASSERT_TRUE(eventually([&] { return service_->configs().size() > echoes; }, kTimeout));
    EXPECT_EQ(daemon_.read(kConfigFile), lastGood);
    ASSERT_TRUE(daemon_.alive());

    // Room again: the next change is saved.
    fsys::remove(daemon_.host("/sdcard/Tellwick/filler"));
    fsys::remove(daemon_.host("/sdcard/Tellwick/TwBugreport-big.zip"));
    service_->queueConfig(withSetting(document, kDaemonModule, kNotifications, "false"));
    service_->queueCommand("config_set:");
    EXPECT_TRUE(eventually(
        [&] {
            return settingOf(daemon_.read(kConfigFile), kDaemonModule, kNotifications) == "false";
        },
        kTimeout));
}

// The command loop is one thread: a module that never returns from start() holds it, so the
// state stays "transition" and commands wait. The file watch and the bug report worker run on
// their own threads and go on working.
TEST_F(FaultsE2ETest, ModuleWhoseStartNeverReturns) {
    daemon_.installModule(std::string(VIGILD_TEST_MODULE_DIR) + "/faults/lib_vd_blockstart.so");
    const std::string marker = daemon_.root() + "/start-entered";
    launchDaemon({"VDTEST_BLOCK_MARKER=" + marker});
    service_->queueCommand("start:");
    ASSERT_TRUE(eventually([&] { return fsys::exists(marker); }, kTimeout));
    ASSERT_TRUE(eventually(
        [&] { return !service_->states().empty() && service_->states().back() == 2; }, kTimeout));

    // The file watch puts a deleted configuration file back.
    ASSERT_TRUE(fsys::remove(daemon_.host(kConfigFile)));
    EXPECT_TRUE(eventually([&] { return !daemon_.read(kConfigFile).empty(); }, kTimeout));

    // The bug report worker files an archive.
    fsys::create_directories(daemon_.host("/bugreports"));
    std::ofstream(daemon_.host("/bugreports/bugreport-hung.zip")) << "zip";
    daemon_.writeBugreportTool("echo 'OK:/bugreports/bugreport-hung.zip'");
    EXPECT_EQ(requestBugreport(), 1);
    EXPECT_EQ(daemon_.read("/sdcard/Tellwick/TwBugreport-hung.zip"), "zip");

    // The command loop is still inside start(): the state never left "transition".
    EXPECT_EQ(service_->states().back(), 2);
    EXPECT_EQ(service_->waitingForCommand(), 0);
    EXPECT_TRUE(daemon_.alive());
}

}  // namespace
