// Why a configuration file would be rejected, and where in its text: shared by the daemon's
// explanation of a reset and by vigild-config, so both say the same thing about a file.
#pragma once

#include <string>
#include <vector>

// A rejected configuration file is kept beside it under its own name plus this, one copy,
// replaced by the next rejection.
constexpr const char* kRejectedCopySuffix = ".rejected";

struct ConfigProblem {
    int line = 0;  // 1-based; 0 when the problem has no place in the text (nothing was read)
    int column = 0;
    // Rejecting problems make the daemon reset every setting to its default; the others only
    // leave a setting as it was or let a module correct it.
    bool rejects = false;
    std::string reason;
};

// Classifies a configuration file's text against the module registry by the rules the daemon
// applies to its file (settings matched by name and type; extra entries ignored). Rejecting
// problems come first, then the others, each group in the registry's order. Reads only the
// registry's names, types and options, which never change after start-up.
std::vector<ConfigProblem> diagnoseConfigFile(const char* text);

// Where the member or element at `path` (object keys and array indexes as text) begins in a
// text Jansson accepts; its nearest parent when absent. {1, 1} for the top level.
ConfigProblem placeOf(const char* text, const std::vector<std::string>& path);

// The first rejecting problem, or null when there is none.
const ConfigProblem* firstRejection(const std::vector<ConfigProblem>& problems);

// "line L, column C: reason" (or the reason alone without a place).
std::string describeProblem(const ConfigProblem& problem);
