// The browser console's JSON API and event stream, against the real vd-standin (started as a
// user starts it, "serve --http 127.0.0.1:0", its address read from stdout) and the real
// daemon with the settings test module. Every wait is bounded real time on something one of
// the two processes does.
#include <gtest/gtest.h>

#ifndef VIGILD_CONSOLE_TESTS

TEST(ConsoleE2ETest, Unavailable) {
    GTEST_SKIP() << "built without cpp-httplib (libcpp-httplib-dev): vd-standin has no console";
}

#else

#include <fcntl.h>
#include <httplib.h>
#include <jansson.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "fakes/daemon_process.h"
#include "fakes/eventually.h"

extern char** environ;

namespace {

namespace fsys = std::filesystem;
using namespace std::chrono_literals;
using vigild::testing::eventually;
using vigild::testing::withSetting;

constexpr auto kTimeout = 15s;
constexpr const char* kModule = "SettingsModule";
constexpr const char* kJson = "application/json";

using Json = std::unique_ptr<json_t, decltype(&json_decref)>;
Json parse(const std::string& text) {
    return Json(json_loads(text.c_str(), 0, nullptr), json_decref);
}

std::string text(json_t* value) {
    const char* s = json_string_value(value);
    return s != nullptr ? s : "";
}

std::string dumpJson(json_t* value) {
    char* dumped = json_dumps(value, JSON_ENCODE_ANY);
    std::string out = dumped != nullptr ? dumped : "(none)";
    free(dumped);
    return out;
}

// The value of one setting in a configuration document ("" when absent).
std::string settingValue(json_t* document, const char* module, const char* name) {
    json_t* settings = json_object_get(json_object_get(document, module), "settings");
    size_t i;
    json_t* entry;
    json_array_foreach(settings, i, entry) {
        if (text(json_object_get(entry, "name")) == name)
            return text(json_object_get(entry, "value"));
    }
    return "";
}

// vd-standin serving a device root with its console on a free loopback port.
class StandinProcess {
  public:
    ~StandinProcess() { stop(); }

    bool start(const std::string& root, int* port) {
        int out[2];
        if (pipe2(out, O_CLOEXEC) != 0) return false;
        std::string binary = std::string(VIGILD_BINARY_DIR) + "/tools/standin/vd-standin";
        std::vector<std::string> args = {binary, "--root", root, "serve", "--http", "127.0.0.1:0"};
        std::vector<char*> argv;
        for (auto& a : args) argv.push_back(a.data());
        argv.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
        std::string log = root + "/standin.stderr";
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, log.c_str(),
                                         O_WRONLY | O_CREAT | O_APPEND, 0644);
        int error = posix_spawn(&pid_, binary.c_str(), &actions, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        close(out[1]);
        out_ = out[0];
        if (error != 0) {
            pid_ = -1;
            return false;
        }
        // The address is printed once the console listens.
        std::string printed;
        std::smatch match;
        const std::regex address(R"(http://127\.0\.0\.1:(\d+)/)");
        auto deadline = std::chrono::steady_clock::now() + kTimeout;
        while (!std::regex_search(printed, match, address)) {
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            struct pollfd p = {out_, POLLIN, 0};
            if (left.count() <= 0 || poll(&p, 1, static_cast<int>(left.count())) <= 0) return false;
            char buf[256];
            ssize_t n = read(out_, buf, sizeof(buf));
            if (n <= 0) return false;
            printed.append(buf, static_cast<size_t>(n));
        }
        *port = std::stoi(match[1]);
        return true;
    }

    // SIGTERM; the exit status (0 for a clean stop, 66 after a sanitizer report), -1 when
    // none was running.
    int stop() {
        int status = -1;
        if (pid_ > 0) {
            kill(pid_, SIGTERM);
            int raw = 0;
            waitpid(pid_, &raw, 0);
            status = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
            pid_ = -1;
        }
        if (out_ >= 0) close(out_);
        out_ = -1;
        return status;
    }

  private:
    pid_t pid_ = -1;
    int out_ = -1;
};

class ConsoleE2ETest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(daemon_.makeRoot("/tmp/vdc"));
        daemon_.installModule(std::string(VIGILD_TEST_MODULE_DIR) + "/lib_vd_settings.so");
        ASSERT_TRUE(standin_.start(daemon_.root(), &port_)) << "vd-standin printed no address";
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

    void TearDown() override {
        daemon_.kill();
        client_.reset();
        const int status = standin_.stop();
        if (status != -1) {
            EXPECT_EQ(status, 0) << daemon_.read("/standin.stderr");
        }
    }

    std::string origin() const { return "http://127.0.0.1:" + std::to_string(port_); }

    Json get(const std::string& path) {
        auto res = client_->Get(path.c_str());
        return parse(res && res->status == 200 ? res->body : "null");
    }

    int post(const std::string& path, const std::string& body, httplib::Headers headers = {},
             const char* type = kJson) {
        auto res = client_->Post(path.c_str(), headers, body, type);
        return res ? res->status : -1;
    }

    int command(const std::string& json) { return post("/api/command", json); }

    // The newest trace event named `name` whose reply is `reply` (any reply when null).
    Json traced(const char* name, const char* reply = nullptr) {
        Json trace = get("/api/trace?max=1000");
        for (size_t i = json_array_size(trace.get()); i-- > 0;) {
            json_t* e = json_array_get(trace.get(), i);
            if (text(json_object_get(e, "name")) == name &&
                (reply == nullptr || text(json_object_get(e, "reply")) == reply)) {
                return Json(json_incref(e), json_decref);
            }
        }
        return Json(nullptr, json_decref);
    }

    std::string documentNow() {
        Json config = get("/api/config");
        json_t* document = json_object_get(config.get(), "document");
        if (!json_is_object(document)) return "";
        char* dumped = json_dumps(document, JSON_PRESERVE_ORDER);
        std::string out = dumped;
        free(dumped);
        return out;
    }

    std::string fetchDocument() {
        EXPECT_EQ(command(R"({"command":"config_get:"})"), 202);
        std::string document;
        EXPECT_TRUE(eventually([&] { return !(document = documentNow()).empty(); }, kTimeout));
        return document;
    }

    int port_ = 0;
    vigild::testing::DaemonProcess daemon_{std::string(VIGILD_BINARY_DIR) + "/vigild"};
    StandinProcess standin_;
    std::unique_ptr<httplib::Client> client_;
};

TEST_F(ConsoleE2ETest, RefusesRequestsThatAreNotItsOwn) {
    const std::string start = R"({"command":"start:"})";
    struct Case {
        const char* what;
        const char* method;
        const char* path;
        httplib::Headers headers;
        std::string body;
        const char* type;
        int status;
    };
    const std::vector<Case> cases = {
        {"another site reads the state",
         "GET",
         "/api/status",
         {{"Origin", "http://evil.example"}},
         "",
         kJson,
         403},
        {"another site starts the daemon",
         "POST",
         "/api/command",
         {{"Origin", "http://evil.example"}},
         start,
         kJson,
         403},
        {"another port on this host",
         "POST",
         "/api/command",
         {{"Origin", "http://127.0.0.1:1"}},
         start,
         kJson,
         403},
        {"sandboxed page", "POST", "/api/command", {{"Origin", "null"}}, start, kJson, 403},
        {"cross-site fetch without Origin",
         "POST",
         "/api/command",
         {{"Sec-Fetch-Site", "cross-site"}},
         start,
         kJson,
         403},
        {"cross-site Referer without Origin",
         "POST",
         "/api/command",
         {{"Referer", "http://evil.example/page"}},
         start,
         kJson,
         403},
        {"a name rebound to this host",
         "GET",
         "/",
         {{"Host", "evil.example:" + std::to_string(port_)}},
         "",
         kJson,
         403},
        {"a state change by GET", "GET", "/api/command", {}, "", kJson, 405},
        {"a plain form post",
         "POST",
         "/api/command",
         {},
         "command=start:",
         "application/x-www-form-urlencoded",
         415},
        {"a document that is not JSON", "POST", "/api/config", {}, "{\"a\":", kJson, 400},
        {"a document that is not an object", "POST", "/api/config", {}, "[1]", kJson, 400},
        {"a document over 1 MiB",
         "POST",
         "/api/config",
         {},
         "{\"a\":\"" + std::string(1 << 20, 'x') + "\"}",
         kJson,
         413},
        {"a command the console does not send",
         "POST",
         "/api/command",
         {},
         R"({"command":"rm -rf /"})",
         kJson,
         400},
        {"config_set: without a document",
         "POST",
         "/api/command",
         {},
         R"({"command":"config_set:"})",
         kJson,
         400},
        {"a delete type with another command",
         "POST",
         "/api/command",
         {},
         R"({"command":"start:","deleteType":1})",
         kJson,
         400},
    };
    for (const Case& c : cases) {
        httplib::Result res = std::string(c.method) == "GET"
                                  ? client_->Get(c.path, c.headers)
                                  : client_->Post(c.path, c.headers, c.body, c.type);
        ASSERT_TRUE(res) << c.what;
        EXPECT_EQ(res->status, c.status) << c.what << ": " << res->body;
    }

    // The console's own page may: with its Origin, with Sec-Fetch-Site same-origin, and
    // without either (curl, scripts).
    EXPECT_EQ(post("/api/command", R"({"command":"refresh_state"})", {{"Origin", origin()}}), 202);
    EXPECT_EQ(post("/api/command", R"({"command":"refresh_state"})",
                   {{"Sec-Fetch-Site", "same-origin"}, {"Referer", origin() + "/"}}),
              202);
    EXPECT_EQ(command(R"({"command":"config_get:"})"), 202);
    // Commands are taken in order: once "config_get:" is taken, nothing refused was queued.
    ASSERT_TRUE(
        eventually([&] { return traced("waitForResponse", "config_get:") != nullptr; }, kTimeout));
    EXPECT_EQ(traced("waitForResponse", "start:"), nullptr);
    EXPECT_EQ(traced("receiveConfig"), nullptr);
    EXPECT_NE(text(json_object_get(get("/api/status").get(), "state")), "running");
}

TEST_F(ConsoleE2ETest, AppliedDocumentsReportObjectionsAndValuesNotKept) {
    struct Case {
        const char* what;
        std::vector<std::pair<const char*, const char*> > values;
        const char* objectedSetting;  // with the module's message
        const char* objection;
        const char* notKeptSetting;  // a value the daemon holds differently
    };
    // Objected values stay applied: the last case puts the size back.
    const std::vector<Case> cases = {
        {"a boolean and a list", {{"Verbose", "true"}, {"Level", "2"}}, nullptr, nullptr, nullptr},
        {"a value the module objects to",
         {{"Buffer Size (KB)", "0"}},
         "Buffer Size (KB)",
         "Buffer Size (KB) must be positive",
         nullptr},
        {"a path outside the storage root",
         {{"Buffer Size (KB)", "64"}, {"Log Path", "/elsewhere/"}},
         nullptr,
         nullptr,
         "Log Path"},
    };
    int64_t id = 0;
    for (const Case& c : cases) {
        std::string document = fetchDocument();
        for (const auto& [name, value] : c.values) {
            document = withSetting(document, kModule, name, value);
        }
        ASSERT_EQ(post("/api/config", document), 202) << c.what;
        id++;
        Json apply(nullptr, json_decref);
        ASSERT_TRUE(eventually(
            [&] {
                Json config = get("/api/config");
                json_t* a = json_object_get(config.get(), "apply");
                if (json_integer_value(json_object_get(a, "id")) != id ||
                    text(json_object_get(a, "phase")) != "answered") {
                    return false;
                }
                apply = Json(json_incref(a), json_decref);
                return true;
            },
            kTimeout))
            << c.what;

        Json now = parse(documentNow());
        for (const auto& [name, value] : c.values) {
            if (c.notKeptSetting == nullptr || strcmp(name, c.notKeptSetting) != 0) {
                EXPECT_EQ(settingValue(now.get(), kModule, name), value) << c.what << ": " << name;
            }
        }
        json_t* objections = json_object_get(apply.get(), "objections");
        if (c.objection != nullptr) {
            EXPECT_EQ(
                text(json_object_get(json_object_get(objections, kModule), c.objectedSetting)),
                c.objection)
                << c.what;
        } else {
            EXPECT_TRUE(json_is_null(objections)) << c.what << ": " << dumpJson(objections);
        }
        json_t* notKept = json_object_get(apply.get(), "notKept");
        if (c.notKeptSetting != nullptr) {
            ASSERT_EQ(json_array_size(notKept), 1u) << c.what;
            json_t* entry = json_array_get(notKept, 0);
            EXPECT_EQ(text(json_object_get(entry, "setting")), c.notKeptSetting);
            EXPECT_EQ(text(json_object_get(entry, "sent")), "/elsewhere/");
            EXPECT_EQ(text(json_object_get(entry, "now")),
                      settingValue(now.get(), kModule, c.notKeptSetting));
        } else {
            EXPECT_EQ(json_array_size(notKept), 0u) << c.what;
        }
    }
    // Each document went through "config_set:" and the daemon fetched it.
    EXPECT_NE(traced("waitForResponse", "config_set:"), nullptr);
    EXPECT_NE(traced("receiveConfig"), nullptr);
}

TEST_F(ConsoleE2ETest, ControlsReachTheDaemon) {
    fsys::create_directories(daemon_.host("/bugreports"));
    std::ofstream(daemon_.host("/bugreports/bugreport-console.zip")) << "zip bytes";
    daemon_.writeBugreportTool("echo 'OK:/bugreports/bugreport-console.zip'");

    auto state = [&] { return text(json_object_get(get("/api/status").get(), "state")); };
    ASSERT_EQ(command(R"({"command":"start:"})"), 202);
    EXPECT_TRUE(eventually([&] { return state() == "running"; }, kTimeout));

    // The delete type is the service's answer to the daemon's question, set before the command.
    ASSERT_EQ(command(R"({"command":"delete_logs","deleteType":2})"), 202);
    EXPECT_TRUE(eventually([&] { return traced("getDeleteLogsParam", "2") != nullptr; }, kTimeout));
    EXPECT_EQ(json_integer_value(json_object_get(
                  json_object_get(get("/api/status").get(), "device"), "delete-logs-param")),
              2);

    ASSERT_EQ(post("/api/bugreport", "{}"), 202);
    EXPECT_TRUE(eventually(
        [&] {
            Json status = get("/api/status");
            json_t* reported = json_object_get(json_object_get(status.get(), "reports"),
                                               "updateTwBugreportStatus");
            return json_integer_value(json_array_get(reported, 0)) == 1 &&
                   text(json_object_get(status.get(), "bugreportProperty")) == "false";
        },
        kTimeout));
    EXPECT_EQ(daemon_.read("/sdcard/Tellwick/TwBugreport-console.zip"), "zip bytes");

    ASSERT_EQ(command(R"({"command":"stop:"})"), 202);
    EXPECT_TRUE(eventually([&] { return state() == "stopped"; }, kTimeout));
}

// The page's live feed: the recent past at once, then every transaction, the status and the
// document as they change; a reconnecting page resumes after the last event it saw.
TEST_F(ConsoleE2ETest, EventStreamFollowsTheDaemon) {
    struct Stream {
        std::mutex mutex;
        std::string received;
        std::unique_ptr<httplib::Client> client;
        std::thread thread;

        void open(int port, httplib::Headers headers) {
            client = std::make_unique<httplib::Client>("127.0.0.1", port);
            client->set_read_timeout(20, 0);
            thread = std::thread([this, headers] {
                client->Get("/api/events", headers, [this](const char* data, size_t size) {
                    std::lock_guard<std::mutex> lock(mutex);
                    received.append(data, size);
                    return true;
                });
            });
        }
        bool has(const std::string& needle) {
            std::lock_guard<std::mutex> lock(mutex);
            return received.find(needle) != std::string::npos;
        }
        std::string text() {
            std::lock_guard<std::mutex> lock(mutex);
            return received;
        }
        ~Stream() {
            if (client) client->stop();
            if (thread.joinable()) thread.join();
        }
    };

    Stream live;
    live.open(port_, {});
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
    const long seq = std::stol(first.substr(4));
    Stream resumed;
    resumed.open(port_, {{"Last-Event-ID", std::to_string(seq - 1)}});
    ASSERT_TRUE(eventually([&] { return resumed.has("event: trace"); }, kTimeout));
    const std::string again = resumed.text();
    EXPECT_EQ(again.substr(again.find("id: "), first.size()), first);
}

}  // namespace

#endif
