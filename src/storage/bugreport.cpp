#include "storage/bugreport.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "core/daemon_state.h"
#include "core/log.h"
#include "core/module_registry.h"
#include "core/run_state.h"
#include "platform/fs.h"
#include "platform/platform.h"
#include "service/ivd_service.h"
#include "storage/storage_root.h"
#include "storage/tree.h"
#include "storage/utility.h"

namespace {

constexpr const char* kBugreportTool = "/system/bin/bugreportz";
constexpr std::chrono::seconds kPropertyPoll{30};
// Output is read in chunks of this size; only the last chunk is looked at.
constexpr size_t kChunkSize = 4095;
// Pause between looks at a silent tool, in platform time (scaled like every other wait).
constexpr std::chrono::seconds kDeadlineStep{1};

// Reads the tool's output to the end of stream and keeps the last chunk. Gives up (and sets
// `timedOut`) when the stream is still open after `deadline` of platform time.
std::string readLastChunk(int fd, std::chrono::milliseconds deadline, bool* timedOut) {
    *timedOut = false;
    int flags = fcntl(fd, F_GETFL);
    if (flags >= 0) fcntl(fd, F_SETFL, flags | O_NONBLOCK);
    std::string kept;
    char buffer[kChunkSize + 1];
    std::chrono::milliseconds waited{0};
    for (;;) {
        ssize_t n = read(fd, buffer, kChunkSize);
        if (n > 0) {
            buffer[n] = '\0';
            kept = buffer;
            continue;
        }
        if (n == 0) break;
        if (errno == EINTR) continue;
        if (errno != EAGAIN && errno != EWOULDBLOCK) break;
        if (waited >= deadline) {
            *timedOut = true;
            break;
        }
        // The platform clock paces the wait, so a hung tool costs device time, not real time.
        vigild::platform::current().clock->sleepFor(kDeadlineStep);
        waited += kDeadlineStep;
    }
    return kept;
}

// How long a tool that closed its output may take to exit before its group is killed.
constexpr std::chrono::seconds kExitGrace{30};

// Waits for the tool, at most kExitGrace of platform time, then ends its whole group;
// `report` logs how it ended. One that was `killed` already is waited for at once: SIGKILL
// cannot be refused.
void reapChild(pid_t pid, bool report, bool killed) {
    vigild::platform::Processes* processes = vigild::platform::current().processes;
    int status = 0;
    pid_t reaped = processes->wait(pid, &status, killed ? 0 : WNOHANG);
    for (auto waited = std::chrono::seconds{0}; reaped == 0 && waited < kExitGrace;
         waited += kDeadlineStep) {
        vigild::platform::current().clock->sleepFor(kDeadlineStep);
        reaped = processes->wait(pid, &status, WNOHANG);
    }
    if (reaped == 0) {
        LOGE("Tw Bugreport::bugreportz closed its output but did not exit, killing it");
        processes->kill(-pid, SIGKILL);
        reaped = processes->wait(pid, &status, 0);
    }
    if (reaped != pid || !report) return;
    if (!WIFEXITED(status)) {
        LOGE("bugreportz did not exit normally");
        if (WIFSIGNALED(status)) {
            LOGE("Tw Bugreport: bugreportz was ended by signal %d (%s)", WTERMSIG(status),
                 strsignal(WTERMSIG(status)));
        }
    } else {
        // The line above is at error priority whatever the status; this one says which it was.
        LOGE("bugreportz exited with status: status == %d", WEXITSTATUS(status));
        if (WEXITSTATUS(status) == 0) {
            LOGI("Tw Bugreport: bugreportz finished normally");
        } else {
            LOGE("Tw Bugreport: bugreportz failed with exit status %d", WEXITSTATUS(status));
        }
    }
}

// The tool's word is trusted no further than an archive: a regular file named by an absolute
// path without "..". A link, a folder or a climb out would be copied from places apps must not
// read and then removed.
bool isToolArchive(const std::string& source) {
    if (source.empty() || source.front() != '/' ||
        ("/" + source + "/").find("/../") != std::string::npos) {
        errno = EINVAL;
        return false;
    }
    struct stat st;
    if (vigild::fs::lstat(source.c_str(), &st) != 0) return false;
    if (!S_ISREG(st.st_mode)) {
        errno = EINVAL;
        return false;
    }
    return true;
}

// The tool's own folder may be a link the system made; below a storage root nothing is.
int removeArchive(const std::string& source) {
    if (startsWithSdcardOrStorage(source)) return vigild::storage::Entry(source).remove();
    return vigild::fs::unlink(source.c_str());
}

// Moves the archive into the log folder and tells the service how that went.
void fileArchive(const std::string& path, Ivd_service& service) {
    std::string root = getDefaultDirectory();
    std::string name = bugreportArchiveName(path);
    std::string destination =
        root + (isTellwickSecureModeEnabled() ? kSecureLogFolder : kTellwickFolder) + name;
    std::string source = trim(path);
    if (!isToolArchive(source)) {
        // Reported as the copy would have: its source could not be opened, the copy and the
        // deletion failed; nothing is touched.
        int error = errno;
        LOGE("Error: Could not open source file: error == %s ", strerror(error));
        LOGE("Tw Bugreport::File copied failed");
        service.updateTwBugreportStatus(false);
        LOGE("Tw Bugreport::File deletion failed from src path ==  %s", strerror(error));
        return;
    }
    if (copyFile(source, trim(destination))) {
        LOGI("Tw Bugreport::File copied successfully at destination");
        LOGI("Tw Bugreport: report saved as %s", trim(destination).c_str());
        service.updateTwBugreportStatus(true);
    } else {
        LOGE("Tw Bugreport::File copied failed");
        service.updateTwBugreportStatus(false);
    }
    // The source goes whether or not the copy worked: bug reports are large.
    // unlink, not remove: a link put in its place goes as a link, a folder stays.
    if (removeArchive(source) == 0) {
        LOGI("Tw Bugreport::File deleted successfully from src path");
    } else {
        LOGE("Tw Bugreport::File deletion failed from src path ==  %s", strerror(errno));
    }
}

}  // namespace

// The last non-empty line of the tool's output, for the reason of a failure.
static std::string lastLine(std::string text) {
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
    return text.substr(text.find_last_of('\n') + 1);
}

std::string bugreportArchivePath(const std::string& lastChunk) {
    return truncateFromSubstring(lastChunk, "OK:");
}

std::string bugreportArchiveName(const std::string& path) {
    return "TwBugreport-" + truncateFromSubstring(path, "bugreport-");
}

int bugreportPass(std::chrono::milliseconds deadline) {
    vigild::platform::Processes* processes = vigild::platform::current().processes;
    vigild::platform::Child child = processes->spawn(kBugreportTool);
    if (child.outputFd < 0) {
        LOGE("Pipe failed");
        return kBugreportNoPipe;
    }
    // Logged by the parent, in the child's place: the child of a threaded process must not log.
    LOGD("inside child process");
    if (child.pid < 0) LOGE("Fork failed");
    LOGD("inside parent process");
    bool timedOut = false;
    std::string output = readLastChunk(child.outputFd, deadline, &timedOut);
    close(child.outputFd);
    if (timedOut && child.pid > 0) {
        LOGE("Tw Bugreport::bugreportz did not finish in time, killing it");
        // The group: what the tool started goes with it.
        processes->kill(-child.pid, SIGKILL);
        output.clear();
    }

    std::string path = bugreportArchivePath(output);
    LOGD("TwBugreportz::twBugreportSrcPath == %s", path.c_str());

    sp<Ivd_service> service = Ivd_service::getInterface();
    if (service == nullptr) {
        LOGE("Failed to obtain a handle on vd_service");
        // Reaped quietly before the next report can start; the property stays set for the retry.
        if (child.pid > 0) reapChild(child.pid, false, timedOut);
        return kBugreportNoService;
    }
    if (path.empty()) {
        LOGE("Tw Bugreport::bugreport file is not present");
        LOGE("Tw Bugreport: the tool named no archive; its last output line: \"%s\"",
             lastLine(output).c_str());
        service->updateTwBugreportStatus(false);
    } else {
        fileArchive(path, *service);
    }
    setprop("persist.sys.vd.tw_bugreport", "false");
    if (child.pid > 0) reapChild(child.pid, true, timedOut);
    return kBugreportDone;
}

void generateBugreport() {
    LOGD("generateBugreport::start");
    vigild::platform::Clock* clock = vigild::platform::current().clock;
    while (exitRequested.load() == 0) {
        char value[vigild::platform::kPropValueMax];
        getprop(value, "persist.sys.vd.tw_bugreport", "false");
        if (strcmp(value, "true") != 0) {
            clock->sleepFor(kPropertyPoll);
            continue;
        }
        int result = bugreportPass();
        if (result == kBugreportNoPipe) return;
        if (result == kBugreportNoService) continue;
        clock->sleepFor(kPropertyPoll);
    }
    LOGD("generateBugreport::finish");
}

void copyRecoveryLogs() {
    LOGD("copyRecoveryLogs():BEGIN");
    if (runState.load() != kStateRunning) return;
    for (modulePair& entry : moduleRegistry) {
        if (strcmp(entry.module->getName(), "RecoveryModule") != 0) continue;
        LOGD("copyRecoveryLogs():module is %s", entry.module->getName());
        Module::moduleConfig settings;
        if (!enabledSettings(entry, &settings)) continue;
        LOGD("copyRecoveryLogs()- MODULE_CONFIG_ENABLE enable#1: %d", 1);
        // Started again without a stop: the module copies its recovery logs afresh.
        entry.module->start(std::move(settings));
    }
}
