#include <cstdio>
#include <cstring>

#include "core/vigild.h"
#include "vigild_version.h"

// vigild is configured by properties and its configuration file; the only arguments are the
// two every installed program answers, and neither starts the daemon.
int main(int argc, char** argv) {
    if (argc > 1 && strcmp(argv[1], "--version") == 0) {
        printf("vigild %s\n", VIGILD_VERSION);
        return 0;
    }
    if (argc > 1 && (strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0)) {
        printf(
            "Usage: vigild\n"
            "The logging suite's daemon; init starts it. Configured by persist.sys.vd.* "
            "properties and Tellwick/config.json.\n"
            "On a host: VIGILD_ROOT (device root folder, required), VIGILD_TIME_SCALE "
            "(factor on every wait, default 1).\n"
            "  --help     this text\n"
            "  --version  print \"vigild %s\"\n",
            VIGILD_VERSION);
        return 0;
    }
    return vigildMain();
}
