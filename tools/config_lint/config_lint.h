// vigild-config: what vigild would do with a configuration file, worked out offline with the
// daemon's own registry, diagnosis, rebuild and file code on the installed backend.
#pragma once

#include <string>
#include <vector>

namespace vdtools {

// One finding, at a place in the file (line 0 when it has none).
struct LintFinding {
    int line = 0;
    int column = 0;
    std::string text;

    bool operator==(const LintFinding&) const = default;
};

struct LintResult {
    // What makes vigild refuse the file and reset every setting to its default.
    std::vector<LintFinding> errors;
    // What vigild would ignore, keep, correct, or what a module's configVal objects to.
    std::vector<LintFinding> warnings;
    // What the applied file changes against the defaults.
    std::vector<std::string> changes;
    // One sentence: what vigild would do with the file (apply, correct, reset).
    std::string verdict;

    bool sound() const { return errors.empty() && warnings.empty(); }
};

// Builds the module registry from the lib_vd_* libraries of a host folder ("" for none: the
// built-in modules only) on the installed backend, whose device root must be fresh. Returns
// the loader's refusals, one line each.
std::vector<std::string> prepareRegistry(const std::string& hostModuleDir);

// Diagnoses a configuration file's text against the registry, then loads it as the daemon
// loads its configuration file (below "/sdcard/" of the scratch root), runs every module's
// configVal on the result and reports the outcome. Changes the registry's values, so run it
// once per registry.
LintResult lintConfig(const std::string& text);

// The document a fresh device writes for the registry.
std::string defaultDocument();

}  // namespace vdtools
