#include "bench_platform.h"

#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <string>

#include "platform/host/host_platform.h"
#include "platform/platform.h"

namespace vdbench {
namespace {

class MapProperties : public vigild::platform::Properties {
  public:
    int get(const char* key, char* value, const char* defaultValue) override {
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = values_.find(key);
        const char* text = (it == values_.end() || it->second.empty())
                               ? (defaultValue != nullptr ? defaultValue : "")
                               : it->second.c_str();
        snprintf(value, vigild::platform::kPropValueMax, "%s", text);
        return static_cast<int>(strlen(value));
    }
    int set(const char* key, const char* value) override {
        if (strlen(value) >= vigild::platform::kPropValueMax) return -1;
        std::lock_guard<std::mutex> lock(mutex_);
        values_[key] = value;
        return 0;
    }

  private:
    std::mutex mutex_;
    std::map<std::string, std::string> values_;
};

class NullLog : public vigild::platform::LogSink {
  public:
    void write(int, const char*, const char*) override {}
};

class InstantClock : public vigild::platform::Clock {
  public:
    time_t wallTime() override { return time(nullptr); }
    void sleepFor(std::chrono::milliseconds) override {}
};

vigild::platform::ServiceManager* noServiceManager() { return nullptr; }

int removeEntry(const char* path, const struct stat*, int, struct FTW*) { return ::remove(path); }

}  // namespace

struct BenchPlatform::Impl {
    explicit Impl(const std::string& root)
        : deviceRoot(root), processes(&deviceRoot, &properties), loader(&deviceRoot) {}
    vigild::platform::host::HostRoot deviceRoot;
    MapProperties properties;
    NullLog log;
    InstantClock clock;
    vigild::platform::host::HostProcesses processes;
    vigild::platform::host::HostLoader loader;
};

BenchPlatform::BenchPlatform() {
    char pattern[] = "/tmp/vdbench.XXXXXX";
    if (mkdtemp(pattern) == nullptr) {
        perror("mkdtemp");
        abort();
    }
    root_ = pattern;
    for (const char* dir : {"/sdcard", "/sdcard/Tellwick", "/system", "/system/lib64"}) {
        ::mkdir((root_ + dir).c_str(), 0777);
    }
    impl_ = std::make_unique<Impl>(root_);
    vigild::platform::Platform p;
    p.properties = &impl_->properties;
    p.log = &impl_->log;
    p.root = &impl_->deviceRoot;
    p.clock = &impl_->clock;
    p.processes = &impl_->processes;
    p.loader = &impl_->loader;
    p.serviceManager = noServiceManager;
    vigild::platform::install(p);
}

BenchPlatform::~BenchPlatform() { nftw(root_.c_str(), removeEntry, 16, FTW_DEPTH | FTW_PHYS); }

}  // namespace vdbench
