// File system calls on device paths. Each maps the device path through the installed
// device root at the moment it reaches the OS; everything above this layer keeps device
// paths. Results and errno are those of the underlying call.
#pragma once

#include <dirent.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

namespace vigild::fs {

std::string hostPath(std::string_view devicePath);

int open(const char* devicePath, int flags, mode_t mode = 0);
FILE* fopen(const char* devicePath, const char* mode);
DIR* opendir(const char* devicePath);
int stat(const char* devicePath, struct stat* st);
int lstat(const char* devicePath, struct stat* st);
int access(const char* devicePath, int mode);
int mkdir(const char* devicePath, mode_t mode);
int remove(const char* devicePath);
int rmdir(const char* devicePath);
int unlink(const char* devicePath);
int rename(const char* fromDevicePath, const char* toDevicePath);
// A non-blocking, close-on-exec inotify instance (no device path: nothing to map).
int inotifyInit();
int inotifyAddWatch(int fd, const char* devicePath, uint32_t mask);

// True when the device path names a directory (stat, follows a final link).
bool isDirectory(const char* devicePath);

} // namespace vigild::fs
