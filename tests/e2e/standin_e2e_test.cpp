// vd-standin as a person uses it, against the real daemon: the command line (a serving
// process, the other sub-commands run from a shell) and the browser console's JSON API and
// event stream ("serve --http 127.0.0.1:0", its address read from stdout, with the settings
// test module) and page in a browser. Every wait is bounded real time on something one of the
// processes does.
#include <gtest/gtest.h>
#include <jansson.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "fakes/daemon_process.h"
#include "fakes/test_platform.h"

#ifdef VIGILD_CONSOLE_TESTS
#include <httplib.h>
#endif

namespace {

using namespace std::chrono_literals;
using vigild::testing::eventually;

constexpr auto kTimeout = 15s;
const std::string kStandin = std::string(VIGILD_BINARY_DIR) + "/tools/standin/vd-standin";

class StandinE2ETest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!std::filesystem::exists(kStandin)) GTEST_SKIP() << "vd-standin is not built";
        ASSERT_TRUE(daemon_.makeRoot("/tmp/vdc"));
    }
    void TearDown() override {
        daemon_.kill();
        stopServing();
    }

    // `vd-standin --root ROOT args` through the shell: the exit status; *out gets both streams.
    int run(const std::string& args, std::string* out) {
        return vigild::testing::runTool(kStandin, "--root " + daemon_.root() + " " + args, out);
    }
    bool serving() { return std::filesystem::exists(daemon_.hostPath("/dev/vd-standin.ctl")); }
    void serve(std::vector<std::string> args = {}) {
        args.insert(args.begin(), {kStandin, "--root", daemon_.root(), "serve"});
        server_ = daemon_.spawn(args, "/serve.out", "/serve.err");
        ASSERT_TRUE(eventually([&] { return serving(); }, kTimeout));
    }
    // A clean stop: exit status 0 (no crash, no sanitizer report), the control socket removed.
    void stopServing() {
        if (server_ > 0) {
            EXPECT_EQ(daemon_.terminate(server_), 0) << daemon_.readFile("/serve.err");
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
TEST_F(StandinE2ETest, StatusConfigSetAndWatchOnALiveDaemon) {
    daemon_.installModule(std::string(VIGILD_BINARY_DIR) + "/modules/logcat/lib_vd_logcat.so");
    serve();
    ASSERT_TRUE(daemon_.launch());
    std::string out;
    ASSERT_TRUE(eventuallyShows("status --json", "\"connected\":true", &out)) << out;
    ASSERT_EQ(run("send fresh_connect", &out), 0) << out;
    // The daemon's own version comes first, then each module's.
    ASSERT_TRUE(eventuallyShows("status --json", "\"QuickTapModule\",\"version\":\"14", &out))
        << out;
    for (const char* part :
         {"{\"state\":\"stopped\",\"stateCode\":0,\"storageRoot\":\"/sdcard/"
          "\",\"layout\":\"normal\"",
          "\"daemonVersion\":\"14.0.15.19\"",
          "{\"name\":\"LogcatModule\",\"version\":\"14.0.1.0\",\"enabled\":true,\"running\":false}",
          "\"lastError\":null", "\"sdcard-present\":0"}) {
        EXPECT_NE(out.find(part), std::string::npos) << part << " in " << out;
    }

    ASSERT_EQ(run("config get --fresh", &out), 0) << out;
    std::ofstream(daemon_.hostPath("/bad.json"))
        << vigild::testing::withSetting(out, "LogcatModule", "Log Path", "/data/elsewhere/");
    const std::string watchFile = daemon_.hostPath("/watch.jsonl");
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
    EXPECT_EQ(run("config set " + daemon_.hostPath("/bad.json"), &out), 1);
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
TEST_F(StandinE2ETest, ExitStatusTable) {
    struct Case {
        std::string args;
        int status;
        std::string output;
    } cases[] = {
        {"--version", 0, "vd-standin 14.0.15.19\n"},
        {"--help", 0, "Exit status: 0 done; 1 failed"},
        {"completion bash", 0, "complete -o default -F _vd_standin vd-standin"},
        {"frobnicate", 2, ""},
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
    EXPECT_FALSE(std::filesystem::exists(daemon_.hostPath("/dev/binder")));

    serve();  // no daemon: nothing to answer
    EXPECT_EQ(run("config get", &out), 1);
    EXPECT_NE(out.find("has not sent a document"), std::string::npos) << out;
}

#ifndef VIGILD_CONSOLE_TESTS

TEST(ConsoleE2ETest, Unavailable) {
    GTEST_SKIP() << "built without cpp-httplib (libcpp-httplib-dev): vd-standin has no console";
}

#else

constexpr const char* kJson = "application/json";

using Json = std::unique_ptr<json_t, decltype(&json_decref)>;
std::string text(json_t* value) {
    const char* s = json_string_value(value);
    return s != nullptr ? s : "";
}

class ConsoleE2ETest : public StandinE2ETest {
  protected:
    void SetUp() override {
        StandinE2ETest::SetUp();
        daemon_.installModule(std::string(VIGILD_TEST_MODULE_DIR) + "/lib_vd_settings.so");
        serve({"--http", "127.0.0.1:0"});
        // The address is printed once the console listens.
        std::smatch port;
        const std::regex address(R"(http://127\.0\.0\.1:(\d+)/)");
        std::string printed;
        ASSERT_TRUE(eventually(
            [&] {
                return std::regex_search(printed = daemon_.readFile("/serve.out"), port, address);
            },
            kTimeout))
            << printed;
        port_ = std::stoi(port[1]);
        client_ = std::make_unique<httplib::Client>("127.0.0.1", port_);
        client_->set_read_timeout(10, 0);
        ASSERT_TRUE(daemon_.launch());
        ASSERT_TRUE(eventually(
            [&] {
                return json_integer_value(json_object_get(get("/api/status").get(), "waiting")) > 0;
            },
            kTimeout))
            << "the daemon never asked for a command";
    }

    std::string origin() const { return "http://127.0.0.1:" + std::to_string(port_); }

    Json get(const std::string& path) {
        auto res = client_->Get(path.c_str());
        return Json(json_loads(res && res->status == 200 ? res->body.c_str() : "null", 0, nullptr),
                    json_decref);
    }
    int command(const std::string& body, httplib::Headers headers = {}) {
        auto res = client_->Post("/api/command", headers, body, kJson);
        return res ? res->status : -1;
    }
    // Whether the trace holds an event named `name` whose reply is `reply` (any when null).
    bool traced(const char* name, const char* reply = nullptr) {
        Json trace = get("/api/trace?max=1000");
        size_t i;
        json_t* e;
        json_array_foreach(trace.get(), i, e) {
            if (text(json_object_get(e, "name")) == name &&
                (reply == nullptr || text(json_object_get(e, "reply")) == reply)) {
                return true;
            }
        }
        return false;
    }

    int port_ = 0;
    std::unique_ptr<httplib::Client> client_;
};

TEST_F(ConsoleE2ETest, RefusesRequestsThatAreNotItsOwn) {
    const std::string start = R"({"command":"start:"})", evil = "http://evil.example";
    const std::string rebound = "evil.example:" + std::to_string(port_);
    const std::string huge = "{\"a\":\"" + std::string(1 << 20, 'x') + "\"}";
    // clang-format off
    const struct {
        const char* what;
        const char* path;  // a GET without a body
        httplib::Headers headers;
        std::string body;
        int status;
        const char* type = kJson;
    } cases[] = {
        {"another site reads the state", "/api/status", {{"Origin", evil}}, "", 403},
        {"another site starts the daemon", "/api/command", {{"Origin", evil}}, start, 403},
        {"another port on this host", "/api/command", {{"Origin", "http://127.0.0.1:1"}}, start, 403},
        {"sandboxed page", "/api/command", {{"Origin", "null"}}, start, 403},
        {"cross-site fetch without Origin", "/api/command", {{"Sec-Fetch-Site", "cross-site"}}, start, 403},
        {"cross-site Referer without Origin", "/api/command", {{"Referer", evil + "/page"}}, start, 403},
        {"a name rebound to this host", "/", {{"Host", rebound}}, "", 403},
        {"a state change by GET", "/api/command", {}, "", 405},
        {"a plain form post", "/api/command", {}, "command=start:", 415, "application/x-www-form-urlencoded"},
        {"a document that is not JSON", "/api/config", {}, "{\"a\":", 400},
        {"a document that is not an object", "/api/config", {}, "[1]", 400},
        {"a document over 1 MiB", "/api/config", {}, huge, 413},
        {"a command the console does not send", "/api/command", {}, R"({"command":"rm -rf /"})", 400},
        {"config_set: without a document", "/api/command", {}, R"({"command":"config_set:"})", 400},
        {"a delete type with another command", "/api/command", {}, R"({"command":"start:","deleteType":1})", 400},
    };
    // clang-format on
    for (const auto& c : cases) {
        httplib::Result res = c.body.empty() ? client_->Get(c.path, c.headers)
                                             : client_->Post(c.path, c.headers, c.body, c.type);
        ASSERT_TRUE(res) << c.what;
        EXPECT_EQ(res->status, c.status) << c.what << ": " << res->body;
    }

    // The console's own page may: with its Origin, with Sec-Fetch-Site same-origin, and
    // without either (curl, scripts).
    EXPECT_EQ(command(R"({"command":"refresh_state"})", {{"Origin", origin()}}), 202);
    EXPECT_EQ(command(R"({"command":"refresh_state"})",
                      {{"Sec-Fetch-Site", "same-origin"}, {"Referer", origin() + "/"}}),
              202);
    // The delete type is the service's answer to the daemon's question, set before the command.
    EXPECT_EQ(command(R"({"command":"delete_logs","deleteType":2})"), 202);
    // Commands are taken in order: once "delete_logs" is, nothing refused was queued.
    ASSERT_TRUE(eventually([&] { return traced("getDeleteLogsParam", "2"); }, kTimeout));
    EXPECT_FALSE(traced("waitForResponse", "start:"));
    EXPECT_FALSE(traced("receiveConfig"));
}

// The page's live feed: the recent past at once, then every transaction, the status and the
// document as they change; a reconnecting page resumes after the last event it saw.
TEST_F(ConsoleE2ETest, EventStreamFollowsTheDaemon) {
    struct Stream {
        std::mutex mutex;
        std::string received;
        std::unique_ptr<httplib::Client> client;
        std::thread thread;

        Stream(int port, httplib::Headers headers)
            : client(std::make_unique<httplib::Client>("127.0.0.1", port)) {
            client->set_read_timeout(20, 0);
            thread = std::thread([this, headers] {
                client->Get("/api/events", headers, [this](const char* data, size_t size) {
                    std::lock_guard<std::mutex> lock(mutex);
                    received.append(data, size);
                    return true;
                });
            });
        }
        std::string text() {
            std::lock_guard<std::mutex> lock(mutex);
            return received;
        }
        bool has(const std::string& needle) { return text().find(needle) != std::string::npos; }
        ~Stream() {
            client->stop();
            thread.join();
        }
    };

    Stream live(port_, {});
    ASSERT_TRUE(eventually([&] { return live.has("event: status") && live.has("event: config"); },
                           kTimeout));
    // The daemon's first calls were before the page opened: they come as the recent past.
    EXPECT_TRUE(live.has("id: 1\nevent: trace\n"));

    ASSERT_EQ(command(R"({"command":"start:"})"), 202);
    const std::string running = R"("name":"sendState","direction":"report","args":[1])";
    ASSERT_TRUE(
        eventually([&] { return live.has(running) && live.has(R"("state":"running")"); }, kTimeout))
        << live.text();
    ASSERT_EQ(command(R"({"command":"config_get:"})"), 202);
    EXPECT_TRUE(
        eventually([&] { return live.has(R"("document":{"Tellwick Settings")"); }, kTimeout));

    // Resume after the event before the state report: it is the first one sent again.
    const std::string all = live.text();
    const size_t at = all.rfind("id: ", all.find(running));
    ASSERT_NE(at, std::string::npos);
    const std::string first = all.substr(at, all.find('\n', at) - at + 1);
    Stream resumed(port_, {{"Last-Event-ID", std::to_string(std::stol(first.substr(4)) - 1)}});
    ASSERT_TRUE(eventually([&] { return resumed.has("event: trace"); }, kTimeout));
    const std::string again = resumed.text();
    EXPECT_EQ(again.substr(again.find("id: "), first.size()), first);
}

// The page itself in headless Chromium (tests/browser): exit status 77 when Chromium, its
// driver or Selenium is missing.
TEST_F(ConsoleE2ETest, PageInABrowser) {
    if (!std::filesystem::exists(VIGILD_BROWSER_PYTHON)) GTEST_SKIP() << "no python3";
    std::string out;
    const int status = vigild::testing::runTool(
        VIGILD_BROWSER_PYTHON, std::string(VIGILD_BROWSER_TEST) + " --url " + origin() + "/", &out);
    if (status == 77) GTEST_SKIP() << out;
    EXPECT_EQ(status, 0) << out;
}

#endif

}  // namespace
