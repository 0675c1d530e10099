// The real lib_vd_logcat.so, loaded as the daemon loads it, writing under a temporary device
// root (VIGILD_ROOT).
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "fakes/eventually.h"
#include "vigild/module.h"

namespace {

namespace fsys = std::filesystem;
using namespace std::chrono_literals;
using vigild::testing::eventually;

class LogcatModuleTest : public ::testing::Test {
  protected:
    static Module* module() {
        static Module* m = [] {
            std::string path = std::string(VIGILD_BINARY_DIR) + "/modules/logcat/lib_vd_logcat.so";
            void* handle = dlopen(path.c_str(), RTLD_LAZY);
            if (handle == nullptr) return static_cast<Module*>(nullptr);
            auto entry = reinterpret_cast<getModuleFn>(dlsym(handle, "getModule"));
            return entry != nullptr ? entry() : nullptr;
        }();
        return m;
    }

    void SetUp() override {
        char tmpl[] = "/tmp/vdl.XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        root_ = tmpl;
        setenv("VIGILD_ROOT", root_.c_str(), 1);
        ASSERT_NE(module(), nullptr) << dlerror();
        settings_.moduleName = module()->getName();
        Module::config enable = {};
        enable.name = "Enable Module";
        enable.type = "boolean";
        strcpy(enable.value, "true");
        strcpy(enable.defaultValue, "true");
        settings_.configs.push_back(enable);
        module()->init(settings_);
    }

    void TearDown() override {
        module()->stop();
        std::error_code ec;
        fsys::remove_all(root_, ec);
    }

    void set(const char* name, const char* value) {
        for (Module::config& c : settings_.configs) {
            if (strcmp(c.name, name) == 0) {
                snprintf(c.value, sizeof(c.value), "%s", value);
                return;
            }
        }
        FAIL() << "no setting " << name;
    }

    std::string logText() const {
        std::ifstream in(root_ + "/sdcard/Tellwick/logcat/logcat.log");
        std::stringstream ss;
        ss << in.rdbuf();
        return ss.str();
    }

    std::string root_;
    Module::moduleConfig settings_;
};

TEST_F(LogcatModuleTest, DeclaresItsSettingsAndPassesTheDaemonsVersionTest) {
    EXPECT_STREQ(module()->getName(), "LogcatModule");
    EXPECT_EQ(std::string(module()->getVersion()).find("14.0."), 0u);
    EXPECT_EQ(module()->shouldLoad(), 0);
    std::vector<std::string> names;
    for (const Module::config& c : settings_.configs) names.push_back(c.name);
    EXPECT_EQ(names,
              (std::vector<std::string>{"Enable Module", "Log Path", "Command", "Append To Log"}));
    EXPECT_STREQ(settings_.configs[1].type, "string");
    EXPECT_STREQ(settings_.configs[1].value, "/sdcard/Tellwick/logcat/");
    // The daemon keeps a "Log Path" only when its folder exists.
    EXPECT_TRUE(fsys::is_directory(root_ + "/sdcard/Tellwick/logcat"));
}

TEST_F(LogcatModuleTest, ReportsEndOfStreamUntilRestarted) {
    set("Command", "echo one; echo two");
    ASSERT_EQ(module()->start(settings_), 0);
    ASSERT_TRUE(eventually([&] { return module()->logcatEOFStatus() != 0; }, 5s));
    EXPECT_EQ(logText(), "--- LogcatModule started ---\none\ntwo\n");

    module()->prestop();
    module()->stop();
    EXPECT_EQ(module()->logcatEOFStatus(), 0);

    set("Command", "echo three; exec sleep 30");
    ASSERT_EQ(module()->start(settings_), 0);
    ASSERT_TRUE(eventually([&] { return logText().find("three") != std::string::npos; }, 5s));
    EXPECT_EQ(module()->logcatEOFStatus(), 0);
    // Stop must not wait for the command to end on its own.
    auto before = std::chrono::steady_clock::now();
    module()->stop();
    EXPECT_LT(std::chrono::steady_clock::now() - before, 5s);
    EXPECT_EQ(module()->logcatEOFStatus(), 0);
}

TEST_F(LogcatModuleTest, AppendSettingDecidesWhetherEarlierLogsStay) {
    set("Command", "echo run");
    for (const char* append : {"true", "true", "false"}) {
        set("Append To Log", append);
        ASSERT_EQ(module()->start(settings_), 0);
        ASSERT_TRUE(eventually([&] { return module()->logcatEOFStatus() != 0; }, 5s));
        module()->stop();
    }
    EXPECT_EQ(logText(), "--- LogcatModule started ---\nrun\n");
}

TEST_F(LogcatModuleTest, StartAndStopFromTwoThreadsAtOnce) {
    set("Command", "exec sleep 30");
    std::vector<std::thread> threads;
    for (int t = 0; t < 2; t++) {
        threads.emplace_back([&] {
            for (int i = 0; i < 20; i++) {
                module()->start(settings_);
                module()->logcatEOFStatus();
                module()->stop();
            }
        });
    }
    for (std::thread& t : threads) t.join();
    EXPECT_EQ(module()->logcatEOFStatus(), 0);
    ASSERT_EQ(module()->start(settings_), 0);
    module()->stop();
}

TEST_F(LogcatModuleTest, StopDoesNotWaitForAStreamAnEscapedChildKeepsOpen) {
    // A grandchild in a session of its own escapes the kill of the source's group and keeps
    // the pipe open.
    set("Command", "setsid sleep 30 & echo $! > \"$VIGILD_ROOT/escaped.pid\"; echo up");
    ASSERT_EQ(module()->start(settings_), 0);
    ASSERT_TRUE(eventually([&] { return logText().find("up") != std::string::npos; }, 5s));
    auto before = std::chrono::steady_clock::now();
    module()->stop();
    EXPECT_LT(std::chrono::steady_clock::now() - before, 5s);
    std::ifstream pidFile(root_ + "/escaped.pid");
    pid_t escaped = 0;
    if (pidFile >> escaped && escaped > 0) kill(escaped, SIGKILL);
}

TEST_F(LogcatModuleTest, FollowsTheSystemsStorageLinkButNoLinkBelowIt) {
    // As on a device, "/sdcard" is a link the system made to the real storage.
    fsys::remove_all(root_ + "/sdcard");
    fsys::create_directories(root_ + "/storage/emulated/0");
    fsys::create_directory_symlink(root_ + "/storage/emulated/0", root_ + "/sdcard");
    set("Command", "echo through");
    ASSERT_EQ(module()->start(settings_), 0);
    ASSERT_TRUE(eventually([&] { return module()->logcatEOFStatus() != 0; }, 5s));
    module()->stop();
    EXPECT_NE(logText().find("through"), std::string::npos);
    EXPECT_TRUE(fsys::exists(root_ + "/storage/emulated/0/Tellwick/logcat/logcat.log"));
}

TEST_F(LogcatModuleTest, NeverWritesThroughALinkOrOutsideStorage) {
    fsys::create_directories(root_ + "/outside");
    fsys::create_directories(root_ + "/sdcard/Tellwick");
    fsys::create_directory_symlink(root_ + "/outside", root_ + "/sdcard/Tellwick/linked");
    set("Command", "echo leaked");
    const struct {
        const char* path;
        bool refused;  // by configVal too
    } rows[] = {
        {"/sdcard/Tellwick/linked/", false},
        {"/sdcard/../outside/", true},
        {"relative/", true},
        {"/outside/", true},
        {"/storage/../outside/", true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.path);
        set("Log Path", row.path);
        EXPECT_EQ(module()->start(settings_), -1);
        EXPECT_TRUE(fsys::is_empty(root_ + "/outside"));
        std::vector<std::string> errors;
        module()->configVal(settings_, errors);
        ASSERT_EQ(errors.size(), row.refused ? 2u : 0u);
        if (row.refused) {
            EXPECT_EQ(errors[0], "Log Path");
        }
    }
    for (const char* path : {"/sdcard/Tellwick/logcat/", "/storage/1A2B-3C4D/Tellwick/"}) {
        set("Log Path", path);
        std::vector<std::string> errors;
        module()->configVal(settings_, errors);
        EXPECT_TRUE(errors.empty()) << path;
    }
}

}  // namespace
