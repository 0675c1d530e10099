#include "core/debug_singleton.h"

#include <cstring>
#include <mutex>

#include "core/core_state.h"
#include "platform/platform.h"

namespace vigild::core::state {
vigild::Mutex debugMutex;
debugSingleton* debugInstance = nullptr;
std::atomic<debugSingleton*> debugReady{nullptr};
}  // namespace vigild::core::state

namespace {
using vigild::core::state::debugInstance;
using vigild::core::state::debugMutex;
using vigild::core::state::debugReady;

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
    if (debugSingleton* ready = debugReady.load(std::memory_order_acquire)) return *ready;
    vigild::Lock lock(debugMutex);
    if (debugInstance == nullptr) {
        debugInstance = new debugSingleton();
        debugReady.store(debugInstance, std::memory_order_release);
    }
    return *debugInstance;
}
