// One copy of a file, by vigild's copyFile or by a bare copy_file_range loop.
//   vd_bench_copy vigild <device root> <device source> <device destination>
//   vd_bench_copy range <source> <destination>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "platform/host/host_platform.h"
#include "storage/utility.h"

namespace {

int rangeCopy(const char* source, const char* destination) {
    int in = open(source, O_RDONLY | O_CLOEXEC);
    int out = open(destination, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (in < 0 || out < 0) return 1;
    while (true) {
        ssize_t n = copy_file_range(in, nullptr, out, nullptr, 1 << 30, 0);
        if (n == 0) break;
        if (n < 0) {
            perror("copy_file_range");
            return 1;
        }
    }
    close(in);
    return close(out) == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 5 && strcmp(argv[1], "vigild") == 0) {
        vigild::platform::host::installForRoot(argv[2], 1.0);
        return copyFile(argv[3], argv[4]) ? 0 : 1;
    }
    if (argc == 4 && strcmp(argv[1], "range") == 0) return rangeCopy(argv[2], argv[3]);
    fprintf(stderr, "usage: %s vigild <root> <source> <destination> | range <source> <dest>\n",
            argv[0]);
    return 2;
}
