// The run state: starting, stopping and restarting modules, and reporting the state.
//
// start/stop run on the command thread (and on the main thread for the auto-start);
// restartModules on whichever thread changed the configuration; the end-of-file restart on
// its monitor. Every transition holds one transition lock from its state check to its last
// report, so they never interleave; runState stays an atomic for readers.
#pragma once

#include "config/document.h"
#include "core/module_registry.h"

void updateState(const char* state);
void start();
void stop();
void restartModules();
// One-shot bodies, also run by the "refresh_state" and "refresh_time" commands.
void syncServiceState();
void systemTimeCheker();

// The enabled test of an entry, and a copy of its settings for the module's start, taken
// together under configMutex: another thread may be changing them. Never call with it held.
bool isEntryEnabled(modulePair& entry) EXCLUDES(configMutex);
bool enabledSettings(modulePair& entry, Module::moduleConfig* copy) EXCLUDES(configMutex);
// A copy of the entry's settings, whatever they say.
Module::moduleConfig copySettings(modulePair& entry) EXCLUDES(configMutex);
// Writes back under configMutex the values of `changed` that differ from `before`, both
// copies taken with copySettings, so work on the copy can call out without the lock.
void storeChangedValues(modulePair& entry, const Module::moduleConfig& before,
                        const Module::moduleConfig& changed) EXCLUDES(configMutex);

// The end-of-file restart of one module (prestop, stop, start with a copy of its settings),
// as one transition; does nothing and returns false unless the daemon is running.
bool restartModuleIfRunning(modulePair& entry);
