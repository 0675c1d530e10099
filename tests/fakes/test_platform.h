// The test backend: a temporary folder as device root, a log that tests read back and a
// virtual clock whose sleeps return at once. Properties, child processes, dynamic loading and
// the service transport are the host ones, working inside the temporary root.
//
// Constructing a TestPlatform installs it and resets the daemon's process-wide state
// (reset_state.h); destroying it removes the temporary root.
#pragma once

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <deque>
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "fakes/reset_state.h"
#include "platform/host/host_platform.h"
#include "platform/platform.h"

namespace vigild::testing {

struct LogLine {
    int priority;
    std::string text;
};

class RecordingLog : public platform::LogSink {
  public:
    void write(int priority, const char* tag, const char* text) override;
    std::vector<LogLine> lines() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return lines_;
    }
    // Lines of exactly this text (and priority, when given).
    int count(const std::string& text, int priority = -1) const;
    bool contains(const std::string& text, int priority = -1) const {
        return count(text, priority) > 0;
    }
    // Index of the first line of exactly this text at or after `from`, or -1.
    int indexOf(const std::string& text, size_t from = 0) const;
    void clear() {
        std::lock_guard<std::mutex> lock(mutex_);
        lines_.clear();
    }

  private:
    mutable std::mutex mutex_;
    std::vector<LogLine> lines_;
};

class VirtualClock : public platform::Clock {
  public:
    // Wall clock: the next queued reading if any, else the current virtual time.
    time_t wallTime() override;
    // Records the request, advances virtual time, runs the hook and returns at once.
    void sleepFor(std::chrono::milliseconds duration) override;

    // Readings returned by the next wallTime() calls, in order.
    void queueWallTimes(std::vector<time_t> readings) {
        std::lock_guard<std::mutex> lock(mutex_);
        queued_.insert(queued_.end(), readings.begin(), readings.end());
    }
    std::vector<std::chrono::milliseconds> sleeps() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return sleeps_;
    }
    // Runs on every sleep (on the sleeping thread), e.g. to set exitRequested after N.
    void onSleep(std::function<void(std::chrono::milliseconds)> hook) {
        std::lock_guard<std::mutex> lock(mutex_);
        hook_ = std::move(hook);
    }

  private:
    mutable std::mutex mutex_;
    std::atomic<time_t> now_{1700000000};
    std::deque<time_t> queued_;
    std::vector<std::chrono::milliseconds> sleeps_;
    std::function<void(std::chrono::milliseconds)> hook_;
};

// Host processes with the shell commands recorded.
class RecordingProcesses : public platform::host::HostProcesses {
  public:
    using HostProcesses::HostProcesses;
    FILE* openShell(const char* command) override {
        return note(command), HostProcesses::openShell(command);
    }
    int runShell(const char* command) override {
        return note(command), HostProcesses::runShell(command);
    }
    std::vector<std::string> commands() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return commands_;
    }

  private:
    void note(const char* command) {
        std::lock_guard<std::mutex> lock(mutex_);
        commands_.emplace_back(command);
    }
    mutable std::mutex mutex_;
    std::vector<std::string> commands_;
};

// Thrown by FaultyFiles in place of a kill: nothing after the stop runs but destructors.
struct StoppedHere {};

// The system's file data calls with one fault to put in: the nth call counted from arm()
// (write, copyRange, fsync or renameat) fails with `error` after writing half of what it was
// given, as a disk that fills half-way, or stops the caller there (throws StoppedHere).
class FaultyFiles : public platform::Files {
  public:
    enum class Fault { kFail, kStop };
    // nth 0: no fault, only counting.
    void arm(int nth, int error = ENOSPC, Fault fault = Fault::kFail) {
        error_ = error, fault_ = fault, calls_ = 0, nth_ = nth;
    }
    // Calls since the last arm().
    int calls() const { return calls_.load(); }

    ssize_t write(int fd, const void* data, size_t size) override {
        return faultHere([&] { (void)!::write(fd, data, size / 2); }) ? -1
                                                                      : ::write(fd, data, size);
    }
    ssize_t copyRange(int in, int out, size_t size) override;
    int fsync(int fd) override { return faultHere() ? -1 : ::fsync(fd); }
    int renameat(int fromDir, const char* from, int toDir, const char* to) override {
        return faultHere() ? -1 : ::renameat(fromDir, from, toDir, to);
    }

  private:
    // True when this call is the one to fail; a stop throws here, after `half` ran.
    bool faultHere(const std::function<void()>& half = nullptr);

    std::atomic<int> calls_{0};
    std::atomic<int> nth_{0};
    int error_ = 0;
    Fault fault_ = Fault::kFail;
};

// A temporary folder standing for the device's "/", with its files and its host property store
// by device path; removed with everything in it on destruction.
class TempRoot {
  public:
    TempRoot() = default;
    ~TempRoot();
    TempRoot(const TempRoot&) = delete;
    TempRoot& operator=(const TempRoot&) = delete;

    // Makes the folder "<prefix>.XXXXXX"; false when it cannot be made.
    bool make(const std::string& prefix);
    // Host path of the device root.
    const std::string& root() const { return root_.root(); }
    std::string hostPath(const std::string& devicePath) const { return root_.toHost(devicePath); }

    // An empty value reads as unset.
    void setProperty(const std::string& key, const std::string& value) {
        properties_.set(key.c_str(), value.c_str());
    }
    // The value, or `fallback` when unset or empty.
    std::string property(const std::string& key, const std::string& fallback = "");

    // writeFile creates missing parent folders; readFile gives "" for a missing file.
    void writeFile(const std::string& devicePath, const std::string& content);
    std::string readFile(const std::string& devicePath) const;
    bool exists(const std::string& devicePath) const;
    void makeDir(const std::string& devicePath) {
        std::filesystem::create_directories(hostPath(devicePath));
    }

  protected:
    platform::host::HostRoot root_{""};
    platform::host::FileProperties properties_{&root_};
};

class TestPlatform : public TempRoot {
  public:
    // The root is short, under /tmp, so service sockets fit.
    TestPlatform();
    ~TestPlatform();

    RecordingLog& log() { return log_; }
    VirtualClock& clock() { return clock_; }
    RecordingProcesses& processes() { return processes_; }
    FaultyFiles& files() { return files_; }

    // Turns debug-level lines on (sets the property and re-reads the switch).
    void enableDebugLog();

  private:
    RecordingLog log_;
    VirtualClock clock_;
    RecordingProcesses processes_{&root_, &properties_};
    platform::host::HostLoader loader_{&root_};
    platform::host::SocketServiceManager services_{&root_};
    FaultyFiles files_;
};

// Runs `fn` on a thread and gives up after `timeout` of real time: for tests of loops that
// must end. Returns true when `fn` returned in time (the thread is joined either way only
// when it returned; otherwise it is detached and the test fails).
bool finishesWithin(std::function<void()> fn, std::chrono::milliseconds timeout);

// Polls `condition` until it holds or `timeout` of real time has passed (for what another
// process does); true when it held.
bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds timeout);

// Runs `tool args` through the shell, as a user would, with stderr joined to stdout; `out`
// receives all of it. The exit status, or -1 when it could not start or died of a signal.
int runTool(const std::string& tool, const std::string& args, std::string* out);

// While alive, runs `action` (what another thread would do) each time the daemon reaches the
// sync point `name`, so a race is replayed in one fixed order without sleeps.
class AtSyncPoint {
  public:
    AtSyncPoint(std::string name, std::function<void()> action);
    ~AtSyncPoint();

  private:
    static void handle(const char* name);
};

#ifdef VIGILD_TEST_MODULE_DIR
// Copies test module `file` (tests/modules, as built in VIGILD_TEST_MODULE_DIR) into
// <hostRoot>/system/lib64/ under `as` (default: the same name). False when it fails.
inline bool installTestModule(const std::string& hostRoot, const std::string& file,
                              const std::string& as = "") {
    namespace stdfs = std::filesystem;
    std::error_code ec;
    stdfs::path folder = stdfs::path(hostRoot) / "system/lib64";
    stdfs::create_directories(folder, ec);
    // A relative folder is beside the test binary: where a device test's data libraries land.
    stdfs::path from(VIGILD_TEST_MODULE_DIR);
    if (from.is_relative()) from = stdfs::read_symlink("/proc/self/exe", ec).parent_path() / from;
    stdfs::copy_file(from / file, folder / (as.empty() ? file : as),
                     stdfs::copy_options::overwrite_existing, ec);
    return !ec;
}

inline bool installTestModules(const std::string& hostRoot, const std::vector<std::string>& files) {
    return std::all_of(files.begin(), files.end(),
                       [&](const std::string& f) { return installTestModule(hostRoot, f); });
}
#endif

}  // namespace vigild::testing
