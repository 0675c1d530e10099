// Child process plumbing shared by the backends: the same fork and exec on a device and on a
// host; only the path handed to exec differs.
#pragma once

#include <sys/types.h>

#include "platform/platform.h"

namespace vigild::platform {

// pipe + fork + exec of `execPath` with `argv0` as argument zero, stdout and stderr on the
// pipe. A failed pipe gives no child; a failed fork gives pid -1 and a closed pipe.
Child spawnWithPipe(const char* execPath, const char* argv0);
// waitpid, retried on EINTR.
pid_t waitForChild(pid_t pid, int* status, int options);

} // namespace vigild::platform
