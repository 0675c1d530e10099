// Drives the real daemon binary against the stand-in companion service on a host device root.
//   vd_bench_daemon roundtrip <vigild> <root> <command> <rounds>
//       a command's round trip (queued command to the daemon's report) beside a bare Unix
//       socket exchange with the same connections and frame sizes, measured in this run
//   vd_bench_daemon startup <vigild> <root> <runs>
//       exec to the "stopped" report, and to the first request for a command
//   vd_bench_daemon idle <vigild> <root> <seconds>
//       the idle daemon sampled from /proc at the start and the end of the window
//   vd_bench_daemon soak <vigild> <root> <commands>
//       a long mixed stream of commands with deployed-file rewrites in between, time scaled
//       down: every command must be taken in order and answered, and the descriptors sampled
//       while the daemon waits must stay flat (exit status 1 otherwise)
// Results are one JSON object per line on stdout.
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/host/host_platform.h"
#include "standin/standin_service.h"

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;
constexpr auto kTimeout = std::chrono::seconds(20);
const char* const kServiceName = "com.tandril.vd.Ivd_service";

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

bool eventually(const std::function<bool()>& condition) {
    auto deadline = Clock::now() + kTimeout;
    while (Clock::now() < deadline) {
        if (condition()) return true;
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    return false;
}

pid_t launchDaemon(const std::string& binary, const std::string& root,
                   const char* timeScale = "1") {
    std::vector<std::string> env = {"VIGILD_ROOT=" + root,
                                    std::string("VIGILD_TIME_SCALE=") + timeScale};
    for (char** e = environ; *e != nullptr; e++) {
        if (strncmp(*e, "VIGILD_", 7) != 0) env.emplace_back(*e);
    }
    std::vector<char*> envp;
    for (std::string& var : env) envp.push_back(var.data());
    envp.push_back(nullptr);
    std::string logFile = root + "/vigild.stderr";
    std::string path = binary;
    char* argv[] = {path.data(), nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, logFile.c_str(),
                                     O_WRONLY | O_CREAT | O_APPEND, 0644);
    pid_t pid = -1;
    if (posix_spawn(&pid, path.c_str(), &actions, nullptr, argv, envp.data()) != 0) pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

void killDaemon(pid_t pid) {
    if (pid <= 0) return;
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

// Whole frames, as the host transport sends and reads them.
using vigild::platform::host::readAll;
using vigild::platform::host::writeAll;

int listenAt(const std::string& path) {
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", path.c_str());
    unlink(path.c_str());
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
        listen(fd, 64) != 0) {
        perror(path.c_str());
        exit(1);
    }
    return fd;
}

int connectTo(const std::string& path) {
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", path.c_str());
    if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// One transaction as seen between the daemon and the service.
struct Exchange {
    int connection;
    uint32_t code;
    uint32_t requestSize;
    uint32_t replySize;
};

// Sits between the daemon and the stand-in and writes down every connection and frame size,
// so the bare exchange can repeat exactly the same traffic.
class Relay {
  public:
    Relay(std::string listenPath, std::string servicePath)
        : listenPath_(std::move(listenPath)), servicePath_(std::move(servicePath)) {
        listenFd_ = listenAt(listenPath_);
        acceptor_ = std::thread([this] { acceptLoop(); });
    }
    ~Relay() {
        stopping_ = true;
        shutdown(listenFd_, SHUT_RDWR);
        close(listenFd_);
        acceptor_.join();
        for (int fd : open_) shutdown(fd, SHUT_RDWR);
        for (std::thread& t : workers_) t.join();
        for (int fd : open_) close(fd);
        unlink(listenPath_.c_str());
    }
    // Frames whose reply has come back, in order of their requests.
    std::vector<Exchange> exchanges() {
        std::lock_guard<std::mutex> lock(mutex_);
        return exchanges_;
    }
    int connections() {
        std::lock_guard<std::mutex> lock(mutex_);
        return connections_;
    }

  private:
    void acceptLoop() {
        while (!stopping_) {
            int client = accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
            if (client < 0) continue;
            int service = connectTo(servicePath_);
            std::lock_guard<std::mutex> lock(mutex_);
            int id = connections_++;
            open_.push_back(client);
            open_.push_back(service);
            workers_.emplace_back([this, client, service, id] { serve(client, service, id); });
        }
    }
    void serve(int client, int service, int id) {
        std::vector<uint8_t> body;
        while (true) {
            uint32_t header[3];
            if (!readAll(client, header, sizeof(header))) break;
            body.resize(header[2]);
            if (!readAll(client, body.data(), body.size())) break;
            size_t index;
            {
                std::lock_guard<std::mutex> lock(mutex_);
                index = exchanges_.size();
                exchanges_.push_back({id, header[0], header[2], 0});
            }
            if (!writeAll(service, header, sizeof(header)) ||
                !writeAll(service, body.data(), body.size())) {
                break;
            }
            uint32_t replyHeader[2];
            if (!readAll(service, replyHeader, sizeof(replyHeader))) break;
            body.resize(replyHeader[1]);
            if (!readAll(service, body.data(), body.size())) break;
            {
                std::lock_guard<std::mutex> lock(mutex_);
                exchanges_[index].replySize = replyHeader[1];
            }
            if (!writeAll(client, replyHeader, sizeof(replyHeader)) ||
                !writeAll(client, body.data(), body.size())) {
                break;
            }
        }
        shutdown(client, SHUT_RDWR);
        shutdown(service, SHUT_RDWR);
    }

    std::string listenPath_;
    std::string servicePath_;
    int listenFd_ = -1;
    std::atomic<bool> stopping_{false};
    std::thread acceptor_;
    std::mutex mutex_;
    std::vector<std::thread> workers_;
    std::vector<int> open_;
    std::vector<Exchange> exchanges_;
    int connections_ = 0;
};

// What the daemon did for one command: the reply that handed it over, then every
// transaction up to and including the report.
struct Plan {
    uint32_t commandRequestSize = 0;
    uint32_t commandReplySize = 0;
    std::vector<Exchange> steps;  // connection numbers relative: 0 is the command's own
    int connections = 1;
};

bool isReport(const vdstandin::Record& r, const std::string& command) {
    return command == "config_get:" ? r.method == "sendConfig" : r.method == "sendState";
}

size_t reportCount(const std::vector<vdstandin::Record>& records, const std::string& command) {
    return static_cast<size_t>(std::count_if(records.begin(), records.end(),
                                             [&](const auto& r) { return isReport(r, command); }));
}

// Waits until the daemon is blocked for its next command and nothing else moves.
bool settle(vdstandin::StandinService& service) {
    if (!eventually([&] { return service.waitingForCommand() > 0; })) return false;
    size_t before;
    do {
        before = service.records().size();
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    } while (service.records().size() != before || service.waitingForCommand() == 0);
    return true;
}

// One round: queue the command, wait for its report. Seconds, or -1 on a timeout.
double daemonRound(vdstandin::StandinService& service, const std::string& command) {
    size_t before = reportCount(service.records(), command);
    auto start = Clock::now();
    service.queueCommand(command);
    bool done = service.waitUntil(
        [&](const std::vector<vdstandin::Record>& r) { return reportCount(r, command) > before; },
        kTimeout);
    return done ? secondsSince(start) : -1;
}

Plan calibrate(const std::string& vigild, const std::string& root, const std::string& command) {
    Plan plan;
    std::string hidden = root + "/svc";
    mkdir(hidden.c_str(), 0777);
    vdstandin::StandinService service(hidden);
    service.updateAnswers([](vdstandin::DeviceAnswers& a) { a.stateOverride = 2; });
    if (!service.start()) exit(1);
    mkdir((root + "/dev").c_str(), 0777);
    mkdir((root + "/dev/binder").c_str(), 0777);
    Relay relay(root + "/dev/binder/" + kServiceName, hidden + "/dev/binder/" + kServiceName);
    pid_t daemon = launchDaemon(vigild, root);
    if (daemon < 0 || !settle(service)) {
        fprintf(stderr, "calibration: the daemon never asked for a command\n");
        exit(1);
    }
    const std::vector<Exchange> before = relay.exchanges();
    // The blocked waitForResponse: the last command request still without a reply.
    size_t pendingIndex = before.size();
    for (size_t i = 0; i < before.size(); i++) {
        if (before[i].code == 1 && before[i].replySize == 0) pendingIndex = i;
    }
    if (pendingIndex == before.size()) exit(1);
    const Exchange pending = before[pendingIndex];
    if (daemonRound(service, command) < 0) exit(1);
    // The report's request is recorded before its reply: let the reply come back.
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    std::vector<Exchange> after = relay.exchanges();
    killDaemon(daemon);
    plan.commandRequestSize = pending.requestSize;
    plan.commandReplySize = after[pendingIndex].replySize;
    std::map<int, int> renumber = {{pending.connection, 0}};
    for (size_t i = before.size(); i < after.size(); i++) {
        Exchange e = after[i];
        if (e.code == 1) break;  // the loop asking for its next command: the round is over
        if (renumber.count(e.connection) == 0) {
            int next = static_cast<int>(renumber.size());
            renumber[e.connection] = next;
        }
        e.connection = renumber[e.connection];
        plan.steps.push_back(e);
        bool last = command == "config_get:" ? e.code == 2 : e.code == 4;
        if (last) break;
    }
    plan.connections = static_cast<int>(renumber.size());
    service.stop();
    return plan;
}

// The bare exchange: a server that answers frames of the planned sizes, and a client that
// plays the daemon's part with the same connections.
class BareExchange {
  public:
    BareExchange(const std::string& path, const Plan& plan) : path_(path), plan_(plan) {
        listenFd_ = listenAt(path_);
        server_ = std::thread([this] { acceptLoop(); });
    }
    ~BareExchange() {
        stopping_ = true;
        shutdown(listenFd_, SHUT_RDWR);
        close(listenFd_);
        server_.join();
        for (std::thread& t : workers_) t.join();
        unlink(path_.c_str());
    }

    double round() {
        // The daemon's side: connect and ask for a command, then block for it.
        int command = connectTo(path_);
        std::vector<uint8_t> request(12 + plan_.commandRequestSize, 0);
        memcpy(request.data() + 8, &plan_.commandRequestSize, 4);
        {
            std::unique_lock<std::mutex> lock(mutex_);
            reported_ = false;
            commandArrived_ = false;
            step_ = 0;
        }
        std::thread client([&] {
            writeAll(command, request.data(), request.size());
            std::vector<uint8_t> reply(8 + plan_.commandReplySize);
            readAll(command, reply.data(), reply.size());
            std::vector<int> fds(static_cast<size_t>(plan_.connections), -1);
            fds[0] = command;
            for (const Exchange& step : plan_.steps) {
                int& fd = fds[static_cast<size_t>(step.connection)];
                if (fd < 0) fd = connectTo(path_);
                std::vector<uint8_t> frame(12 + step.requestSize, 0);
                memcpy(frame.data(), &step.code, 4);
                memcpy(frame.data() + 8, &step.requestSize, 4);
                writeAll(fd, frame.data(), frame.size());
                std::vector<uint8_t> answer(8 + step.replySize);
                readAll(fd, answer.data(), answer.size());
            }
            for (int fd : fds) {
                if (fd >= 0) close(fd);
            }
        });
        {
            std::unique_lock<std::mutex> lock(mutex_);
            changed_.wait(lock, [&] { return commandArrived_; });
        }
        // The service hands the command over, as queueCommand does.
        auto start = Clock::now();
        {
            std::lock_guard<std::mutex> lock(mutex_);
            release_ = true;
        }
        changed_.notify_all();
        {
            std::unique_lock<std::mutex> lock(mutex_);
            changed_.wait(lock, [&] { return reported_; });
        }
        double seconds = secondsSince(start);
        client.join();
        return seconds;
    }

  private:
    void acceptLoop() {
        while (!stopping_) {
            int fd = accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd < 0) continue;
            workers_.emplace_back([this, fd] { serve(fd); });
        }
    }
    void serve(int fd) {
        std::vector<uint8_t> body;
        while (true) {
            uint32_t header[3];
            if (!readAll(fd, header, sizeof(header))) break;
            body.resize(header[2]);
            if (!readAll(fd, body.data(), body.size())) break;
            uint32_t replySize = 0;
            bool isCommand = header[0] == 0 && header[2] == plan_.commandRequestSize;
            if (isCommand) {
                std::unique_lock<std::mutex> lock(mutex_);
                commandArrived_ = true;
                release_ = false;
                changed_.notify_all();
                changed_.wait(lock, [&] { return release_; });
                replySize = plan_.commandReplySize;
            } else {
                std::lock_guard<std::mutex> lock(mutex_);
                size_t step = std::min(step_++, plan_.steps.size() - 1);
                replySize = plan_.steps[step].replySize;
                if (step_ == plan_.steps.size()) {
                    reported_ = true;
                    changed_.notify_all();
                }
            }
            std::vector<uint8_t> reply(8 + replySize, 0);
            memcpy(reply.data() + 4, &replySize, 4);
            if (!writeAll(fd, reply.data(), reply.size())) break;
        }
        close(fd);
    }

    std::string path_;
    const Plan& plan_;
    int listenFd_ = -1;
    std::atomic<bool> stopping_{false};
    std::thread server_;
    std::vector<std::thread> workers_;
    std::mutex mutex_;
    std::condition_variable changed_;
    bool commandArrived_ = false;
    bool release_ = false;
    bool reported_ = false;
    size_t step_ = 0;
};

int roundTrip(const std::string& vigild, const std::string& root, const std::string& command,
              int rounds) {
    Plan plan = calibrate(vigild, root, command);
    if (plan.steps.empty()) {
        fprintf(stderr, "calibration: no report seen for %s\n", command.c_str());
        return 1;
    }
    // The bare exchange asks with code 0 so its server can tell the command apart.
    plan.steps.erase(std::remove_if(plan.steps.begin(), plan.steps.end(),
                                    [](const Exchange& e) { return e.code == 0; }),
                     plan.steps.end());

    vdstandin::StandinService service(root);
    service.updateAnswers([](vdstandin::DeviceAnswers& a) { a.stateOverride = 2; });
    if (!service.start()) return 1;
    pid_t daemon = launchDaemon(vigild, root);
    std::vector<double> vigildTimes;
    std::vector<double> bareTimes;
    {
        BareExchange bare(root + "/bare.sock", plan);
        if (daemon < 0 || !settle(service)) return 1;
        // Interleaved, so both see the same machine.
        for (int i = 0; i < rounds; i++) {
            double t = daemonRound(service, command);
            if (t < 0) return 1;
            vigildTimes.push_back(t);
            bareTimes.push_back(bare.round());
            if (!eventually([&] { return service.waitingForCommand() > 0; })) return 1;
        }
    }
    killDaemon(daemon);
    service.stop();
    std::string requests;
    uint64_t bytes = plan.commandRequestSize + plan.commandReplySize;
    for (const Exchange& e : plan.steps) {
        bytes += e.requestSize + e.replySize;
        requests += (requests.empty() ? "" : ",") + std::to_string(e.code);
    }
    printf(
        "{\"command\": \"%s\", \"connections\": %d, \"transactions\": %zu, \"bytes\": %llu, "
        "\"codes\": [%s], \"vigild\": [",
        command.c_str(), plan.connections, plan.steps.size() + 1,
        static_cast<unsigned long long>(bytes), requests.c_str());
    for (size_t i = 0; i < vigildTimes.size(); i++) printf("%s%.7f", i ? ", " : "", vigildTimes[i]);
    printf("], \"bare\": [");
    for (size_t i = 0; i < bareTimes.size(); i++) printf("%s%.7f", i ? ", " : "", bareTimes[i]);
    printf("]}\n");
    return 0;
}

int startup(const std::string& vigild, const std::string& root, int runs) {
    std::vector<double> stopped;
    std::vector<double> ready;
    for (int i = 0; i < runs; i++) {
        vdstandin::StandinService service(root);
        // A service that has not heard from this daemon yet: the daemon reports "stopped".
        service.updateAnswers([](vdstandin::DeviceAnswers& a) { a.stateOverride = -1; });
        if (!service.start()) return 1;
        auto start = Clock::now();
        pid_t daemon = launchDaemon(vigild, root);
        bool seen = service.waitUntil(
            [](const std::vector<vdstandin::Record>& records) {
                for (const auto& r : records) {
                    if (r.method == "sendState" && !r.ints.empty() && r.ints[0] == 0) return true;
                }
                return false;
            },
            kTimeout);
        double atStopped = secondsSince(start);
        bool asked = eventually([&] { return service.waitingForCommand() > 0; });
        double atReady = secondsSince(start);
        killDaemon(daemon);
        service.stop();
        if (!seen || !asked) {
            fprintf(stderr, "startup: the daemon did not report \"stopped\" and ask\n");
            return 1;
        }
        stopped.push_back(atStopped);
        ready.push_back(atReady);
    }
    printf("{\"stopped\": [");
    for (size_t i = 0; i < stopped.size(); i++) printf("%s%.6f", i ? ", " : "", stopped[i]);
    printf("], \"ready\": [");
    for (size_t i = 0; i < ready.size(); i++) printf("%s%.6f", i ? ", " : "", ready[i]);
    printf("]}\n");
    return 0;
}

std::string readText(const std::string& path) {
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

long field(const std::string& text, const std::string& key) {
    size_t at = text.find(key);
    return at == std::string::npos ? -1 : atol(text.c_str() + at + key.size());
}

int openDescriptors(pid_t pid) {
    int n = 0;
    if (DIR* d = opendir(("/proc/" + std::to_string(pid) + "/fd").c_str())) {
        while (const dirent* e = readdir(d)) n += e->d_name[0] != '.';
        closedir(d);
    }
    return n;
}

void sample(pid_t pid, const char* label) {
    const std::string proc = "/proc/" + std::to_string(pid);
    std::string rollup = readText(proc + "/smaps_rollup");
    std::string status = readText(proc + "/status");
    const int fds = openDescriptors(pid);
    long switches = 0;
    // Nanoseconds on a CPU, from each thread's schedstat: finer than the 10 ms clock tick.
    long long cpuNs = 0;
    if (DIR* d = opendir((proc + "/task").c_str())) {
        while (const dirent* e = readdir(d)) {
            if (e->d_name[0] == '.') continue;
            std::string task = proc + "/task/" + e->d_name;
            std::string s = readText(task + "/status");
            switches +=
                field(s, "\nvoluntary_ctxt_switches:") + field(s, "\nnonvoluntary_ctxt_switches:");
            cpuNs += atoll(readText(task + "/schedstat").c_str());
        }
        closedir(d);
    }
    // utime and stime, fields 14 and 15, counted after the command name's closing parenthesis.
    std::string stat = readText(proc + "/stat");
    std::istringstream rest(stat.substr(stat.rfind(')') + 2));
    std::string skip;
    long utime = 0;
    long stime = 0;
    for (int i = 3; i < 14; i++) rest >> skip;
    rest >> utime >> stime;
    printf(
        "{\"sample\": \"%s\", \"rss_kb\": %ld, \"pss_kb\": %ld, \"private_kb\": %ld, "
        "\"threads\": %ld, \"fds\": %d, \"cpu_ticks\": %ld, \"ticks_per_second\": %ld, "
        "\"cpu_ns\": %lld, \"switches\": %ld, \"t\": %.3f}\n",
        label, field(rollup, "\nRss:"), field(rollup, "\nPss:"),
        field(rollup, "\nPrivate_Clean:") + field(rollup, "\nPrivate_Dirty:"),
        field(status, "\nThreads:"), fds, utime + stime, sysconf(_SC_CLK_TCK), cpuNs, switches,
        std::chrono::duration<double>(Clock::now().time_since_epoch()).count());
    fflush(stdout);
}

int idle(const std::string& vigild, const std::string& root, int seconds) {
    vdstandin::StandinService service(root);
    if (!service.start()) return 1;
    pid_t daemon = launchDaemon(vigild, root);
    if (daemon < 0 || !settle(service)) return 1;
    size_t before = service.records().size();
    sample(daemon, "begin");
    // A benchmark window, not a test: the daemon is left alone for real time.
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    sample(daemon, "end");
    printf("{\"transactions_during_idle\": %zu}\n", service.records().size() - before);
    killDaemon(daemon);
    service.stop();
    return 0;
}


// The commands taken, each followed by "=" once a question was answered: a "refresh_state" by
// a state report after the daemon asked for the service's state, a "config_get:" by a document.
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

int soak(const std::string& vigild, const std::string& root, long commands) {
    vdstandin::StandinService service(root);
    // A state the daemon never has: every "refresh_state" must push a report.
    service.updateAnswers([](vdstandin::DeviceAnswers& a) { a.stateOverride = 7; });
    if (!service.start()) return 1;
    pid_t daemon = launchDaemon(vigild, root, "0.01");
    auto fail = [&](const std::string& why) {
        fprintf(stderr, "soak: %s\n", why.c_str());
        killDaemon(daemon);
        return 1;
    };
    service.queueCommand("config_get:");
    if (daemon < 0 || !eventually([&] { return !service.configs().empty(); })) {
        return fail("no document from the daemon");
    }
    // Two documents that differ in the daemon's own notification switch.
    const std::string on = R"("Enable notifications", "type": "boolean", "value": "true")";
    std::string documents[2] = {service.configs().back(), service.configs().back()};
    const size_t at = documents[0].find(on);
    if (at == std::string::npos) return fail("no notification switch in the document");
    documents[0].replace(at + on.size() - 5, 4, "false");
    const char* const rotation[] = {
        "config_get:", "refresh_state", "refresh_time",   "fresh_connect", "config_set:",
        "Start:",      "config_get:",   "refresh_config", "refresh_state", "config_get:"};
    const std::string deployed = root + "/sdcard/Tellwick/config.json";
    const long batches = std::max(1L, commands / 50);
    int baseline = 0, fds = 0, most = 0;
    size_t sets = 0;
    auto start = Clock::now();
    for (long b = 0; b < batches; b++) {
        if (!eventually([&] { return service.waitingForCommand() > 0; })) {
            return fail("the daemon stopped asking at batch " + std::to_string(b));
        }
        // Sampled while the daemon waits; the first batches, a start/stop cycle, set the
        // baseline; 4 over it allows the logcat module's pipe and an open file.
        fds = openDescriptors(daemon);
        most = std::max(most, fds);
        if (b < 8) baseline = std::max(baseline, fds);
        if (fds > baseline + 4) return fail("descriptors grew to " + std::to_string(fds));
        service.clearRecords();
        std::vector<std::string> expected;
        for (size_t i = 0; i < 50; i++) {
            std::string command = i == 49 ? "refresh_state" : rotation[i % 10];
            if (i == 0 && b % 2 == 1) command = b % 4 == 1 ? "start:" : "stop:";
            if (command == "config_set:") service.queueConfig(documents[sets++ % 2]);
            service.queueCommand(command);
            const bool question = command == "refresh_state" || command == "config_get:";
            expected.push_back(question ? command + "=" : command);
        }
        service.waitUntil([&](const auto& rs) { return answers(rs) == expected; }, kTimeout);
        if (answers(service.records()) != expected) {
            return fail("batch " + std::to_string(b) + " not taken and answered in order");
        }
        if (b % 3 == 2) {
            unlink(deployed.c_str());
        } else {
            std::ofstream(deployed) << documents[b % 2];
        }
    }
    const double seconds = secondsSince(start);
    sample(daemon, "end");
    printf("{\"commands\": %ld, \"seconds\": %.1f, \"fds_baseline\": %d, \"fds_max\": %d, "
           "\"fds_last\": %d}\n",
           batches * 50, seconds, baseline, most, fds);
    killDaemon(daemon);
    service.stop();
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    signal(SIGPIPE, SIG_IGN);
    std::string mode = argc > 1 ? argv[1] : "";
    if (mode == "roundtrip" && argc == 6)
        return roundTrip(argv[2], argv[3], argv[4], atoi(argv[5]));
    if (mode == "startup" && argc == 5) return startup(argv[2], argv[3], atoi(argv[4]));
    if (mode == "idle" && argc == 5) return idle(argv[2], argv[3], atoi(argv[4]));
    if (mode == "soak" && argc == 5) return soak(argv[2], argv[3], atol(argv[4]));
    fprintf(stderr,
            "usage: %s roundtrip <vigild> <root> <command> <rounds> | startup <vigild> <root> "
            "<runs> | idle <vigild> <root> <seconds> | soak <vigild> <root> <commands>\n",
            argv[0]);
    return 2;
}
