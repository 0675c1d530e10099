// A module whose start() never returns, to see what of the daemon still works while one
// module hangs. Everything else returns at once. It writes a marker file (path in the
// environment variable VDTEST_BLOCK_MARKER, when set) when start() is entered.
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "vigild/module.h"

namespace {

class BlockingStartModule : public Module {
  public:
    int shouldLoad() override { return 0; }
    int init(moduleConfig&) override { return 0; }
    int start(moduleConfig) override {
        if (const char* marker = getenv("VDTEST_BLOCK_MARKER")) {
            int fd = open(marker, O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
            if (fd >= 0) close(fd);
        }
        // Hangs as a module stuck in a driver call would; only a signal ends it.
        for (;;) pause();
    }
    int systemTimeChange() override { return 0; }
    int prestop() override { return 0; }
    int stop() override { return 0; }
    const char* getName() override { return "BlockingStartModule"; }
    const char* getVersion() override { return "14.0.0.1"; }
    int configVal(moduleConfig&, std::vector<std::string>&) override { return 0; }
    int logcatEOFStatus() override { return 0; }
};

}  // namespace

extern "C" __attribute__((visibility("default"))) Module* getModule() {
    static BlockingStartModule* module = new BlockingStartModule;
    return module;
}
