#include "core/debug_singleton.h"

#include <cstring>
#include <memory>
#include <mutex>
#include <vector>

#include "core/thread_annotations.h"
#include "platform/platform.h"

namespace {
vigild::Mutex gMutex;
debugSingleton* gInstance GUARDED_BY(gMutex) = nullptr;
std::atomic<debugSingleton*> gReady{nullptr};
// Instances dropped by tests stay reachable: another thread may still hold a reference.
std::vector<std::unique_ptr<debugSingleton>>* gRetired GUARDED_BY(gMutex) = nullptr;

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
    vigild::Lock lock(gMutex);
    if (gInstance == nullptr) {
        gInstance = new debugSingleton();
        gReady.store(gInstance, std::memory_order_release);
    }
    return *gInstance;
}

void debugSingleton::resetForTesting() {
    vigild::Lock lock(gMutex);
    if (gInstance != nullptr) {
        if (gRetired == nullptr) gRetired = new std::vector<std::unique_ptr<debugSingleton>>;
        gRetired->emplace_back(gInstance);
    }
    gInstance = nullptr;
    gReady.store(nullptr, std::memory_order_release);
}
