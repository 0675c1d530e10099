#include "core/vigild.h"

#include <cstdio>

#include "platform/platform.h"

int vigildMain() {
    std::string error;
    if (!vigild::platform::installDefault(&error)) {
        fprintf(stderr, "%s\n", error.c_str());
        return 2;
    }
    return 0;
}
