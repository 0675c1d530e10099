#include "storage/tree.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <mutex>

#include "core/thread_annotations.h"
#include "platform/fs.h"
#include "platform/platform.h"

namespace vigild::storage {

namespace {

platform::Files& files() { return *platform::current().files; }

// What replace() last put in place: the watch compares the file at a path against these. The
// change time is part of it, so an inode number used again later is not taken for ours.
struct Identity {
    dev_t dev = 0;
    ino_t ino = 0;
    time_t ctimeSec = 0;
    long ctimeNsec = 0;
};
constexpr size_t kKeptIdentities = 8;
vigild::Mutex gOwnMutex;
Identity gOwn[kKeptIdentities] GUARDED_BY(gOwnMutex);
size_t gOwnNext GUARDED_BY(gOwnMutex) = 0;

bool sameIdentity(const Identity& id, const struct stat& st) {
    return id.ino != 0 && id.dev == st.st_dev && id.ino == st.st_ino &&
           id.ctimeSec == st.st_ctim.tv_sec && id.ctimeNsec == st.st_ctim.tv_nsec;
}

// Names of new files: one per replacement in this process, so two threads replacing the same
// file never share one; a name left by a killed daemon is removed before it is used again.
std::atomic<unsigned> gSequence{0};

}  // namespace

void UniqueFd::reset(int fd) {
    if (fd_ >= 0) {
        int saved = errno;
        ::close(fd_);
        errno = saved;
    }
    fd_ = fd;
}

SplitPath splitPath(std::string_view path) {
    SplitPath out;
    size_t pos = 0;
    while (pos < path.size()) {
        size_t next = path.find('/', pos);
        if (next == std::string_view::npos) next = path.size();
        std::string_view part = path.substr(pos, next - pos);
        if (part == "..") out.valid = false;
        if (!part.empty() && part != ".") out.parts.emplace_back(part);
        pos = next + 1;
    }
    return out;
}

bool isTrustedComponent(const std::vector<std::string>& parts, size_t index) {
    if (index == 0) return parts[0] == "sdcard" || parts[0] == "storage";
    return index == 1 && parts[0] == "storage";
}

int openFolder(const std::vector<std::string>& parts, size_t count, bool create) {
    UniqueFd dir(vigild::fs::open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    for (size_t i = 0; i < count && dir.get() >= 0; i++) {
        if (create && ::mkdirat(dir.get(), parts[i].c_str(), 0777) != 0 && errno != EEXIST) {
            return -1;
        }
        int flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
        if (!isTrustedComponent(parts, i)) flags |= O_NOFOLLOW;
        int next = ::openat(dir.get(), parts[i].c_str(), flags);
        struct stat st;
        // O_DIRECTORY reports a link as ENOTDIR; name it for what it is.
        if (next < 0 && errno == ENOTDIR &&
            ::fstatat(dir.get(), parts[i].c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 &&
            S_ISLNK(st.st_mode)) {
            errno = ELOOP;
        }
        dir.reset(next);
    }
    return dir.release();
}

int openFolder(std::string_view devicePath, bool create) {
    SplitPath split = splitPath(devicePath);
    if (!split.valid) {
        errno = EINVAL;
        return -1;
    }
    return openFolder(split.parts, split.parts.size(), create);
}

Entry::Entry(std::string_view devicePath, bool createFolders) {
    SplitPath split = splitPath(devicePath);
    if (!split.valid || split.parts.empty()) {
        error_ = errno = EINVAL;
        return;
    }
    size_t last = split.parts.size() - 1;
    folder_.reset(openFolder(split.parts, last, createFolders));
    if (!ok()) error_ = errno;
    name_ = split.parts[last];
    trusted_ = isTrustedComponent(split.parts, last);
}

int Entry::failed() const {
    errno = error_;
    return -1;
}

bool Entry::lstat(struct stat& st) const {
    if (!ok()) {
        failed();
        return false;
    }
    return ::fstatat(folder(), name_.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0;
}

int Entry::open(int flags, mode_t mode) const {
    if (!ok()) return failed();
    if (!trusted_) flags |= O_NOFOLLOW;
    return ::openat(folder(), name_.c_str(), flags | O_CLOEXEC, mode);
}

int Entry::mkdir(mode_t mode) const {
    return ok() ? ::mkdirat(folder(), name_.c_str(), mode) : failed();
}

int Entry::remove(int flags) const {
    return ok() ? ::unlinkat(folder(), name_.c_str(), flags) : failed();
}

int Entry::renameTo(const std::string& name) const {
    return ok() ? files().renameat(folder(), name_.c_str(), folder(), name.c_str()) : failed();
}

int Entry::syncFolder() const { return ok() ? files().fsync(folder()) : failed(); }

Entry::Replaced Entry::replace(const std::function<bool(int fd)>& fill) const {
    if (!ok()) {
        failed();
        return Replaced::kNotCreated;
    }
    struct stat existing;
    if (trusted_ || (lstat(existing) && S_ISDIR(existing.st_mode))) {
        errno = EISDIR;
        return Replaced::kNotCreated;
    }
    const std::string temp = name_ + ".tmp" + std::to_string(gSequence++);
    ::unlinkat(folder(), temp.c_str(), 0);
    UniqueFd out(::openat(folder(), temp.c_str(),
                          O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666));
    if (out.get() < 0) return Replaced::kNotCreated;
    bool done = fill(out.get()) && files().fsync(out.get()) == 0;
    if (done) {
        // Noted under the lock the watch asks under, so it cannot see the rename before the
        // note; the change time is read after the rename, which sets it.
        vigild::Lock lock(gOwnMutex);
        done = files().renameat(folder(), temp.c_str(), folder(), name_.c_str()) == 0;
        struct stat st;
        if (done && ::fstat(out.get(), &st) == 0) {
            gOwn[gOwnNext] = {st.st_dev, st.st_ino, st.st_ctim.tv_sec, st.st_ctim.tv_nsec};
            gOwnNext = (gOwnNext + 1) % kKeptIdentities;
        }
    }
    if (!done) {
        int error = errno;
        ::unlinkat(folder(), temp.c_str(), 0);
        errno = error;
        return Replaced::kNotWritten;
    }
    // The file is complete either way; a lost folder sync only risks the old one after a crash.
    syncFolder();
    return Replaced::kDone;
}

bool writeAll(int fd, const char* data, size_t size) {
    while (size > 0) {
        ssize_t n = files().write(fd, data, size);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            if (n == 0) errno = EIO;
            return false;
        }
        data += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

bool copyData(int in, int out) {
    constexpr size_t kChunk = 1 << 30;
    bool useRange = true;
    char buffer[65536];
    while (true) {
        ssize_t n;
        if (useRange) {
            n = files().copyRange(in, out, kChunk);
            if (n < 0 && (errno == EXDEV || errno == EINVAL || errno == ENOSYS ||
                          errno == EOPNOTSUPP || errno == EPERM || errno == EBADF)) {
                useRange = false;
                continue;
            }
        } else {
            n = ::read(in, buffer, sizeof(buffer));
            if (n > 0 && !writeAll(out, buffer, static_cast<size_t>(n))) return false;
        }
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return false;
        if (n == 0) return true;
    }
}

bool isRealFolder(std::string_view devicePath) {
    UniqueFd fd(openFolder(devicePath));
    return fd.get() >= 0;
}

bool isOwnReplacement(std::string_view devicePath) {
    struct stat st;
    if (!Entry(devicePath).lstat(st) || !S_ISREG(st.st_mode)) return false;
    vigild::Lock lock(gOwnMutex);
    for (const Identity& id : gOwn) {
        if (sameIdentity(id, st)) return true;
    }
    return false;
}

}  // namespace vigild::storage
