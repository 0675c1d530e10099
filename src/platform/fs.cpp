#include "platform/fs.h"

#include <fcntl.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cstdio>

#include "platform/platform.h"

namespace vigild::fs {

std::string hostPath(std::string_view devicePath) {
    return platform::current().root->toHost(devicePath);
}

int open(const char* devicePath, int flags, mode_t mode) {
    // Nothing the daemon opens is meant for its children.
    return ::open(hostPath(devicePath).c_str(), flags | O_CLOEXEC, mode);
}

FILE* fopen(const char* devicePath, const char* mode) {
    std::string closeOnExec = std::string(mode) + "e";
    return ::fopen(hostPath(devicePath).c_str(), closeOnExec.c_str());
}

DIR* opendir(const char* devicePath) { return ::opendir(hostPath(devicePath).c_str()); }

int stat(const char* devicePath, struct stat* st) {
    return ::stat(hostPath(devicePath).c_str(), st);
}

int lstat(const char* devicePath, struct stat* st) {
    return ::lstat(hostPath(devicePath).c_str(), st);
}

int access(const char* devicePath, int mode) {
    return ::access(hostPath(devicePath).c_str(), mode);
}

int mkdir(const char* devicePath, mode_t mode) {
    return ::mkdir(hostPath(devicePath).c_str(), mode);
}

int remove(const char* devicePath) { return ::remove(hostPath(devicePath).c_str()); }

int rmdir(const char* devicePath) { return ::rmdir(hostPath(devicePath).c_str()); }

int unlink(const char* devicePath) { return ::unlink(hostPath(devicePath).c_str()); }

int rename(const char* fromDevicePath, const char* toDevicePath) {
    return ::rename(hostPath(fromDevicePath).c_str(), hostPath(toDevicePath).c_str());
}

int inotifyInit() {
    // Close-on-exec: the bug report tool and shell commands must not inherit the watch.
    return ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
}

int inotifyAddWatch(int fd, const char* devicePath, uint32_t mask) {
    return ::inotify_add_watch(fd, hostPath(devicePath).c_str(), mask);
}

bool isDirectory(const char* devicePath) {
    struct stat st;
    return fs::stat(devicePath, &st) == 0 && S_ISDIR(st.st_mode);
}

} // namespace vigild::fs
