#include "core/command_loop.h"

#include <chrono>
#include <string>

#include "config/config_validation.h"
#include "config/document.h"
#include "config/file_watch.h"
#include "core/daemon_state.h"
#include "core/log.h"
#include "core/run_state.h"
#include "platform/platform.h"
#include "service/device_report.h"
#include "service/ivd_service.h"
#include "storage/bugreport.h"
#include "storage/log_deletion.h"

namespace {

void configSet(Ivd_service& service) {
    // The document travels in a second transaction on the same connection.
    std::string document = service.receiveConfig();
    setConfig(document.c_str());
}

}  // namespace

void dispatchCommand(const std::string& command, Ivd_service& service) {
    // Whole-text matches only: no trimming, no prefixes, case counts.
    if (command == "start:") {
        LOGD("Executing start command");
        start();
    } else if (command == "stop:") {
        LOGD("Executing stop command");
        stop();
    } else if (command == "config_get:") {
        LOGD("Executing config_get command");
        sendConfig();
    } else if (command == "config_set:") {
        LOGD("Executing config_set command");
        configSet(service);
    } else if (command == "fresh_connect") {
        LOGD("Executing fresh_connect command");
        sendInfo();
    } else if (command == "recovery_copy") {
        LOGD("Executing Copy Recovery Logs command");
        copyRecoveryLogs();
    } else if (command == "refresh_config") {
        LOGD("Executing refresh_config command");
        watchConfig();
    } else if (command == "refresh_time") {
        LOGD("Executing refresh_time command");
        systemTimeCheker();
    } else if (command == "refresh_state") {
        LOGD("Executing refresh_state command");
        syncServiceState();
    } else if (command == "reset_to_default") {
        LOGD("reset to default command");
        resetToDefault();
    } else if (command == "delete_logs") {
        LOGD("delete logs command");
        deleteTwLogs();
    } else {
        LOGE("Recevied unknown command, ignoring");
    }
}

void vd_service_handler() {
    while (exitRequested.load() == 0) {
        // A fresh proxy per command, so a restarted service is found again.
        sp<Ivd_service> service = Ivd_service::getInterface();
        if (service == nullptr) {
            LOGE("Failed to obtain a handle on vd_service");
            vigild::platform::current().clock->sleepFor(std::chrono::seconds(1));
            serviceRetryPaused(std::chrono::seconds(1));
            LOGE("Waited trying to connect to service again");
            continue;
        }
        std::string command = service->waitForResponse();
        lastCommand.clear();
        lastCommand = command;
        LOGD("message is: %s", command.c_str());
        dispatchCommand(command, *service);
    }
}

void messageHandler() {
    while (exitRequested.load() == 0) vd_service_handler();
}
