#include "modcheck/scratch_device.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "core/log.h"
#include "core/module_loader.h"
#include "platform/fs.h"
#include "platform/host/host_platform.h"

namespace vdtools {

LogCapture::LogCapture(bool forward) : forward_(forward) {
    vigild::platform::Platform p = vigild::platform::current();
    previous_ = p.log;
    p.log = this;
    vigild::platform::install(p);
}

LogCapture::~LogCapture() {
    vigild::platform::Platform p = vigild::platform::current();
    p.log = previous_;
    vigild::platform::install(p);
}

void LogCapture::write(int priority, const char* tag, const char* text) {
    lines_.push_back({priority, text});
    if (forward_ && previous_ != nullptr) previous_->write(priority, tag, text);
}

std::vector<std::string> LogCapture::errorsSince(size_t from) const {
    std::vector<std::string> out;
    for (size_t i = from; i < lines_.size(); ++i) {
        if (lines_[i].priority >= kLogError) out.push_back(lines_[i].text);
    }
    return out;
}

ScratchDevice::ScratchDevice() {
    // Short on purpose: service socket paths below the root are limited to 107 bytes.
    char pattern[] = "/tmp/vdtool.XXXXXX";
    if (mkdtemp(pattern) != nullptr) root_ = pattern;
}

ScratchDevice::~ScratchDevice() {
    if (root_.empty()) return;
    std::error_code ec;
    // remove_all does not follow links, so nothing outside the scratch root is touched.
    std::filesystem::remove_all(root_, ec);
}

void ScratchDevice::install() const { vigild::platform::host::installForRoot(root_, 1.0); }

bool makeDeviceDirs(const std::string& devicePath) {
    std::string partial;
    size_t pos = 1;
    while (pos <= devicePath.size()) {
        size_t next = devicePath.find('/', pos);
        if (next == std::string::npos) next = devicePath.size();
        partial = devicePath.substr(0, next);
        if (!partial.empty() && vigild::fs::mkdir(partial.c_str(), 0771) != 0 && errno != EEXIST) {
            return false;
        }
        pos = next + 1;
    }
    return vigild::fs::isDirectory(devicePath.c_str());
}

bool copyToDevice(const std::string& hostFile, const std::string& devicePath) {
    int in = ::open(hostFile.c_str(), O_RDONLY | O_CLOEXEC);
    if (in < 0) return false;
    vigild::fs::unlink(devicePath.c_str());
    int out = vigild::fs::open(devicePath.c_str(),
                               O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0755);
    bool good = out >= 0;
    char buffer[65536];
    while (good) {
        ssize_t n = ::read(in, buffer, sizeof(buffer));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            good = n == 0;
            break;
        }
        for (ssize_t done = 0; good && done < n;) {
            ssize_t w = ::write(out, buffer + done, static_cast<size_t>(n - done));
            if (w < 0 && errno == EINTR) continue;
            good = w > 0;
            if (good) done += w;
        }
    }
    ::close(in);
    if (out >= 0 && ::close(out) != 0) good = false;
    return good;
}

std::vector<std::string> moduleLibrariesIn(const std::string& hostFolder) {
    std::vector<std::string> out;
    DIR* dir = ::opendir(hostFolder.c_str());
    if (dir == nullptr) return out;
    const size_t prefix = strlen(kLibraryPrefix);
    while (struct dirent* entry = ::readdir(dir)) {
        if (strncmp(entry->d_name, kLibraryPrefix, prefix) == 0) out.push_back(entry->d_name);
    }
    ::closedir(dir);
    std::sort(out.begin(), out.end());
    return out;
}

}  // namespace vdtools
