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

// Results of one bug report pass.
constexpr int kBugreportDone = 0;       // reported to the service, property cleared
constexpr int kBugreportNoService = 1;  // nothing reported, property left: poll again at once
constexpr int kBugreportNoPipe = -1;    // no pipe: the worker gives up for good
// One request: runs the tool (killed after `deadline` of platform time), files its archive
// under "TwBugreport-", reports to the service, clears the property and reaps the child.
int bugreportPass(std::chrono::milliseconds deadline = kBugreportDeadline);
