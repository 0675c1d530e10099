#include "service/device_report.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "config/document.h"
#include "core/builtin_modules.h"
#include "core/daemon_state.h"
#include "core/log.h"
#include "core/module_loader.h"
#include "core/module_registry.h"
#include "fakes/test_platform.h"
#include "standin/standin_service.h"
#include "test_module_probe.h"

using vigild::testing::TestPlatform;

namespace {

std::vector<std::string> methods(const std::vector<vdstandin::Record>& records) {
    std::vector<std::string> out;
    for (const auto& r : records) out.push_back(r.method);
    return out;
}

class DeviceReportTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(vdtest::installTestModules(
            p.root(), {"lib_vd_alpha.so", "lib_vd_beta.so", "lib_vd_new.so"}));
        p.setProperty("persist.sys.vd.storage_path", "/sdcard/");
        p.makeDir("/sdcard/Tellwick/");
        ASSERT_EQ(buildModuleRegistry(), 0);
        ASSERT_EQ(moduleRegistry.size(), 5u);
    }

    TestPlatform p;
    vdstandin::StandinService service{p.root()};
};

TEST_F(DeviceReportTest, VersionsThenDocumentThenState) {
    ASSERT_TRUE(service.start());
    runState = kStateRunning;
    sendInfo();

    const auto records = service.records();
    EXPECT_EQ(methods(records),
              (std::vector<std::string>{"sendVersion", "sendVersion", "sendVersion", "sendVersion",
                                        "sendVersion", "sendVersion", "sendConfig", "sendState"}));
    EXPECT_EQ(service.versions(), (std::vector<std::pair<std::string, std::string>>{
                                      {"vigild", "14.0.15.19"},
                                      {"Tellwick Settings", "14.0.0.0"},
                                      {"A", "14.0.3.1"},
                                      {"B", "14.0.0.1"},
                                      {"New", "14.0.99.7"},
                                      {"QuickTapModule", "14.0.1.0"},
                                  }));
    // The document sent is the one the registry gives now.
    char* now = getConfig();
    ASSERT_NE(now, nullptr);
    EXPECT_EQ(service.configs(), (std::vector<std::string>{now}));
    free(now);
    EXPECT_EQ(service.states(), (std::vector<int>{kStateRunning}));
}

TEST_F(DeviceReportTest, EachKnownStateIsReportedByItsWord) {
    ASSERT_TRUE(service.start());
    p.enableDebugLog();
    for (int state : {kStateStopped, kStateRunning, kStateTransition}) {
        runState = state;
        sendInfo();
        EXPECT_EQ(runState.load(), state);
    }
    EXPECT_EQ(service.states(), (std::vector<int>{kStateStopped, kStateRunning, kStateTransition}));

    // An unknown state reports nothing.
    p.log().clear();
    runState = 7;
    sendInfo();
    EXPECT_EQ(service.states().size(), 3u);
    EXPECT_EQ(service.configs().size(), 4u);
    EXPECT_EQ(runState.load(), 7);
    EXPECT_FALSE(p.log().contains("updateState :BEGIN"));
    EXPECT_TRUE(p.log().contains("sendInfo:END", kLogDebug));
}

TEST_F(DeviceReportTest, WithoutTheServiceItStillReachesTheStateStep) {
    p.enableDebugLog();
    runState = kStateStopped;
    sendInfo();
    auto& log = p.log();
    int at = -1;
    for (const char* line : {"sendInfo:BEGIN", "Failed to obtain a handle on vd_service",
                             "updateState :BEGIN", "sendInfo:END"}) {
        at = log.indexOf(line, at + 1);
        ASSERT_GE(at, 0) << line;
    }
    // The document is not even built.
    EXPECT_FALSE(log.contains("getconfig:BEGIN"));
}

TEST_F(DeviceReportTest, ConcurrentSendsEachCarryAWholeDocument) {
    ASSERT_TRUE(service.start());
    char* expected = getConfig();
    ASSERT_NE(expected, nullptr);
    constexpr int kThreads = 3, kSends = 10;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; t++) {
        threads.emplace_back([] {
            for (int i = 0; i < kSends; i++) sendConfig();
        });
    }
    for (auto& t : threads) t.join();
    const auto configs = service.configs();
    EXPECT_EQ(configs.size(), static_cast<size_t>(kThreads * kSends));
    for (const auto& c : configs) EXPECT_EQ(c, expected);
    free(expected);
}

}  // namespace
