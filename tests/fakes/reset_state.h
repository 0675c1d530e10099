// Puts the daemon's process-wide state back as a fresh process has it, for tests, fuzz
// targets and benchmarks that run many cases in one process. TestPlatform calls them all.
#pragma once

// Registry emptied, run flags cleared, nothing said about the service yet.
void resetDaemonStateForTesting();
// Forgets which modules were started.
void resetRunStateForTesting();
void resetConfigFileForTesting();
void resetConfigValidationForTesting();
void resetQuickTapForTesting();
void resetServiceReachabilityForTesting();
// The next use of the debug switches reads their properties again.
void resetDebugSwitchesForTesting();
