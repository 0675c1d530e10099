// The vd-standin command as a person uses it: a serving process, the real daemon against it,
// and the other sub-commands run from a shell.
#include <gtest/gtest.h>
#include <jansson.h>

#include <filesystem>
#include <fstream>
#include <thread>

#include "fakes/daemon_process.h"
#include "fakes/eventually.h"
#include "fakes/run_tool.h"

namespace {

using namespace std::chrono_literals;
using vigild::testing::eventually;

constexpr auto kTimeout = 15s;
const std::string kStandin = std::string(VIGILD_BINARY_DIR) + "/tools/standin/vd-standin";

class StandinCliTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!std::filesystem::exists(kStandin)) GTEST_SKIP() << "vd-standin is not built";
        ASSERT_TRUE(daemon_.makeRoot("/tmp/vdc"));
        daemon_.installModule(std::string(VIGILD_BINARY_DIR) + "/modules/logcat/lib_vd_logcat.so");
    }
    void TearDown() override {
        daemon_.kill();
        stopServing();
    }

    // `vd-standin --root ROOT args` through the shell: the exit status; *out gets both streams.
    int run(const std::string& args, std::string* out) {
        return vigild::testing::runTool(kStandin, "--root " + daemon_.root() + " " + args, out);
    }
    bool serving() { return std::filesystem::exists(daemon_.host("/dev/vd-standin.ctl")); }
    void serve() {
        server_ = daemon_.spawn({kStandin, "--root", daemon_.root(), "serve"}, "/serve.log",
                                "/serve.log");
        ASSERT_TRUE(eventually([&] { return serving(); }, kTimeout));
    }
    // A clean stop: exit status 0 (no sanitizer report), the control socket removed.
    void stopServing() {
        if (server_ > 0) {
            EXPECT_EQ(daemon_.terminate(server_), 0) << daemon_.read("/serve.log");
        }
        EXPECT_FALSE(serving());
        server_ = -1;
    }
    // Runs `args` until its output holds `part`.
    bool eventuallyShows(const std::string& args, const std::string& part, std::string* out) {
        return eventually(
            [&] { return run(args, out) == 0 && out->find(part) != std::string::npos; }, kTimeout);
    }

    vigild::testing::DaemonProcess daemon_{std::string(VIGILD_BINARY_DIR) + "/vigild"};
    pid_t server_ = -1;
};

// A day's session: status, a document a module objects to (printed, exit status 1) and a
// watch that sees the whole exchange as it happens.
TEST_F(StandinCliTest, StatusConfigSetAndWatchOnALiveDaemon) {
    serve();
    ASSERT_TRUE(daemon_.launch());
    std::string out;
    ASSERT_TRUE(eventuallyShows("status --json", "\"connected\":true", &out)) << out;
    ASSERT_EQ(run("send fresh_connect", &out), 0) << out;
    ASSERT_TRUE(eventuallyShows("status --json", "\"daemonVersion\":\"14.0.15.19\"", &out)) << out;
    for (const char* part :
         {"{\"state\":\"stopped\",\"stateCode\":0,\"storageRoot\":\"/sdcard/"
          "\",\"layout\":\"normal\"",
          "{\"name\":\"LogcatModule\",\"version\":\"14.0.1.0\",\"enabled\":true,\"running\":false}",
          "\"lastError\":null", "\"sdcard-present\":0"}) {
        EXPECT_NE(out.find(part), std::string::npos) << part << " in " << out;
    }

    ASSERT_EQ(run("config get --fresh", &out), 0) << out;
    std::ofstream(daemon_.host("/bad.json"))
        << vigild::testing::withSetting(out, "LogcatModule", "Log Path", "/data/elsewhere/");
    const std::string watchFile = daemon_.host("/watch.jsonl");
    std::thread watcher([&] {
        std::string ignored;
        run("watch --json >" + watchFile, &ignored);
    });
    // Subscribed once a command the daemon handles shows up in the stream.
    ASSERT_TRUE(eventually(
        [&] {
            return run("send refresh_state", &out) == 0 &&
                   std::filesystem::file_size(watchFile) > 0;
        },
        kTimeout));
    EXPECT_EQ(run("config set " + daemon_.host("/bad.json"), &out), 1);
    EXPECT_NE(out.find("LogcatModule / Log Path: Log Path must be a folder"), std::string::npos)
        << out;
    ASSERT_EQ(run("status --json", &out), 0);
    EXPECT_NE(out.find("\"lastError\":\"{\\\"LogcatModule\\\""), std::string::npos) << out;
    stopServing();  // ends the watch
    watcher.join();

    // One JSON object per line, in order, with the exchange after the command was taken.
    std::ifstream in(watchFile);
    std::string lines;
    json_int_t lastSeq = 0;
    for (std::string line; std::getline(in, line); lines += line + "\n") {
        json_t* e = json_loads(line.c_str(), 0, nullptr);
        EXPECT_GT(json_integer_value(json_object_get(e, "seq")), lastSeq) << line;
        lastSeq = json_integer_value(json_object_get(e, "seq"));
        json_decref(e);
    }
    size_t at = lines.find(
        R"("name":"waitForResponse","direction":"query","args":[],"reply":"config_set:")");
    for (const char* next : {R"("name":"receiveConfig")", R"("name":"sendConfigErrorMessage")",
                             R"("name":"sendConfig")"}) {
        at = lines.find(next, at);
        EXPECT_NE(at, std::string::npos) << next << " in\n" << lines;
    }
}

// One exit status per kind of outcome, whatever the sub-command; help does no work.
TEST_F(StandinCliTest, ExitStatusTable) {
    struct Case {
        std::string args;
        int status;
        std::string output;
    } cases[] = {
        {"--version", 0, "vd-standin 14.0.15.19\n"},
        {"--help", 0, "Exit status: 0 done; 1 failed"},
        {"serve --help", 0, "--verbose"},
        {"completion bash", 0, "complete -o default -F _vd_standin vd-standin"},
        {"frobnicate", 2, ""},
        {"config", 2, ""},
        {"watch --count 0", 2, ""},
        {"set no-such-key 1", 2, "unknown setting"},
        {"status", 1, "no stand-in is serving"},
        {"config set /no/such/file.json", 1, "cannot read"},
    };
    std::string out;
    for (const Case& c : cases) {
        EXPECT_EQ(run(c.args, &out), c.status) << c.args << "\n" << out;
        EXPECT_NE(out.find(c.output), std::string::npos) << c.args << "\n" << out;
    }
    EXPECT_FALSE(std::filesystem::exists(daemon_.host("/dev/binder")));

    serve();  // no daemon: nothing to answer
    EXPECT_EQ(run("config get", &out), 1);
    EXPECT_NE(out.find("has not sent a document"), std::string::npos) << out;
}

}  // namespace
