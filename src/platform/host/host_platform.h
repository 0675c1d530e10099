// The host backend: a folder stands for the device's "/", properties are files under
// "/dev/__properties__/", services are Unix sockets under "/dev/binder/", sleeps are
// scaled by VIGILD_TIME_SCALE and log lines go to stderr through liblog.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/platform.h"

namespace vigild::platform::host {

// Device path to host path: the path is normalised lexically ("." and ".." resolved, never
// above the root) and appended to the root, so no device path reaches outside the root.
// A trailing "/" is kept, so a file named with one still fails as on a device.
class HostRoot : public DeviceRoot {
  public:
    explicit HostRoot(std::string root);
    std::string toHost(std::string_view devicePath) const override;
    const std::string& root() const { return root_; }

  private:
    std::string root_;  // without a trailing "/"
};

// One file per property; writes are atomic (temporary file renamed over the value).
class FileProperties : public Properties {
  public:
    explicit FileProperties(const DeviceRoot* root);
    int get(const char* key, char* value, const char* defaultValue) override;
    int set(const char* key, const char* value) override;
    // Called after "ctl.stop" is set; the daemon installs its own end.
    void onCtlStop(std::function<void(const std::string&)> handler) {
        ctlStop_ = std::move(handler);
    }

  private:
    const DeviceRoot* root_;
    std::function<void(const std::string&)> ctlStop_;
};

class LiblogSink : public LogSink {
  public:
    LiblogSink();  // lowers liblog's own filter to debug: the daemon decides what is written
    void write(int priority, const char* tag, const char* text) override;
};

class ScaledClock : public Clock {
  public:
    explicit ScaledClock(double scale) : scale_(scale) {}
    time_t wallTime() override;
    void sleepFor(std::chrono::milliseconds duration) override;

  private:
    double scale_;
};

// Shell commands run with /bin/sh on the host, except the device's own tools: "setprop"
// writes the property store and "chown" (Android users and groups) is skipped.
class HostProcesses : public Processes {
  public:
    HostProcesses(const DeviceRoot* root, Properties* properties);
    FILE* openShell(const char* command) override;
    int closeShell(FILE* stream) override;
    int runShell(const char* command) override;
    Child spawn(const char* devicePath) override;
    pid_t wait(pid_t pid, int* status, int options) override;
    int kill(pid_t pid, int signal) override;

  private:
    // Handles the device's own commands; returns true when nothing is left to run.
    bool handleDeviceCommand(const char* command);
    const DeviceRoot* root_;
    Properties* properties_;
};

class HostLoader : public Loader {
  public:
    explicit HostLoader(const DeviceRoot* root) : root_(root) {}
    void* open(const char* devicePath, int flags) override;
    void* symbol(void* handle, const char* name) override;
    const char* error() override;

  private:
    const DeviceRoot* root_;
};

// The service manager exists when "/dev/binder/" exists under the root.
class SocketServiceManager : public ServiceManager {
  public:
    explicit SocketServiceManager(const DeviceRoot* root) : root_(root) {}
    bool exists() const;
    std::shared_ptr<Binder> getService(const std::string& name) override;

  private:
    const DeviceRoot* root_;
};

// Frame sizes of the socket transport.
constexpr uint32_t kMaxFrameSize = 1048576;
constexpr int32_t kDeadObject = -32;
constexpr int32_t kUnknownTransaction = -74;
constexpr int32_t kFailedTransaction = -2147483646;

// One connected socket: one proxy.
class SocketBinder : public Binder {
  public:
    explicit SocketBinder(int fd) : fd_(fd) {}
    ~SocketBinder() override;
    int32_t transact(uint32_t code, const std::vector<uint8_t>& data, std::vector<uint8_t>* reply,
                     uint32_t flags) override;

  private:
    std::mutex mutex_;
    int fd_;
};

// Frame helpers shared with the stand-in service: whole reads and writes that retry on
// EINTR. Return false when the peer closed or an error occurred.
bool writeAll(int fd, const void* data, size_t size);
bool readAll(int fd, void* data, size_t size);

// Reads VIGILD_ROOT and VIGILD_TIME_SCALE and installs the host backend. On a missing or
// bad variable, fills `error` with a one-line message and installs nothing.
bool installFromEnvironment(std::string* error);
// One warning line per VIGILD_* variable of `environment` that the host backend does not
// know, naming the nearest known one.
std::vector<std::string> unknownVariableWarnings(char** environment);
// Installs the host backend for an explicit root (tools).
void installForRoot(const std::string& root, double timeScale);
// The property store of the installed host backend (for the daemon's ctl.stop handler).
FileProperties* hostProperties();

}  // namespace vigild::platform::host
