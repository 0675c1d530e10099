#include "storage/utility.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sstream>
#include <string_view>
#include <unordered_set>

#include "core/debug_singleton.h"
#include "core/log.h"
#include "platform/fs.h"
#include "platform/platform.h"
#include "storage/tree.h"

namespace {

// mkdir_all's path buffer, as PATH_MAX.
constexpr size_t kPathBufferSize = 4096;
// remove_all forms "%s/%s" into a buffer of this size; its log lines are cut the same way.
constexpr size_t kEntryPathSize = 1035;
// Directories held open at once by remove_all; deeper levels are reopened through "..".
constexpr size_t kMaxOpenDirs = 64;

using vigild::storage::isTrustedComponent;
using vigild::storage::SplitPath;
using vigild::storage::splitPath;
using vigild::storage::UniqueFd;

// Removes one entry of `dirFd` as remove() would, but never through a link.
int removeEntry(int dirFd, const char* name, bool trusted) {
    struct stat st;
    if (::fstatat(dirFd, name, &st, AT_SYMLINK_NOFOLLOW) != 0) return -1;
    // A storage root that is a system link is left alone.
    if (trusted && S_ISLNK(st.st_mode)) {
        errno = EPERM;
        return -1;
    }
    return ::unlinkat(dirFd, name, S_ISDIR(st.st_mode) ? AT_REMOVEDIR : 0);
}

struct RemoveFrame {
    DIR* dir = nullptr;  // null while closed to save descriptors
    dev_t dev = 0;
    ino_t ino = 0;
    size_t pathLength = 0;
    std::string name;  // in the parent
    int result = 0;
    // Entries seen here that are still present (their removal failed): skipped when the
    // directory is read again after being reopened.
    std::unordered_set<std::string> kept;
};

void logRemove(const std::string& path) {
    if (!debugSingleton::getInstance().debugLog) return;
    std::string_view shown(path);
    if (shown.size() > kEntryPathSize - 1) shown = shown.substr(0, kEntryPathSize - 1);
    LOGD("remove %.*s", static_cast<int>(shown.size()), shown.data());
}

bool entryIsDirectory(int dirFd, const struct dirent* entry) {
    if (entry->d_type != DT_UNKNOWN) return entry->d_type == DT_DIR;
    struct stat st;
    return ::fstatat(dirFd, entry->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(st.st_mode);
}

void closeFrames(std::vector<RemoveFrame>& stack) {
    for (RemoveFrame& frame : stack) {
        if (frame.dir != nullptr) closedir(frame.dir);
        frame.dir = nullptr;
    }
}

// Empties the open directory `fd` (which it takes over), depth first, without recursion: at
// most kMaxOpenDirs levels are held open, shallower ones are reopened through ".." and checked
// to be the same directory. Returns the sum of the removal results below it (0 or negative).
int removeTree(int fd, const std::string& path) {
    struct stat st;
    DIR* top = fstat(fd, &st) == 0 ? fdopendir(fd) : nullptr;
    if (top == nullptr) {
        ::close(fd);
        return -1;
    }
    std::vector<RemoveFrame> stack;
    stack.push_back({top, st.st_dev, st.st_ino, path.size(), std::string(), 0, {}});
    std::string current = path;
    size_t openCount = 1;
    while (true) {
        RemoveFrame& frame = stack.back();
        errno = 0;
        struct dirent* entry = readdir(frame.dir);
        if (entry == nullptr) {
            if (stack.size() == 1) {
                int result = frame.result;
                closeFrames(stack);
                return result;
            }
            RemoveFrame& parent = stack[stack.size() - 2];
            if (parent.dir == nullptr) {
                int up = ::openat(dirfd(frame.dir), "..", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
                struct stat upSt;
                DIR* reopened = nullptr;
                if (up >= 0 && fstat(up, &upSt) == 0 && upSt.st_dev == parent.dev &&
                    upSt.st_ino == parent.ino) {
                    reopened = fdopendir(up);
                }
                if (reopened == nullptr) {
                    if (up >= 0) ::close(up);
                    LOGE("remove_all::tree moved while removing %s", path.c_str());
                    int result = stack.front().result - 1;
                    closeFrames(stack);
                    return result;
                }
                parent.dir = reopened;
                openCount++;
            }
            int childResult = frame.result;
            std::string childName = std::move(frame.name);
            closedir(frame.dir);
            stack.pop_back();
            openCount--;
            RemoveFrame& back = stack.back();
            back.result += childResult;
            if (::unlinkat(dirfd(back.dir), childName.c_str(), AT_REMOVEDIR) != 0) {
                back.kept.insert(childName);
            }
            current.resize(back.pathLength);
            continue;
        }
        const char* name = entry->d_name;
        if (strcmp(name, ".") == 0 || strcmp(name, "..") == 0) continue;
        if (frame.kept.count(name) != 0) continue;
        current.resize(frame.pathLength);
        current += '/';
        current += name;
        logRemove(current);
        int dirFd = dirfd(frame.dir);
        if (!entryIsDirectory(dirFd, entry)) {
            if (::unlinkat(dirFd, name, 0) != 0) {
                frame.result -= 1;
                frame.kept.insert(name);
            }
            continue;
        }
        int childFd = ::openat(dirFd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        struct stat childSt;
        DIR* child = nullptr;
        if (childFd >= 0 && fstat(childFd, &childSt) == 0) child = fdopendir(childFd);
        if (child == nullptr) {
            if (childFd >= 0) ::close(childFd);
            // As a recursive call on a directory it cannot open: -1, then remove it anyway.
            frame.result -= 1;
            if (::unlinkat(dirFd, name, AT_REMOVEDIR) != 0) frame.kept.insert(name);
            continue;
        }
        std::string childName(name);
        if (openCount == kMaxOpenDirs) {
            RemoveFrame& oldest = stack[stack.size() - openCount];
            closedir(oldest.dir);
            oldest.dir = nullptr;
            openCount--;
        }
        stack.push_back(
            {child, childSt.st_dev, childSt.st_ino, current.size(), std::move(childName), 0, {}});
        openCount++;
    }
}

}  // namespace

int getprop(char* value, const char* key, const char* defaultValue) {
    return vigild::platform::current().properties->get(key, value, defaultValue);
}

int setprop(const char* key, const char* value) {
    return vigild::platform::current().properties->set(key, value);
}

std::string ExecuteCommandToString(const char* command) {
    if (command == nullptr) return std::string();
    FILE* stream = vigild::platform::current().processes->openShell(command);
    if (stream == nullptr) return std::string();
    std::vector<char> buffer(4096);
    std::string output;
    // Pieces of 128 bytes: the volume listing it looks through has short lines.
    while (fgets(buffer.data(), 128, stream) != nullptr) output += buffer.data();
    std::vector<std::string> lines;
    createVector(output, '\n', lines, true);
    std::string result;
    for (const std::string& line : lines) {
        if (line.size() < 10) continue;
        size_t found = line.find("public:179");
        // The last volume listed wins.
        if (found != std::string::npos) result = line.substr(found);
    }
    vigild::platform::current().processes->closeShell(stream);
    return result;
}

char* fileReader(const char* path) {
    auto empty = [] {
        char* none = new char[1];
        none[0] = '\0';
        return none;
    };
    if (path == nullptr) return empty();
    // Non-blocking so that a FIFO planted in place of a file cannot hang the reader.
    UniqueFd fd(vigild::storage::Entry(path).open(O_RDONLY | O_NONBLOCK));
    if (fd.get() < 0) {
        LOGE("fileReader::could not open %s: %s", path, strerror(errno));
        return empty();
    }
    struct stat st;
    if (fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
        LOGE("fileReader::not a regular file: %s", path);
        return empty();
    }
    if (st.st_size < 0 || static_cast<uint64_t>(st.st_size) > kFileReaderLimit) {
        LOGE("fileReader::file too large: %s (%lld bytes)", path,
             static_cast<long long>(st.st_size));
        return empty();
    }
    size_t size = static_cast<size_t>(st.st_size);
    char* data = new char[size + 1];
    size_t got = 0;
    while (got < size) {
        ssize_t n = ::read(fd.get(), data + got, size - got);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        got += static_cast<size_t>(n);
    }
    // A file that shrank while being read ends where the reading ended.
    data[got] = '\0';
    return data;
}

void createVector(const std::string& text, char separator, std::vector<std::string>& out,
                  bool skip) {
    out.clear();
    std::istringstream stream(text);
    std::string piece;
    while (std::getline(stream, piece, separator)) {
        if (skip && piece.empty()) continue;
        out.push_back(piece);
    }
}

std::string substrNthPlace(const std::string& text, const std::string& pattern, int32_t n) {
    if (n < 1) return text.substr(0, 1);
    // The search starts at index 1, so a leading "/" of a path is never counted.
    size_t position = 1;
    int32_t count = 0;
    while (position <= text.size()) {
        size_t found = text.find(pattern, position);
        if (found == std::string::npos) break;
        count++;
        position = found + 1;
        if (count == n) return text.substr(0, position);
    }
    return "UNKNOWN";
}

std::string trim(const std::string& text) {
    // Carriage returns stay: callers compare against lines the tools print with them.
    static constexpr const char* kBlanks = " \t\n";
    size_t first = text.find_first_not_of(kBlanks);
    if (first == std::string::npos) return std::string();
    size_t last = text.find_last_not_of(kBlanks);
    return text.substr(first, last - first + 1);
}

std::string truncateFromSubstring(const std::string& text, const std::string& pattern) {
    size_t found = pattern.empty() ? std::string::npos : text.find(pattern);
    if (found == std::string::npos) {
        LOGE("truncateFromSubstring::substring not found in orginal string");
        return std::string();
    }
    std::string result = text.substr(found + pattern.size());
    LOGD("truncateFromSubstring::truncate string::return str == %s", result.c_str());
    return result;
}

bool copyFile(const std::string& source, const std::string& destination) {
    LOGD("copyFile::sourcePath == %s, destination path == %s", source.c_str(), destination.c_str());
    UniqueFd in(vigild::fs::open(source.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
    struct stat st = {};
    if (in.get() >= 0 && (fstat(in.get(), &st) != 0 || !S_ISREG(st.st_mode))) {
        in.reset();
        errno = S_ISDIR(st.st_mode) ? EISDIR : EINVAL;
    }
    if (in.get() < 0) {
        LOGE("Error: Could not open source file: error == %s ", strerror(errno));
        return false;
    }
    ::fcntl(in.get(), F_SETFL, 0);

    vigild::storage::Entry dest(destination);
    struct stat existing;
    // A file copied onto itself is already there.
    if (dest.lstat(existing) && existing.st_dev == st.st_dev && existing.st_ino == st.st_ino) {
        return true;
    }
    // Into a new file renamed over the destination once complete: a full disk or a kill half-way
    // never leaves a torn configuration, and a link or FIFO in its place is replaced, never
    // written through.
    switch (dest.replace([&](int out) { return vigild::storage::copyData(in.get(), out); })) {
        case vigild::storage::Entry::Replaced::kNotCreated:
            LOGD("Error: Could not open destination file: error == %s ", strerror(errno));
            return false;
        case vigild::storage::Entry::Replaced::kNotWritten:
            LOGD("Error: Could not copy file contents to: %s", destination.c_str());
            return false;
        case vigild::storage::Entry::Replaced::kDone:
            break;
    }
    return true;
}

int mkdir_all(const char* path) {
    errno = 0;
    if (path == nullptr) {
        errno = EINVAL;
        return -1;
    }
    if (strnlen(path, kPathBufferSize) >= kPathBufferSize) {
        errno = ENAMETOOLONG;
        return -1;
    }
    if (path[0] == '\0') {
        errno = ENOENT;
        return -1;
    }
    SplitPath split = splitPath(path);
    if (!split.valid) {
        errno = EINVAL;
        return -1;
    }
    if (split.parts.empty()) return 0;  // "/" exists
    size_t last = split.parts.size() - 1;
    UniqueFd parent(vigild::storage::openFolder(split.parts, last, true));
    if (parent.get() < 0) return -1;
    const char* name = split.parts[last].c_str();
    if (::mkdirat(parent.get(), name, 0777) == 0) return 0;
    if (errno != EEXIST) return -1;
    struct stat st;
    if (!isTrustedComponent(split.parts, last) &&
        ::fstatat(parent.get(), name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(st.st_mode)) {
        errno = ELOOP;
        return -1;
    }
    errno = 0;
    return 0;
}

int remove_all(const char* path) {
    if (path == nullptr) return -1;
    SplitPath split = splitPath(path);
    if (!split.valid) {
        errno = EINVAL;
        return -1;
    }
    if (split.parts.empty()) {
        // The device's "/" itself is emptied but never removed.
        int fd = vigild::fs::open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        return fd < 0 ? -1 : removeTree(fd, path);
    }
    size_t last = split.parts.size() - 1;
    UniqueFd parent(vigild::storage::openFolder(split.parts, last));
    if (parent.get() < 0) return -1;
    const char* name = split.parts[last].c_str();
    int flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
    if (!isTrustedComponent(split.parts, last)) flags |= O_NOFOLLOW;
    int fd = ::openat(parent.get(), name, flags);
    int result = fd < 0 ? -1 : removeTree(fd, path);
    removeEntry(parent.get(), name, isTrustedComponent(split.parts, last));
    return result;
}

bool isCleanLogPath(const std::string& value) {
    // Characters that print as nothing (or as a plain blank) but name another folder: no-break
    // space, soft hyphen, zero-width and direction marks, word joiners, byte order mark.
    static constexpr std::string_view kInvisible[] = {
        "\xC2\xA0",     "\xC2\xAD",     "\xE2\x80\x8B", "\xE2\x80\x8C", "\xE2\x80\x8D",
        "\xE2\x80\x8E", "\xE2\x80\x8F", "\xE2\x80\xAA", "\xE2\x80\xAB", "\xE2\x80\xAC",
        "\xE2\x80\xAD", "\xE2\x80\xAE", "\xE2\x81\xA0", "\xE2\x81\xA1", "\xE2\x81\xA2",
        "\xE2\x81\xA3", "\xE2\x81\xA4", "\xE2\x81\xA6", "\xE2\x81\xA7", "\xE2\x81\xA8",
        "\xE2\x81\xA9", "\xEF\xBB\xBF",
    };
    for (unsigned char c : value) {
        if (c < 0x20 || c == 0x7F) return false;
    }
    for (std::string_view mark : kInvisible) {
        if (value.find(mark) != std::string::npos) return false;
    }
    std::string_view rest(value);
    while (!rest.empty()) {
        size_t slash = rest.find('/');
        std::string_view part = rest.substr(0, slash);
        if (part == "..") return false;
        if (!part.empty() && (part.front() == ' ' || part.back() == ' ')) return false;
        if (slash == std::string_view::npos) break;
        rest.remove_prefix(slash + 1);
    }
    return true;
}

bool isFileExists(const std::string& path) {
    // Non-blocking: a FIFO opens for reading at once instead of waiting for a writer.
    int fd = vigild::fs::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return false;
    ::close(fd);
    return true;
}

bool isDebugBuildorDebugEnabled() {
    if (debugSingleton::getInstance().debugLog) return true;
    char value[vigild::platform::kPropValueMax];
    getprop(value, "ro.debuggable", "UNKNOWN");
    return value[0] == '1';
}

bool isNumberInRange(int32_t value, int32_t a, int32_t b) {
    // Written so on purpose: with a > b it tells whether value lies outside (b, a].
    return value > a || value <= b;
}
