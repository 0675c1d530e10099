// The user's right to deploy a configuration in secure mode, asked of the companion service.
#include "config/file_watch.h"
#include "core/log.h"
#include "service/ivd_service.h"
#include "storage/utility.h"

int isPermissionGrantedToDeployConfig() {
    LOGD("vigild: isPermissionGrantedToDeployConfig()");
    sp<Ivd_service> service = Ivd_service::getInterface();
    if (service == nullptr) {
        // Not granted rather than ending the process: before the framework is up a save in
        // secure mode would otherwise crash-loop the daemon at boot.
        LOGE("Failed to obtain a handle on vd_service");
        return 0;
    }
    int status = service->isUserValidToDeploy();
    if (isDebugBuildorDebugEnabled()) {
        LOGI("vigild: isPermissionGrantedToDeployConfig(): status = %d", status);
    }
    return status;
}

void updateValidUserStatus(bool valid) {
    LOGD("updateValidUserStatus() :BEGIN ");
    sp<Ivd_service> service = Ivd_service::getInterface();
    if (service == nullptr) {
        LOGE("Failed to obtain a handle on vd_service");
    } else {
        service->updateValidUserStatus(valid);
    }
    LOGD("updateValidUserStatus():END");
}
