// Bug report capture (a worker thread driven by "persist.sys.vd.tw_bugreport") and the
// recovery log copy.
#pragma once

#include <chrono>

// How long a bug report tool may run before it is killed. Real reports take minutes.
constexpr std::chrono::seconds kBugreportDeadline{600};

// Thread body: polls the property every 30 seconds until exitRequested is set.
void generateBugreport();
// "recovery_copy": starts an enabled "RecoveryModule" again while running.
void copyRecoveryLogs();
