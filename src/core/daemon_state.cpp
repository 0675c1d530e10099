#include "core/daemon_state.h"

std::atomic<int> runState{kStateStopped};
std::atomic<int> exitRequested{0};
std::atomic<int> quickTapModeAtStart{0};
std::string lastCommand;
