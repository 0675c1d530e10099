// A bounded wait on something another process does, for tests that run real binaries.
#pragma once

#include <chrono>
#include <functional>

namespace vigild::testing {

// Polls `condition` until it holds or `timeout` of real time has passed; true when it held.
bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds timeout);

}  // namespace vigild::testing
