#include "fakes/run_tool.h"

#include <sys/wait.h>

#include <cstdio>

namespace vigild::testing {

int runTool(const std::string& tool, const std::string& args, std::string* out) {
    FILE* f = popen((tool + " " + args + " 2>&1").c_str(), "r");
    if (f == nullptr) return -1;
    char buffer[4096];
    out->clear();
    while (size_t n = fread(buffer, 1, sizeof(buffer), f)) out->append(buffer, n);
    int status = pclose(f);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace vigild::testing
