// An in-process backend for the benchmarks: a temporary device root with the host file
// system, properties in memory, no log output, sleeps that return at once and no service
// manager, so a measurement sees the daemon's own work and nothing of the test fakes.
#pragma once

#include <memory>
#include <string>

#include "fakes/reset_state.h"

namespace vdbench {

class BenchPlatform {
  public:
    // Creates a fresh device root under /tmp with "/sdcard/Tellwick/" and installs itself.
    BenchPlatform();
    // Removes the device root.
    ~BenchPlatform();
    BenchPlatform(const BenchPlatform&) = delete;
    BenchPlatform& operator=(const BenchPlatform&) = delete;

    const std::string& root() const { return root_; }

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
    std::string root_;
};

}  // namespace vdbench
