// The host backend's contract with other programs: the property store's files, the
// environment and the shell commands it handles itself.
#include "platform/host/host_platform.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <thread>

#include "fakes/test_platform.h"

namespace {

namespace fsys = std::filesystem;
using vigild::platform::host::FileProperties;
using vigild::platform::host::HostProcesses;
using vigild::platform::host::HostRoot;
using vigild::platform::host::installFromEnvironment;
using vigild::testing::TestPlatform;

class HostPlatformTest : public ::testing::Test {
  protected:
    std::string get(const char* key) {
        char value[vigild::platform::kPropValueMax];
        const int n = props.get(key, value, "UNSET");
        EXPECT_EQ(n, static_cast<int>(strlen(value)));
        return value;
    }

    TestPlatform p;
    HostRoot root{p.root()};
    FileProperties props{&root};
};

TEST_F(HostPlatformTest, PropertyFilesHoldTheValueWithOneOptionalNewline) {
    const std::string v91(91, 'v');
    const std::pair<std::string, std::string> reads[] = {
        {"", "UNSET"},   {"true\n", "true"}, {"true\n\n", "true\n"},
        {"\n", "UNSET"}, {v91 + "\n", v91},  {v91 + "ww", v91},
    };
    for (const auto& [stored, expected] : reads) {
        p.writeFile("/dev/__properties__/persist.sys.vd.autostart", stored);
        EXPECT_EQ(get("persist.sys.vd.autostart"), expected) << stored;
    }
    // A folder, or a name leading out of the store, is unset.
    p.makeDir("/dev/__properties__/dir");
    p.writeFile("/dev/secret", "x");
    EXPECT_EQ(get("dir") + get("../secret"), "UNSETUNSET");

    EXPECT_EQ(props.set("persist.sys.vd.storage_path", v91.c_str()), 0);
    EXPECT_EQ(props.set("persist.sys.vd.storage_path", (v91 + "b").c_str()), -1);
    EXPECT_EQ(get("persist.sys.vd.storage_path"), v91);  // the old value stays
    EXPECT_EQ(props.set("ro.build.project", (v91 + "r").c_str()), 0);
    for (const char* bad : {"", "a/b", ".hidden", ".."}) EXPECT_EQ(props.set(bad, "x"), -1);
    std::vector<std::string> stops;
    props.onCtlStop([&](const std::string& value) { stops.push_back(value); });
    EXPECT_EQ(props.set("ctl.start", "vigild"), 0);
    EXPECT_EQ(props.set("ctl.stop", "vigild"), 0);
    EXPECT_EQ(stops, std::vector<std::string>{"vigild"});
    EXPECT_EQ(get("ctl.stop"), "vigild");
    // Written through a hidden temporary file: a reader never sees half a value.
    std::atomic<bool> done{false};
    std::atomic<int> torn{0};
    std::thread reader([&] {
        FileProperties mine(&root);
        char value[vigild::platform::kPropValueMax];
        while (!done) {
            mine.get("persist.sys.vd.race", value, "UNSET");
            if (value != v91 && strcmp(value, "UNSET") != 0) torn++;
        }
    });
    for (int i = 0; i < 500; i++) props.set("persist.sys.vd.race", i % 2 ? v91.c_str() : "");
    done = true;
    reader.join();
    EXPECT_EQ(torn.load(), 0);
}

TEST(HostEnvironmentTest, BadVariablesInstallNothingAndTheScaleNeverTouchesTheWallClock) {
    auto set = [](const char* name, const char* value) {
        value ? setenv(name, value, 1) : unsetenv(name);
    };
    const std::pair<const char*, const char*> bad[] = {
        // clang-format off
        {nullptr, "1"}, {"relative/root", "1"}, {"/tmp/r", "0"}, {"/tmp/r", "-1"},
        {"/tmp/r", "1x"}, {"/tmp/r", "nan"}, {"/tmp/r", "0x1"}, {"/tmp/r", " 1"},
        // clang-format on
    };
    for (const auto& [rootVar, scale] : bad) {
        TestPlatform p;
        auto* before = vigild::platform::current().root;
        set("VIGILD_ROOT", rootVar);
        set("VIGILD_TIME_SCALE", scale);
        std::string error;
        EXPECT_FALSE(installFromEnvironment(&error)) << scale;
        EXPECT_TRUE(!error.empty() && error.find('\n') == std::string::npos) << error;
        EXPECT_EQ(vigild::platform::current().root, before);
    }
    {
        TestPlatform p;
        set("VIGILD_ROOT", p.root().c_str());
        set("VIGILD_TIME_SCALE", "0.001");
        std::string error;
        ASSERT_TRUE(installFromEnvironment(&error)) << error;
        auto& platform = vigild::platform::current();
        auto start = std::chrono::steady_clock::now();
        platform.clock->sleepFor(std::chrono::seconds(60));
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30));
        EXPECT_LE(std::abs(platform.clock->wallTime() - time(nullptr)), 2);
        EXPECT_EQ(platform.serviceManager(), nullptr);  // until "/dev/binder/" exists
        fsys::create_directories(p.root() + "/dev/binder");
        EXPECT_NE(platform.serviceManager(), nullptr);
    }
    TestPlatform restore;  // leaves a test backend installed for whatever runs next
}

TEST_F(HostPlatformTest, ShellCommandsOfTheDeviceAreHandledInsideTheRoot) {
    HostProcesses processes(&root, &props);
    EXPECT_EQ(processes.runShell("setprop persist.sys.vd.autostart true"), 0);
    EXPECT_EQ(get("persist.sys.vd.autostart"), "true");
    // Android users do not exist on the host: skipped, not failed.
    EXPECT_EQ(processes.runShell("chown -R system:ext_data_rw /sdcard/Android/data/x/"), 0);
}

}  // namespace
