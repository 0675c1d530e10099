#include "storage/storage_root.h"

#include <dirent.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <regex>

#include "core/log.h"
#include "core/thread_annotations.h"
#include "platform/fs.h"
#include "platform/platform.h"
#include "service/ivd_service.h"
#include "storage/log_deletion.h"
#include "storage/tree.h"
#include "storage/utility.h"

namespace {

constexpr const char* kStoragePathProp = "persist.sys.vd.storage_path";
constexpr const char* kInternalRoot = "/sdcard/";
constexpr size_t kRootBufferSize = 128;

// The buffers behind getDefaultDirectory. Several threads resolve the root at once (start-up,
// command loop, file watch), so all three live under one lock and callers get a copy. The
// lock is held for a whole resolution, which by its steps may ask the service, run a shell
// command and settle a layout (a tree deletion): two resolutions must not settle layouts at
// once. So nothing may take it while holding configMutex: callers resolve the root first.
vigild::Mutex gRootMutex;
char gStoragePath[kRootBufferSize] GUARDED_BY(gRootMutex);
char gExternalRoot[kRootBufferSize] GUARDED_BY(gRootMutex);
char gPropScratch[kRootBufferSize] GUARDED_BY(gRootMutex);

void setBuffer(char (&buffer)[kRootBufferSize], const char* text) {
    snprintf(buffer, sizeof(buffer), "%s", text);
}

bool regexMatches(const std::regex& expression, const std::string& text) {
    try {
        return std::regex_match(text, expression);
    } catch (const std::regex_error& e) {
        LOGE("regex_match failed: %s", e.what());
        return false;
    }
}

// A card folder is named like the volume id vold gives it: 1A2B-3C4D.
bool isCardVolumeName(const std::string& name) {
    static const std::regex kVolumeName("^[0-9A-Fa-f]{4}-[0-9A-Fa-f]{4}$");
    return regexMatches(kVolumeName, name);
}

// Entry type from readdir, or from lstat when the file system does not fill it in.
bool entryIsDirectory(const struct dirent* entry, const std::string& fullPath) {
    if (entry->d_type == DT_DIR) return true;
    if (entry->d_type != DT_UNKNOWN) return false;
    struct stat st;
    return vigild::fs::lstat(fullPath.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

}  // namespace

bool startsWithSdcardOrStorage(const std::string& path) {
    static const std::regex kStorageRoots("^(/sdcard/|/storage/).*");
    return regexMatches(kStorageRoots, path);
}

bool isExternalSDCardPresentAndReturnPath(std::string& path) {
    DIR* dir = vigild::fs::opendir("/storage/");
    if (dir == nullptr) return false;
    bool found = false;
    while (const struct dirent* entry = readdir(dir)) {
        std::string fullPath = std::string("/storage/") + entry->d_name;
        if (!entryIsDirectory(entry, fullPath)) continue;
        std::string name = entry->d_name;
        size_t slash = name.rfind('/');
        if (slash != std::string::npos) name = name.substr(slash + 1);
        if (!isCardVolumeName(name)) continue;
        struct stat st;
        // Only the directory bit is looked at, not the whole file-type field.
        if (vigild::fs::stat(fullPath.c_str(), &st) == 0 && (st.st_mode & 0x4000) != 0) {
            path = fullPath;
            found = true;
            break;
        }
    }
    closedir(dir);
    return found;
}

std::string getDefaultDirectory() {
    vigild::Lock lock(gRootMutex);
    LOGD("Utility::getDefaultDirectory::Start");

    getprop(gStoragePath, kStoragePathProp, "UNKNOWN");
    if (strcmp(gStoragePath, "UNKNOWN") == 0) {
        // Nothing chosen yet: no folder is touched until the property exists.
        LOGD("getDefaultDirectory returning /sdcard/");
        return kInternalRoot;
    }
    if (!startsWithSdcardOrStorage(gStoragePath)) {
        setprop(kStoragePathProp, kInternalRoot);
        setBuffer(gStoragePath, kInternalRoot);
    }

    const bool secure = isTellwickSecureModeEnabled();
    std::string cardPath;
    if (isExternalSDCardPresentAndReturnPath(cardPath)) {
        getprop(gPropScratch, "persist.sys.vd.internal_sd", "0");
        bool useCard = true;
        if (strcmp(gPropScratch, "true") == 0) {
            setBuffer(gStoragePath, kInternalRoot);
            useCard = false;
        } else if (secure) {
            getprop(gPropScratch, "vold.sdcard.state", "UNKNOWN");
            int encrypted = strcmp(gPropScratch, "encrypted") == 0 ? 1 : 0;
            LOGD("external sdcard ecrypt check == %d", encrypted);
            // Secure logs never go to a card anyone can read in another device.
            if (!encrypted) {
                setBuffer(gStoragePath, kInternalRoot);
                useCard = false;
            }
        }
        if (useCard && !cardPath.empty() && startsWithSdcardOrStorage(cardPath)) {
            std::string cardRoot = cardPath + "/";
            if (cardRoot.size() < kRootBufferSize) {
                setBuffer(gExternalRoot, cardRoot.c_str());
                std::string created;
                if (!secure) {
                    removeSecureLogs(cardRoot);
                    created = cardRoot + kTellwickFolder;
                    mkdir_all(created.c_str());
                } else {
                    removeUnsecureLogs(cardRoot);
                    created = cardRoot + kSecureLogFolder;
                    mkdir_all(created.c_str());
                    mkdir_all(cardRoot.c_str());
                }
                if (vigild::storage::isRealFolder(created.c_str())) {
                    setprop(kStoragePathProp, cardRoot.c_str());
                    return gExternalRoot;
                }
            }
        }
    }

    if (!startsWithSdcardOrStorage(gStoragePath)) setBuffer(gStoragePath, kInternalRoot);
    // The folders are made on internal storage even when the property still names a card
    // that went away: internal storage is always there to fall back on.
    std::string check;
    if (!secure) {
        removeSecureLogs(gStoragePath);
        check = std::string(kInternalRoot) + kTellwickFolder;
        mkdir_all(check.c_str());
    } else {
        removeUnsecureLogs(gStoragePath);
        check = std::string(kInternalRoot) + kSecureLogFolder;
        mkdir_all(check.c_str());
        getprop(gPropScratch, "ro.tandril.platform.name", "UNKNOWN");
        // The companion app reads the secure folder under its own group. The command follows
        // a link given as its top folder: one planted there is not handed to it.
        if (strcmp(gPropScratch, "cedar") != 0 &&
            vigild::storage::isRealFolder("/sdcard/Android/data/com.tandril.tellwick/")) {
            ExecuteCommandToString(
                "chown -R system:ext_data_rw /sdcard/Android/data/com.tandril.tellwick/");
        }
    }
    if (vigild::storage::isRealFolder(check.c_str())) return gStoragePath;

    LOGD("getDefaultDirectory returning /sdcard/");
    return kInternalRoot;
}

std::string returnCorrectedLogPath(const std::string& moduleName) {
    return returnCorrectedLogPath(moduleName, getDefaultDirectory());
}

std::string returnCorrectedLogPath(const std::string& moduleName, const std::string& root) {
    LOGD("utility::returnCorrectedLogPath module == %s", moduleName.c_str());
    const bool secure = isTellwickSecureModeEnabled();
    LOGD("utility::returnCorrectedLogPath::isTwSecureMode == %d", secure ? 1 : 0);
    const std::string prefix = secure ? kSecureLogFolder : kTellwickFolder;

    struct SubFolder {
        const char* module;
        const char* folder;
    };
    static const SubFolder kSubFolders[] = {
        {"ANRModule", "anr/"},
        {"BTSnoopLogModule", "btsnooplog/"},
        {"LTSModule", nullptr},
        {"QxdmModule", "qxdm/logs/"},
        {"RamoopsModule", "ramoops/"},
        {"RecoveryModule", "recovery/"},
        {"SnapshotModule", "snapshots/"},
        {"TCPDumpModule", "tcpdump/"},
        {"TombstoneModule", "tombstone/"},
    };
    for (const SubFolder& row : kSubFolders) {
        if (strcasecmp(moduleName.c_str(), row.module) != 0) continue;
        if (row.folder == nullptr) {
            // Long-term logs sit beside the top folder in the normal layout, so clearing
            // the normal logs leaves them alone.
            return secure ? root + prefix + "TellwickLTS/" : root + "TellwickLTS/";
        }
        return root + prefix + row.folder;
    }
    return root + prefix;
}

bool isFileExistsExtSDcard(const std::string& path) {
    if (vigild::fs::access(path.c_str(), F_OK) == 0) return true;
    if (path.rfind("/storage", 0) != 0) return false;
    // A card that is still being mounted shows up within a few seconds.
    constexpr int kTries = 5;
    std::string cardPath;
    for (int attempt = 1; attempt <= kTries; attempt++) {
        if (isExternalSDCardPresentAndReturnPath(cardPath)) return true;
        if (attempt < kTries) {
            vigild::platform::current().clock->sleepFor(std::chrono::seconds(5));
        }
    }
    return false;
}

bool isSDCARD_present() {
    sp<Ivd_service> service = Ivd_service::getInterface();
    if (service == nullptr) return false;
    // -1 is a failed call, not a card.
    return service->isSDcardPresent() > 0;
}

std::string getSDCARD_path() {
    sp<Ivd_service> service = Ivd_service::getInterface();
    if (service == nullptr) return kInternalRoot;
    std::string path;
    if (service->getSDcardPath(path) != 0 || path.empty()) return kInternalRoot;
    if (path.back() != '/') path += '/';
    return path;
}

bool isTellwickSecureModeEnabled() {
    char value[vigild::platform::kPropValueMax];
    getprop(value, "persist.sys.vd.secure_mode", "UNKNOWN");
    return strcmp(value, "true") == 0;
}

bool isInternalSDcardEnabledLogging() {
    char value[vigild::platform::kPropValueMax];
    getprop(value, "persist.sys.vd.internal_sd", "UNKNOWN");
    return strcmp(value, "true") == 0;
}

bool isDeviceAlder() {
    char value[vigild::platform::kPropValueMax];
    getprop(value, "ro.build.project", "UNKNOWN");
    return strcmp(value, "Alder") == 0;
}
