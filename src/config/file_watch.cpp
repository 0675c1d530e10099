#include "config/file_watch.h"

#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <map>

#include "config/config_file.h"
#include "config/config_validation.h"
#include "config/document.h"
#include "core/daemon_state.h"
#include "core/log.h"
#include "core/module_registry.h"
#include "platform/fs.h"
#include "platform/platform.h"
#include "quicktap/quicktap.h"
#include "service/ivd_service.h"
#include "storage/storage_root.h"
#include "storage/tree.h"
#include "storage/utility.h"

namespace {

constexpr const char* kInternalRoot = "/sdcard/";
constexpr const char* kInternalFolder = "/sdcard/Tellwick/";
constexpr const char* kInternalConfigFile = "/sdcard/Tellwick/config.json";
constexpr const char* kSecureFolder =
    "/sdcard/Android/data/com.tandril.tellwick/Tellwick/secure/log_data/";

// A deleted or replaced file loses its watch; give the writer a moment before re-arming.
constexpr std::chrono::milliseconds kRearmPause{100};
// The descriptor is non-blocking and polled: a change is seen up to this late.
constexpr std::chrono::seconds kPollInterval{5};
constexpr size_t kEventHeaderSize = sizeof(struct inotify_event);

void sleepFor(std::chrono::milliseconds duration) {
    vigild::platform::current().clock->sleepFor(duration);
}

// Writes the configuration in force to `path`, under the lock so no change slips in between.
void saveConfigTo(const std::string& path) {
    const std::string root = storageRootForDocument();
    vigild::Lock lock(configMutex);
    char* text = getConfig(root);
    if (text != nullptr) {
        saveFile(path.c_str(), text);
        free(text);
    }
}

void reactToChange() {
    if (isTellwickSecureModeEnabled()) {
        refreshConfigFileSecureMode();
    } else {
        watchConfig();
    }
}

// Module libraries fill these records themselves: a null name or type is possible.
bool isEnableModuleSetting(const Module::config& setting) {
    return setting.name != nullptr && setting.type != nullptr &&
           strcmp(setting.name, "Enable Module") == 0 && strcmp(setting.type, "boolean") == 0;
}

void removeWatch(int fd, int& watch) {
    if (fd >= 0 && watch > 0) inotify_rm_watch(fd, watch);
}

// The file that watchConfig and the secure reaction look at for a storage root.
std::string deployedConfigFile(const std::string& root) {
    if (root == kInternalRoot) return kInternalConfigFile;
    return root + kConfigFileName;
}

}  // namespace

int addFileObserver(std::string& internalPath, std::string& externalPath, int& fd,
                    int& internalWatch, int& externalWatch) {
    LOGD("addFileObserver::start");
    internalPath.clear();
    externalPath.clear();
    externalWatch = 0;

    internalPath = std::string(kInternalRoot) + kConfigFileName;
    LOGD("addFileObserver::internal path == %s ", internalPath.c_str());
    if (!isFileExists(internalPath)) {
        LOGI("addFileObserver::internal sdcard config file not present");
        mkdir_all(kInternalFolder);
        saveConfigTo(internalPath);
    }
    internalWatch = vigild::fs::inotifyAddWatch(fd, internalPath.c_str(), kInternalWatchMask);
    if (internalWatch < 0) {
        LOGE("addFileObserver :: watchfd[0] error == %s ", strerror(errno));
    }

    bool present = isSDCARD_present();
    LOGD("addFileObserver::isSDCARD_present == %d ", present ? 1 : 0);
    if (!present) return 0;
    std::string cardRoot = getSDCARD_path();
    if (cardRoot.empty()) return 0;

    externalPath = cardRoot + kConfigFileName;
    LOGD("addFileObserver::external path == %s ", externalPath.c_str());
    // A failed card question answers "/sdcard/": that file is watched already.
    if (externalPath == internalPath) return 0;
    if (!isFileExists(externalPath)) {
        LOGI("addFileObserver::external sdcard config file not present");
        saveConfigTo(externalPath);
    }
    int watch = vigild::fs::inotifyAddWatch(fd, externalPath.c_str(), kExternalWatchMask);
    if (watch < 0) {
        LOGE("addFileObserver :: watchfd[1] error  == %s ", strerror(errno));
        return -1;
    }
    externalWatch = watch;
    return 0;
}

namespace {
// The mask of the first record of `buffer` that is a file event of a live watch (not an
// IN_IGNORED), or of the first record when there is none.
uint32_t firstFileEventMask(const char* buffer, size_t length, const int (&watches)[2]) {
    struct inotify_event event;
    memcpy(&event, buffer, kEventHeaderSize);
    const uint32_t firstMask = event.mask;
    for (size_t offset = 0; offset + kEventHeaderSize <= length;
         offset += kEventHeaderSize + event.len) {
        memcpy(&event, buffer + offset, kEventHeaderSize);
        const bool live = event.wd > 0 && (event.wd == watches[0] || event.wd == watches[1]);
        if (live && (event.mask & IN_IGNORED) == 0) return event.mask;
    }
    return firstMask;
}

// The file each watch descriptor was put on, kept until its IN_IGNORED is read: the last
// records of a descriptor may come after a re-arm replaced it.
using WatchedFiles = std::map<int, std::string>;

void noteWatches(WatchedFiles& watched, const int (&watches)[2], const std::string& internalPath,
                 const std::string& externalPath) {
    if (watches[0] > 0) watched[watches[0]] = internalPath;
    if (watches[1] > 0) watched[watches[1]] = externalPath;
}

// True when the read holds file events and each is on a file that now holds what the daemon
// itself renamed there (a save or a copy): no edit of the user's, nothing to reload. `rearm`
// tells whether one of them was on a live watch, which the rename ended.
bool onlyOwnReplacements(const char* buffer, size_t length, const WatchedFiles& watched,
                         const int (&watches)[2], bool* rearm) {
    bool seen = false;
    *rearm = false;
    struct inotify_event event;
    for (size_t offset = 0; offset + kEventHeaderSize <= length;
         offset += kEventHeaderSize + event.len) {
        memcpy(&event, buffer + offset, kEventHeaderSize);
        if ((event.mask & IN_IGNORED) != 0 || ((event.mask & 0xFFFF) & kReactionMask) == 0) {
            continue;
        }
        auto file = watched.find(event.wd);
        if (file == watched.end() || !vigild::storage::isOwnReplacement(file->second)) {
            return false;
        }
        seen = true;
        *rearm = *rearm || event.wd == watches[0] || event.wd == watches[1];
    }
    return seen;
}

void forgetEndedWatches(const char* buffer, size_t length, WatchedFiles& watched) {
    struct inotify_event event;
    for (size_t offset = 0; offset + kEventHeaderSize <= length;
         offset += kEventHeaderSize + event.len) {
        memcpy(&event, buffer + offset, kEventHeaderSize);
        if ((event.mask & IN_IGNORED) != 0) watched.erase(event.wd);
    }
}
}  // namespace

void watchConfigFileChange() {
    LOGD("watchConfigFileChange::start");
    int fd = vigild::fs::inotifyInit();
    if (fd < 0) LOGE("watchConfigFileChange :: fd error ");

    std::string internalPath;
    std::string externalPath;
    int watches[2] = {0, 0};
    if (addFileObserver(internalPath, externalPath, fd, watches[0], watches[1]) < 0) {
        LOGE("watchConfigFileChange :: observer error ");
    }
    WatchedFiles watched;
    noteWatches(watched, watches, internalPath, externalPath);

    alignas(struct inotify_event) char buffer[kWatchReadSize];
    while (exitRequested == 0) {
        ssize_t length = fd >= 0 ? read(fd, buffer, sizeof(buffer)) : -1;
        bool matched = false;
        bool rearm = false;
        if (length >= static_cast<ssize_t>(kEventHeaderSize) &&
            onlyOwnReplacements(buffer, static_cast<size_t>(length), watched, watches, &rearm)) {
            // The daemon's own rename ended the watch: watch the new file, reload nothing.
            if (rearm) {
                removeWatch(fd, watches[0]);
                removeWatch(fd, watches[1]);
                if (addFileObserver(internalPath, externalPath, fd, watches[0], watches[1]) < 0) {
                    LOGE("watchConfigFileChange :: observer error ");
                }
                noteWatches(watched, watches, internalPath, externalPath);
            }
        } else if (length >= static_cast<ssize_t>(kEventHeaderSize)) {
            // Every step looks at one record of the read, the first; only the step length
            // comes from it. A burst of records may therefore reload more than once.
            struct inotify_event first;
            memcpy(&first, buffer, kEventHeaderSize);
            size_t step = kEventHeaderSize + first.len;
            // Except that what the last re-arm left behind (records of watches it removed,
            // IN_IGNORED) is no file event: a deletion queued behind it must still be seen,
            // so the first record of a live watch is the one looked at.
            const uint32_t tested =
                firstFileEventMask(buffer, static_cast<size_t>(length), watches);
            for (ssize_t offset = 0; offset < length; offset += step) {
                if (((tested & 0xFFFF) & kReactionMask) == 0) continue;
                matched = true;
                LOGI("vigild::watchConfigFileChange::needs to reload the config file");
                reactToChange();
                sleepFor(kRearmPause);
                removeWatch(fd, watches[0]);
                removeWatch(fd, watches[1]);
                if (addFileObserver(internalPath, externalPath, fd, watches[0], watches[1]) < 0) {
                    LOGE("watchConfigFileChange :: observer error ");
                }
                noteWatches(watched, watches, internalPath, externalPath);
            }
        }
        if (length > 0) forgetEndedWatches(buffer, static_cast<size_t>(length), watched);
        // Running modules follow a changed file only when this read actually changed it.
        if (matched && runState == kStateRunning) {
            {
                // The command thread may be changing values under the lock right now.
                vigild::Lock lock(configMutex);
                for (modulePair& entry : moduleRegistry) {
                    for (const Module::config& setting : entry.settings.configs) {
                        if (!isEnableModuleSetting(setting)) continue;
                        LOGD("vigild::moduleRestartNeeded::Tellwick folder deleted");
                        if (strcmp(setting.value, "true") == 0) entry.restartNeeded = 1;
                        break;
                    }
                }
            }
            reactToChange();
        }
        sleepFor(kPollInterval);
    }

    removeWatch(fd, watches[0]);
    removeWatch(fd, watches[1]);
    if (fd >= 0) close(fd);
}

void watchConfig() {
    LOGD("watchConfig :BEGIN");
    std::string root = getDefaultDirectory();
    LOGD("path: %s, external: %d, prevConfigPresent: %d", root.c_str(), -1, 0);

    std::string folder;
    std::string file;
    if (root != kInternalRoot) {
        folder = root + kTellwickFolder;
        file = root + kConfigFileName;
        vigild::storage::Entry(folder).mkdir(0777);
    } else {
        folder = isTellwickSecureModeEnabled() ? kSecureFolder : kInternalFolder;
        file = kInternalConfigFile;
        mkdir_all(folder.c_str());
    }

    struct stat st;
    if (vigild::fs::stat(file.c_str(), &st) != 0) {
        sleepFor(kRearmPause);
        // A file that shows up during the pause is left to the watch's next event.
        if (vigild::fs::stat(file.c_str(), &st) == 0) return;
        FILE* stream = vigild::fs::fopen(file.c_str(), "r");
        if (stream != nullptr) {
            fclose(stream);
            return;
        }
        LOGD("config - file not present");
        char* text = nullptr;
        {
            vigild::Lock lock(configMutex);
            text = getConfig(root);
        }
        // setConfig writes the document back to the file and takes the lock itself.
        if (text != nullptr) {
            setConfig(text);
            free(text);
        }
        return;
    }

    LOGD("config - file replaced/added");
    if (isTwQuickTapModeEnabled()) createQuickTapKeyValue();
    if (isTellwickSecureModeEnabled() && isPermissionGrantedToDeployConfig() == 0) {
        LOGD("watchConfig :END");
        return;
    }
    updateConfigDefault(false);
    loadConfigFile(file.c_str());
    updateValidUserStatus(false);
    LOGD("watchConfig :END");
}

void refreshConfigFileSecureMode() {
    std::string root = getDefaultDirectory();
    int granted = isPermissionGrantedToDeployConfig();
    std::string file = deployedConfigFile(root);
    if (granted != 0) {
        loadConfigFile(file.c_str());
        return;
    }

    // Not allowed to deploy: the configuration in force goes back over the edit.
    char* text = nullptr;
    {
        vigild::Lock lock(configMutex);
        text = getConfig(root);
        if (text == nullptr) return;
        saveFile(file.c_str(), text);
    }
    sp<Ivd_service> service = Ivd_service::getInterface();
    if (service == nullptr) {
        LOGE("Failed to obtain a handle on vd_service");
    } else {
        service->sendConfig(text);
    }
    free(text);
}
