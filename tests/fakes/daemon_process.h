// The real vigild binary run against a temporary device root, for the end-to-end and soak
// tests. Time is scaled down; the companion service is the tests' own stand-in.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

#include "fakes/test_platform.h"
#include "standin/standin_service.h"

namespace vigild::testing {

class DaemonProcess : public TempRoot {
  public:
    // `binary` is the vigild executable to run.
    explicit DaemonProcess(std::string binary);
    // Kills the daemon; the root goes after.
    ~DaemonProcess() { kill(); }

    // Makes the root "<prefix>.XXXXXX" with /sdcard, /system/lib64 and a property store in
    // which the storage root is already "/sdcard/", as after an earlier boot. False when the
    // folder cannot be made.
    bool makeRoot(const std::string& prefix);

    // Copies a built module library into /system/lib64.
    void installModule(const std::string& library);
    // Puts a shell script with `body` in place of /system/bin/bugreportz, in one rename, so
    // a run of the old one is never cut off mid-write.
    void writeBugreportTool(const std::string& body);

    // Starts the daemon with VIGILD_ROOT and VIGILD_TIME_SCALE=0.01 (other VIGILD_ variables
    // of this process are left out) plus `extraEnv`; its stderr goes to <root>/vigild.stderr.
    bool launch(const std::vector<std::string>& extraEnv = {});
    pid_t pid() const { return pid_; }
    // Starts `argv` (no shell) with the environment of launch(), stdout and stderr appended
    // to the device files `out` ("": this process's) and `err`; its pid, -1 on failure.
    pid_t spawn(const std::vector<std::string>& argv, const std::string& out,
                const std::string& err, const std::vector<std::string>& extraEnv = {});
    // SIGTERM, then its exit status (128 + the signal when one ended it; -1 for no pid).
    static int terminate(pid_t pid);
    // False once the daemon has exited (it is then reaped).
    bool alive();
    // SIGKILL and reap; nothing when no daemon runs.
    void kill();

  private:
    std::string binary_;
    pid_t pid_ = -1;
};

// Sends "config_get:" and returns the document the daemon answers with ("" when none came
// within `timeout`, which also fails the test).
std::string fetchConfig(vdstandin::StandinService& service, std::chrono::milliseconds timeout);

// `document` with the setting `name` of module `module` set to `value`.
std::string withSetting(const std::string& document, const char* module, const char* name,
                        const char* value);

}  // namespace vigild::testing
