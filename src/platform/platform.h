// The daemon's window on the device. Every property, log line, device path, sleep,
// child process, library and binder call goes through one of these interfaces, so the
// same logic runs on a device, on a host device root and against test fakes.
//
// Backends: host/ (the host contract), android/ (bionic, liblog, libbinder; Android.bp
// only) and tests/fakes (a temporary root with the host property store, a recording log, a
// virtual clock, file writes that fail on demand).
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace vigild::platform {

// property_get's buffer size: values are at most 91 bytes plus the terminator.
constexpr size_t kPropValueMax = 92;

class Properties {
public:
    virtual ~Properties() = default;
    // property_get semantics: copies the value, or `defaultValue` when the property is
    // unset or empty, into `value` (kPropValueMax bytes) and returns its length.
    virtual int get(const char* key, char* value, const char* defaultValue) = 0;
    // property_set semantics: 0 on success, -1 on failure (old value kept).
    virtual int set(const char* key, const char* value) = 0;
};

class LogSink {
public:
    virtual ~LogSink() = default;
    // One finished line; the priority filter has already been applied by the caller.
    virtual void write(int priority, const char* tag, const char* text) = 0;
};

class DeviceRoot {
public:
    virtual ~DeviceRoot() = default;
    // The OS path of a device path. Applied only at the moment a path reaches the OS.
    virtual std::string toHost(std::string_view devicePath) const = 0;
};

class Clock {
public:
    virtual ~Clock() = default;
    // The wall clock, time(nullptr); never scaled.
    virtual time_t wallTime() = 0;
    // Every sleep and poll interval of the daemon; the host scales it.
    virtual void sleepFor(std::chrono::milliseconds duration) = 0;
};

// A child started with its stdout and stderr on a pipe.
struct Child {
    pid_t pid = -1;    // -1 when the fork failed
    int outputFd = -1; // read end of the pipe; -1 when the pipe failed
};

class Processes {
public:
    virtual ~Processes() = default;
    // popen(command, "r") of a shell command line; closeShell is pclose.
    virtual FILE* openShell(const char* command) = 0;
    virtual int closeShell(FILE* stream) = 0;
    // Runs a shell command for its side effect only (system()); returns its status.
    virtual int runShell(const char* command) = 0;
    // pipe + fork + exec of the program at `devicePath` (argument zero is the device path),
    // stdout and stderr on the pipe, in a process group of its own (its pid) so that
    // kill(-pid, ...) ends what it started too; no other descriptor of the daemon is inherited. The child must not log: it is a fork of a threaded
    // process. A failed pipe gives outputFd -1 and no child; a failed fork gives pid -1.
    virtual Child spawn(const char* devicePath) = 0;
    // waitpid(pid, status, options).
    virtual pid_t wait(pid_t pid, int* status, int options) = 0;
    virtual int kill(pid_t pid, int signal) = 0;
};

class Loader {
public:
    virtual ~Loader() = default;
    virtual void* open(const char* devicePath, int flags) = 0; // dlopen
    virtual void* symbol(void* handle, const char* name) = 0;  // dlsym
    virtual const char* error() = 0;                           // dlerror
};

// One connection to a service; transactions on it are sequential.
class Binder {
public:
    virtual ~Binder() = default;
    // Sends `data` with `code` and fills `reply`. Returns the transport status (0, or a
    // binder status such as -32 dead object with an empty reply).
    virtual int32_t transact(uint32_t code, const std::vector<uint8_t>& data,
                             std::vector<uint8_t>* reply, uint32_t flags) = 0;
};

class ServiceManager {
public:
    virtual ~ServiceManager() = default;
    // One lookup: a fresh connection, or null when the service is not there.
    virtual std::shared_ptr<Binder> getService(const std::string& name) = 0;
};

// The calls that put file data on storage, so a test can fail any one of them (a full disk,
// an I/O error) or stop the daemon there. Results and errno as the system calls'.
class Files {
public:
    virtual ~Files() = default;
    virtual ssize_t write(int fd, const void* data, size_t size) = 0;
    // copy_file_range(2) from and to the descriptors' own offsets.
    virtual ssize_t copyRange(int in, int out, size_t size) = 0;
    virtual int fsync(int fd) = 0;
    virtual int renameat(int fromDir, const char* from, int toDir, const char* to) = 0;
};

// The backend in force. Members are never null once installed, except `services`, which is
// null when the device has no service manager (defaultServiceManager() returned null).
struct Platform {
    Properties* properties = nullptr;
    LogSink* log = nullptr;
    DeviceRoot* root = nullptr;
    Clock* clock = nullptr;
    Processes* processes = nullptr;
    Loader* loader = nullptr;
    // Null at install: the system calls (both backends use them; tests put faults in).
    Files* files = nullptr;
    // Asked anew on every lookup, so a service manager that appears later is found.
    ServiceManager* (*serviceManager)() = nullptr;
};

// The installed backend. Aborts when none is installed.
Platform& current();
// Installs a backend (the host or Android backend in main, a fake in tests). Not thread-safe:
// install before starting threads.
void install(const Platform& platform);
bool installed();
// Named points on the daemon's threads (where two threads may meet) at which a handler can
// hold a thread, so that an interleaving can be replayed step by step. No handler: nothing.
using SyncPointHandler = void (*)(const char* name);
void setSyncPointHandler(SyncPointHandler handler);
void syncPoint(const char* name);

// Installs the backend this build was made with, for the daemon process (the host backend
// reads its environment; "ctl.stop" of "vigild" ends the process as init would). On failure
// fills `error` with a one-line message.
bool installDefault(std::string* error);

// Hands the allocator's free pages back to the system (malloc_trim on glibc, M_PURGE on
// bionic). Called when a burst of work is over (start-up, a configuration load), so the idle
// daemon keeps only what it uses. Per C library, not per backend: the host backend built with
// bionic for the device tests purges as the device does.
void releaseFreeMemory();

} // namespace vigild::platform
