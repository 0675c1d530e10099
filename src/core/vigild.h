// Start-up of the daemon.
#pragma once

#include <functional>
#include <string>
#include <thread>

// The daemon's whole life: storage wait, registry, configuration, threads.
int vigildMain();
// Creates `path` (40 tries, 5 seconds apart): 0 when it exists or was made, 1 otherwise.
int duringBootCheckFileSystemAvailability(std::string path);

// Waits for a storage root: up to 121 calls of `lookup`, 5 seconds apart. False when none
// came; "setprop ctl.stop vigild" has then been run and the caller must exit(0).
bool waitForStorage(const std::function<std::string()>& lookup);

// Every thread main starts, named after its body.
struct DaemonThreads {
    std::thread systemTimeCheker;
    std::thread syncServiceState;
    std::thread monitorEOF;
    std::thread watchConfig;
    std::thread watchConfigFileChange;
    std::thread generateBugreport;
    std::thread messageHandler;
};

// Results of bootDaemon.
constexpr int kBootReady = 0;
constexpr int kBootNoLibraryFolder = 1;  // nothing started: main returns 1
constexpr int kBootNoStorage = -1;       // ctl.stop requested: main exits with 0

// Start-up up to the long-running threads: boot folder, storage wait, registry, the
// one-shot threads and the end-of-file monitor, configuration, auto-start. The one-shot
// threads are joined on return; `monitorEOF` is left running.
int bootDaemon(DaemonThreads& threads);
// The one info line that says what this start-up came to: version, device root, storage root
// and layout, the modules loaded and the libraries skipped, where the service is looked for.
void logStartupSummary(const std::string& storageRoot);
// Starts the file watch, the bug report worker and the command loop, and joins them all.
void runDaemon(DaemonThreads& threads);
