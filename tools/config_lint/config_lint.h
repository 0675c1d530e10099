// vigild-config: what vigild would do with a configuration file, worked out offline with the
// daemon's own registry, rebuild, validation and file code on the installed backend.
#pragma once

#include <string>
#include <vector>

namespace vdtools {

struct LintResult {
    // The file would be discarded or only partly applied (vigild resets to defaults).
    std::vector<std::string> errors;
    // vigild would ignore, keep or correct something the file says.
    std::vector<std::string> warnings;
    // What the applied file changes against the defaults.
    std::vector<std::string> changes;

    bool sound() const { return errors.empty() && warnings.empty(); }
};

// Builds the module registry from the lib_vd_* libraries of a host folder ("" for none: the
// built-in modules only) on the installed backend, whose device root must be fresh. Returns
// the loader's refusals, one line each.
std::vector<std::string> prepareRegistry(const std::string& hostModuleDir);

// Checks a configuration file's text against the registry, then applies it as the daemon
// loads its configuration file (below "/sdcard/") and reports the outcome. Changes the
// registry's values, so run it once per registry.
LintResult lintConfig(const std::string& text);

// The document a fresh device writes for the registry.
std::string defaultDocument();

}  // namespace vdtools
