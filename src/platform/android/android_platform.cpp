#include "platform/android/android_platform.h"
#include "platform/posix_process.h"

#include <android/log.h>
#include <cutils/properties.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <malloc.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <thread>

namespace vigild::platform {

namespace android {

static_assert(PROPERTY_VALUE_MAX == kPropValueMax, "property buffers differ in size");

int SystemProperties::get(const char* key, char* value, const char* defaultValue) {
    return property_get(key, value, defaultValue);
}

int SystemProperties::set(const char* key, const char* value) {
    return property_set(key, value) == 0 ? 0 : -1;
}

AndroidLogSink::AndroidLogSink() { __android_log_set_minimum_priority(ANDROID_LOG_DEBUG); }

void AndroidLogSink::write(int priority, const char* tag, const char* text) {
    __android_log_write(priority, tag, text);
}

std::string IdentityRoot::toHost(std::string_view devicePath) const {
    return std::string(devicePath);
}

time_t SystemClock::wallTime() { return time(nullptr); }

void SystemClock::sleepFor(std::chrono::milliseconds duration) {
    std::this_thread::sleep_for(duration);
}

FILE* SystemProcesses::openShell(const char* command) { return ::popen(command, "r"); }

int SystemProcesses::closeShell(FILE* stream) { return ::pclose(stream); }

int SystemProcesses::runShell(const char* command) { return ::system(command); }

Child SystemProcesses::spawn(const char* devicePath) {
    return spawnWithPipe(devicePath, devicePath);
}

pid_t SystemProcesses::wait(pid_t pid, int* status, int options) {
    return waitForChild(pid, status, options);
}

int SystemProcesses::kill(pid_t pid, int signal) { return ::kill(pid, signal); }

void* SystemLoader::open(const char* devicePath, int flags) { return ::dlopen(devicePath, flags); }

void* SystemLoader::symbol(void* handle, const char* name) { return ::dlsym(handle, name); }

const char* SystemLoader::error() { return ::dlerror(); }

}  // namespace android

bool installDefault(std::string* /*error*/) {
    // Live for the process: threads that are never joined use them until exit.
    static android::SystemProperties properties;
    static android::AndroidLogSink log;
    static android::IdentityRoot root;
    static android::SystemClock clock;
    static android::SystemProcesses processes;
    static android::SystemLoader loader;
    Platform p;
    p.properties = &properties;
    p.log = &log;
    p.root = &root;
    p.clock = &clock;
    p.processes = &processes;
    p.loader = &loader;
    // init stops the service itself on "ctl.stop", so no handler is needed here.
    p.serviceManager = android::binderServiceManager;
    install(p);
    return true;
}

void releaseFreeMemory() {
    // Every thread's cache where the platform has the call (API 34), else the allocator's
    // own free pages (API 28). Both are macros in bionic's <malloc.h>.
#if defined(M_PURGE_ALL)
    mallopt(M_PURGE_ALL, 0);
#elif defined(M_PURGE)
    mallopt(M_PURGE, 0);
#endif
}

}  // namespace vigild::platform
