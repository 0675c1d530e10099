// The one way the daemon changes anything on storage: a device path is opened one component
// at a time from the device's "/" with openat, and no component is followed when it is a
// link, except the storage roots themselves ("/sdcard", "/storage", "/storage/<card>"), which
// the system makes. Everything after that is done relative to the folder reached, so a folder
// swapped for a link half-way never leads outside. File data goes through the platform's
// Files calls.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace vigild::storage {

// Closes a descriptor when it goes out of scope; errno survives the close.
class UniqueFd {
  public:
    explicit UniqueFd(int fd = -1) : fd_(fd) {}
    ~UniqueFd() { reset(); }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    int get() const { return fd_; }
    int release() {
        int fd = fd_;
        fd_ = -1;
        return fd;
    }
    void reset(int fd = -1);

  private:
    int fd_;
};

// A device path cut into its components; "." is dropped.
struct SplitPath {
    std::vector<std::string> parts;
    bool valid = true;  // false when a component is ".."
};
SplitPath splitPath(std::string_view path);

// True for the components that may be system links: "/sdcard", "/storage" and
// "/storage/<card>".
bool isTrustedComponent(const std::vector<std::string>& parts, size_t index);

// The folder made of the first `count` components (all of them by default), creating missing
// ones with mode 0777 when `create` is set. -1 with errno on failure (ELOOP for a link).
int openFolder(const std::vector<std::string>& parts, size_t count, bool create = false);
int openFolder(std::string_view devicePath, bool create = false);

// The last component of a device path, held by its folder.
class Entry {
  public:
    explicit Entry(std::string_view devicePath, bool createFolders = false);

    // False when the folder could not be reached (errno says why) or the path names "/".
    bool ok() const { return folder_.get() >= 0; }
    int folder() const { return folder_.get(); }
    const std::string& name() const { return name_; }
    bool trusted() const { return trusted_; }

    // fstatat without following a link.
    bool lstat(struct stat& st) const;
    // openat of the entry; O_NOFOLLOW unless it is a storage root. -1 with errno.
    int open(int flags, mode_t mode = 0) const;
    int mkdir(mode_t mode) const;
    // unlinkat (AT_REMOVEDIR in `flags` for a folder): a link goes as a link.
    int remove(int flags = 0) const;
    // Renames the entry to `name` in the same folder.
    int renameTo(const std::string& name) const;
    // Makes a rename or removal in the folder durable.
    int syncFolder() const;

    enum class Replaced { kDone, kNotCreated, kNotWritten };
    // Puts a new file in the entry's place: `fill` writes it into a new file beside the entry,
    // which is synced and renamed over the entry only once it is complete, so the entry holds
    // its old content or all of the new at every moment, whatever fails or stops on the way.
    // kNotCreated: the new file could not be made (the entry is a folder, the folder is not
    // there); kNotWritten: `fill`, the sync or the rename failed. errno says why.
    Replaced replace(const std::function<bool(int fd)>& fill) const;

  private:
    // -1 with the errno of the failed walk.
    int failed() const;

    UniqueFd folder_;
    std::string name_;
    bool trusted_ = false;
    int error_ = 0;
};

// The whole buffer through the platform's write; false with errno on failure.
bool writeAll(int fd, const char* data, size_t size);
// The rest of `in` into `out`: copy_file_range, then read and write.
bool copyData(int in, int out);
// A folder reached without a link (a storage root may be one).
bool isRealFolder(std::string_view devicePath);

// True when the file now at `devicePath` is one the daemon itself put there by replace():
// the watch on a configuration file takes such a replacement for no edit of the user's.
bool isOwnReplacement(std::string_view devicePath);

}  // namespace vigild::storage
