// Runs deleteTwLogs once on a host device root whose "/sdcard/Tellwick/" holds a log tree.
// No service is reachable, so the delete type is 0 (everything). The walk is bracketed by
// two marker calls, faccessat of "/vdbench-walk-begin" and "/vdbench-walk-end", so a system
// call trace can count only the walk.
//   vd_bench_delete <device root>
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <string>

#include "platform/host/host_platform.h"
#include "storage/log_deletion.h"
#include "storage/storage_root.h"

int main(int argc, char** argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: %s <device root>\n", argv[0]);
        return 2;
    }
    vigild::platform::host::installForRoot(argv[1], 1.0);
    // Settle the storage root first: on a fresh root this is a one-time choice, not the walk.
    getDefaultDirectory();
    faccessat(AT_FDCWD, "/vdbench-walk-begin", F_OK, 0);
    auto start = std::chrono::steady_clock::now();
    deleteTwLogs();
    auto end = std::chrono::steady_clock::now();
    faccessat(AT_FDCWD, "/vdbench-walk-end", F_OK, 0);
    printf("{\"seconds\": %.6f}\n", std::chrono::duration<double>(end - start).count());
    return 0;
}
