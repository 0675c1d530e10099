// Soak: the real vigild binary against a temporary device root, fed a long stream of commands
// through the stand-in companion service, with configuration changes and deployed-file
// events in between. Every command must be taken, every "refresh_state" answered by a state
// report and every "config_get:" by a document; the daemon's open descriptors must stay flat.
// Resident memory is measured and printed, not judged here.
//
// VIGILD_SOAK_COMMANDS sets the number of commands (2,000 by default; scripts/soak.sh runs
// 100,000). Time is scaled down; every wait is bounded real time on something the daemon does.
#include <dirent.h>
#include <gtest/gtest.h>
#include <jansson.h>
#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
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
using vdstandin::Record;
using vigild::testing::eventually;
using vigild::testing::withSetting;

constexpr auto kBatchTimeout = 60s;
constexpr size_t kBatchSize = 50;
// Batches whose descriptor counts make the baseline: they cover a full start/stop cycle.
constexpr size_t kBaselineBatches = 8;
// Descriptors the daemon may hold for a moment beyond the baseline (a child's pipe, a file
// the watch thread has open) without that being a leak.
constexpr long kFdSlack = 4;
constexpr const char* kConfigFile = "/sdcard/Tellwick/config.json";

size_t commandsWanted() {
    const char* text = getenv("VIGILD_SOAK_COMMANDS");
    if (text == nullptr || *text == '\0') return 2000;
    char* end = nullptr;
    unsigned long n = strtoul(text, &end, 10);
    return (*end == '\0' && n >= kBatchSize) ? n : 2000;
}

// VmRSS of `pid` in kB, -1 when unreadable.
long rssKb(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind("VmRSS:", 0) == 0) return strtol(line.c_str() + 6, nullptr, 10);
    }
    return -1;
}

long openFds(pid_t pid) {
    DIR* dir = opendir(("/proc/" + std::to_string(pid) + "/fd").c_str());
    if (dir == nullptr) return -1;
    long n = 0;
    while (dirent* e = readdir(dir)) {
        if (e->d_name[0] != '.') n++;
    }
    closedir(dir);
    return n;
}

bool isJsonObject(const std::string& text) {
    json_t* root = json_loads(text.c_str(), 0, nullptr);
    bool ok = root != nullptr && json_is_object(root);
    json_decref(root);
    return ok;
}

// Why a batch's records do not answer its commands; empty when they do. Commands are taken
// in order on one thread, so the records between two taken commands belong to the first
// (other threads may add more, never fewer).
std::string checkAnswers(const std::vector<std::string>& sent, const std::vector<Record>& records) {
    std::vector<size_t> taken;
    for (size_t i = 0; i < records.size(); i++) {
        if (records[i].method == "waitForResponse") taken.push_back(i);
    }
    if (taken.size() != sent.size()) {
        return "took " + std::to_string(taken.size()) + " of " + std::to_string(sent.size()) +
               " commands";
    }
    for (size_t k = 0; k < sent.size(); k++) {
        const Record& take = records[taken[k]];
        if (take.strings.empty() || take.strings[0] != sent[k]) {
            return "command " + std::to_string(k) + " (" + sent[k] + ") taken as \"" +
                   (take.strings.empty() ? "" : take.strings[0]) + "\"";
        }
        size_t end = k + 1 < taken.size() ? taken[k + 1] : records.size();
        bool asked = false, reported = false, document = false;
        for (size_t i = taken[k] + 1; i < end; i++) {
            const Record& r = records[i];
            if (r.method == "getState") asked = true;
            if (r.method == "sendState" && asked) reported = true;
            if (r.method == "sendConfig" && !r.strings.empty() && isJsonObject(r.strings[0])) {
                document = true;
            }
        }
        if (sent[k] == "refresh_state" && !reported) {
            return "refresh_state " + std::to_string(k) + " got no state report";
        }
        if (sent[k] == "config_get:" && !document) {
            return "config_get: " + std::to_string(k) + " got no document";
        }
    }
    return "";
}

class SoakTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(daemon_.makeRoot("/tmp/vds"));
        daemon_.installModule(std::string(VIGILD_BINARY_DIR) + "/modules/logcat/lib_vd_logcat.so");
        service_ = std::make_unique<vdstandin::StandinService>(daemon_.root());
        ASSERT_TRUE(service_->start());
        // A service state the daemon never has: every "refresh_state" must push a report.
        service_->updateAnswers([](vdstandin::DeviceAnswers& a) { a.stateOverride = 7; });
    }

    void TearDown() override {
        daemon_.kill();
        if (service_) service_->stop();
    }

    void launchDaemon() {
        ASSERT_TRUE(daemon_.launch());
        ASSERT_TRUE(eventually([&] { return service_->waitingForCommand() > 0; }, 30s))
            << "the daemon never asked for a command";
    }

    // The commands of batch `b`, ending in "refresh_state" so its report closes the batch.
    std::vector<std::string> batchCommands(size_t b) {
        static const char* const kRotation[] = {
            "config_get:",   "refresh_state", "refresh_time", "fresh_connect", "config_get:",
            "refresh_state", "Start:",        "config_get:",  "refresh_state", "config_get:",
        };
        std::vector<std::string> batch;
        for (size_t i = 0; i + 1 < kBatchSize; i++) {
            if (i == 0 && b % 4 == 1) {
                batch.push_back("start:");
            } else if (i == 0 && b % 4 == 3) {
                batch.push_back("stop:");
            } else if (i % 10 == 5) {
                batch.push_back("config_set:");
            } else if (i == 24) {
                batch.push_back("refresh_config");
            } else {
                batch.push_back(kRotation[i % 10]);
            }
        }
        batch.push_back("refresh_state");
        return batch;
    }

    // A deployed-file event between batches: the file rewritten in place, or deleted.
    void fileEvent(size_t b) {
        if (b % 3 == 2) {
            std::error_code ec;
            fsys::remove(daemon_.host(kConfigFile), ec);
            return;
        }
        std::ofstream(daemon_.host(kConfigFile), std::ios::trunc) << documents_[b % 2];
    }

    vigild::testing::DaemonProcess daemon_{std::string(VIGILD_BINARY_DIR) + "/vigild"};
    std::unique_ptr<vdstandin::StandinService> service_;
    std::string documents_[2];
};

TEST_F(SoakTest, CommandsAreAllAnsweredAndDescriptorsStayFlat) {
    launchDaemon();
    service_->queueCommand("config_get:");
    ASSERT_TRUE(service_->waitUntil(
        [](const std::vector<Record>& records) {
            bool taken = false;
            for (const Record& r : records) {
                if (r.method == "waitForResponse") taken = true;
                if (taken && r.method == "sendConfig" && !r.strings.empty()) return true;
            }
            return false;
        },
        kBatchTimeout));
    const std::string initial = service_->configs().back();
    ASSERT_TRUE(isJsonObject(initial));
    documents_[0] = withSetting(initial, "Tellwick Settings", "Enable notifications", "false");
    documents_[1] = withSetting(initial, "Tellwick Settings", "Enable notifications", "true");
    ASSERT_NE(documents_[0], documents_[1]);
    ASSERT_TRUE(eventually([&] { return service_->waitingForCommand() > 0; }, kBatchTimeout));
    service_->clearRecords();

    const size_t batches = commandsWanted() / kBatchSize;
    long baselineFds = 0, maxFds = 0, firstRss = 0, maxRss = 0, lastRss = 0, lastFds = 0;
    size_t configSets = 0;
    auto started = std::chrono::steady_clock::now();
    for (size_t b = 0; b < batches; b++) {
        std::vector<std::string> sent = batchCommands(b);
        for (const std::string& command : sent) {
            if (command == "config_set:") service_->queueConfig(documents_[configSets++ % 2]);
            service_->queueCommand(command);
        }
        // Done when the closing "refresh_state" has been taken and answered.
        bool done = service_->waitUntil(
            [&](const std::vector<Record>& records) {
                size_t taken = 0;
                bool asked = false;
                for (const Record& r : records) {
                    if (r.method == "waitForResponse") {
                        taken++;
                        asked = false;
                    } else if (taken == sent.size() && r.method == "getState") {
                        asked = true;
                    } else if (asked && r.method == "sendState") {
                        return true;
                    }
                }
                return false;
            },
            kBatchTimeout);
        ASSERT_TRUE(done) << "batch " << b << " not answered in time; daemon alive "
                          << daemon_.alive();
        std::string fault = checkAnswers(sent, service_->records());
        ASSERT_EQ(fault, "") << "batch " << b;
        service_->clearRecords();
        fileEvent(b);

        // Sampled while the daemon waits for its next command.
        ASSERT_TRUE(eventually([&] { return service_->waitingForCommand() > 0; }, kBatchTimeout));
        lastFds = openFds(daemon_.pid());
        lastRss = rssKb(daemon_.pid());
        ASSERT_GT(lastFds, 0);
        if (b < kBaselineBatches) {
            baselineFds = std::max(baselineFds, lastFds);
            firstRss = lastRss;
        } else {
            EXPECT_LE(lastFds, baselineFds + kFdSlack) << "descriptors grew by batch " << b;
        }
        maxFds = std::max(maxFds, lastFds);
        maxRss = std::max(maxRss, lastRss);
    }
    double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    EXPECT_TRUE(daemon_.alive());
    printf("soak: %zu commands (%zu config_set:) in %.1f s, %.0f commands/s\n",
           batches * kBatchSize, configSets, seconds, batches * kBatchSize / seconds);
    printf("soak: open descriptors baseline %ld, max %ld, last %ld\n", baselineFds, maxFds,
           lastFds);
    printf("soak: VmRSS after warm-up %ld kB, max %ld kB, last %ld kB\n", firstRss, maxRss,
           lastRss);
}

}  // namespace
