#include "platform/platform.h"

#include <cstdlib>
#include <cstdio>

namespace vigild::platform {
namespace {
Platform gPlatform;
bool gInstalled = false;
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

} // namespace vigild::platform
