#include "service/device_report.h"

#include "config/document.h"
#include "core/daemon_state.h"
#include "core/log.h"
#include "core/module_registry.h"
#include "core/run_state.h"
#include "service/ivd_service.h"

void sendInfo() {
    LOGD("sendInfo:BEGIN");
    sp<Ivd_service> service = Ivd_service::getInterface();
    if (service == nullptr) {
        LOGE("Failed to obtain a handle on vd_service");
    } else {
        service->sendVersion(kDaemonName, kDaemonVersion);
        for (const modulePair& entry : moduleRegistry) {
            service->sendVersion(entry.settings.moduleName, entry.module->getVersion());
        }
        // Drop our connection first: sendConfig makes its own.
        service.reset();
        sendConfig();
    }

    switch (runState.load()) {
        case kStateTransition:
            updateState("transition");
            break;
        case kStateRunning:
            updateState("running");
            break;
        case kStateStopped:
            updateState("stopped");
            break;
        default:
            // Not a state the service knows: say nothing rather than guess.
            break;
    }
    LOGD("sendInfo:END");
}
