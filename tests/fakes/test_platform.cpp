#include "fakes/test_platform.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <iterator>
#include <memory>
#include <thread>

#include "fakes/reset_state.h"
#include "platform/platform.h"

namespace vigild::testing {

void RecordingLog::write(int priority, const char*, const char* text) {
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.push_back({priority, text});
    if (getenv("VIGILD_TEST_LOG") != nullptr) fprintf(stderr, "[%d] %s\n", priority, text);
}

int RecordingLog::count(const std::string& text, int priority) const {
    const auto all = lines();
    return static_cast<int>(std::count_if(all.begin(), all.end(), [&](const LogLine& l) {
        return l.text == text && (priority < 0 || l.priority == priority);
    }));
}

int RecordingLog::indexOf(const std::string& text, size_t from) const {
    const auto all = lines();
    for (size_t i = from; i < all.size(); i++) {
        if (all[i].text == text) return static_cast<int>(i);
    }
    return -1;
}

time_t VirtualClock::wallTime() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (queued_.empty()) return now_;
    const time_t t = queued_.front();
    queued_.pop_front();
    return t;
}

void VirtualClock::sleepFor(std::chrono::milliseconds duration) {
    std::function<void(std::chrono::milliseconds)> hook;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        sleeps_.push_back(duration);
        now_ += std::chrono::duration_cast<std::chrono::seconds>(duration).count();
        hook = hook_;
    }
    if (hook) hook(duration);
    // Lets other threads run: a loop that only sleeps must not starve them.
    std::this_thread::yield();
}

bool FaultyFiles::faultHere(const std::function<void()>& half) {
    if (++calls_ != nth_.load()) return false;
    if (half) half();
    if (fault_ == Fault::kStop) throw StoppedHere{};
    errno = error_;
    return true;
}

ssize_t FaultyFiles::copyRange(int in, int out, size_t size) {
    auto half = [&] {
        struct stat st;
        off_t at = lseek(in, 0, SEEK_CUR);
        if (fstat(in, &st) == 0 && at >= 0 && st.st_size > at) {
            (void)!::copy_file_range(in, nullptr, out, nullptr,
                                     static_cast<size_t>(st.st_size - at) / 2, 0);
        }
    };
    if (faultHere(half)) return -1;
    return ::copy_file_range(in, nullptr, out, nullptr, size, 0);
}

TempRoot::~TempRoot() {
    std::error_code ec;
    if (!root().empty()) std::filesystem::remove_all(root(), ec);
}

bool TempRoot::make(const std::string& prefix) {
    std::string folder = prefix + ".XXXXXX";
    if (mkdtemp(folder.data()) == nullptr) return false;
    root_ = platform::host::HostRoot(folder);
    return true;
}

std::string TempRoot::property(const std::string& key, const std::string& fallback) {
    char value[platform::kPropValueMax];
    properties_.get(key.c_str(), value, fallback.c_str());
    return value;
}

void TempRoot::writeFile(const std::string& devicePath, const std::string& content) {
    std::filesystem::path path(hostPath(devicePath));
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << content;
}

std::string TempRoot::readFile(const std::string& devicePath) const {
    std::ifstream in(hostPath(devicePath), std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

bool TempRoot::exists(const std::string& devicePath) const {
    std::error_code ec;
    return std::filesystem::exists(std::filesystem::symlink_status(hostPath(devicePath), ec));
}

namespace {

// The socket service manager of the installed platform, present when "/dev/binder/" exists.
platform::host::SocketServiceManager* gServices = nullptr;

platform::ServiceManager* testServiceManager() {
    return gServices != nullptr && gServices->exists() ? gServices : nullptr;
}

}  // namespace

TestPlatform::TestPlatform() {
    // A device has no /tmp.
    if (!make(access("/tmp", W_OK) == 0 ? "/tmp/vdt" : "/data/local/tmp/vdt")) abort();
    platform::Platform p;
    p.properties = &properties_;
    p.log = &log_;
    p.root = &root_;
    p.clock = &clock_;
    p.processes = &processes_;
    p.loader = &loader_;
    p.files = &files_;
    p.serviceManager = testServiceManager;
    gServices = &services_;
    platform::install(p);
    resetDebugSwitchesForTesting();
    resetDaemonStateForTesting();
}

TestPlatform::~TestPlatform() {
    if (gServices == &services_) gServices = nullptr;
}

void TestPlatform::enableDebugLog() {
    setProperty("persist.sys.vd.debug_log", "true");
    resetDebugSwitchesForTesting();
}

bool finishesWithin(std::function<void()> fn, std::chrono::milliseconds timeout) {
    auto done = std::make_shared<std::promise<void>>();
    std::future<void> future = done->get_future();
    std::thread worker([fn = std::move(fn), done] {
        fn();
        done->set_value();
    });
    if (future.wait_for(timeout) == std::future_status::ready) {
        worker.join();
        return true;
    }
    worker.detach();
    return false;
}

bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

int runTool(const std::string& tool, const std::string& args, std::string* out) {
    FILE* f = popen((tool + " " + args + " 2>&1").c_str(), "r");
    if (f == nullptr) return -1;
    char buffer[4096];
    out->clear();
    while (size_t n = fread(buffer, 1, sizeof(buffer), f)) out->append(buffer, n);
    const int status = pclose(f);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

namespace {
std::string gSyncName;
std::function<void()> gSyncAction;
}  // namespace

AtSyncPoint::AtSyncPoint(std::string name, std::function<void()> action) {
    gSyncName = std::move(name);
    gSyncAction = std::move(action);
    vigild::platform::setSyncPointHandler(&AtSyncPoint::handle);
}

AtSyncPoint::~AtSyncPoint() {
    vigild::platform::setSyncPointHandler(nullptr);
    gSyncAction = nullptr;
}

void AtSyncPoint::handle(const char* name) {
    if (gSyncName == name && gSyncAction) gSyncAction();
}

}  // namespace vigild::testing
