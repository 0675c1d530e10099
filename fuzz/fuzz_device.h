// A device for the fuzz targets: in-memory properties, a throw-away device root, a quiet log,
// a clock that never waits, canned service answers and a registry modelled on a real device
// (the two built-in modules around six library-like ones). Built once per process; reset()
// puts every value, property, flag and file back, so each input starts from the same state.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace vdfuzz {

class FuzzDevice {
  public:
    // The process-wide device; the first call builds it.
    static FuzzDevice& get();

    // Everything back to the state after start-up: settings, properties, flags, the log
    // tree below "/sdcard/" and "/storage/", the tool output and the service's presence.
    void reset();
    // Frees what the input left behind in memory (log lines, properties, the daemon's
    // per-process state). Called last in every input: libFuzzer scans the whole heap for
    // leaks after any input that allocates more than it frees, and an input whose state was
    // freed only by the next one's reset looked like that.
    void endInput();

    // Host path of the device root (no trailing "/").
    const std::string& root() const { return root_; }
    std::string hostPath(const std::string& devicePath) const { return root_ + devicePath; }

    void setProperty(const std::string& key, const std::string& value);
    std::string property(const std::string& key, const std::string& fallback = "") const;

    // Standard output of the next "/system/bin/bugreportz" run.
    void setToolOutput(std::string output);
    // Whether the companion service answers (every call then succeeds with an empty reply).
    void setServicePresent(bool present);

    // Log lines since the last reset (text only).
    const std::vector<std::string>& logLines() const;
    bool logged(const std::string& text) const;

    // Writes a file below the device root, parents created.
    void writeFile(const std::string& devicePath, const std::string& content);
    bool exists(const std::string& devicePath) const;

  private:
    FuzzDevice();
    // Settings aside: everything in memory back to the start (no file is touched).
    void resetMemory();
    std::string root_;
};

// Splits fuzz input at the first `separator` byte; the second part is empty without one.
void splitInput(const uint8_t* data, size_t size, char separator, std::string* first,
                std::string* second);

// Aborts with a message: a broken invariant is a finding.
[[noreturn]] void fail(const char* what, const std::string& detail);

}  // namespace vdfuzz
