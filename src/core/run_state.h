// The run state: starting, stopping and restarting modules, and reporting the state.
#pragma once

void updateState(const char* state);
void start();
void stop();
void restartModules();
// One-shot bodies, also run by the "refresh_state" and "refresh_time" commands.
void syncServiceState();
void systemTimeCheker();
