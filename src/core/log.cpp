#include "core/log.h"

#include <cstdarg>
#include <cstdio>
#include <vector>

#include "core/debug_singleton.h"
#include "platform/platform.h"

void vdLog(int priority, const char* format, ...) {
    if (priority <= kLogDebug && !debugSingleton::getInstance().debugLog) return;
    char line[1024];
    va_list args;
    va_start(args, format);
    int n = vsnprintf(line, sizeof(line), format, args);
    va_end(args);
    if (n >= static_cast<int>(sizeof(line))) {
        // Long lines (a whole configuration document, say) are written whole.
        std::vector<char> big(static_cast<size_t>(n) + 1);
        va_start(args, format);
        vsnprintf(big.data(), big.size(), format, args);
        va_end(args);
        vigild::platform::current().log->write(priority, "vigild", big.data());
        return;
    }
    vigild::platform::current().log->write(priority, "vigild", n < 0 ? format : line);
}
