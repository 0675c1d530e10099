#include "fakes/eventually.h"

#include <thread>

namespace vigild::testing {

bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

}  // namespace vigild::testing
