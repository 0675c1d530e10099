// LogcatModule: copies the system log into a file under its "Log Path".
//
// On a device the stream is logcat. On a host device root it is the shell command of the
// "Command" setting, which prints for a while and ends, so the daemon's end-of-file restart
// can be watched for real. The module runs inside the daemon's process: device paths are
// mapped through VIGILD_ROOT on the host, exactly as the daemon maps its own.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "vigild/module.h"

extern char** environ;

namespace {

constexpr const char* kName = "LogcatModule";
constexpr const char* kVersion = "14.0.1.0";
constexpr const char* kLogPath = "Log Path";
constexpr const char* kCommand = "Command";
constexpr const char* kAppend = "Append To Log";
constexpr const char* kDefaultLogPath = "/sdcard/Tellwick/logcat/";
constexpr const char* kDefaultCommand = "for i in 1 2 3 4 5; do echo logcat line $i; sleep 1; done";
constexpr const char* kLogFileName = "logcat.log";

const char* settingValue(const Module::moduleConfig& settings, const char* name,
                         const char* fallback) {
    for (const Module::config& c : settings.configs) {
        if (c.name != nullptr && strcmp(c.name, name) == 0) return c.value;
    }
    return fallback;
}

// Logs go to shared storage only: the internal card or a removable one. Anything else
// (a system folder, a relative path, "..") is refused, since the daemon runs privileged.
bool isStoragePath(const std::string& path) {
    return (path.rfind("/sdcard/", 0) == 0 || path.rfind("/storage/", 0) == 0) &&
           path.find("..") == std::string::npos;
}

// How many leading components of a storage path belong to the system and may be links
// (on a device "/sdcard" and "/storage/self" are links); everything below is user-writable.
size_t systemComponents(const std::string& path) {
    return path.rfind("/storage/", 0) == 0 ? 2 : 1;
}

// The program that produces the log stream. The only place that knows the platform.
std::vector<std::string> logSource(const Module::moduleConfig& settings) {
#ifdef __ANDROID__
    // A command read from user-writable storage never reaches a privileged shell on a device.
    (void)settings;
    return {"/system/bin/logcat", "-v", "threadtime"};
#else
    return {"/bin/sh", "-c", settingValue(settings, kCommand, kDefaultCommand)};
#endif
}

// The host folder that stands for the device's "/" ("" on a device).
std::string deviceRoot() {
#ifdef __ANDROID__
    return "";
#else
    const char* root = getenv("VIGILD_ROOT");
    return root != nullptr ? root : "";
#endif
}

// Opens (creating) the device folder `devicePath`, walking from the device root by directory
// descriptor: below the storage root the folders are user-writable, so no symlink is
// followed there and no ".." leaves the root.
int openLogFolder(const std::string& devicePath) {
    if (!isStoragePath(devicePath)) return -1;
    std::string root = deviceRoot();
    int dir = open(root.empty() ? "/" : root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir < 0) return -1;
    const size_t trusted = systemComponents(devicePath);
    size_t depth = 0;
    size_t pos = 0;
    while (pos < devicePath.size()) {
        size_t end = devicePath.find('/', pos);
        if (end == std::string::npos) end = devicePath.size();
        std::string part = devicePath.substr(pos, end - pos);
        pos = end + 1;
        if (part.empty() || part == ".") continue;
        if (part == "..") {
            close(dir);
            return -1;
        }
        mkdirat(dir, part.c_str(), 0777);
        const int follow = depth++ < trusted ? 0 : O_NOFOLLOW;
        int next = openat(dir, part.c_str(), O_RDONLY | O_DIRECTORY | follow | O_CLOEXEC);
        close(dir);
        if (next < 0) return -1;
        dir = next;
    }
    return dir;
}

int openLogFile(const std::string& devicePath, const char* fileName, bool append) {
    int dir = openLogFolder(devicePath);
    if (dir < 0) return -1;
    int flags = O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC | (append ? O_APPEND : O_TRUNC);
    int fd = openat(dir, fileName, flags, 0666);
    close(dir);
    return fd;
}

bool writeAll(int fd, const char* data, size_t size) {
    while (size > 0) {
        ssize_t n = write(fd, data, size);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        data += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

// Starts `argv` in a process group of its own with stdout and stderr on a pipe; nothing else
// of the daemon's descriptors is inherited. Returns the pid, or -1.
pid_t spawnSource(const std::vector<std::string>& args, int* outputFd) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) return -1;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, fds[1], STDERR_FILENO);
#if defined(__GLIBC__)
    posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
#endif
    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    sigset_t none;
    sigemptyset(&none);
    sigset_t defaults;
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGPIPE);
    sigaddset(&defaults, SIGTERM);
    sigaddset(&defaults, SIGINT);
    posix_spawnattr_setsigmask(&attr, &none);
    posix_spawnattr_setsigdefault(&attr, &defaults);
    posix_spawnattr_setpgroup(&attr, 0);
    posix_spawnattr_setflags(
        &attr, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

    std::vector<char*> argv;
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    pid_t pid = -1;
    int rc = posix_spawn(&pid, argv[0], &actions, &attr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attr);
    close(fds[1]);
    if (rc != 0) {
        close(fds[0]);
        return -1;
    }
    *outputFd = fds[0];
    return pid;
}

class LogcatModule : public Module {
  public:
    int shouldLoad() override { return 0; }

    int init(moduleConfig& settings) override {
        addStringSetting(settings, kLogPath, kDefaultLogPath);
        addStringSetting(settings, kCommand, kDefaultCommand);
        addConfigBoolean(settings, kAppend, const_cast<char*>("true"));
        // The daemon moves a "Log Path" that does not exist to the top folder: make ours.
        int dir = openLogFolder(kDefaultLogPath);
        if (dir >= 0) close(dir);
        return 0;
    }

    int start(moduleConfig settings) override {
        std::lock_guard<std::mutex> lock(mutex_);
        // The daemon's end-of-file monitor and its command thread may both start us.
        if (started_) stopLocked();
        int append = 1;
        getConfigBoolean(settings, kAppend, append);
        std::string folder = settingValue(settings, kLogPath, kDefaultLogPath);
        int logFd = openLogFile(folder, kLogFileName, append != 0);
        if (logFd < 0) return -1;
        // The reader also waits on this pipe, so stop() never hangs on a stream that some
        // escaped grandchild of the source keeps open.
        int wake[2];
        if (pipe2(wake, O_CLOEXEC | O_NONBLOCK) != 0) {
            close(logFd);
            return -1;
        }
        int outputFd = -1;
        pid_t pid = spawnSource(logSource(settings), &outputFd);
        if (pid < 0) {
            close(logFd);
            close(wake[0]);
            close(wake[1]);
            return -1;
        }
        std::string header = std::string("--- ") + kName + " started ---\n";
        writeAll(logFd, header.data(), header.size());
        child_ = pid;
        wake_[0] = wake[0];
        wake_[1] = wake[1];
        eof_ = false;
        stopping_ = false;
        started_ = true;
        reader_ = std::thread(&LogcatModule::copyStream, this, outputFd, logFd, wake[0]);
        return 0;
    }

    int systemTimeChange() override { return 0; }
    int prestop() override { return 0; }

    int stop() override {
        std::lock_guard<std::mutex> lock(mutex_);
        if (started_) stopLocked();
        return 0;
    }

    const char* getName() override { return kName; }
    const char* getVersion() override { return kVersion; }

    int configVal(moduleConfig& settings, std::vector<std::string>& errors) override {
        const char* path = settingValue(settings, kLogPath, kDefaultLogPath);
        if (!isStoragePath(path)) {
            errors.emplace_back(kLogPath);
            errors.emplace_back(std::string("Log Path must be a folder under /sdcard/ or "
                                            "/storage/: ") +
                                path);
        }
        return 0;
    }

    int logcatEOFStatus() override { return started_ && eof_ ? 1 : 0; }

  private:
    void addStringSetting(moduleConfig& settings, const char* name, const char* value) {
        for (const config& c : settings.configs) {
            if (c.name != nullptr && strcmp(c.name, name) == 0) return;
        }
        config c = {};
        c.name = name;
        c.type = "string";
        strncpy(c.defaultValue, value, VD_CONFIG_VALUE_SIZE - 1);
        strncpy(c.value, value, VD_CONFIG_VALUE_SIZE - 1);
        settings.configs.push_back(c);
    }

    // Reader thread: closes the stream and the log file when the stream ends or stop() wakes
    // it; what is already in the pipe at that moment is still copied.
    void copyStream(int outputFd, int logFd, int wakeFd) {
        char buffer[4096];
        bool draining = false;
        for (;;) {
            struct pollfd fds[2] = {{outputFd, POLLIN, 0}, {wakeFd, POLLIN, 0}};
            int ready = poll(fds, draining ? 1 : 2, draining ? 0 : -1);
            if (ready < 0 && errno == EINTR) continue;
            if (ready <= 0) break;
            if (!draining && (fds[1].revents & (POLLIN | POLLHUP)) != 0) {
                draining = true;
                continue;
            }
            if ((fds[0].revents & (POLLIN | POLLHUP | POLLERR)) == 0) continue;
            ssize_t n = read(outputFd, buffer, sizeof(buffer));
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) break;
            writeAll(logFd, buffer, static_cast<size_t>(n));
        }
        // The wake pipe stays open until stop(): writing to a pipe nobody reads would raise
        // SIGPIPE in the daemon.
        close(outputFd);
        close(logFd);
        if (!stopping_) eof_ = true;
    }

    // Ends the source and the reader. The child stays unreaped until here, so its process
    // group cannot have been reused when it is killed.
    void stopLocked() {
        stopping_ = true;
        if (child_ > 0) kill(-child_, SIGKILL);
        if (wake_[1] >= 0) {
            const char byte = 0;
            while (write(wake_[1], &byte, 1) < 0 && errno == EINTR) {
            }
        }
        if (reader_.joinable()) reader_.join();
        for (int& fd : wake_) {
            if (fd >= 0) close(fd);
            fd = -1;
        }
        if (child_ > 0) {
            while (waitpid(child_, nullptr, 0) < 0 && errno == EINTR) {
            }
        }
        child_ = -1;
        started_ = false;
        eof_ = false;
    }

    std::mutex mutex_;
    std::thread reader_;
    pid_t child_ = -1;
    int wake_[2] = {-1, -1};  // the reader's wake pipe
    std::atomic<bool> started_{false};
    std::atomic<bool> eof_{false};
    std::atomic<bool> stopping_{false};
};

}  // namespace

extern "C" Module* getModule() {
    // Lives for the whole process: the daemon never unloads a module.
    static LogcatModule* module = new LogcatModule();
    return module;
}
