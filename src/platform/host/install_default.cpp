#include <unistd.h>

#include <cstdio>

#include "platform/host/host_platform.h"

namespace vigild::platform {

bool installDefault(std::string* error) {
    if (!host::installFromEnvironment(error)) return false;
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
