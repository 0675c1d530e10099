#include "core/eof_monitor.h"

#include <chrono>
#include <cstring>
#include <mutex>

#include "config/document.h"
#include "core/daemon_state.h"
#include "core/log.h"
#include "core/module_registry.h"
#include "core/run_state.h"
#include "platform/platform.h"

namespace {

constexpr std::chrono::seconds kPollInterval{60};

// Walks on from `cursor` to the entry named "LogcatModule" that has an "Enable Module"
// boolean; true when that setting is "true". The cursor is never moved back: the registry
// does not change after start-up, so what lies behind it has been seen.
bool findEnabledLogcat(size_t& cursor) {
    for (; cursor < moduleRegistry.size(); cursor++) {
        modulePair& entry = moduleRegistry[cursor];
        if (strcmp(entry.module->getName(), "LogcatModule") != 0) continue;
        // A configuration change may be writing the value on another thread.
        vigild::Lock lock(configMutex);
        for (const Module::config& c : entry.settings.configs) {
            if (strcmp(c.name, "Enable Module") == 0 && strcmp(c.type, "boolean") == 0) {
                return strcmp(c.value, "true") == 0;
            }
        }
    }
    return false;
}

}  // namespace

void monitorEOF() {
    LOGD("vigild::monitorEOF::BEGIN");
    if (exitRequested.load() != 0) return;
    size_t cursor = 0;
    bool watching = findEnabledLogcat(cursor);
    for (;;) {
        if (watching && runState.load() == kStateRunning) {
            modulePair& entry = moduleRegistry[cursor];
            if (entry.module->logcatEOFStatus() != 0) {
                LOGI("vigild::EOF! detected, starting counter measures to restart Logcat module");
                vigild::platform::syncPoint("monitorEOF.beforeRestart");
                // A plain stop and start: the run state stays "running" and is not reported.
                restartModuleIfRunning(entry);
                watching = false;
            }
        }
        vigild::platform::current().clock->sleepFor(kPollInterval);
        if (exitRequested.load() != 0) return;
        if (!watching) watching = findEnabledLogcat(cursor);
    }
}
