// What the offline tools need to run the daemon's own code without a daemon: a throw-away
// device root with the host backend over it, module libraries placed where the loader looks,
// and the daemon's log lines captured instead of written.
#pragma once

#include <string>
#include <vector>

#include "platform/platform.h"

namespace vdtools {

struct CapturedLine {
    int priority;
    std::string text;
};

// Takes the log sink of the installed backend for as long as it lives; lines are kept and,
// when `forward` is set, also passed on to the sink it replaced. Install-time only: no
// daemon thread may be logging while one is made or destroyed.
class LogCapture : public vigild::platform::LogSink {
  public:
    explicit LogCapture(bool forward);
    ~LogCapture() override;
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    void write(int priority, const char* tag, const char* text) override;
    const std::vector<CapturedLine>& lines() const { return lines_; }
    // Lines written since `from`, at error level or above.
    std::vector<std::string> errorsSince(size_t from) const;

  private:
    vigild::platform::LogSink* previous_;
    bool forward_;
    std::vector<CapturedLine> lines_;
};

// A fresh device root under /tmp, removed again on destruction. install() puts the host
// backend over it (real time: the tools never wait on purpose).
class ScratchDevice {
  public:
    ScratchDevice();
    ~ScratchDevice();
    ScratchDevice(const ScratchDevice&) = delete;
    ScratchDevice& operator=(const ScratchDevice&) = delete;

    bool ok() const { return !root_.empty(); }
    const std::string& root() const { return root_; }
    void install() const;

  private:
    std::string root_;
};

// Creates a device folder and its parents through the installed backend.
bool makeDeviceDirs(const std::string& devicePath);
// Copies a host file to a device path (the copy gets a fresh inode, so the dynamic loader
// never hands back a library it loaded earlier from the same file). false on failure.
bool copyToDevice(const std::string& hostFile, const std::string& devicePath);
// The lib_vd_* files of a host folder, sorted; other files are left out.
std::vector<std::string> moduleLibrariesIn(const std::string& hostFolder);

}  // namespace vdtools
