// The service proxy's process-wide state: what has been said about reaching the service.
#pragma once

#include <chrono>
#include <mutex>

namespace vigild::service::state {

// So that an absent service costs a line and then reminders at a falling rate, not a line
// per retry.
struct Reachability {
    std::mutex mutex;
    enum { kUnknown, kConnected, kUnreachable } state = kUnknown;
    std::chrono::milliseconds unreachableFor{0};
    std::chrono::minutes nextReminder{1};
};

Reachability& reachability();

}  // namespace vigild::service::state
