// vd-standin: the stand-in companion service for a host device root, and the remote
// control that drives it from another shell.
//
//   vd-standin serve --root /tmp/dev --verbose
//   vd-standin --root /tmp/dev send start:
//   vd-standin --root /tmp/dev config-set config.json
//   vd-standin --root /tmp/dev status
//   vd-standin --root /tmp/dev set sdcard-present 1
//   vd-standin --root /tmp/dev wait-state running --timeout 10
//
// The serving process listens on "<root>/dev/vd-standin.ctl" for the other commands: one
// request line, an optional payload up to end of stream, and a reply whose first line is
// "ok" or "error <reason>".
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/host/host_platform.h"
#include "standin/standin_service.h"
#include "standin/standin_view.h"

namespace {

using vdstandin::DeviceAnswers;
using vdstandin::StandinService;

constexpr size_t kMaxPayload = 1048576;
constexpr const char* kControlName = "/dev/vd-standin.ctl";

std::string controlPath(const std::string& root) { return root + kControlName; }

bool parseInt(const std::string& text, int* out) {
    if (text.empty()) return false;
    errno = 0;
    char* end = nullptr;
    long v = strtol(text.c_str(), &end, 10);
    if (errno != 0 || *end != '\0' || v < INT_MIN || v > INT_MAX) return false;
    *out = static_cast<int>(v);
    return true;
}

const char* stateName(int state) {
    switch (state) {
        case 0:
            return "stopped";
        case 1:
            return "running";
        case 2:
            return "transition";
        default:
            return "unknown";
    }
}

bool parseState(const std::string& text, int* out) {
    for (int s = 0; s <= 2; s++) {
        if (text == stateName(s)) {
            *out = s;
            return true;
        }
    }
    return parseInt(text, out);
}

// The device answers a person can change, by the name the "set" command takes.
struct Setting {
    const char* name;
    const char* help;
    std::function<bool(DeviceAnswers&, const std::string&)> set;
    std::function<std::string(const DeviceAnswers&)> get;
};

Setting intSetting(const char* name, const char* help, int DeviceAnswers::*field) {
    return {name, help,
            [field](DeviceAnswers& a, const std::string& v) { return parseInt(v, &(a.*field)); },
            [field](const DeviceAnswers& a) { return std::to_string(a.*field); }};
}

Setting textSetting(const char* name, const char* help, std::string DeviceAnswers::*field) {
    return {name, help,
            [field](DeviceAnswers& a, const std::string& v) {
                a.*field = v;
                return true;
            },
            [field](const DeviceAnswers& a) { return a.*field; }};
}

const std::vector<Setting>& settings() {
    static const std::vector<Setting> table = {
        intSetting("bluetooth-enabled", "bluetoothIsEnabled answer",
                   &DeviceAnswers::bluetoothEnabled),
        intSetting("bluetooth-discoverable", "bluetoothIsDiscoverable answer",
                   &DeviceAnswers::bluetoothDiscoverable),
        intSetting("bluetooth-connected", "bluetoothIsConnected answer",
                   &DeviceAnswers::bluetoothConnected),
        intSetting("ambient-light", "ambientLight answer", &DeviceAnswers::ambientLight),
        intSetting("wan-signal", "wanSignalStrength answer", &DeviceAnswers::wanSignalStrength),
        intSetting("wifi-signal", "wifiSignalStrength answer", &DeviceAnswers::wifiSignalStrength),
        {"foreground-app", "first foregroundApplication string",
         [](DeviceAnswers& a, const std::string& v) {
             a.foregroundApplication[0] = v;
             return true;
         },
         [](const DeviceAnswers& a) { return a.foregroundApplication[0]; }},
        {"foreground-activity", "second foregroundApplication string",
         [](DeviceAnswers& a, const std::string& v) {
             a.foregroundApplication[1] = v;
             return true;
         },
         [](const DeviceAnswers& a) { return a.foregroundApplication[1]; }},
        textSetting("serial", "serialNumber answer", &DeviceAnswers::serialNumber),
        textSetting("model", "modelNumber answer", &DeviceAnswers::modelNumber),
        textSetting("bsp", "bspNumber answer", &DeviceAnswers::bspNumber),
        textSetting("dhcp", "dhcp answer", &DeviceAnswers::dhcp),
        textSetting("gateway", "gateway answer", &DeviceAnswers::gateway),
        textSetting("default-dir", "getDefaultDirPath answer", &DeviceAnswers::defaultDirPath),
        intSetting("sdcard-present", "isSDcardPresent answer (1 present, 0 not)",
                   &DeviceAnswers::sdcardPresent),
        textSetting("sdcard-path", "getSDcardPath answer, e.g. /storage/1A2B-3C4D/",
                    &DeviceAnswers::sdcardPath),
        textSetting("tellwick-version", "getTellwickVersion answer",
                    &DeviceAnswers::tellwickVersion),
        intSetting("user-valid", "isUserValidToDeploy answer (1 allowed, 0 not)",
                   &DeviceAnswers::userValidToDeploy),
        intSetting("delete-logs-param", "getDeleteLogsParam and deleteTwLogs answer",
                   &DeviceAnswers::deleteLogsParam),
        textSetting("qc-meta-id", "getQcMetaIdVersion answer", &DeviceAnswers::qcMetaIdVersion),
        {"state", "getState answer: a state name or number, or \"none\" to echo the last sent",
         [](DeviceAnswers& a, const std::string& v) {
             if (v == "none") {
                 a.stateOverride.reset();
                 return true;
             }
             int s = 0;
             if (!parseState(v, &s)) return false;
             a.stateOverride = s;
             return true;
         },
         [](const DeviceAnswers& a) {
             return a.stateOverride ? std::to_string(*a.stateOverride) : std::string("none");
         }},
    };
    return table;
}

const Setting* findSetting(const std::string& name) {
    for (const Setting& s : settings()) {
        if (name == s.name) return &s;
    }
    return nullptr;
}

std::string settingNames() {
    std::string names;
    for (const Setting& s : settings()) names += std::string(names.empty() ? "" : ", ") + s.name;
    return names;
}

// ---- serving side ----

class ControlServer {
  public:
    ControlServer(StandinService& service, std::string path)
        : service_(service), path_(std::move(path)) {}

    bool start(std::string* error) {
        struct sockaddr_un addr = {};
        addr.sun_family = AF_UNIX;
        if (path_.size() >= sizeof(addr.sun_path)) {
            *error = "control socket path too long: " + path_;
            return false;
        }
        struct stat st;
        if (::lstat(path_.c_str(), &st) == 0 && S_ISSOCK(st.st_mode)) ::unlink(path_.c_str());
        memcpy(addr.sun_path, path_.c_str(), path_.size() + 1);
        fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (fd_ < 0 || ::bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
            ::listen(fd_, 8) != 0 || ::pipe2(wake_, O_CLOEXEC) != 0) {
            *error = "cannot listen on " + path_ + ": " + strerror(errno);
            return false;
        }
        thread_ = std::thread([this] { loop(); });
        return true;
    }

    void stop() {
        stopping_ = true;
        const char b = 1;
        (void)!::write(wake_[1], &b, 1);
        if (thread_.joinable()) thread_.join();
        std::lock_guard<std::mutex> lock(mutex_);
        for (auto& t : workers_) t.join();
        workers_.clear();
        ::close(fd_);
        ::close(wake_[0]);
        ::close(wake_[1]);
        ::unlink(path_.c_str());
    }

  private:
    void loop() {
        for (;;) {
            struct pollfd fds[2] = {{fd_, POLLIN, 0}, {wake_[0], POLLIN, 0}};
            if (::poll(fds, 2, -1) < 0 && errno != EINTR) return;
            if (fds[1].revents != 0) return;
            if ((fds[0].revents & POLLIN) == 0) continue;
            int client = ::accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
            if (client < 0) continue;
            std::lock_guard<std::mutex> lock(mutex_);
            workers_.emplace_back([this, client] {
                handle(client);
                ::close(client);
            });
        }
    }

    void handle(int fd) {
        std::string request;
        char buf[4096];
        for (;;) {
            ssize_t n = ::read(fd, buf, sizeof(buf));
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) break;
            request.append(buf, static_cast<size_t>(n));
            if (request.size() > kMaxPayload) {
                reply(fd, "error request too large");
                return;
            }
        }
        size_t eol = request.find('\n');
        std::string line = request.substr(0, eol);
        std::string payload = eol == std::string::npos ? "" : request.substr(eol + 1);
        size_t blank = line.find(' ');
        std::string verb = line.substr(0, blank);
        std::string args = blank == std::string::npos ? "" : line.substr(blank + 1);
        reply(fd, answer(verb, args, payload));
    }

    std::string answer(const std::string& verb, const std::string& args,
                       const std::string& payload) {
        if (verb == "send") {
            service_.queueCommand(args);
            return "ok\nqueued " + args + "\n";
        }
        if (verb == "config-set") {
            service_.queueConfig(payload);
            service_.queueCommand("config_set:");
            return "ok\nqueued config_set: with " + std::to_string(payload.size()) + " bytes\n";
        }
        if (verb == "status") return "ok\n" + vdstandin::statusText(service_);
        if (verb == "set") {
            size_t blank = args.find(' ');
            std::string key = args.substr(0, blank);
            std::string value = blank == std::string::npos ? "" : args.substr(blank + 1);
            const Setting* setting = findSetting(key);
            if (setting == nullptr) return "error unknown setting " + key;
            bool ok = true;
            service_.updateAnswers([&](DeviceAnswers& a) { ok = setting->set(a, value); });
            if (!ok) return "error bad value for " + key + ": " + value;
            return "ok\n" + key + " = " + value + "\n";
        }
        if (verb == "wait-state") {
            std::istringstream in(args);
            int target = 0;
            long timeoutMs = 0;
            in >> target >> timeoutMs;
            auto reached = [target](const std::vector<vdstandin::Record>& records) {
                for (auto it = records.rbegin(); it != records.rend(); ++it) {
                    if (it->method == "sendState" && !it->ints.empty()) {
                        return it->ints[0] == target;
                    }
                }
                return false;
            };
            auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
            // In slices, so a stopping server does not keep a caller waiting.
            while (!stopping_) {
                auto left = deadline - std::chrono::steady_clock::now();
                if (left <= std::chrono::milliseconds(0)) break;
                auto slice = std::min<std::chrono::milliseconds>(
                    std::chrono::duration_cast<std::chrono::milliseconds>(left),
                    std::chrono::milliseconds(250));
                if (service_.waitUntil(reached, slice)) return "ok\n";
            }
            if (service_.waitUntil(reached, std::chrono::milliseconds(0))) return "ok\n";
            return "error timed out";
        }
        return "error unknown request " + verb;
    }

    static void reply(int fd, const std::string& text) {
        vigild::platform::host::writeAll(fd, text.data(), text.size());
    }

    StandinService& service_;
    std::string path_;
    int fd_ = -1;
    int wake_[2] = {-1, -1};
    std::atomic<bool> stopping_{false};
    std::thread thread_;
    std::mutex mutex_;
    std::vector<std::thread> workers_;
};

int serve(const std::string& root, bool verbose) {
    // Signals are taken by sigwait in the main thread, so every thread must block them.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    signal(SIGPIPE, SIG_IGN);

    StandinService service(root);
    if (verbose) {
        service.addTraceListener([](const vdstandin::TraceEvent& e) {
            std::cout << vdstandin::traceEventText(e) << std::endl;
        });
    }
    if (!service.start()) {
        std::cerr << "vd-standin: cannot serve at " << root << "/dev/binder/: " << strerror(errno)
                  << "\n";
        return 1;
    }
    ControlServer control(service, controlPath(root));
    std::string error;
    if (!control.start(&error)) {
        std::cerr << "vd-standin: " << error << "\n";
        service.stop();
        return 1;
    }
    std::cerr << "vd-standin: serving com.tandril.vd.Ivd_service at " << root
              << "/dev/binder/ (Ctrl-C to stop)\n";
    int received = 0;
    sigwait(&signals, &received);
    std::cerr << "vd-standin: stopping\n";
    control.stop();
    service.stop();
    return 0;
}

// ---- client side ----

// Sends one request to the serving process; prints its answer. Exit status: 0 ok, 1 refused
// or timed out, 2 no server.
int request(const std::string& root, const std::string& line, const std::string& payload = "") {
    signal(SIGPIPE, SIG_IGN);
    std::string path = controlPath(root);
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof(addr.sun_path)) {
        std::cerr << "vd-standin: device root path too long for a socket: " << root << "\n";
        return 2;
    }
    memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0 || ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        std::cerr << "vd-standin: no stand-in is serving at " << root
                  << " (start one with: vd-standin serve --root " << root << ")\n";
        if (fd >= 0) ::close(fd);
        return 2;
    }
    std::string out = line + "\n" + payload;
    vigild::platform::host::writeAll(fd, out.data(), out.size());
    ::shutdown(fd, SHUT_WR);
    std::string answer;
    char buf[4096];
    for (;;) {
        ssize_t n = ::read(fd, buf, sizeof(buf));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        answer.append(buf, static_cast<size_t>(n));
    }
    ::close(fd);
    if (answer.rfind("ok\n", 0) == 0 || answer == "ok") {
        std::cout << answer.substr(std::min<size_t>(3, answer.size()));
        return 0;
    }
    if (answer.rfind("error ", 0) == 0) {
        std::cerr << "vd-standin: " << answer.substr(6) << "\n";
    } else {
        std::cerr << "vd-standin: the stand-in closed the connection without an answer\n";
    }
    return 1;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{
        "Stand-in companion service (com.tandril.vd.Ivd_service) for vigild on a host device "
        "root.\nStart it with 'serve', then drive it from another shell with the other "
        "commands."};
    app.require_subcommand(1);
    std::string root;
    app.add_option("--root", root, "Device root folder (the daemon's VIGILD_ROOT)")
        ->envname("VIGILD_ROOT")
        ->required();
    app.fallthrough();

    bool verbose = false;
    auto* serveCmd =
        app.add_subcommand("serve", "Serve the companion service until SIGINT/SIGTERM");
    serveCmd->add_flag("-v,--verbose", verbose, "Print one decoded line per transaction");

    std::string command;
    auto* sendCmd = app.add_subcommand(
        "send",
        "Hand a command to the daemon's waitForResponse (start:, stop:, config_get:, "
        "fresh_connect, delete_logs, ...)");
    sendCmd->add_option("command", command, "The command text")->required();

    std::string file;
    auto* configCmd = app.add_subcommand(
        "config-set", "Queue a configuration document and the \"config_set:\" command");
    configCmd->add_option("file", file, "JSON document to hand to receiveConfig ('-' for stdin)")
        ->required();

    auto* statusCmd =
        app.add_subcommand("status", "Print what the daemon last reported and the device answers");

    std::string key;
    std::string value;
    auto* setCmd = app.add_subcommand("set", "Change a device answer");
    setCmd->add_option("key", key, "One of: " + settingNames())->required();
    setCmd->add_option("value", value, "The new answer")->required();
    setCmd->footer("Keys:\n" + [] {
        std::string text;
        for (const Setting& s : settings()) {
            text += "  " + std::string(s.name) +
                    std::string(24 - std::min<size_t>(22, strlen(s.name)), ' ') + s.help + "\n";
        }
        return text;
    }());

    std::string state;
    double timeout = 10;
    auto* waitCmd = app.add_subcommand(
        "wait-state",
        "Wait until the daemon reports a run state; exit status 0 when it did, 1 on "
        "timeout");
    waitCmd->add_option("state", state, "stopped, running, transition or a number")->required();
    waitCmd->add_option("--timeout", timeout, "Seconds to wait")
        ->capture_default_str()
        ->check(CLI::PositiveNumber);

    CLI11_PARSE(app, argc, argv);
    while (root.size() > 1 && root.back() == '/') root.pop_back();

    if (*serveCmd) return serve(root, verbose);
    if (*sendCmd) {
        if (command.find('\n') != std::string::npos) {
            std::cerr << "vd-standin: a command is one line\n";
            return 2;
        }
        return request(root, "send " + command);
    }
    if (*configCmd) {
        std::string document;
        if (file == "-") {
            document.assign(std::istreambuf_iterator<char>(std::cin), {});
        } else {
            std::ifstream in(file, std::ios::binary);
            if (!in) {
                std::cerr << "vd-standin: cannot read " << file << ": " << strerror(errno) << "\n";
                return 2;
            }
            document.assign(std::istreambuf_iterator<char>(in), {});
        }
        if (document.size() > kMaxPayload) {
            std::cerr << "vd-standin: " << file << " is larger than " << kMaxPayload << " bytes\n";
            return 2;
        }
        return request(root, "config-set", document);
    }
    if (*statusCmd) return request(root, "status");
    if (*setCmd) {
        if (findSetting(key) == nullptr) {
            std::cerr << "vd-standin: unknown setting " << key << " (one of: " << settingNames()
                      << ")\n";
            return 2;
        }
        if (value.find('\n') != std::string::npos) {
            std::cerr << "vd-standin: a value is one line\n";
            return 2;
        }
        return request(root, "set " + key + " " + value);
    }
    if (*waitCmd) {
        int target = 0;
        if (!parseState(state, &target)) {
            std::cerr << "vd-standin: unknown state " << state
                      << " (stopped, running, transition or a number)\n";
            return 2;
        }
        long ms = static_cast<long>(timeout * 1000);
        return request(root, "wait-state " + std::to_string(target) + " " + std::to_string(ms));
    }
    return 2;
}
