// The configuration file below the storage root: saving without losing the last good file,
// loading with one reset-and-retry, defaults, and keeping log paths inside the storage root.
#include "config/config_file.h"

#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <mutex>
#include <string>
#include <vector>

#include "config/config_diagnosis.h"
#include "config/config_rebuild.h"
#include "config/document.h"
#include "config/file_watch.h"
#include "core/daemon_state.h"
#include "core/log.h"
#include "core/module_registry.h"
#include "core/run_state.h"
#include "platform/fs.h"
#include "platform/platform.h"
#include "storage/log_deletion.h"
#include "storage/storage_root.h"
#include "storage/tree.h"
#include "storage/utility.h"

// Per thread: set by updateConfigDefault and consumed by the loadConfigFile of the same thread,
// so the file watch cannot take a restart the command thread's change asked for.
thread_local bool restartAfterPathChange = false;

namespace {

// What a save of an earlier build left beside the file when it was stopped half-way: the
// complete new text (it only ever appeared by a rename) and the copy still being written.
constexpr const char* kCopySuffix = ".bak";
constexpr const char* kPartialSuffix = ".tmp";

// A module may leave a name or type null; it reads as empty, as in the document.
const char* orEmpty(const char* value) { return value != nullptr ? value : ""; }

bool isPathSetting(const Module::config& c) {
    const char* name = orEmpty(c.name);
    return (strcasecmp(name, "Log Path") == 0 || strcasecmp(name, "Storage Directory") == 0) &&
           strcasecmp(orEmpty(c.type), "string") == 0;
}

void copyValue(char (&dst)[VD_CONFIG_VALUE_SIZE], const std::string& src) {
    snprintf(dst, sizeof(dst), "%s", src.c_str());
}

// makeUpdateConfig on the file's text; -1 when the file gave no text or the apply threw.
int applyFile(const std::string& path) {
    char* text = fileReader(path.c_str());
    int result = -1;
    if (text[0] != '\0') {
        try {
            result = makeUpdateConfig(text);
        } catch (const std::exception& e) {
            LOGE("Exception : %s", e.what());
            result = -1;
        }
    }
    delete[] text;
    return result;
}

// Says why the file at `source` is being reset and keeps it as `path` + ".rejected" before the
// reset overwrites it, so an admin's edit is never lost to a typo.
void keepRejectedFile(const std::string& source, const char* path) {
    char* text = fileReader(source.c_str());
    const std::vector<ConfigProblem> problems = diagnoseConfigFile(text);
    delete[] text;
    const ConfigProblem* first = firstRejection(problems);
    size_t more = 0;
    for (const ConfigProblem& problem : problems) more += problem.rejects ? 1 : 0;
    const std::string copy = std::string(path) + kRejectedCopySuffix;
    // Only what the daemon would have read is worth keeping: never a link, a FIFO, or a file
    // over the reader's limit (a sparse giant would fill the card). copyFile writes through no
    // link and replaces an earlier rejected copy in place.
    struct stat st;
    const bool kept = vigild::fs::lstat(source.c_str(), &st) == 0 && S_ISREG(st.st_mode) &&
                      static_cast<size_t>(st.st_size) <= kFileReaderLimit && copyFile(source, copy);
    LOGE("config file %s rejected: %s%s; every setting is reset to its default; %s%s", path,
         first != nullptr ? describeProblem(*first).c_str() : "no reason found",
         more > 1 ? (" (and " + std::to_string(more - 1) + " more)").c_str() : "",
         kept ? "the rejected file is kept as " : "the rejected file could not be kept as ",
         copy.c_str());
}

}  // namespace

std::string configFilePath(const std::string& root) {
    if (root == "/sdcard/") return "/sdcard/Tellwick/config.json";
    return root + kConfigFileName;
}

void saveFile(const char* path, const char* text) {
    LOGD("saveFile :BEGIN");
    // A null text (a failed build) must never truncate the last good file.
    if (path == nullptr || text == nullptr) {
        LOGD("saveFile :END");
        return;
    }
    const size_t size = strlen(text);
    // Written whole beside the file, synced, then renamed over it: the path holds the old text
    // or all of the new at every moment, whether the disk fills, a write fails or the daemon is
    // killed, and there is nothing to repair at the next load. A rewrite in place would keep
    // the inode but leave a torn file for anyone reading until a repair. The watch knows the
    // daemon's own renames and takes them for no edit.
    vigild::storage::Entry file(path);
    struct stat existing;
    if (file.lstat(existing) && !S_ISREG(existing.st_mode) && !S_ISDIR(existing.st_mode)) {
        // A link or a FIFO in its place is somebody else's: neither followed nor replaced.
        errno = S_ISLNK(existing.st_mode) ? ELOOP : EINVAL;
        LOGE("Error opening file : %s errno : %i", path, errno);
        LOGD("saveFile :END");
        return;
    }
    switch (file.replace([&](int fd) { return vigild::storage::writeAll(fd, text, size); })) {
        case vigild::storage::Entry::Replaced::kNotCreated:
            LOGE("Error opening file : %s errno : %i", path, errno);
            LOGD("saveFile :END");
            return;
        case vigild::storage::Entry::Replaced::kNotWritten:
            // The old file is still in place, untouched.
            LOGE("Error writing file : %s errno : %i", path, errno);
            LOGD("saveFile :END");
            return;
        case vigild::storage::Entry::Replaced::kDone:
            break;
    }

    if (isTellwickSecureModeEnabled() && isPermissionGrantedToDeployConfig()) {
        copyConfigFileToSecurePath(path);
    }
    LOGD("saveFile :END");
}

std::string takeLeftConfigCopy(const char* path) {
    // Under configMutex, as every save: the copy must not go away under another thread.
    vigild::Lock lock(configMutex);
    const std::string copy = std::string(path) + kCopySuffix;
    vigild::storage::Entry(std::string(path) + kPartialSuffix).remove();
    vigild::storage::Entry left(copy);
    struct stat st;
    if (!left.lstat(st)) return path;
    if (!S_ISREG(st.st_mode) || st.st_size == 0) {
        // Not ours, or nothing to put back: the file itself was never torn by an empty text.
        left.remove();
        return path;
    }
    const std::string& name = left.name();
    if (left.renameTo(name.substr(0, name.size() - strlen(kCopySuffix))) != 0) return copy;
    left.syncFolder();
    LOGI("saveFile: restored %s from the copy of an interrupted save", path);
    return path;
}

void resetAndUpdateConfig() {
    LOGD("resetAndUpdateConfig:BEGIN");
    {
        // Other threads read the values under the lock.
        vigild::Lock lock(configMutex);
        for (modulePair& entry : moduleRegistry) {
            for (Module::config& c : entry.settings.configs)
                memcpy(c.value, c.defaultValue, sizeof(c.value));
        }
    }
    const std::string root = getDefaultDirectory();
    std::string path = configFilePath(root);
    {
        vigild::Lock lock(configMutex);
        char* text = getConfig(root);
        saveFile(path.c_str(), text);
        free(text);
    }
    LOGD("resetAndUpdateConfig:END");
}

int loadConfigFile(const char* path) {
    LOGD("loadConfigFile :BEGIN");
    if (path == nullptr) return 0;
    LOGD("trying to load config file: %s", path);
    std::string source = takeLeftConfigCopy(path);
    if (!isFileExistsExtSDcard(source)) {
        LOGD("loadConfigFile:config file not found");
        return 0;
    }
    if (isDebugBuildorDebugEnabled()) LOGI("config file found -  now loading");

    int result = applyFile(source);
    if (result == -1) {
        LOGE("config file load failed, load again");
        keepRejectedFile(source, path);
        resetAndUpdateConfig();
        applyFile(path);
    } else if (result != 1) {
        if (restartAfterPathChange && runState == kStateRunning) restartModules();
        restartAfterPathChange = false;
        vigild::platform::releaseFreeMemory();
        return result;
    }

    updateConfigDefault(true);
    sendConfig();
    if (runState == kStateRunning) restartModules();
    restartAfterPathChange = false;
    // The parsed documents and their copies are gone: give their pages back.
    vigild::platform::releaseFreeMemory();
    return 1;
}

void updateConfigDefault(bool force) {
    if (isDebugBuildorDebugEnabled())
        LOGI("updateConfigDefault:update current and default configs");
    const std::string root = getDefaultDirectory();
    bool save = force;

    for (modulePair& entry : moduleRegistry) {
        const char* moduleName = entry.module->getName();
        // Corrected on a copy: the checks below read properties and storage, which must not
        // run under configMutex.
        const Module::moduleConfig before = copySettings(entry);
        Module::moduleConfig work = before;
        for (Module::config& c : work.configs) {
            const char* name = orEmpty(c.name);
            if (strcasecmp(name, "Persist logpath") == 0 ||
                strcasecmp(name, "Persist Boot log filename") == 0) {
                bool bootLog = strcasecmp(name, "Persist Boot log filename") == 0;
                copyValue(c.value, persistLogPathUpdate(bootLog, c.value, root));
                continue;
            }
            if (!isPathSetting(c)) continue;

            std::string current = c.value;
            if (current.empty()) {
                current = "/sdcard/";
                save = true;
            }
            LOGD("updateConfigDefault::current path == %s, default path == %s ", current.c_str(),
                 c.defaultValue);
            enum { kCorrupt, kInternal, kExternal } kind;
            if (current.find("/storage/sdcard1/") != std::string::npos) {
                kind = kCorrupt;
            } else if (current.find("/sdcard/") != std::string::npos) {
                kind = kInternal;
                LOGD("updateConfigDefault:current path == %s, default path == %s ", current.c_str(),
                     c.defaultValue);
            } else {
                kind = kExternal;
            }
            std::string subPath = substrNthPlace(current, "/", kind == kInternal ? 1 : 2);
            // The prefix alone would keep "/sdcard/../../etc/": an unclean value is corrected.
            if (subPath == root && isCleanLogPath(current)) {
                copyValue(c.value, root + current.substr(subPath.size()));
            } else {
                if (moduleName != nullptr && moduleName[0] != '\0') {
                    copyValue(c.value, returnCorrectedLogPath(moduleName));
                }
                if (kind != kCorrupt) restartAfterPathChange = true;
                save = true;
            }
            if (kind == kCorrupt) {
                // The old card mount point: always written out anew.
                LOGD(
                    "updateConfigDefault::corrupt sdcard path::Sub Path == %s, current value == "
                    "%s ",
                    subPath.c_str(), c.value);
                save = true;
            } else if (kind == kInternal) {
                LOGD(
                    "updateConfigDefault::internal sdcard path::Sub Path == %s, current value == "
                    "%s ",
                    subPath.c_str(), c.value);
            } else {
                LOGD(
                    "updateConfigDefault::external sdcard path::Sub Path == %s, current value == "
                    "%s ",
                    subPath.c_str(), c.value);
            }
            // Secure mode keeps every log in the secure folder; outside it nothing stays there.
            if (isTellwickSecureModeEnabled() ||
                current.find("Tellwick/secure/log_data/") != std::string::npos) {
                if (moduleName != nullptr && moduleName[0] != '\0') {
                    copyValue(c.value, returnCorrectedLogPath(moduleName));
                }
                save = true;
            }
        }
        storeChangedValues(entry, before, work);
    }

    const std::string file = configFilePath(root);
    if (!isFileExists(file)) {
        LOGD("updateConfigDefault:file did not exists, create one");
        save = true;
    }
    if (isDebugBuildorDebugEnabled()) LOGI("updateConfigDefault:log path status  == %d", save);

    if (save) {
        {
            vigild::Lock lock(configMutex);
            char* text = getConfig(root);
            if (!isFileExists(file)) mkdir_all((root + kTellwickFolder).c_str());
            if (text != nullptr) {
                saveFile(file.c_str(), text);
                free(text);
            }
        }
        sendConfig();
    }
    LOGD("updateConfigDefault:done update current and default configs");
}

std::string persistLogPathUpdate(bool bootLog, std::string value, std::string storageRoot) {
    std::string card;
    std::string sub =
        !isInternalSDcardEnabledLogging() && isExternalSDCardPresentAndReturnPath(card)
            ? substrNthPlace(value, "/", 2)
            : substrNthPlace(value, "/", 1);
    std::string result;
    if (sub == storageRoot && sub.size() <= value.size() && isCleanLogPath(value)) {
        result = storageRoot + value.substr(sub.size());
    } else {
        result = storageRoot +
                 (isTellwickSecureModeEnabled() ? kSecureLogFolder : kTellwickFolder) + "persist/" +
                 (bootLog ? "bootlog" : "");
    }
    LOGD("updateConfigDefault::persist log path::%s ", result.c_str());
    if (result.empty()) result = "/sdcard/Tellwick/";
    return result;
}
