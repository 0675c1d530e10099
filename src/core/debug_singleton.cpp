#include "core/debug_singleton.h"

#include <cstring>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/platform.h"

namespace {
std::mutex gMutex;
debugSingleton* gInstance = nullptr;
std::atomic<debugSingleton*> gReady{nullptr};
// Instances dropped by tests stay reachable: another thread may still hold a reference.
std::vector<std::unique_ptr<debugSingleton>>* gRetired = nullptr;

bool propertyIsTrue(const char* key) {
    char value[vigild::platform::kPropValueMax];
    vigild::platform::current().properties->get(key, value, "0");
    return strcmp(value, "true") == 0;
}
} // namespace

debugSingleton::debugSingleton()
    : debugLog(propertyIsTrue("persist.sys.vd.debug_log")),
      internalSd(propertyIsTrue("persist.sys.vd.internal_sd")) {}

debugSingleton& debugSingleton::getInstance() {
    if (debugSingleton* ready = gReady.load(std::memory_order_acquire)) return *ready;
    std::lock_guard<std::mutex> lock(gMutex);
    if (gInstance == nullptr) {
        gInstance = new debugSingleton();
        gReady.store(gInstance, std::memory_order_release);
    }
    return *gInstance;
}

void debugSingleton::resetForTesting() {
    std::lock_guard<std::mutex> lock(gMutex);
    if (gInstance != nullptr) {
        if (gRetired == nullptr) gRetired = new std::vector<std::unique_ptr<debugSingleton>>;
        gRetired->emplace_back(gInstance);
    }
    gInstance = nullptr;
    gReady.store(nullptr, std::memory_order_release);
}
