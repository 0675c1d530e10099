#include "core/daemon_state.h"

#include "core/module_loader.h"
#include "core/module_registry.h"
#include "service/ivd_service.h"

std::atomic<int> runState{kStateStopped};
std::atomic<int> exitRequested{0};
std::atomic<int> quickTapModeAtStart{0};
std::string lastCommand;

void resetDaemonStateForTesting() {
    moduleRegistry.clear();
    runState = kStateStopped;
    exitRequested = 0;
    quickTapModeAtStart = 0;
    lastCommand.clear();
    resetServiceReachabilityForTesting();
    skippedLibraries().clear();
}
