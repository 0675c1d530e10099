#include "platform/posix_process.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

namespace vigild::platform {

Child spawnWithPipe(const char* execPath, const char* argv0) {
    Child child;
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) return child;
    pid_t pid = ::fork();
    if (pid == 0) {
        // A fork of a threaded process: only async-signal-safe calls until exec. Its own
        // process group, so whatever the tool starts can be ended with it.
        ::setpgid(0, 0);
        ::dup2(fds[1], STDOUT_FILENO);
        ::dup2(fds[1], STDERR_FILENO);
        ::execl(execPath, argv0, static_cast<char*>(nullptr));
        ::_exit(1);
    }
    ::close(fds[1]);
    if (pid < 0) {
        ::close(fds[0]);
        return child;
    }
    // Also here: a kill of the group right after the fork must not miss it.
    ::setpgid(pid, pid);
    child.pid = pid;
    child.outputFd = fds[0];
    return child;
}

pid_t waitForChild(pid_t pid, int* status, int options) {
    pid_t r;
    do {
        r = ::waitpid(pid, status, options);
    } while (r < 0 && errno == EINTR);
    return r;
}

} // namespace vigild::platform
