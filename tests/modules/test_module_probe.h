// Test module libraries and the probe that lets tests watch them.
//
// Every lib_vd_*.so of this folder is built from test_module.cpp; its knobs are compile
// definitions (see CMakeLists.txt):
//
//   VDTEST_NAME        getName()                      (VDTEST_NULL_NAME: returns null)
//   VDTEST_VERSION     getVersion()                   (VDTEST_NULL_VERSION: returns null)
//   VDTEST_SHOULD_LOAD shouldLoad() result, 0 = load
//   VDTEST_SETTINGS    what init() adds: 0 nothing, 1 every type, 2 the LTS setting, 3 the
//                      checker's sound layout, with one fault per VDBROKEN_* switch
//   VDTEST_NO_ENTRY    no "getModule" is exported
//   VDTEST_BLOCK_START start() never returns (lib_vd_blockstart.so, in faults/)
//   VDTEST_ALONE       the probe lives in the module: for libraries loaded by a process
//                      without the probe library (broken/ and faults/)
//
// The libraries, by file name (name, version):
//
//   lib_vd_alpha.so        "B", "14.0.0.1"
//   lib_vd_beta.so         "A", "14.0.3.1"
//   lib_vd_zzz.so          "ZZZ", "14.0.0.2"
//   lib_vd_new.so          "New", "14.0.99.7"
//   lib_vd_old.so          "Old", "14.0" (refused)
//   lib_vd_wrong.so        "Wrong", "114.0.1" (refused)
//   lib_vd_skip.so         "Skip", shouldLoad() 1
//   lib_vd_noentry.so      no getModule
//   lib_vd_nullname.so     getName() null
//   lib_vd_nullversion.so  getVersion() null
//   lib_vd_lts.so       "LTSModule": int "LTS Days" = "7"
//   lib_vd_settings.so  "SettingsModule" with every type (VDTEST_SETTINGS 1):
//                         int "Buffer Size (KB)" = "256"
//                         boolean "Verbose" = "false"
//                         list "Level" = "0", options "low", "medium", "high"
//                         string "Log Path" = "/sdcard/Tellwick/settings/"
//   libvd_x.so, lib_VD_x.so  valid modules named "Ignored" whose names the loader must skip
//
// configVal() of every test module objects to an int set to "0" with the pair (setting name,
// "<name> must be positive").
//
// Every test module registers a Probe when getModule() is first called. The probe library
// (libvd_test_probe.so, linked by the modules and by every test) holds the probes and one
// journal of init() calls across all modules, so tests can check their order: "A:init", ...
//
// Each test copies the libraries it wants into its own device root (installTestModule), so
// every test gets fresh module objects even though libraries are never closed.
#pragma once

#include <atomic>
#include <string>
#include <vector>

#include "vigild/module.h"

namespace vdtest {

class Probe {
  public:
    explicit Probe(Module* m) : module(m) {}

    Module* const module;
    std::atomic<int> inits{0};
};

// --- in libvd_test_probe.so ---

// Creates the probe of a module object (once, from its constructor).
Probe* registerProbe(Module* m);
// The most recently registered probe of a module with this name, or null.
Probe* probeNamed(const std::string& name);
// Appends to the journal.
void recordEvent(const char* module, const char* what);
// The journal as "module:what" strings, oldest first; `what` filters when not empty.
std::vector<std::string> eventNames(const std::string& what = "");
void clearEvents();

}  // namespace vdtest

#ifdef VIGILD_TEST_MODULE_DIR
#include <filesystem>

namespace vdtest {

// Copies test module `file` (as built in VIGILD_TEST_MODULE_DIR) into
// <hostRoot>/system/lib64/ under `as` (default: the same name). False when it fails.
inline bool installTestModule(const std::string& hostRoot, const std::string& file,
                              const std::string& as = "") {
    namespace stdfs = std::filesystem;
    std::error_code ec;
    stdfs::path folder = stdfs::path(hostRoot) / "system/lib64";
    stdfs::create_directories(folder, ec);
    // A relative folder is beside the test binary: where a device test's data libraries land.
    stdfs::path from(VIGILD_TEST_MODULE_DIR);
    if (from.is_relative()) from = stdfs::read_symlink("/proc/self/exe", ec).parent_path() / from;
    stdfs::copy_file(from / file, folder / (as.empty() ? file : as),
                     stdfs::copy_options::overwrite_existing, ec);
    return !ec;
}

inline bool installTestModules(const std::string& hostRoot, const std::vector<std::string>& files) {
    for (const std::string& f : files) {
        if (!installTestModule(hostRoot, f)) return false;
    }
    return true;
}

}  // namespace vdtest
#endif
