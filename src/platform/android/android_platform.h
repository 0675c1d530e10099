// The device backend: bionic properties, liblog, the real "/", the real clock, popen/fork
// children, dlopen and the binder service manager. Built by Android.bp only.
//
// Inside this namespace `android::` names this backend; libbinder's types need `::android::`.
#pragma once

#include <string>

#include "platform/platform.h"

namespace vigild::platform::android {

// The binder service manager (android_binder.cpp): null while defaultServiceManager() is null.
// Asked anew on every lookup.
ServiceManager* binderServiceManager();

// property_get / property_set of libcutils.
class SystemProperties : public Properties {
  public:
    int get(const char* key, char* value, const char* defaultValue) override;
    int set(const char* key, const char* value) override;
};

class AndroidLogSink : public LogSink {
  public:
    AndroidLogSink();  // lowers liblog's own filter to debug: the daemon decides what is written
    void write(int priority, const char* tag, const char* text) override;
};

// Device paths are the OS paths.
class IdentityRoot : public DeviceRoot {
  public:
    std::string toHost(std::string_view devicePath) const override;
};

class SystemClock : public Clock {
  public:
    time_t wallTime() override;
    void sleepFor(std::chrono::milliseconds duration) override;
};

class SystemProcesses : public Processes {
  public:
    FILE* openShell(const char* command) override;
    int closeShell(FILE* stream) override;
    int runShell(const char* command) override;
    Child spawn(const char* devicePath) override;
    pid_t wait(pid_t pid, int* status, int options) override;
    int kill(pid_t pid, int signal) override;
};

class SystemLoader : public Loader {
  public:
    void* open(const char* devicePath, int flags) override;
    void* symbol(void* handle, const char* name) override;
    const char* error() override;
};

}  // namespace vigild::platform::android
