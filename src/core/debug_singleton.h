// The process-wide debug switches, read once from their properties on first use.
#pragma once

#include <atomic>

class debugSingleton {
public:
    static debugSingleton& getInstance();

    // Gates every debug-level line; read from "persist.sys.vd.debug_log" once per process.
    std::atomic<bool> debugLog{false};
    // Internal storage only; written by the daemon's own module when its setting changes.
    std::atomic<bool> internalSd{false};

private:
    debugSingleton();
};
