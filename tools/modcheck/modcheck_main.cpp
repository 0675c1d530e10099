// vigild-modcheck LIBRARY...: would vigild load these module libraries, and would their
// settings keep the configuration sound? One line per finding; exit status 0 only when every
// library is sound, 1 when one is not, 2 on a usage error.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "modcheck/modcheck.h"
#include "modcheck/scratch_device.h"
#include "vigild_version.h"

namespace {

void say(const std::string& library, const std::string& text) {
    printf("%s: %s\n", library.c_str(), text.c_str());
    fflush(stdout);
}

// Runs in a child of its own, so a library that crashes or aborts in its constructors or
// init() (as the daemon would) is reported instead of ending the checker.
int checkInChild(const std::string& library, const vdtools::ScratchDevice& device, bool verbose) {
    device.install();
    vdtools::ModuleReport report;
    {
        vdtools::LogCapture capture(verbose);
        report = vdtools::checkModuleLibrary(library);
    }
    say(library, std::string("checked: ") + vdtools::kChecksMade);
    std::vector<std::string> findings = report.faults;
    findings.insert(findings.end(), report.objections.begin(), report.objections.end());
    for (const std::string& finding : findings) {
        say(library, "FAIL: " + finding);
        if (std::string fix = vdtools::fixFor(finding); !fix.empty()) say(library, "  fix: " + fix);
    }
    if (report.sound()) {
        say(library, "OK: module \"" + report.name + "\" version " + report.version + ", " +
                         std::to_string(report.settingCount) + " settings");
    }
    return report.sound() ? 0 : 1;
}

int check(const std::string& library, bool verbose) {
    if (access(library.c_str(), R_OK) != 0) {
        say(library, std::string("cannot be read: ") + strerror(errno));
        return 1;
    }
    vdtools::ScratchDevice device;
    if (!device.ok()) {
        say(library, std::string("no scratch device root: ") + strerror(errno));
        return 1;
    }
    fflush(stdout);
    pid_t pid = fork();
    if (pid < 0) {
        say(library, std::string("fork failed: ") + strerror(errno));
        return 1;
    }
    if (pid == 0) _exit(checkInChild(library, device, verbose));
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFSIGNALED(status)) {
        int sig = WTERMSIG(status);
        std::string line = "the daemon would die loading or initialising it: signal " +
                           std::to_string(sig) + " (" + strsignal(sig) + ")";
        if (sig == SIGABRT) {
            line += "; a value of 256 bytes or more given to an add helper aborts";
        }
        say(library, "FAIL: " + line);
        say(library,
            "  fix: run the module's constructors and init() under a debugger; no "
            "value given to an add helper may reach 256 bytes");
        return 1;
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"Loads vigild module libraries as the daemon does and reports what is wrong"};
    std::vector<std::string> libraries;
    bool verbose = false;
    app.add_option("LIBRARY", libraries, "module libraries (lib_vd_<name>.so)")->required();
    app.add_flag("-v,--verbose", verbose, "also show the daemon's own log lines");
    app.set_version_flag("--version", std::string("vigild-modcheck ") + VIGILD_VERSION);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        int rc = app.exit(e);
        return rc == 0 ? 0 : 2;
    }
    int status = 0;
    for (const std::string& library : libraries) {
        if (check(library, verbose) != 0) status = 1;
    }
    return status;
}
