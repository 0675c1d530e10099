#include "core/run_state.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>
#include <set>
#include <string>

#include "config/config_file.h"
#include "config/document.h"
#include "core/core_state.h"
#include "core/daemon_state.h"
#include "core/log.h"
#include "core/module_registry.h"
#include "platform/platform.h"
#include "quicktap/quicktap.h"
#include "service/ivd_service.h"
#include "storage/storage_root.h"
#include "storage/utility.h"

namespace {

// Serialises every run-state transition: start, stop, the restart of marked modules, the
// end-of-file restart and the clock-jump notice. Held for the whole transition, module calls
// and state reports included, because the transition is the unit that must not interleave;
// each one re-checks the state once it holds the lock, so the one that loses a race does
// nothing. Recursive: a start in QuickTap mode reloads the configuration, which may ask for a
// restart (refused then, as the state is "transition"). Taken before configMutex, never after.
vigild::RecursiveMutex transitionMutex;

// Modules that were started and not stopped since, so a module disabled by a configuration
// change while running still gets its stop.
using vigild::core::state::startedModules;
using vigild::core::state::startedMutex;

void markStarted(Module* module, bool running) {
    vigild::Lock lock(startedMutex);
    if (running) {
        startedModules.insert(module);
    } else {
        startedModules.erase(module);
    }
}

bool wasStarted(Module* module) {
    vigild::Lock lock(startedMutex);
    return startedModules.count(module) != 0;
}

// Starts the entry when it is enabled, with a copy of its settings.
void startIfEnabled(modulePair& entry) {
    Module::moduleConfig settings;
    if (!enabledSettings(entry, &settings)) return;
    markStarted(entry.module, true);
    entry.module->start(std::move(settings));
}

// A refused request still tells the service where the daemon stands.
void reportStateUnchanged() {
    sp<Ivd_service> service = Ivd_service::getInterface();
    if (service == nullptr) {
        LOGE("Failed to obtain a handle on vd_service");
        return;
    }
    service->sendState(runState.load());
}

const char* stateName(int state) {
    switch (state) {
        case kStateStopped:
            return "stopped";
        case kStateRunning:
            return "running";
        default:
            return "transition";
    }
}

// QuickTap mode swaps in its prepared file before the modules start.
void reloadQuickTapConfig() {
    quickTapModeAtStart = 1;
    std::string picked = copyQuickTapConfigFilePath();
    LOGI("start()::Tw QuickTap is enabled::file to pick == %s", picked.c_str());
    std::string root = getDefaultDirectory();
    if (!root.empty()) {
        loadConfigFile(configFilePath(root).c_str());
        updateConfigDefault(1);
    }
    quickTapModeAtStart = 0;
}

}  // namespace

bool isEntryEnabled(modulePair& entry) {
    vigild::Lock lock(configMutex);
    return isModuleEnabled(entry.settings);
}

bool enabledSettings(modulePair& entry, Module::moduleConfig* copy) {
    vigild::Lock lock(configMutex);
    if (!isModuleEnabled(entry.settings)) return false;
    *copy = entry.settings;
    return true;
}

Module::moduleConfig copySettings(modulePair& entry) {
    vigild::Lock lock(configMutex);
    return entry.settings;
}

void storeChangedValues(modulePair& entry, const Module::moduleConfig& before,
                        const Module::moduleConfig& changed) {
    vigild::Lock lock(configMutex);
    std::vector<Module::config>& configs = entry.settings.configs;
    size_t n = std::min(configs.size(), std::min(before.configs.size(), changed.configs.size()));
    // addConfigInt and its kin set the default as well as the value, and a list may get
    // new options: whatever the module changed on its copy is taken back.
    for (size_t i = 0; i < n; i++) {
        const Module::config& was = before.configs[i];
        const Module::config& now = changed.configs[i];
        if (strcmp(was.value, now.value) != 0) {
            memcpy(configs[i].value, now.value, sizeof(configs[i].value));
        }
        if (strcmp(was.defaultValue, now.defaultValue) != 0) {
            memcpy(configs[i].defaultValue, now.defaultValue, sizeof(configs[i].defaultValue));
        }
        if (was.options != now.options) configs[i].options = now.options;
    }
}

void updateState(const char* state) {
    LOGD("updateState :BEGIN");
    if (strcmp(state, "stopped") == 0) {
        runState = kStateStopped;
    } else if (strcmp(state, "running") == 0) {
        runState = kStateRunning;
    } else {
        // Any other word, misspelt ones included, means "in between".
        runState = kStateTransition;
    }
    reportStateUnchanged();
    LOGD("updateState :END");
}

void start() {
    LOGD("start():BEGIN");
    vigild::Lock transition(transitionMutex);
    int state = runState.load();
    if (state == kStateRunning || state == kStateTransition) {
        LOGI("vigild is running or transitioning no need to start");
        reportStateUnchanged();
        return;
    }
    updateState("transition");
    setprop("persist.sys.vd.autostart", "true");
    if (isTwQuickTapModeEnabled()) reloadQuickTapConfig();
    for (modulePair& entry : moduleRegistry) startIfEnabled(entry);
    updateState("running");
    LOGD("start():END");
}

void stop() {
    LOGD("stop():BEGIN");
    vigild::Lock transition(transitionMutex);
    int state = runState.load();
    if (state == kStateStopped || state == kStateTransition) {
        LOGI("vigild is stopped or transitioning no need to stop");
        reportStateUnchanged();
        return;
    }
    setprop("persist.sys.vd.autostart", "false");
    updateState("transition");
    // Every module gets prestop before any gets stop, so they can wind down together.
    for (modulePair& entry : moduleRegistry) {
        if (isEntryEnabled(entry)) entry.module->prestop();
    }
    for (modulePair& entry : moduleRegistry) {
        if (isEntryEnabled(entry)) {
            entry.module->stop();
            markStarted(entry.module, false);
        }
    }
    updateState("stopped");
    LOGD("stop():END");
}

void restartModules() {
    LOGD("restartModules():BEGIN");
    vigild::Lock transition(transitionMutex);
    if (runState.load() != kStateRunning) {
        // The flags stay set: the next start uses the new settings anyway.
        LOGI("vigild is not running no need to restart modules");
        reportStateUnchanged();
        return;
    }
    updateState("transition");
    // The marks are taken once: one set by another thread from here on waits for the next
    // restart, so nothing is started that this one did not stop.
    const size_t count = moduleRegistry.size();
    std::vector<bool> marked(count), stopping(count);
    for (size_t i = 0; i < count; i++) marked[i] = moduleRegistry[i].restartNeeded.exchange(0) == 1;
    vigild::platform::syncPoint("restartModules.marksTaken");
    // A module disabled by the change is still running and needs its stop.
    for (size_t i = 0; i < count; i++) {
        modulePair& entry = moduleRegistry[i];
        stopping[i] = marked[i] && (isEntryEnabled(entry) || wasStarted(entry.module));
        if (stopping[i]) entry.module->prestop();
    }
    for (size_t i = 0; i < count; i++) {
        if (!stopping[i]) continue;
        moduleRegistry[i].module->stop();
        markStarted(moduleRegistry[i].module, false);
    }
    for (size_t i = 0; i < count; i++) {
        if (marked[i]) startIfEnabled(moduleRegistry[i]);
    }
    updateState("running");
    LOGD("restartModules():END");
}

void syncServiceState() {
    // Without a service there is nothing to agree with: -1 never matches a real state.
    int serviceState = -1;
    sp<Ivd_service> service = Ivd_service::getInterface();
    if (service != nullptr) {
        serviceState = service->getState();
    } else {
        LOGE("Failed to obtain a handle on vd_service");
    }
    service.reset();
    int state = runState.load();
    LOGD("Current vigild state is %d and service state is %d", state, serviceState);
    if (state != serviceState) {
        // The daemon's own state always wins.
        LOGE("state mismatch ");
        updateState(stateName(state));
    }
}

void systemTimeCheker() {
    vigild::platform::Clock* clock = vigild::platform::current().clock;
    time_t t1 = clock->wallTime();
    time_t t2 = clock->wallTime();
    // Only a backward jump between the two readings counts; kept that narrow on purpose.
    if (runState.load() != kStateRunning || difftime(t1, t2) <= 10.0) return;
    vigild::Lock transition(transitionMutex);
    if (runState.load() == kStateRunning) {
        LOGI("System time has changed notify the modules");
        for (modulePair& entry : moduleRegistry) {
            if (isEntryEnabled(entry)) entry.module->systemTimeChange();
        }
    }
}

bool restartModuleIfRunning(modulePair& entry) {
    vigild::Lock transition(transitionMutex);
    // A stop or a start that got here first wins: this restart then does nothing.
    if (runState.load() != kStateRunning) return false;
    entry.module->prestop();
    entry.module->stop();
    entry.module->start(copySettings(entry));
    return true;
}

namespace vigild::core::state {
vigild::Mutex startedMutex;
std::set<Module*> startedModules;
}  // namespace vigild::core::state
