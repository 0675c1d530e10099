#include "platform/host/host_platform.h"

#include <android/log.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <malloc.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include "platform/posix_process.h"

// Not declared by the host liblog headers, but exported by the library.
extern "C" int32_t __android_log_set_minimum_priority(int32_t priority);

namespace vigild::platform::host {

HostRoot::HostRoot(std::string root) : root_(std::move(root)) {
    while (root_.size() > 1 && root_.back() == '/') root_.pop_back();
    if (root_ == "/") root_.clear();
}

std::string HostRoot::toHost(std::string_view devicePath) const {
    if (devicePath.empty()) return std::string();
    std::vector<std::string_view> parts;
    size_t pos = 0;
    while (pos <= devicePath.size()) {
        size_t next = devicePath.find('/', pos);
        if (next == std::string_view::npos) next = devicePath.size();
        std::string_view part = devicePath.substr(pos, next - pos);
        if (part == "..") {
            if (!parts.empty()) parts.pop_back();
        } else if (!part.empty() && part != ".") {
            parts.push_back(part);
        }
        pos = next + 1;
    }
    std::string out = root_;
    for (std::string_view part : parts) {
        out += '/';
        out += part;
    }
    if (parts.empty() || devicePath.back() == '/') out += '/';
    return out;
}

namespace {

// A property name is one file name inside the store.
bool validPropertyName(const char* key) {
    return key != nullptr && key[0] != '\0' && key[0] != '.' && strchr(key, '/') == nullptr &&
           strlen(key) < 256;
}

int copyDefault(char* value, const char* defaultValue) {
    if (defaultValue == nullptr) {
        value[0] = '\0';
        return 0;
    }
    size_t n = strnlen(defaultValue, kPropValueMax - 1);
    memcpy(value, defaultValue, n);
    value[n] = '\0';
    return static_cast<int>(n);
}

}  // namespace

FileProperties::FileProperties(const DeviceRoot* root) : root_(root) {}

int FileProperties::get(const char* key, char* value, const char* defaultValue) {
    if (!validPropertyName(key)) return copyDefault(value, defaultValue);
    std::string path = root_->toHost(std::string("/dev/__properties__/") + key);
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (fd < 0) return copyDefault(value, defaultValue);
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        ::close(fd);
        return copyDefault(value, defaultValue);
    }
    char buf[kPropValueMax + 1];
    size_t got = 0;
    while (got < sizeof(buf)) {
        ssize_t n = ::read(fd, buf + got, sizeof(buf) - got);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        got += static_cast<size_t>(n);
    }
    ::close(fd);
    // One trailing newline is not part of the value (echo value > file).
    if (got > 0 && got <= kPropValueMax && buf[got - 1] == '\n') got--;
    if (got > kPropValueMax - 1) got = kPropValueMax - 1;
    if (got == 0) return copyDefault(value, defaultValue);
    memcpy(value, buf, got);
    value[got] = '\0';
    return static_cast<int>(got);
}

int FileProperties::set(const char* key, const char* value) {
    if (!validPropertyName(key) || value == nullptr) return -1;
    size_t len = strlen(value);
    if (len > kPropValueMax - 1 && strncmp(key, "ro.", 3) != 0) return -1;
    std::string dir = root_->toHost("/dev/__properties__/");
    // Create the store folder and its parent when missing.
    for (const char* p : {"/dev", "/dev/__properties__"}) {
        ::mkdir(root_->toHost(p).c_str(), 0755);
    }
    // The temporary name stays within NAME_MAX however long the property name is.
    std::string tmp = dir + "." + std::string(key).substr(0, 200) + ".XXXXXX";
    std::vector<char> tmpl(tmp.begin(), tmp.end());
    tmpl.push_back('\0');
    int fd = mkostemp(tmpl.data(), O_CLOEXEC);
    if (fd < 0) return -1;
    bool ok = writeAll(fd, value, len);
    ok = (fchmod(fd, 0644) == 0) && ok;
    ok = (::close(fd) == 0) && ok;
    if (!ok || ::rename(tmpl.data(), (dir + key).c_str()) != 0) {
        ::unlink(tmpl.data());
        return -1;
    }
    if (strcmp(key, "ctl.stop") == 0 && ctlStop_) ctlStop_(value);
    return 0;
}

LiblogSink::LiblogSink() { __android_log_set_minimum_priority(ANDROID_LOG_DEBUG); }

void LiblogSink::write(int priority, const char* tag, const char* text) {
    __android_log_write(priority, tag, text);
}

time_t ScaledClock::wallTime() { return time(nullptr); }

void ScaledClock::sleepFor(std::chrono::milliseconds duration) {
    auto scaled = std::chrono::duration<double, std::milli>(duration.count() * scale_);
    std::this_thread::sleep_for(scaled);
}

HostProcesses::HostProcesses(const DeviceRoot* root, Properties* properties)
    : root_(root), properties_(properties) {}

bool HostProcesses::handleDeviceCommand(const char* command) {
    if (strncmp(command, "chown ", 6) == 0) return true;
    if (strncmp(command, "setprop ", 8) == 0) {
        std::string rest(command + 8);
        size_t blank = rest.find(' ');
        std::string key = rest.substr(0, blank);
        std::string value = blank == std::string::npos ? std::string() : rest.substr(blank + 1);
        properties_->set(key.c_str(), value.c_str());
        return true;
    }
    return false;
}

FILE* HostProcesses::openShell(const char* command) {
    if (handleDeviceCommand(command)) return ::popen(":", "r");
    return ::popen(command, "r");
}

int HostProcesses::closeShell(FILE* stream) { return ::pclose(stream); }

int HostProcesses::runShell(const char* command) {
    if (handleDeviceCommand(command)) return 0;
    return ::system(command);
}

Child HostProcesses::spawn(const char* devicePath) {
    return spawnWithPipe(root_->toHost(devicePath).c_str(), devicePath);
}

pid_t HostProcesses::wait(pid_t pid, int* status, int options) {
    return waitForChild(pid, status, options);
}

int HostProcesses::kill(pid_t pid, int signal) { return ::kill(pid, signal); }

void* HostLoader::open(const char* devicePath, int flags) {
    return ::dlopen(root_->toHost(devicePath).c_str(), flags);
}

void* HostLoader::symbol(void* handle, const char* name) { return ::dlsym(handle, name); }

const char* HostLoader::error() { return ::dlerror(); }

bool writeAll(int fd, const void* data, size_t size) {
    const char* p = static_cast<const char*>(data);
    while (size > 0) {
        ssize_t n = ::send(fd, p, size, MSG_NOSIGNAL);
        if (n < 0 && errno == ENOTSOCK) n = ::write(fd, p, size);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        p += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

bool readAll(int fd, void* data, size_t size) {
    char* p = static_cast<char*>(data);
    while (size > 0) {
        ssize_t n = ::read(fd, p, size);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        p += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

bool SocketServiceManager::exists() const {
    struct stat st;
    return ::stat(root_->toHost("/dev/binder/").c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

std::shared_ptr<Binder> SocketServiceManager::getService(const std::string& name) {
    if (name.empty() || name.find('/') != std::string::npos) return nullptr;
    std::string path = root_->toHost("/dev/binder/" + name);
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof(addr.sun_path)) return nullptr;
    memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return nullptr;
    if (::connect(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr)) != 0) {
        ::close(fd);
        return nullptr;
    }
    return std::make_shared<SocketBinder>(fd);
}

SocketBinder::~SocketBinder() {
    if (fd_ >= 0) ::close(fd_);
}

namespace {
void putU32(std::vector<uint8_t>& out, uint32_t v) {
    for (int i = 0; i < 4; i++) out.push_back(static_cast<uint8_t>(v >> (8 * i)));
}
uint32_t getU32(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
           static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
}
}  // namespace

int32_t SocketBinder::transact(uint32_t code, const std::vector<uint8_t>& data,
                               std::vector<uint8_t>* reply, uint32_t flags) {
    std::lock_guard<std::mutex> lock(mutex_);
    reply->clear();
    if (fd_ < 0) return kDeadObject;
    // A frame over the limit ends the connection, on either side.
    if (data.size() > kMaxFrameSize) {
        ::close(fd_);
        fd_ = -1;
        return kDeadObject;
    }
    std::vector<uint8_t> frame;
    frame.reserve(12 + data.size());
    putU32(frame, code);
    putU32(frame, flags);
    putU32(frame, static_cast<uint32_t>(data.size()));
    frame.insert(frame.end(), data.begin(), data.end());
    uint8_t header[8];
    if (!writeAll(fd_, frame.data(), frame.size()) || !readAll(fd_, header, sizeof(header))) {
        ::close(fd_);
        fd_ = -1;
        return kDeadObject;
    }
    int32_t status = static_cast<int32_t>(getU32(header));
    uint32_t size = getU32(header + 4);
    if (size > kMaxFrameSize) {
        ::close(fd_);
        fd_ = -1;
        return kDeadObject;
    }
    reply->resize(size);
    if (size > 0 && !readAll(fd_, reply->data(), size)) {
        reply->clear();
        ::close(fd_);
        fd_ = -1;
        return kDeadObject;
    }
    return status;
}

namespace {

struct HostBackend {
    std::unique_ptr<HostRoot> root;
    std::unique_ptr<FileProperties> properties;
    std::unique_ptr<LiblogSink> log;
    std::unique_ptr<ScaledClock> clock;
    std::unique_ptr<HostProcesses> processes;
    std::unique_ptr<HostLoader> loader;
    std::unique_ptr<SocketServiceManager> services;
};

HostBackend* gBackend = nullptr;
// Every backend ever installed stays reachable: threads may still use a replaced one.
std::vector<std::unique_ptr<HostBackend>>* gBackends = nullptr;

ServiceManager* hostServiceManager() {
    if (gBackend == nullptr || !gBackend->services->exists()) return nullptr;
    return gBackend->services.get();
}

}  // namespace

void installForRoot(const std::string& root, double timeScale) {
    // Lives for the process: the threads that use it are never joined at exit.
    auto* backend = new HostBackend;
    backend->root = std::make_unique<HostRoot>(root);
    backend->properties = std::make_unique<FileProperties>(backend->root.get());
    backend->log = std::make_unique<LiblogSink>();
    backend->clock = std::make_unique<ScaledClock>(timeScale);
    backend->processes =
        std::make_unique<HostProcesses>(backend->root.get(), backend->properties.get());
    backend->loader = std::make_unique<HostLoader>(backend->root.get());
    backend->services = std::make_unique<SocketServiceManager>(backend->root.get());
    if (gBackends == nullptr) gBackends = new std::vector<std::unique_ptr<HostBackend>>;
    gBackends->emplace_back(backend);
    gBackend = backend;
    Platform p;
    p.properties = backend->properties.get();
    p.log = backend->log.get();
    p.root = backend->root.get();
    p.clock = backend->clock.get();
    p.processes = backend->processes.get();
    p.loader = backend->loader.get();
    p.serviceManager = hostServiceManager;
    install(p);
}

bool installFromEnvironment(std::string* error) {
    const char* root = getenv("VIGILD_ROOT");
    if (root == nullptr || root[0] != '/') {
        *error = "vigild: VIGILD_ROOT must be set to the absolute path of the device root";
        return false;
    }
    // A root that is not there would only show as a storage wait that ends ten minutes later.
    struct stat st;
    if (::stat(root, &st) != 0) {
        *error = std::string("vigild: VIGILD_ROOT ") + root + ": " + strerror(errno);
        return false;
    }
    if (!S_ISDIR(st.st_mode)) {
        *error = std::string("vigild: VIGILD_ROOT ") + root + ": not a directory";
        return false;
    }
    if (::access(root, R_OK | X_OK) != 0) {
        *error =
            std::string("vigild: VIGILD_ROOT ") + root + ": cannot be read: " + strerror(errno);
        return false;
    }
    double scale = 1.0;
    if (const char* s = getenv("VIGILD_TIME_SCALE"); s != nullptr && s[0] != '\0') {
        char* end = nullptr;
        errno = 0;
        scale = strtod(s, &end);
        // Decimal only: strtod would also take hexadecimal and leading blanks.
        const bool decimal = strspn(s, "0123456789.eE+-") == strlen(s);
        if (!decimal || errno != 0 || end == s || *end != '\0' || !std::isfinite(scale) ||
            scale <= 0) {
            *error = std::string("vigild: VIGILD_TIME_SCALE must be a positive number, not ") + s;
            return false;
        }
    }
    installForRoot(root, scale);
    return true;
}

namespace {

size_t editDistance(std::string_view a, std::string_view b) {
    std::vector<size_t> row(b.size() + 1);
    for (size_t j = 0; j <= b.size(); j++) row[j] = j;
    for (size_t i = 1; i <= a.size(); i++) {
        size_t diagonal = row[0];
        row[0] = i;
        for (size_t j = 1; j <= b.size(); j++) {
            size_t above = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] != b[j - 1])});
            diagonal = above;
        }
    }
    return row[b.size()];
}

}  // namespace

std::vector<std::string> unknownVariableWarnings(char** environment) {
    static constexpr std::string_view kKnown[] = {"VIGILD_ROOT", "VIGILD_TIME_SCALE"};
    std::vector<std::string> warnings;
    for (char** entry = environment; entry != nullptr && *entry != nullptr; entry++) {
        std::string_view text(*entry);
        std::string_view name = text.substr(0, text.find('='));
        if (name.rfind("VIGILD_", 0) != 0) continue;
        std::string_view nearest;
        size_t best = SIZE_MAX;
        for (std::string_view known : kKnown) {
            size_t distance = editDistance(name, known);
            if (distance < best) best = distance, nearest = known;
        }
        if (best == 0) continue;
        warnings.push_back("vigild: unknown variable " + std::string(name) +
                           " is ignored; did you mean " + std::string(nearest) + "?");
    }
    return warnings;
}

FileProperties* hostProperties() { return gBackend ? gBackend->properties.get() : nullptr; }

}  // namespace vigild::platform::host

namespace vigild::platform {

void releaseFreeMemory() {
#if defined(__GLIBC__)
    // Every arena, not only the main one: the threads' arenas keep what start-up freed.
    malloc_trim(0);
#elif defined(M_PURGE_ALL)
    mallopt(M_PURGE_ALL, 0);
#elif defined(M_PURGE)
    mallopt(M_PURGE, 0);
#endif
}

}  // namespace vigild::platform
