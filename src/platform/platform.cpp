#include "platform/platform.h"

#include <atomic>
#include <cstdlib>
#include <cstdio>

namespace vigild::platform {
namespace {
Platform gPlatform;
bool gInstalled = false;
std::atomic<SyncPointHandler> gSyncPoint{nullptr};
} // namespace

Platform& current() {
    if (!gInstalled) {
        fprintf(stderr, "vigild: no platform backend installed\n");
        abort();
    }
    return gPlatform;
}

void install(const Platform& platform) {
    gPlatform = platform;
    gInstalled = true;
}

bool installed() { return gInstalled; }

void setSyncPointHandler(SyncPointHandler handler) { gSyncPoint.store(handler); }

void syncPoint(const char* name) {
    if (SyncPointHandler handler = gSyncPoint.load(std::memory_order_acquire)) handler(name);
}

} // namespace vigild::platform
