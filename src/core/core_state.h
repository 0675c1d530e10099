// The core's process-wide state that outlives a call, beside daemon_state.h's flags.
#pragma once

#include <atomic>
#include <set>

#include "core/thread_annotations.h"
#include "vigild/module.h"

class debugSingleton;

namespace vigild::core::state {

// Modules that were started and not stopped since (run_state.cpp). Leaf lock.
extern vigild::Mutex startedMutex;
extern std::set<Module*> startedModules GUARDED_BY(startedMutex);

// The debug switches, read once (debug_singleton.cpp); debugReady is the lock-free fast path.
extern vigild::Mutex debugMutex;
extern debugSingleton* debugInstance GUARDED_BY(debugMutex);
extern std::atomic<debugSingleton*> debugReady;

}  // namespace vigild::core::state
