// Makes a log tree for the deletion run: <top>/dNNNN/logNNNNNN.txt, `folders` folders with
// `files` files in all, each file `bytes` long.
//   vd_bench_tree <top> <files> <folders> <bytes>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

int main(int argc, char** argv) {
    if (argc != 5) {
        fprintf(stderr, "usage: %s <top> <files> <folders> <bytes>\n", argv[0]);
        return 2;
    }
    const std::string top = argv[1];
    const long files = atol(argv[2]);
    const long folders = atol(argv[3]);
    const long bytes = atol(argv[4]);
    if (files < 0 || folders < 1 || bytes < 0 || bytes > 65536) return 2;
    if (mkdir(top.c_str(), 0777) != 0) {
        perror(top.c_str());
        return 1;
    }
    int topFd = open(top.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (topFd < 0) return 1;
    std::string content(static_cast<size_t>(bytes), 'x');
    for (size_t i = 0; i < content.size(); i += 64) content[i] = '\n';
    long made = 0;
    for (long d = 0; d < folders; d++) {
        char name[64];
        snprintf(name, sizeof(name), "d%04ld", d);
        if (mkdirat(topFd, name, 0777) != 0) return 1;
        int dirFd = openat(topFd, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (dirFd < 0) return 1;
        long share = files / folders + (d < files % folders ? 1 : 0);
        for (long f = 0; f < share; f++, made++) {
            snprintf(name, sizeof(name), "log%06ld.txt", made);
            int fd = openat(dirFd, name, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
            if (fd < 0) return 1;
            if (!content.empty() &&
                write(fd, content.data(), content.size()) != static_cast<ssize_t>(content.size())) {
                return 1;
            }
            close(fd);
        }
        close(dirFd);
    }
    close(topFd);
    printf("{\"files\": %ld, \"folders\": %ld}\n", made, folders);
    return 0;
}
