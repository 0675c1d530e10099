// Process-wide state of the daemon core, kept in one place.
#pragma once

#include <atomic>
#include <string>

// Run state codes, as sent to the companion service.
constexpr int kStateStopped = 0;
constexpr int kStateRunning = 1;
constexpr int kStateTransition = 2;

// 0 stopped, 1 running, 2 transition. Changed by the run-state control without a lock.
extern std::atomic<int> runState;
// The looping threads end when this is non-zero; nothing in the daemon sets it.
extern std::atomic<int> exitRequested;
// 1 only while start() reloads the configuration for QuickTap mode.
extern std::atomic<int> quickTapModeAtStart;
// The most recent command text (command thread only).
extern std::string lastCommand;
