// Puts the daemon's process-wide state back as a fresh process has it, for tests, fuzz
// targets and benchmarks that run many cases in one process. TestPlatform calls both.
#pragma once

// Registry emptied, run flags cleared, no module started, nothing said about the service yet,
// and the settings' own state as below.
void resetDaemonStateForTesting();
// The path-change and snoop-change flags cleared, the QuickTap table dropped.
void resetSettingsStateForTesting();
// The next use of the debug switches reads their properties again.
void resetDebugSwitchesForTesting();
