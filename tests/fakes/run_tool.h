// Runs a built tool binary the way a user would, for the tests of the offline tools.
#pragma once

#include <string>

namespace vigild::testing {

// Runs `tool args` through the shell with stderr joined to stdout; `out` receives all of it.
// Returns the exit status, or -1 when the tool could not be started or died of a signal.
int runTool(const std::string& tool, const std::string& args, std::string* out);

}  // namespace vigild::testing
