#include <malloc.h>
#include <unistd.h>

#include <cstdio>

#include "platform/host/host_platform.h"

namespace vigild::platform {

bool installDefault(std::string* error) {
    if (!host::installFromEnvironment(error)) return false;
#if defined(__GLIBC__)
    // One heap for every thread: the loops run one at a time and mostly sleep, and each
    // extra arena would keep its own free pages (about 0.2 MiB idle with the start-up threads').
    mallopt(M_ARENA_MAX, 1);
#endif
    // Warning priority: a misspelt variable silently falls back to its default.
    for (const std::string& line : host::unknownVariableWarnings(environ)) {
        current().log->write(5, "vigild", line.c_str());
    }
    // There is no init on the host: the daemon ends itself when asked to stop.
    host::hostProperties()->onCtlStop([](const std::string& value) {
        if (value == "vigild") {
            fflush(nullptr);
            _exit(0);
        }
    });
    return true;
}

}  // namespace vigild::platform
