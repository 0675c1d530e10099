// The module registry: one entry per loaded module, filled once at start-up in the order
// VigildModule, library modules by strcmp of their names, QuickTapModule. It never changes
// size afterwards, so threads may walk it without a lock.
#pragma once

#include <atomic>
#include <vector>

#include "vigild/module.h"

struct modulePair {
    // Stores the module and gives it the boolean "Enable Module" ("true"); init() is not
    // called here.
    explicit modulePair(Module* m);
    modulePair(modulePair&& other) noexcept;
    modulePair& operator=(modulePair&& other) noexcept;
    modulePair(const modulePair&) = delete;
    modulePair& operator=(const modulePair&) = delete;

    Module* module;
    Module::moduleConfig settings;
    // 1 when a configuration change needs the module restarted; set by the configuration
    // code and the file watch, consumed by restartModules on the command thread.
    std::atomic<int> restartNeeded{0};
};

extern std::vector<modulePair> moduleRegistry;
