#include "platform/platform.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstdio>

namespace vigild::platform {
namespace {
Platform gPlatform;
bool gInstalled = false;
std::atomic<SyncPointHandler> gSyncPoint{nullptr};

class SystemFiles : public Files {
public:
    ssize_t write(int fd, const void* data, size_t size) override {
        return ::write(fd, data, size);
    }
    ssize_t copyRange(int in, int out, size_t size) override {
        return ::copy_file_range(in, nullptr, out, nullptr, size, 0);
    }
    int fsync(int fd) override { return ::fsync(fd); }
    int renameat(int fromDir, const char* from, int toDir, const char* to) override {
        return ::renameat(fromDir, from, toDir, to);
    }
};
} // namespace

Platform& current() {
    if (!gInstalled) {
        fprintf(stderr, "vigild: no platform backend installed\n");
        abort();
    }
    return gPlatform;
}

void install(const Platform& platform) {
    static SystemFiles systemFiles;
    gPlatform = platform;
    if (gPlatform.files == nullptr) gPlatform.files = &systemFiles;
    gInstalled = true;
}

bool installed() { return gInstalled; }

void setSyncPointHandler(SyncPointHandler handler) { gSyncPoint.store(handler); }

void syncPoint(const char* name) {
    if (SyncPointHandler handler = gSyncPoint.load(std::memory_order_acquire)) handler(name);
}

} // namespace vigild::platform
