// Soak: the real vigild fed a long stream of commands through the stand-in service, with
// configuration changes and deployed-file events in between. Every command must be taken in
// order, every "refresh_state" answered by a state report and every "config_get:" by a
// document, and the daemon's open descriptors must stay flat; resident memory is printed.
//
// VIGILD_SOAK_COMMANDS sets the number of commands (2,000 by default; scripts/soak.sh runs
// 100,000). Time is scaled down; every wait is bounded real time on something the daemon does.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "fakes/daemon_process.h"
#include "fakes/eventually.h"
#include "standin/standin_service.h"

namespace {

namespace fsys = std::filesystem;
using namespace std::chrono_literals;

// The commands taken, each followed by "=state" when a state report answered a question and
// "=document" when a document was sent.
std::vector<std::string> answers(const std::vector<vdstandin::Record>& records) {
    std::vector<std::string> out;
    bool asked = false;
    for (const vdstandin::Record& r : records) {
        if (r.method == "waitForResponse") out.push_back(r.strings.empty() ? "" : r.strings[0]);
        asked = (asked || r.method == "getState") && r.method != "waitForResponse";
        if (out.empty()) continue;
        if (asked && r.method == "sendState" && out.back() == "refresh_state") out.back() += "=";
        if (r.method == "sendConfig" && out.back() == "config_get:") out.back() += "=";
    }
    return out;
}

TEST(SoakTest, CommandsAreAllAnsweredAndDescriptorsStayFlat) {
    const char* wanted = getenv("VIGILD_SOAK_COMMANDS");
    const size_t batches = std::max(1ul, (wanted ? strtoul(wanted, nullptr, 10) : 2000) / 50);
    vigild::testing::DaemonProcess daemon(std::string(VIGILD_BINARY_DIR) + "/vigild");
    ASSERT_TRUE(daemon.makeRoot("/tmp/vds"));
    daemon.installModule(std::string(VIGILD_BINARY_DIR) + "/modules/logcat/lib_vd_logcat.so");
    vdstandin::StandinService service(daemon.root());
    ASSERT_TRUE(service.start());
    // A state the daemon never has: every "refresh_state" must push a report.
    service.updateAnswers([](vdstandin::DeviceAnswers& a) { a.stateOverride = 7; });
    ASSERT_TRUE(daemon.launch());
    const std::string initial = vigild::testing::fetchConfig(service, 60s);
    const std::string documents[2] = {
        vigild::testing::withSetting(initial, "Tellwick Settings", "Enable notifications", "false"),
        vigild::testing::withSetting(initial, "Tellwick Settings", "Enable notifications", "true")};
    const char* const rotation[] = {
        "config_get:", "refresh_state", "refresh_time",   "fresh_connect", "config_set:",
        "Start:",      "config_get:",   "refresh_config", "refresh_state", "config_get:"};
    long baseline = 0, fds = 0;
    size_t sets = 0;
    for (size_t b = 0; b < batches; b++) {
        ASSERT_TRUE(
            vigild::testing::eventually([&] { return service.waitingForCommand() > 0; }, 60s));
        // Sampled while the daemon waits; the first batches, a start/stop cycle, set the baseline.
        fds =
            std::distance(fsys::directory_iterator("/proc/" + std::to_string(daemon.pid()) + "/fd"),
                          fsys::directory_iterator());
        if (b < 8) baseline = std::max(baseline, fds);
        EXPECT_LE(fds, baseline + 4) << "descriptors grew by batch " << b;  // 4: a pipe, a file
        service.clearRecords();
        std::vector<std::string> sent(50), expected;
        for (size_t i = 0; i < sent.size(); i++) sent[i] = rotation[i % 10];
        sent[0] = b % 4 == 1 ? "start:" : b % 4 == 3 ? "stop:" : sent[0];
        sent.back() = "refresh_state";  // its report closes the batch
        for (const std::string& command : sent) {
            if (command == "config_set:") service.queueConfig(documents[sets++ % 2]);
            service.queueCommand(command);
            expected.push_back(
                command == "refresh_state" || command == "config_get:" ? command + "=" : command);
        }
        service.waitUntil([&](const auto& rs) { return answers(rs) == expected; }, 60s);
        ASSERT_EQ(answers(service.records()), expected)
            << "batch " << b << "; alive " << daemon.alive();
        const std::string deployed = daemon.host("/sdcard/Tellwick/config.json");
        if (b % 3 == 2) fsys::remove(deployed);
        if (b % 3 != 2) std::ofstream(deployed) << documents[b % 2];
    }
    std::string rss;
    for (std::ifstream in("/proc/" + std::to_string(daemon.pid()) + "/status");
         std::getline(in, rss);) {
        if (rss.rfind("VmRSS:", 0) == 0) break;
    }
    printf("soak: %zu commands; descriptors baseline %ld, last %ld; %s\n", batches * 50, baseline,
           fds, rss.c_str());
    EXPECT_TRUE(daemon.alive());
}

}  // namespace
