#include "fakes/reset_state.h"

#include <memory>
#include <vector>

#include "config/config_file.h"
#include "config/config_validation.h"
#include "core/core_state.h"
#include "core/daemon_state.h"
#include "core/debug_singleton.h"
#include "core/module_loader.h"
#include "core/module_registry.h"
#include "quicktap/quicktap_state.h"
#include "service/service_state.h"

void resetDaemonStateForTesting() {
    moduleRegistry.clear();
    runState = kStateStopped;
    exitRequested = 0;
    quickTapModeAtStart = 0;
    lastCommand.clear();
    skippedLibraries().clear();
    {
        using namespace vigild::core::state;
        vigild::Lock lock(startedMutex);
        startedModules.clear();
    }
    using vigild::service::state::Reachability;
    Reachability& r = vigild::service::state::reachability();
    {
        std::lock_guard<std::mutex> lock(r.mutex);
        r.state = Reachability::kUnknown;
        r.unreachableFor = std::chrono::milliseconds{0};
        r.nextReminder = std::chrono::minutes{1};
    }
    resetSettingsStateForTesting();
}

void resetSettingsStateForTesting() {
    restartAfterPathChange = false;
    btSnoopConfigChanged = false;
    using namespace vigild::quicktap::state;
    vigild::Lock lock(gTableMutex);
    gTable.clear();
}

void resetDebugSwitchesForTesting() {
    using namespace vigild::core::state;
    vigild::Lock lock(debugMutex);
    // Dropped instances stay reachable: another thread may still hold a reference.
    static auto* retired = new std::vector<std::unique_ptr<debugSingleton>>;
    if (debugInstance != nullptr) retired->emplace_back(debugInstance);
    debugInstance = nullptr;
    debugReady.store(nullptr, std::memory_order_release);
}
