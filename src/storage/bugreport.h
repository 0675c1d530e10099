// Bug report capture (a worker thread driven by "persist.sys.vd.tw_bugreport") and the
// recovery log copy.
#pragma once

#include <chrono>
#include <string>

// How long a bug report tool may run before it is killed. Real reports take minutes.
constexpr std::chrono::seconds kBugreportDeadline{600};

// The archive the tool's last output chunk names: everything after its first "OK:", or ""
// (with an error line) when there is none. Nothing is trimmed here.
std::string bugreportArchivePath(const std::string& lastChunk);
// The archive's name in the log folder: "TwBugreport-" and what follows the first "bugreport-"
// of `path`, so bugreport-X.zip becomes TwBugreport-X.zip whatever folder it was in.
std::string bugreportArchiveName(const std::string& path);

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
