// vd-standin: the stand-in companion service for a host device root, and the remote
// control that drives it from another shell.
//
//   vd-standin --root /tmp/dev serve --verbose
//   vd-standin --root /tmp/dev send start:
//   vd-standin --root /tmp/dev status --json
//   vd-standin --root /tmp/dev watch
//   vd-standin --root /tmp/dev config set config.json
//
// The serving process listens on "<root>/dev/vd-standin.ctl" for the other commands: one
// request line, an optional payload up to the end of the client's writing, and a reply whose
// first line is "ok" or "error <reason>". After "ok", "watch" streams one line per
// transaction until either side closes.
#include <fcntl.h>
#include <jansson.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <functional>
#include <iostream>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/host/host_platform.h"
#include "standin/console/console.h"
#include "standin/standin_service.h"
#include "standin/standin_view.h"

#if __has_include("vigild_version.h")
#include "vigild_version.h"
#define VD_STANDIN_VERSION VIGILD_VERSION
#else
#define VD_STANDIN_VERSION VD_STANDIN_PROJECT_VERSION
#endif

extern char** environ;

namespace {

using vdstandin::DeviceAnswers;
using vdstandin::kDaemonCommands;
using vdstandin::StandinService;
using vdstandin::TraceEvent;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// Exit statuses, the same for every sub-command.
constexpr int kOk = 0;
constexpr int kFailed = 1;
constexpr int kUsage = 2;
constexpr const char* kExitCodes =
    "Exit status: 0 done; 1 failed (no stand-in serving, the daemon did not answer in time, "
    "a module objected, a file could not be read); 2 usage (unknown command or option, "
    "missing or bad argument).";

constexpr size_t kMaxPayload = 1048576;
constexpr const char* kControlName = "/dev/vd-standin.ctl";
// Lines a slow watch client may fall behind before older ones are dropped.
constexpr size_t kWatchBacklog = 10000;
// How often a waiting request looks at its client and at a stopping server.
constexpr milliseconds kSlice{100};

std::string controlPath(const std::string& root) { return root + kControlName; }

bool useColour() {
    const char* term = getenv("TERM");
    return isatty(STDOUT_FILENO) == 1 && getenv("NO_COLOR") == nullptr &&
           (term == nullptr || std::string(term) != "dumb");
}

bool hungUp(int fd) {
    struct pollfd p = {fd, 0, 0};
    return ::poll(&p, 1, 0) > 0 && (p.revents & (POLLHUP | POLLERR)) != 0;
}

bool sendAll(int fd, const std::string& text) {
    return vigild::platform::host::writeAll(fd, text.data(), text.size());
}

std::string prettyJson(const std::string& text) {
    json_t* doc = json_loads(text.c_str(), JSON_DECODE_ANY, nullptr);
    if (doc == nullptr) return text + "\n";
    char* pretty = json_dumps(doc, JSON_INDENT(2) | JSON_PRESERVE_ORDER | JSON_ENCODE_ANY);
    json_decref(doc);
    std::string out = pretty != nullptr ? pretty : text;
    free(pretty);
    return out + "\n";
}

// Trace events in arrival order, for one request that waits on what the daemon does.
class EventTap {
  public:
    EventTap(StandinService& service, bool withBytes) : service_(service) {
        id_ = service.addTraceListener([this, withBytes](const TraceEvent& e) {
            TraceEvent copy;
            copy.seq = e.seq;
            copy.unixMillis = e.unixMillis;
            copy.code = e.code;
            copy.name = e.name;
            copy.decoded = e.decoded;
            copy.replySummary = e.replySummary;
            copy.status = e.status;
            if (withBytes) {
                copy.request = e.request;
                copy.reply = e.reply;
            }
            {
                std::lock_guard<std::mutex> lock(mutex_);
                if (events_.size() == kWatchBacklog) {
                    events_.pop_front();
                    dropped_++;
                }
                events_.push_back(std::move(copy));
            }
            ready_.notify_all();
        });
    }
    ~EventTap() { service_.removeTraceListener(id_); }
    EventTap(const EventTap&) = delete;
    EventTap& operator=(const EventTap&) = delete;

    // The next event, or nothing after `slice`. `*dropped` counts events lost to a backlog.
    std::optional<TraceEvent> next(milliseconds slice, size_t* dropped = nullptr) {
        std::unique_lock<std::mutex> lock(mutex_);
        ready_.wait_for(lock, slice, [this] { return !events_.empty(); });
        if (dropped != nullptr) {
            *dropped = dropped_;
            dropped_ = 0;
        }
        if (events_.empty()) return std::nullopt;
        TraceEvent e = std::move(events_.front());
        events_.pop_front();
        return e;
    }

  private:
    StandinService& service_;
    uint64_t id_ = 0;
    std::mutex mutex_;
    std::condition_variable ready_;
    std::deque<TraceEvent> events_;
    size_t dropped_ = 0;
};

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
        for (auto& w : workers_) w->thread.join();
        workers_.clear();
        ::close(fd_);
        ::close(wake_[0]);
        ::close(wake_[1]);
        ::unlink(path_.c_str());
    }

  private:
    struct Worker {
        std::thread thread;
        std::atomic<bool> done{false};
    };

    void loop() {
        for (;;) {
            struct pollfd fds[2] = {{fd_, POLLIN, 0}, {wake_[0], POLLIN, 0}};
            if (::poll(fds, 2, -1) < 0 && errno != EINTR) return;
            if (fds[1].revents != 0) return;
            if ((fds[0].revents & POLLIN) == 0) continue;
            int client = ::accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
            if (client < 0) continue;
            std::lock_guard<std::mutex> lock(mutex_);
            for (auto it = workers_.begin(); it != workers_.end();) {
                if ((*it)->done) {
                    (*it)->thread.join();
                    it = workers_.erase(it);
                } else {
                    ++it;
                }
            }
            auto worker = std::make_unique<Worker>();
            Worker* raw = worker.get();
            workers_.push_back(std::move(worker));
            raw->thread = std::thread([this, client, raw] {
                handle(client);
                ::close(client);
                raw->done = true;
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
            if (request.size() > kMaxPayload + 4096) {
                sendAll(fd, "error request too large");
                return;
            }
        }
        size_t eol = request.find('\n');
        std::string line = request.substr(0, eol);
        std::string payload = eol == std::string::npos ? "" : request.substr(eol + 1);
        std::istringstream words(line);
        std::string verb;
        words >> verb;
        std::vector<std::string> args;
        for (std::string w; words >> w;) args.push_back(w);
        if (verb == "watch") return watch(fd, args);
        sendAll(fd, answer(fd, verb, line.substr(std::min(line.size(), verb.size() + 1)), args,
                           payload));
    }

    bool has(const std::vector<std::string>& args, const char* word) {
        return std::find(args.begin(), args.end(), word) != args.end();
    }

    static long number(const std::vector<std::string>& args, size_t i, long fallback) {
        return i < args.size() ? strtol(args[i].c_str(), nullptr, 10) : fallback;
    }

    void watch(int fd, const std::vector<std::string>& args) {
        const bool json = has(args, "json");
        const bool bytes = has(args, "bytes");
        const bool colour = has(args, "colour");
        EventTap tap(service_, bytes);
        if (!sendAll(fd, "ok\n")) return;
        while (!stopping_ && !hungUp(fd)) {
            size_t dropped = 0;
            auto e = tap.next(kSlice, &dropped);
            std::string out;
            if (dropped > 0) {
                out += json ? "{\"dropped\":" + std::to_string(dropped) + "}\n"
                            : "... " + std::to_string(dropped) + " transactions dropped\n";
            }
            if (e) {
                out += (json ? vdstandin::traceEventJson(*e, bytes)
                             : vdstandin::traceEventText(*e, colour)) +
                       "\n";
            }
            if (!out.empty() && !sendAll(fd, out)) return;
        }
    }

    // Waits on the daemon's transactions after `queue` ran until `done` says so, the time is
    // up, the client went away or the server stops. False unless `done` said so.
    bool follow(int fd, long timeoutMs, const std::function<void()>& queue,
                const std::function<bool(const TraceEvent*)>& done) {
        EventTap tap(service_, false);
        queue();
        const auto deadline = Clock::now() + milliseconds(timeoutMs);
        if (done(nullptr)) return true;
        while (!stopping_ && !hungUp(fd) && Clock::now() < deadline) {
            auto e = tap.next(kSlice);
            if (done(e ? &*e : nullptr)) return true;
        }
        return false;
    }

    // "config_set:" with `document`; the outcome as JSON: "outcome" is "applied",
    // "objections", "not-answered" (the daemon took the document and sent nothing back:
    // it refused it) or "timeout"; "objections" the modules' messages; "document" what the
    // daemon sent back.
    std::string configSet(int fd, long timeoutMs, const std::string& document) {
        bool taken = false;
        std::vector<std::string> objections;
        std::optional<std::string> echoed;
        const bool finished = follow(
            fd, timeoutMs,
            [&] {
                service_.queueConfig(document);
                service_.queueCommand("config_set:");
            },
            [&](const TraceEvent* e) {
                if (e != nullptr && e->status == 0) {
                    if (!taken && e->name == "receiveConfig" && e->replySummary == document) {
                        taken = true;
                    } else if (taken && e->name == "sendConfigErrorMessage" &&
                               !e->decoded.strings.empty()) {
                        objections.push_back(e->decoded.strings[0]);
                    } else if (taken && e->name == "sendConfig" && !e->decoded.strings.empty()) {
                        echoed = e->decoded.strings[0];
                    }
                }
                // The daemon asks for its next command once the document is dealt with.
                return taken && service_.waitingForCommand() > 0;
            });
        if (!taken) {
            service_.withdrawCommand("config_set:");
            service_.withdrawConfig(document);
        }
        json_t* out = json_object();
        const char* outcome = !finished             ? "timeout"
                              : !objections.empty() ? "objections"
                              : echoed              ? "applied"
                                                    : "not-answered";
        json_object_set_new(out, "outcome", json_string(outcome));
        json_object_set_new(out, "taken", json_boolean(taken));
        json_t* list = json_array();
        for (const auto& o : objections)
            json_array_append_new(list, json_stringn(o.data(), o.size()));
        json_object_set_new(out, "objections", list);
        json_object_set_new(out, "document",
                            echoed ? json_stringn(echoed->data(), echoed->size()) : json_null());
        char* text = json_dumps(out, JSON_COMPACT);
        std::string result = text != nullptr ? text : "{}";
        free(text);
        json_decref(out);
        return result;
    }

    std::string answer(int fd, const std::string& verb, const std::string& rest,
                       const std::vector<std::string>& args, const std::string& payload) {
        if (verb == "send") {
            service_.queueCommand(rest);
            return "ok\nqueued " + rest + "\n";
        }
        if (verb == "config-set") {
            return "ok\n" + configSet(fd, number(args, 0, 10000), payload) + "\n";
        }
        if (verb == "config-get") {
            std::optional<std::string> document;
            if (has(args, "fresh")) {
                bool taken = false;
                follow(
                    fd, number(args, 1, 10000), [&] { service_.queueCommand("config_get:"); },
                    [&](const TraceEvent* e) {
                        if (e != nullptr && e->name == "waitForResponse" &&
                            e->replySummary == "config_get:") {
                            taken = true;
                        }
                        if (taken && e != nullptr && e->name == "sendConfig" &&
                            !e->decoded.strings.empty()) {
                            document = e->decoded.strings[0];
                        }
                        return document.has_value();
                    });
                if (!taken) service_.withdrawCommand("config_get:");
                if (!document) return "error the daemon sent no document in time";
            } else {
                document = service_.summary().document;
                if (!document) {
                    return "error the daemon has not sent a document yet (try --fresh)";
                }
            }
            return "ok\n" + *document;
        }
        if (verb == "status") {
            return "ok\n" + (has(args, "json")
                                 ? vdstandin::statusJson(service_)
                                 : vdstandin::statusText(service_, has(args, "colour")));
        }
        if (verb == "set") {
            const std::string key = args.empty() ? "" : args[0];
            const std::string value = rest.substr(std::min(rest.size(), key.size() + 1));
            const vdstandin::DeviceSetting* setting = vdstandin::findDeviceSetting(key);
            if (setting == nullptr) return "error unknown setting " + key;
            bool ok = true;
            service_.updateAnswers([&](DeviceAnswers& a) { ok = setting->set(a, value); });
            if (!ok) return "error bad value for " + key + ": " + value;
            return "ok\n" + key + " = " + value + "\n";
        }
        if (verb == "wait-state") {
            const int target = static_cast<int>(number(args, 0, -1));
            const bool reached = follow(
                fd, number(args, 1, 0), [] {},
                [&](const TraceEvent* e) {
                    if (e == nullptr) return service_.summary().state == target;
                    return e->name == "sendState" && e->status == 0 && !e->decoded.ints.empty() &&
                           e->decoded.ints[0] == target;
                });
            return reached ? "ok\n" : "error timed out";
        }
        return "error unknown request " + verb;
    }

    StandinService& service_;
    std::string path_;
    int fd_ = -1;
    int wake_[2] = {-1, -1};
    std::atomic<bool> stopping_{false};
    std::thread thread_;
    std::mutex mutex_;
    std::list<std::unique_ptr<Worker>> workers_;
};

struct ServeOptions {
    std::string root;
    bool verbose = false;
    bool console = false;        // --http
    std::string consoleAddress;  // "" for the default
};

// Serves until SIGINT or SIGTERM. Whatever else runs in this process (a console on the same
// service) starts after the control socket and stops before it.
int runServe(const ServeOptions& options) {
    // Signals are taken by sigwait in the main thread, so every thread must block them.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    signal(SIGPIPE, SIG_IGN);

    StandinService service(options.root);
    service.keepRecords(false);
    if (options.verbose) {
        const bool colour = useColour();
        service.addTraceListener([colour](const TraceEvent& e) {
            std::cout << vdstandin::traceEventText(e, colour) << std::endl;
        });
    }
    if (!service.start()) {
        std::cerr << "vd-standin: cannot serve at " << options.root
                  << "/dev/binder/: " << strerror(errno) << "\n";
        return kFailed;
    }
    ControlServer control(service, controlPath(options.root));
    std::string error;
    if (!control.start(&error)) {
        std::cerr << "vd-standin: " << error << "\n";
        service.stop();
        return kFailed;
    }
    vdstandin::Console console(service, options.root);
    if (options.console) {
        if (!console.start(options.consoleAddress, &error)) {
            std::cerr << "vd-standin: console: " << error << "\n";
            control.stop();
            service.stop();
            return kFailed;
        }
        if (!console.loopbackOnly()) {
            std::cerr << "vd-standin: warning: the console is reachable from other machines, "
                         "and whoever reaches it controls the daemon\n";
        }
        // On stdout, for the person to open and for scripts to read.
        std::cout << "vd-standin: console at " << console.url() << std::endl;
    }
    std::cerr << "vd-standin: serving com.tandril.vd.Ivd_service at " << options.root
              << "/dev/binder/ (Ctrl-C to stop)\n";
    int received = 0;
    sigwait(&signals, &received);
    std::cerr << "vd-standin: stopping\n";
    console.stop();
    control.stop();
    service.stop();
    return kOk;
}

// ---- client side ----

std::atomic<bool> interrupted{false};

// One request to the serving process. `onLine`, when given, receives the answer line by
// line as it streams (watch); otherwise the answer after "ok" is returned in *body.
int request(const std::string& root, const std::string& line, const std::string& payload,
            std::string* body, const std::function<bool(const std::string&)>& onLine = {}) {
    signal(SIGPIPE, SIG_IGN);
    std::string path = controlPath(root);
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof(addr.sun_path)) {
        std::cerr << "vd-standin: device root path too long for a socket: " << root << "\n";
        return kFailed;
    }
    memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0 || ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        std::cerr << "vd-standin: no stand-in is serving at " << root
                  << " (start one with: vd-standin --root " << root << " serve)\n";
        if (fd >= 0) ::close(fd);
        return kFailed;
    }
    sendAll(fd, line + "\n" + payload);
    ::shutdown(fd, SHUT_WR);
    std::string answer;
    bool accepted = false;
    char buf[4096];
    for (;;) {
        ssize_t n = ::read(fd, buf, sizeof(buf));
        if (n < 0 && errno == EINTR) {
            if (interrupted) break;
            continue;
        }
        if (n <= 0) break;
        answer.append(buf, static_cast<size_t>(n));
        if (!onLine) continue;
        size_t eol;
        bool more = true;
        while (more && (eol = answer.find('\n')) != std::string::npos) {
            std::string one = answer.substr(0, eol);
            answer.erase(0, eol + 1);
            if (!accepted) {
                if (one != "ok") {
                    answer = one + "\n" + answer;
                    break;
                }
                accepted = true;
                continue;
            }
            more = onLine(one);
        }
        if (!more) break;
    }
    ::close(fd);
    if (accepted) return kOk;
    if (answer.rfind("ok\n", 0) == 0 || answer == "ok") {
        if (body != nullptr) *body = answer.substr(std::min<size_t>(3, answer.size()));
        return kOk;
    }
    if (interrupted) return kOk;
    if (answer.rfind("error ", 0) == 0) {
        std::cerr << "vd-standin: " << answer.substr(6) << "\n";
    } else {
        std::cerr << "vd-standin: the stand-in closed the connection without an answer\n";
    }
    return kFailed;
}

int simpleRequest(const std::string& root, const std::string& line,
                  const std::string& payload = "") {
    std::string body;
    int rc = request(root, line, payload, &body);
    std::cout << body;
    return rc;
}

bool readFile(const std::string& file, std::string* out) {
    if (file == "-") {
        out->assign(std::istreambuf_iterator<char>(std::cin), {});
        return true;
    }
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        std::cerr << "vd-standin: cannot read " << file << ": " << strerror(errno) << "\n";
        return false;
    }
    out->assign(std::istreambuf_iterator<char>(in), {});
    if (out->size() > kMaxPayload) {
        std::cerr << "vd-standin: " << file << " is larger than " << kMaxPayload << " bytes\n";
        return false;
    }
    return true;
}

// Prints the daemon's answer to a document; kFailed when it did not take it cleanly.
int reportConfigSet(const std::string& sent, const std::string& outcomeJson) {
    json_t* outcome = json_loads(outcomeJson.c_str(), 0, nullptr);
    const char* kind = json_string_value(json_object_get(outcome, "outcome"));
    const std::string what = kind != nullptr ? kind : "";
    int rc = kFailed;
    if (what == "applied") {
        std::cout << "applied: the daemon took the document and sent it back\n";
        rc = kOk;
    } else if (what == "objections") {
        std::cout << "applied, but modules objected:\n";
        size_t i = 0;
        json_t* text = nullptr;
        json_array_foreach(json_object_get(outcome, "objections"), i, text) {
            // {"Module": {"Setting": "message"}}
            json_t* doc = json_loads(json_string_value(text), 0, nullptr);
            const char* module = nullptr;
            json_t* settings = nullptr;
            if (json_is_object(doc)) {
                json_object_foreach(doc, module, settings) {
                    const char* setting = nullptr;
                    json_t* message = nullptr;
                    json_object_foreach(settings, setting, message) {
                        const char* m = json_string_value(message);
                        std::cout << "  " << module << " / " << setting << ": "
                                  << (m != nullptr ? m : "?") << "\n";
                    }
                }
            } else {
                std::cout << "  " << json_string_value(text) << "\n";
            }
            json_decref(doc);
        }
    } else if (what == "not-answered") {
        std::cerr << "vd-standin: the daemon took the document but sent nothing back: it "
                     "refused it (its log says why)\n";
    } else {
        const bool taken = json_is_true(json_object_get(outcome, "taken"));
        std::cerr << "vd-standin: "
                  << (taken ? "the daemon did not finish with the document in time"
                            : "the daemon did not take the document in time (is it running?); "
                              "it was withdrawn")
                  << "\n";
    }
    const char* echoed = json_string_value(json_object_get(outcome, "document"));
    if (echoed != nullptr) {
        const std::vector<vdstandin::NotKept> changed = vdstandin::valuesNotKept(sent, echoed);
        if (!changed.empty()) std::cout << "values the daemon did not keep:\n";
        for (const vdstandin::NotKept& v : changed) {
            std::cout << "  " << v.module << " / " << v.setting << ": sent \"" << v.sent
                      << "\", the daemon has \"" << v.now << "\"\n";
        }
    }
    json_decref(outcome);
    return rc;
}

int configSet(const std::string& root, const std::string& document, double timeout) {
    std::string body;
    const long ms = static_cast<long>(timeout * 1000);
    int rc = request(root, "config-set " + std::to_string(ms), document, &body);
    return rc != kOk ? rc : reportConfigSet(document, body);
}

int configGet(const std::string& root, bool fresh, double timeout, std::string* document) {
    const long ms = static_cast<long>(timeout * 1000);
    return request(root,
                   std::string("config-get ") + (fresh ? "fresh " : "last ") + std::to_string(ms),
                   "", document);
}

// Runs $VISUAL or $EDITOR (a shell word list, e.g. "code -w") on `file`; vi without either.
bool runEditor(const std::string& file) {
    const char* editor = getenv("VISUAL");
    if (editor == nullptr || *editor == '\0') editor = getenv("EDITOR");
    std::string command = std::string(editor != nullptr && *editor ? editor : "vi") + " \"$1\"";
    const char* argv[] = {"sh", "-c", command.c_str(), "sh", file.c_str(), nullptr};
    pid_t pid = -1;
    if (posix_spawn(&pid, "/bin/sh", nullptr, nullptr, const_cast<char**>(argv), environ) != 0) {
        return false;
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

int configEdit(const std::string& root, double timeout) {
    // The document in force now, not the last one seen.
    std::string document;
    if (configGet(root, true, timeout, &document) != kOk) return kFailed;
    char path[] = "/tmp/vd-standin-config.XXXXXX.json";
    int fd = mkstemps(path, 5);
    if (fd < 0) {
        std::cerr << "vd-standin: cannot make a temporary file: " << strerror(errno) << "\n";
        return kFailed;
    }
    const std::string before = prettyJson(document);
    sendAll(fd, before);
    ::close(fd);
    if (!runEditor(path)) {
        std::cerr << "vd-standin: the editor failed; nothing sent (the file is " << path << ")\n";
        return kFailed;
    }
    std::string after;
    if (!readFile(path, &after)) return kFailed;
    if (after == before) {
        ::unlink(path);
        std::cout << "no change; nothing sent\n";
        return kOk;
    }
    json_error_t error;
    json_t* doc = json_loads(after.c_str(), 0, &error);
    if (doc == nullptr) {
        std::cerr << "vd-standin: " << path << " line " << error.line << ": " << error.text
                  << "; nothing sent (the file is kept)\n";
        return kFailed;
    }
    // The daemon's own form: compact, members in the order written.
    char* compact = json_dumps(doc, JSON_COMPACT | JSON_PRESERVE_ORDER);
    json_decref(doc);
    std::string text = compact != nullptr ? compact : after;
    free(compact);
    ::unlink(path);
    return configSet(root, text, timeout);
}

int watch(const std::string& root, bool json, bool bytes, long count) {
    struct sigaction sa = {};
    sa.sa_handler = [](int) { interrupted = true; };
    sigaction(SIGINT, &sa, nullptr);  // no SA_RESTART: the read returns
    sigaction(SIGTERM, &sa, nullptr);
    std::string line = "watch";
    if (json) line += " json";
    if (bytes) line += " bytes";
    if (!json && useColour()) line += " colour";
    long seen = 0;
    if (isatty(STDERR_FILENO) == 1) {
        std::cerr << "vd-standin: watching " << root << " (Ctrl-C to stop)\n";
    }
    return request(root, line, "", nullptr, [&](const std::string& event) {
        std::cout << event << "\n" << std::flush;
        return count <= 0 || ++seen < count;
    });
}

// Bash completion from the command table itself: sub-commands, their options, the device
// settings after "set" and the daemon's commands after "send".
std::string bashCompletion(const CLI::App& app) {
    std::set<std::string> valued;  // options that take a value: their word is skipped
    std::string cases;
    std::function<void(const CLI::App*, const std::string&)> walk = [&](const CLI::App* a,
                                                                        const std::string& path) {
        std::string words;
        for (const CLI::App* sub :
             a->get_subcommands([](const CLI::App* s) { return !s->get_group().empty(); })) {
            words += sub->get_name() + " ";
        }
        for (const CLI::Option* opt : a->get_options()) {
            if (!opt->nonpositional()) continue;
            for (const auto& name : opt->get_lnames()) {
                words += "--" + name + " ";
                if (opt->get_items_expected_min() > 0) valued.insert("--" + name);
            }
        }
        if (path == "send") {
            for (const char* c : kDaemonCommands) words += std::string(c) + " ";
        }
        if (path == "set") {
            for (const auto& s : vdstandin::deviceSettings()) words += std::string(s.name) + " ";
        }
        cases += "        \"" + path + "\") words=\"" + words + "\" ;;\n";
        for (const CLI::App* sub : a->get_subcommands([](const CLI::App*) { return true; })) {
            walk(sub, path.empty() ? sub->get_name() : path + " " + sub->get_name());
        }
    };
    walk(&app, "");
    std::string skipped;
    for (const auto& v : valued) skipped += (skipped.empty() ? "" : "|") + v;
    return "# bash completion for vd-standin: eval \"$(vd-standin completion bash)\"\n"
           "_vd_standin() {\n"
           "    local cur=${COMP_WORDS[COMP_CWORD]} path=\"\" words=\"\" skip=0 i w\n"
           "    for ((i = 1; i < COMP_CWORD; i++)); do\n"
           "        w=${COMP_WORDS[i]}\n"
           "        if ((skip)); then skip=0; continue; fi\n"
           "        case $w in\n"
           "            " +
           skipped +
           ") skip=1 ;;\n"
           "            -*) ;;\n"
           "            *) path=\"${path:+$path }$w\" ;;\n"
           "        esac\n"
           "    done\n"
           "    ((skip)) && return 0\n"
           "    case $path in\n" +
           cases +
           "        *) return 0 ;;\n"
           "    esac\n"
           "    COMPREPLY=($(compgen -W \"$words\" -- \"$cur\"))\n"
           "}\n"
           "complete -o default -F _vd_standin vd-standin\n";
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{
        "Stand-in companion service (com.tandril.vd.Ivd_service) for vigild on a host device "
        "root.\nStart it with 'serve', then drive it from another shell with the other "
        "commands.",
        "vd-standin"};
    app.require_subcommand(1);
    app.footer(kExitCodes);
    app.set_version_flag("--version", "vd-standin " VD_STANDIN_VERSION);
    std::string root;
    app.add_option("--root", root, "Device root folder (the daemon's VIGILD_ROOT)")
        ->envname("VIGILD_ROOT");
    app.fallthrough();
    const char* group = "Commands";

    ServeOptions serveOptions;
    auto* serveCmd =
        app.add_subcommand("serve", "Serve the companion service until SIGINT/SIGTERM");
    serveCmd->add_flag("-v,--verbose", serveOptions.verbose,
                       "Print one decoded line per transaction");
    auto* httpOpt = serveCmd
                        ->add_option("--http", serveOptions.consoleAddress,
                                     "Serve the browser console at ADDR (default 127.0.0.1:8080; "
                                     "port 0 picks one); the address is printed on stdout")
                        ->expected(0, 1)
                        ->default_str("127.0.0.1:8080");

    std::string command;
    auto* sendCmd = app.add_subcommand(
        "send",
        "Hand a command to the daemon's waitForResponse (start:, stop:, fresh_connect, "
        "delete_logs, ...)");
    sendCmd->add_option("command", command, "The command text")->required();

    bool json = false;
    auto* statusCmd = app.add_subcommand(
        "status", "What the daemon last reported, whether it is connected, the device answers");
    statusCmd->add_flag("--json", json, "One JSON object with stable keys");

    bool bytes = false;
    long count = 0;
    auto* watchCmd = app.add_subcommand(
        "watch",
        "Print each transaction as the daemon makes it, until Ctrl-C or the stand-in "
        "stops");
    watchCmd->add_flag("--json", json, "One JSON object per line");
    watchCmd->add_flag("--bytes", bytes, "With --json: the parcel bytes in hex");
    watchCmd->add_option("--count", count, "Stop after this many transactions")
        ->check(CLI::PositiveNumber);

    double timeout = 10;
    std::string file;
    bool fresh = false;
    auto* configCmd = app.add_subcommand("config", "The daemon's configuration document");
    configCmd->require_subcommand(1);
    auto* configGetCmd =
        configCmd->add_subcommand("get", "Print the last document the daemon sent, pretty-printed");
    configGetCmd->add_flag("--fresh", fresh, "Ask the daemon for it first (\"config_get:\")");
    auto* configSetCmd = configCmd->add_subcommand(
        "set",
        "Hand a document to the daemon (\"config_set:\") and print what modules object "
        "to; exit status 1 when any did");
    configSetCmd->add_option("file", file, "JSON document ('-' for stdin)")->required();
    auto* configEditCmd = configCmd->add_subcommand(
        "edit", "Edit the current document in $VISUAL or $EDITOR and send it when changed");
    for (auto* c : {configGetCmd, configSetCmd, configEditCmd}) {
        c->add_option("--timeout", timeout, "Seconds to wait for the daemon")
            ->capture_default_str()
            ->check(CLI::PositiveNumber);
    }
    auto* configSetAlias = app.add_subcommand("config-set", "Same as 'config set'");
    configSetAlias->group("");  // the old spelling, kept for scripts
    configSetAlias->add_option("file", file, "JSON document ('-' for stdin)")->required();
    configSetAlias->add_option("--timeout", timeout, "Seconds to wait for the daemon")
        ->check(CLI::PositiveNumber);

    std::string key;
    std::string value;
    auto* setCmd = app.add_subcommand("set", "Change a device answer");
    setCmd->add_option("key", key, "A setting name (listed below)")->required();
    setCmd->add_option("value", value, "The new answer")->required();
    setCmd->footer("Keys:\n" + [] {
        std::string text;
        for (const auto& s : vdstandin::deviceSettings()) {
            text += "  " + std::string(s.name) +
                    std::string(24 - std::min<size_t>(22, strlen(s.name)), ' ') + s.help + "\n";
        }
        return text;
    }());

    std::string state;
    auto* waitCmd = app.add_subcommand(
        "wait-state", "Wait until the daemon reports a run state; exit status 1 on timeout");
    waitCmd->add_option("state", state, "stopped, running, transition or a number")->required();
    waitCmd->add_option("--timeout", timeout, "Seconds to wait")
        ->capture_default_str()
        ->check(CLI::PositiveNumber);

    std::string shell;
    auto* completionCmd =
        app.add_subcommand("completion", "Print a shell completion script (bash)");
    completionCmd->add_option("shell", shell, "bash")->required()->check(CLI::IsMember({"bash"}));

    for (auto* c :
         {serveCmd, sendCmd, statusCmd, watchCmd, configCmd, setCmd, waitCmd, completionCmd}) {
        c->group(group);
    }

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        const int rc = app.exit(e);
        return rc == 0 ? kOk : kUsage;
    }
    if (*completionCmd) {
        std::cout << bashCompletion(app);
        return kOk;
    }
    while (root.size() > 1 && root.back() == '/') root.pop_back();
    if (root.empty()) {
        std::cerr << "vd-standin: --root or VIGILD_ROOT is required\n";
        return kUsage;
    }

    if (*serveCmd) {
        serveOptions.root = root;
        serveOptions.console = httpOpt->count() > 0;
        return runServe(serveOptions);
    }
    if (*sendCmd) {
        if (command.find('\n') != std::string::npos) {
            std::cerr << "vd-standin: a command is one line\n";
            return kUsage;
        }
        return simpleRequest(root, "send " + command);
    }
    if (*statusCmd) {
        return simpleRequest(root, std::string("status ") + (json          ? "json"
                                                             : useColour() ? "text colour"
                                                                           : "text"));
    }
    if (*watchCmd) return watch(root, json, bytes, count);
    if (*configGetCmd) {
        std::string document;
        int rc = configGet(root, fresh, timeout, &document);
        if (rc == kOk) std::cout << prettyJson(document);
        return rc;
    }
    if (*configSetCmd || *configSetAlias) {
        std::string document;
        if (!readFile(file, &document)) return kFailed;
        return configSet(root, document, timeout);
    }
    if (*configEditCmd) return configEdit(root, timeout);
    if (*setCmd) {
        if (vdstandin::findDeviceSetting(key) == nullptr) {
            std::cerr << "vd-standin: unknown setting " << key << " (see vd-standin set --help)\n";
            return kUsage;
        }
        if (value.find('\n') != std::string::npos) {
            std::cerr << "vd-standin: a value is one line\n";
            return kUsage;
        }
        return simpleRequest(root, "set " + key + " " + value);
    }
    if (*waitCmd) {
        int target = 0;
        if (!vdstandin::parseState(state, &target)) {
            std::cerr << "vd-standin: unknown state " << state
                      << " (stopped, running, transition or a number)\n";
            return kUsage;
        }
        const long ms = static_cast<long>(timeout * 1000);
        return simpleRequest(root,
                             "wait-state " + std::to_string(target) + " " + std::to_string(ms));
    }
    return kUsage;
}
