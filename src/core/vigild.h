// Start-up of the daemon.
#pragma once

#include <string>

// The daemon's whole life: storage wait, registry, configuration, threads.
int vigildMain();
// Creates `path` (40 tries, 5 seconds apart): 0 when it exists or was made, 1 otherwise.
int duringBootCheckFileSystemAvailability(std::string path);
