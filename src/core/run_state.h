// The run state: starting, stopping and restarting modules, and reporting the state.
//
// start/stop run on the command thread (and on the main thread for the auto-start);
// restartModules on whichever thread changed the configuration. None takes a lock.
#pragma once

void updateState(const char* state);
void start();
void stop();
void restartModules();
// One-shot bodies, also run by the "refresh_state" and "refresh_time" commands.
void syncServiceState();
void systemTimeCheker();

// Forgets which modules were started (tests).
void resetRunStateForTesting();
