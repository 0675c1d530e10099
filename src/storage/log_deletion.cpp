#include "storage/log_deletion.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <regex>
#include <set>
#include <utility>
#include <vector>

#include "config/config_file.h"
#include "config/document.h"
#include "core/log.h"
#include "core/module_registry.h"
#include "platform/fs.h"
#include "service/ivd_service.h"
#include "storage/storage_root.h"
#include "storage/tree.h"
#include "storage/utility.h"

namespace {

constexpr const char* kInternalRoot = "/sdcard/";
// Log trees are a few levels deep; anything deeper is not ours and is left alone.
constexpr int kMaxWalkDepth = 256;
constexpr int kOpenDirFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
// Entry paths are formed "%s/%s" in a buffer of this size; their log lines are cut the same
// way (the removal itself works on the entry, never on the cut text).
constexpr int kEntryPathSize = 1035;

// A directory reached without passing through a link.
bool isRealDirectory(const std::string& devicePath) {
    struct stat st;
    return vigild::storage::Entry(devicePath).lstat(st) && S_ISDIR(st.st_mode);
}

enum class EntryKind { kDirectory, kOther, kGone };

// An open directory walked by descriptor: children are opened relative to it and never
// through a link, so the walk stays inside the tree it started in. Entries are read with
// getdents64 into a buffer of its own (no DIR stream): a folder costs its open, its reads and
// its close, and an entry nothing besides its own removal.
class Dir {
  public:
    static Dir openTop(const std::string& devicePath) {
        return Dir(vigild::storage::openFolder(devicePath));
    }
    Dir openChild(const char* name) const { return Dir(::openat(fd_, name, kOpenDirFlags)); }

    Dir(Dir&& other) noexcept
        : fd_(std::exchange(other.fd_, -1)),
          buffer_(std::move(other.buffer_)),
          pos_(other.pos_),
          end_(other.end_),
          shortRead_(other.shortRead_) {}
    Dir(const Dir&) = delete;
    Dir& operator=(const Dir&) = delete;
    Dir& operator=(Dir&&) = delete;
    ~Dir() {
        if (fd_ >= 0) ::close(fd_);
    }

    bool ok() const { return fd_ >= 0; }
    int fd() const { return fd_; }

    // The next entry other than "." and ".."; false at the end.
    bool next(std::string& name, EntryKind& kind) {
        while (pos_ < end_ || fill()) {
            const auto* entry = reinterpret_cast<const struct dirent64*>(buffer_.get() + pos_);
            pos_ += entry->d_reclen;
            if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) continue;
            name = entry->d_name;
            kind = kindOf(entry->d_type, entry->d_name);
            return true;
        }
        return false;
    }

    // Every entry read so far was handed out and the last read left room for more: the
    // kernel fills the buffer while entries remain, so the folder has most likely ended.
    bool probablyAtEnd() const { return pos_ >= end_ && shortRead_; }

    // remove() of one entry, without following a link: a link goes as a link.
    int removeEntry(const std::string& name, EntryKind kind) const {
        int flags = kind == EntryKind::kDirectory ? AT_REMOVEDIR : 0;
        return ::unlinkat(fd(), name.c_str(), flags) == 0 ? 0 : -1;
    }

  private:
    // Big enough for a log folder's entries in one read.
    static constexpr size_t kBufferSize = 16384;

    explicit Dir(int fd) : fd_(fd) {}

    bool fill() {
        if (buffer_ == nullptr) buffer_ = std::make_unique<char[]>(kBufferSize);
        long n = ::syscall(SYS_getdents64, fd_, buffer_.get(), kBufferSize);
        pos_ = 0;
        end_ = n > 0 ? static_cast<size_t>(n) : 0;
        shortRead_ = n <= 0 || end_ + sizeof(struct dirent64) <= kBufferSize;
        return end_ > 0;
    }

    EntryKind kindOf(unsigned char type, const char* name) const {
        if (type == DT_DIR) return EntryKind::kDirectory;
        if (type != DT_UNKNOWN) return EntryKind::kOther;
        struct stat st;
        if (::fstatat(fd_, name, &st, AT_SYMLINK_NOFOLLOW) != 0) return EntryKind::kGone;
        return S_ISDIR(st.st_mode) ? EntryKind::kDirectory : EntryKind::kOther;
    }

    int fd_ = -1;
    std::unique_ptr<char[]> buffer_;
    size_t pos_ = 0;
    size_t end_ = 0;
    bool shortRead_ = false;
};

// remove() of a top folder given by path, never through a link on the way to it; a storage
// root itself is never removed.
void removeTop(const std::string& devicePath) {
    vigild::storage::Entry top(devicePath);
    struct stat st;
    if (top.trusted() || !top.lstat(st)) return;
    top.remove(S_ISDIR(st.st_mode) ? AT_REMOVEDIR : 0);
}

int deleteUnsecureLevel(Dir& dir, const std::string& folder, int type, int depth, const Dir* parent,
                        const std::string* self, bool* removed);

// The names a level compares its entries against.
struct LevelNames {
    explicit LevelNames(const std::string& folder)
        : twInfo(folder + "/TwInfo.txt"),
          config(folder + "/config.json"),
          backup(folder + "/Backup") {}
    const std::string twInfo;
    const std::string config;
    const std::string backup;
};

// One entry of a deleteLogFilesUnsecure level. Returns what it adds to the level's sum and
// sets `stays` when the entry is still in the folder afterwards.
int deleteUnsecureEntry(Dir& dir, const std::string& folder, const LevelNames& names,
                        const std::string& name, EntryKind kind, int type, int depth, bool& stays) {
    stays = false;
    std::string full = folder + "/" + name;
    LOGD("remove %.*s", kEntryPathSize - 1, full.c_str());
    if (kind == EntryKind::kDirectory) {
        LOGD("deleteLogFilesUnsecure::Start::path = %.*s, deleteLogType== %d", kEntryPathSize - 1,
             full.c_str(), type);
        Dir child = dir.openChild(name.c_str());
        if (!child.ok()) {
            // Not a directory any more (swapped for a file or a link): remove what is there.
            stays = dir.removeEntry(name, EntryKind::kOther) != 0 &&
                    dir.removeEntry(name, EntryKind::kDirectory) != 0;
            LOGD("deleteSecureBackup::End");
            return -1;
        }
        if (depth >= kMaxWalkDepth) {
            LOGE("deleteLogFilesUnsecure::tree too deep, not descending into %s", full.c_str());
            LOGD("deleteSecureBackup::End");
            stays = true;
            return -1;
        }
        bool gone = false;
        int result = deleteUnsecureLevel(child, full, type, depth + 1, &dir, &name, &gone);
        // A sub-folder goes only once it is empty.
        if (!gone) stays = dir.removeEntry(name, EntryKind::kDirectory) != 0;
        LOGD("deleteSecureBackup::End");
        return result;
    }
    int result = 0;
    if (full == names.twInfo || full == names.config) {
        stays = true;
    } else if (full.rfind(names.backup, 0) == 0) {
        if ((type & ~2) == 0) result = dir.removeEntry(name, kind);
        stays = (type & ~2) != 0 || result != 0;
    } else if (type != 2) {
        result = dir.removeEntry(name, kind);
        stays = result != 0;
    } else {
        stays = true;
    }
    return result;
}

// One level of deleteLogFilesUnsecure; `folder` is the device path, for log lines and the
// kept-name comparisons only. Below the top, `parent` and `self` name this folder as its parent
// holds it: a level that has emptied its folder removes it at once, which answers whether it is
// empty and saves the read that would only confirm its end (`removed` tells the caller).
int deleteUnsecureLevel(Dir& dir, const std::string& folder, int type, int depth, const Dir* parent,
                        const std::string* self, bool* removed) {
    const LevelNames names(folder);
    int result = 0;
    bool keeps = false;
    std::string name;
    EntryKind kind;
    while (dir.next(name, kind)) {
        if (kind != EntryKind::kGone) {
            bool stays = false;
            result += deleteUnsecureEntry(dir, folder, names, name, kind, type, depth, stays);
            keeps = keeps || stays;
        }
        if (parent != nullptr && !keeps && dir.probablyAtEnd()) {
            if (parent->removeEntry(*self, EntryKind::kDirectory) == 0) {
                *removed = true;
                break;
            }
            // Not empty after all (something new came in): read on; the caller removes it.
            parent = nullptr;
        }
    }
    return result;
}

// One level of deleteUnsecureLogData: 0, or -1 after the first failure.
int deleteUnsecureDataLevel(Dir& dir, const std::string& folder, int depth) {
    static const std::set<std::string> kKept = {"config.json", "TwInfo.txt"};
    std::string name;
    EntryKind kind;
    while (dir.next(name, kind)) {
        if (kKept.count(name) != 0 || isSecureBackupFilePresent(name)) continue;
        std::string full = folder + "/" + name;
        LOGD("deleteUnsecureLogData::fullPath:: = %s", full.c_str());
        if (kind == EntryKind::kGone) continue;
        if (kind == EntryKind::kDirectory) {
            LOGD("deleteUnsecureLogData::Start::path = %s", full.c_str());
            Dir child = dir.openChild(name.c_str());
            int childResult = -1;
            if (!child.ok()) {
                LOGD("deleteUnsecureLogData::End");
            } else if (depth >= kMaxWalkDepth) {
                LOGE("deleteUnsecureLogData::tree too deep, not descending into %s", full.c_str());
            } else {
                childResult = deleteUnsecureDataLevel(child, full, depth + 1);
            }
            if (childResult == -1) {
                LOGE("deleteUnsecureLogData::Failed to delete directory");
                return -1;
            }
            if (dir.removeEntry(name, EntryKind::kDirectory) != 0) {
                LOGE("deleteUnsecureLogData::Failed to remove directory");
                return -1;
            }
        } else if (dir.removeEntry(name, kind) != 0) {
            LOGE("deleteUnsecureLogData::Failed to delete file");
            return -1;
        }
    }
    LOGD("deleteUnsecureLogData::End");
    return 0;
}

// The card's "Tellwick/" folder as the companion service reports it, or "" without a card.
std::string serviceCardTellwickFolder() {
    if (!isSDCARD_present()) return "";
    std::string card = getSDCARD_path();
    // The path comes from outside: only a storage root is worth cleaning.
    if (!startsWithSdcardOrStorage(card)) return "";
    return card + kTellwickFolder;
}

}  // namespace

bool isSecureBackupFilePresent(const std::string& name) {
    static const std::regex kSecureBackup("^SecureBackup.*\\.zip$");
    try {
        return std::regex_match(name, kSecureBackup);
    } catch (const std::regex_error& e) {
        LOGE("isSecureBackupFilePresent::regex failed: %s", e.what());
        return false;
    }
}

int deleteLogFilesUnsecure(const std::string& folder, int type) {
    LOGD("deleteLogFilesUnsecure::Start::path = %s, deleteLogType== %d", folder.c_str(), type);
    Dir dir = Dir::openTop(folder);
    if (!dir.ok()) {
        // A plain file (or a link) where the folder should be goes too.
        if (!isRealDirectory(folder)) removeTop(folder);
        // The end line is shared with the secure variant.
        LOGD("deleteSecureBackup::End");
        return -1;
    }
    int result = deleteUnsecureLevel(dir, folder, type, 1, nullptr, nullptr, nullptr);
    removeTop(folder);
    LOGD("deleteSecureBackup::End");
    return result;
}

int deleteLogFilesSecure(const std::string& root, int type) {
    LOGD("deleteSecureBackup::Start::path = %s", root.c_str());
    std::string secureFolder = root + kSecureLogFolder;
    if (isRealDirectory(secureFolder) && type != 2) {
        remove_all(secureFolder.c_str());
    }
    std::string tellwick = root + kTellwickFolder;
    if (isRealDirectory(tellwick) && (type == 0 || type == 2)) deleteSecureBackup(tellwick);
    LOGD("deleteSecureBackup::End");
    return 0;
}

int deleteSecureBackup(const std::string& folder) {
    LOGD("deleteSecureBackup::Start::path = %s", folder.c_str());
    Dir dir = Dir::openTop(folder);
    if (!dir.ok()) {
        LOGD("deleteSecureBackup::End");
        return -1;
    }
    // These two can never equal a "%s/%s" path; they stay as they were settled, and the
    // prefix test alone decides.
    const std::string keptInfo = folder + kTellwickFolder + "/TwInfo.txt";
    const std::string keptConfig = folder + kTellwickFolder + "/config.json";
    const std::string secureBackup = folder + "/SecureBackup";
    int result = 0;
    std::string name;
    EntryKind kind;
    while (dir.next(name, kind)) {
        if (kind == EntryKind::kGone) continue;
        std::string full = folder + "/" + name;
        LOGD("deleteSecureBackup::remove = %.*s", kEntryPathSize - 1, full.c_str());
        if (full == keptInfo || full == keptConfig) continue;
        if (full.rfind(secureBackup, 0) == 0) result += dir.removeEntry(name, kind);
    }
    LOGD("deleteSecureBackup::End");
    return result;
}

int deleteUnsecureLogData(const std::string& folder) {
    LOGD("deleteUnsecureLogData::Start::path = %s", folder.c_str());
    Dir dir = Dir::openTop(folder);
    if (!dir.ok()) {
        LOGD("deleteUnsecureLogData::End");
        return -1;
    }
    return deleteUnsecureDataLevel(dir, folder, 1);
}

void removeUnsecureLogs(std::string root) {
    LOGD("removeUnsecureLogs::Start");
    // The root is extended in place, so the "/sdcard/" test below never holds and the
    // internal folder is always cleaned as well.
    root.append(kTellwickFolder);
    if (isRealDirectory(root)) deleteUnsecureLogData(root);
    if (root != kInternalRoot) {
        std::string internal = std::string(kInternalRoot) + kTellwickFolder;
        if (isRealDirectory(internal)) deleteUnsecureLogData(internal);
    } else {
        std::string card = serviceCardTellwickFolder();
        if (!card.empty() && isRealDirectory(card)) deleteUnsecureLogData(card);
    }
    LOGD("removeUnsecureLogs::End");
}

void removeSecureLogs(std::string root) {
    LOGD("removeSecureLogs::Start");
    const std::string firstCopy = root;
    const std::string secondCopy = root;
    // Extended in place, as in removeUnsecureLogs: the internal secure folder always goes.
    root.append(kSecureLogFolder);
    if (isRealDirectory(root)) remove_all(root.c_str());
    if (root != kInternalRoot) {
        std::string internal = std::string(kInternalRoot) + kSecureLogFolder;
        if (isRealDirectory(internal)) remove_all(internal.c_str());
    }

    std::string tellwick = firstCopy + kTellwickFolder;
    if (isRealDirectory(tellwick)) deleteSecureBackup(tellwick);
    if (secondCopy != kInternalRoot) {
        std::string internal = std::string(kInternalRoot) + kTellwickFolder;
        if (isRealDirectory(internal)) deleteSecureBackup(internal);
    } else {
        std::string card = serviceCardTellwickFolder();
        if (!card.empty() && isRealDirectory(card)) deleteSecureBackup(card);
    }
    LOGD("removeSecureLogs::End");
}

void deleteTwLogs() {
    LOGD("deleteLogs::start");
    int type = 0;
    sp<Ivd_service> service = Ivd_service::getInterface();
    if (service != nullptr) {
        type = service->getDeleteLogsParam();
    } else {
        LOGE("Failed to obtain a handle on vd_service");
    }
    std::string root = getDefaultDirectory();
    if (isTellwickSecureModeEnabled()) {
        deleteLogFilesSecure(root, type);
    } else {
        deleteLogFilesUnsecure(root + kTellwickFolder, type);
    }
    LOGD("deleteLogs::finish");
}

void resetToDefault() {
    LOGD("resetToDefault::start");
    {
        vigild::Lock lock(configMutex);
        for (modulePair& pair : moduleRegistry) {
            for (Module::config& setting : pair.settings.configs) {
                // A module's own default may fill its buffer without a terminator.
                snprintf(setting.value, sizeof(setting.value), "%.*s",
                         static_cast<int>(sizeof(setting.defaultValue) - 1), setting.defaultValue);
            }
        }
    }
    if (isInternalSDcardEnabledLogging()) setprop("persist.sys.vd.internal_sd", "false");

    // Resolved after the property change, so a card may be chosen now.
    std::string root = getDefaultDirectory();
    char path[128];
    int n = snprintf(path, sizeof(path), "%s%s", root.c_str(), kConfigFileName);
    if (n < 0 || static_cast<size_t>(n) >= sizeof(path)) {
        LOGE("resetToDefault::configuration path too long: %s", root.c_str());
    } else {
        vigild::Lock lock(configMutex);
        char* text = getConfig(root);
        saveFile(path, text);
        free(text);
    }
    // sendConfig takes configMutex itself.
    sendConfig();
    LOGD("resetToDefault::finish");
}

bool copyConfigFileToSecurePath(const std::string& source) {
    std::string destination = getDefaultDirectory() + kSecureLogFolder + "config.json";
    bool copied = copyFile(trim(source), trim(destination));
    LOGD("copyConfigFileToSecurePath::isCopied %d", copied ? 1 : 0);
    return copied;
}
