#include "fuzz_device.h"

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>

#include "config/config_file.h"
#include "config/config_validation.h"
#include "core/builtin_modules.h"
#include "core/daemon_state.h"
#include "core/debug_singleton.h"
#include "core/module_registry.h"
#include "fakes/reset_state.h"
#include "platform/host/host_platform.h"
#include "platform/platform.h"
#include "quicktap/quicktap.h"

namespace vdfuzz {
namespace {

namespace vp = vigild::platform;

class MemoryProperties : public vp::Properties {
  public:
    int get(const char* key, char* value, const char* defaultValue) override {
        auto it = values.find(key);
        const char* v =
            it == values.end() || it->second.empty() ? defaultValue : it->second.c_str();
        size_t n = std::min(strlen(v), vp::kPropValueMax - 1);
        memcpy(value, v, n);
        value[n] = '\0';
        return static_cast<int>(n);
    }
    int set(const char* key, const char* value) override {
        // As the host store: long values only for read-only names.
        if (strlen(value) >= vp::kPropValueMax && strncmp(key, "ro.", 3) != 0) return -1;
        values[key] = value;
        return 0;
    }
    std::map<std::string, std::string> values;
};

class QuietLog : public vp::LogSink {
  public:
    void write(int, const char*, const char* text) override { lines.emplace_back(text); }
    std::vector<std::string> lines;
};

class StillClock : public vp::Clock {
  public:
    time_t wallTime() override { return 1700000000; }
    void sleepFor(std::chrono::milliseconds) override {}
};

// No shell on the fuzz device; the bug report tool is a pipe holding the chosen output.
class CannedProcesses : public vp::Processes {
  public:
    FILE* openShell(const char*) override { return ::fopen("/dev/null", "r"); }
    int closeShell(FILE* stream) override { return ::fclose(stream); }
    int runShell(const char*) override { return 0; }
    vp::Child spawn(const char*) override {
        vp::Child child;
        int fds[2];
        if (pipe2(fds, O_CLOEXEC) != 0) return child;
        // Grown so any input up to libFuzzer's usual lengths fits without a reader.
        fcntl(fds[1], F_SETPIPE_SZ, 1 << 20);
        size_t done = 0;
        fcntl(fds[1], F_SETFL, O_NONBLOCK);
        while (done < output.size()) {
            ssize_t n = ::write(fds[1], output.data() + done, output.size() - done);
            if (n <= 0) break;
            done += static_cast<size_t>(n);
        }
        ::close(fds[1]);
        child.outputFd = fds[0];
        return child;  // pid -1: nothing to reap
    }
    pid_t wait(pid_t, int*, int) override { return -1; }
    int kill(pid_t, int) override { return 0; }
    std::string output;
};

// Every transaction succeeds with an empty reply (exception code 0, no fields).
class EmptyReplyBinder : public vp::Binder {
  public:
    int32_t transact(uint32_t, const std::vector<uint8_t>&, std::vector<uint8_t>* reply,
                     uint32_t) override {
        reply->clear();
        return 0;
    }
};

class CannedServices : public vp::ServiceManager {
  public:
    std::shared_ptr<vp::Binder> getService(const std::string&) override {
        if (!present) return nullptr;
        return std::make_shared<EmptyReplyBinder>();
    }
    bool present = true;
};

// Library-like modules, shaped after the ones a device ships.
class LibraryModule : public Module {
  public:
    explicit LibraryModule(const char* name) : name_(name) {}
    int shouldLoad() override { return 0; }
    int start(moduleConfig) override { return 0; }
    int systemTimeChange() override { return 0; }
    int prestop() override { return 0; }
    int stop() override { return 0; }
    const char* getName() override { return name_; }
    const char* getVersion() override { return "14.0.3.7"; }
    int configVal(moduleConfig&, std::vector<std::string>&) override { return 0; }
    int logcatEOFStatus() override { return 0; }

  protected:
    // Free-text settings have no helper: the module appends them itself.
    static void addString(moduleConfig& settings, const char* name, const char* value) {
        config c = {};
        c.name = name;
        c.type = "string";
        snprintf(c.defaultValue, sizeof(c.defaultValue), "%s", value);
        snprintf(c.value, sizeof(c.value), "%s", value);
        settings.configs.push_back(c);
    }
    static const char* valueOf(moduleConfig& settings, const char* name) {
        for (const config& c : settings.configs) {
            if (c.name != nullptr && strcmp(c.name, name) == 0) return c.value;
        }
        return "";
    }
    const char* name_;
};

class AnrModule : public LibraryModule {
  public:
    AnrModule() : LibraryModule("ANRModule") {}
    int init(moduleConfig& s) override {
        addString(s, "Log Path", "/sdcard/Tellwick/anr/");
        char files[] = "20";
        addConfigInt(s, "Max Files", files);
        return 0;
    }
    int configVal(moduleConfig& s, std::vector<std::string>& errors) override {
        int files = atoi(valueOf(s, "Max Files"));
        if (files < 1 || files > 500) {
            errors.push_back("Max Files");
            errors.push_back("must be between 1 and 500");
            char fallback[] = "20";
            addConfigInt(s, "Max Files", fallback);
        }
        return 0;
    }
};

class BtSnoopModule : public LibraryModule {
  public:
    BtSnoopModule() : LibraryModule("BTSnoopLogModule") {}
    int init(moduleConfig& s) override {
        char off[] = "false";
        addConfigBoolean(s, "Enable Module", off);
        addString(s, "Log Path", "/sdcard/Tellwick/btsnooplog/");
        addConfigList(s, "Trace Level", {"Off", "Error", "Warning", "Info", "Debug", "Verbose"});
        return 0;
    }
};

class LtsModule : public LibraryModule {
  public:
    LtsModule() : LibraryModule("LTSModule") {}
    int init(moduleConfig& s) override {
        addString(s, "Storage Directory", "/sdcard/TellwickLTS/");
        addString(s, "Persist logpath", "/sdcard/Tellwick/persist/");
        addString(s, "Persist Boot log filename", "/sdcard/Tellwick/persist/bootlog");
        char size[] = "512";
        addConfigInt(s, "Max Size (MB)", size);
        return 0;
    }
};

class LogcatModule : public LibraryModule {
  public:
    LogcatModule() : LibraryModule("LogcatModule") {}
    int init(moduleConfig& s) override {
        addString(s, "Log Path", "/sdcard/Tellwick/");
        addString(s, "Command", "logcat -v threadtime");
        char on[] = "true";
        addConfigBoolean(s, "Append", on);
        addConfigList(s, "Buffers", {"main", "main,system", "all"});
        return 0;
    }
};

class RecoveryModule : public LibraryModule {
  public:
    RecoveryModule() : LibraryModule("RecoveryModule") {}
    int init(moduleConfig& s) override {
        addString(s, "Log Path", "/sdcard/Tellwick/recovery/");
        return 0;
    }
};

class TcpDumpModule : public LibraryModule {
  public:
    TcpDumpModule() : LibraryModule("TCPDumpModule") {}
    int init(moduleConfig& s) override {
        addString(s, "Log Path", "/sdcard/Tellwick/tcpdump/");
        addString(s, "Interface", "any");
        char snap[] = "96";
        addConfigInt(s, "Packet Size", snap);
        char rotate[] = "false";
        addConfigBoolean(s, "Rotate", rotate);
        return 0;
    }
    // Echoes the value back, as real modules do, and leaves an unpaired element behind.
    int configVal(moduleConfig& s, std::vector<std::string>& errors) override {
        const char* iface = valueOf(s, "Interface");
        if (strcmp(iface, "any") != 0 && strncmp(iface, "wlan", 4) != 0) {
            errors.push_back("Interface");
            errors.push_back(std::string("unknown interface ") + iface);
            errors.push_back("Packet Size");
        }
        return 0;
    }
};

struct Saved {
    std::vector<std::vector<std::pair<std::string, std::string>>> values;  // default, value
};

MemoryProperties* gProperties;
QuietLog* gLog;
CannedProcesses* gProcesses;
CannedServices* gServices;
Saved* gSaved;
std::map<std::string, std::string>* gBaseProperties;

vp::ServiceManager* services() { return gServices; }

void removeRoot(const std::string& root) {
    std::error_code ec;
    std::filesystem::remove_all(root, ec);
}

}  // namespace

FuzzDevice& FuzzDevice::get() {
    static FuzzDevice* device = new FuzzDevice;
    return *device;
}

FuzzDevice::FuzzDevice() {
    // On tmpfs when there is one: the root's folders are made and removed for every input.
    char shm[] = "/dev/shm/vdfuzz.XXXXXX";
    char tmp[] = "/tmp/vdfuzz.XXXXXX";
    char* pattern = mkdtemp(shm);
    if (pattern == nullptr) pattern = mkdtemp(tmp);
    if (pattern == nullptr) fail("mkdtemp", tmp);
    root_ = pattern;
    static std::string rootToRemove = root_;
    atexit([] { removeRoot(rootToRemove); });

    auto* hostRoot = new vp::host::HostRoot(root_);
    gProperties = new MemoryProperties;
    gLog = new QuietLog;
    gProcesses = new CannedProcesses;
    gServices = new CannedServices;
    vp::Platform p;
    p.properties = gProperties;
    p.log = gLog;
    p.root = hostRoot;
    p.clock = new StillClock;
    p.processes = gProcesses;
    p.loader = new vp::host::HostLoader(hostRoot);
    p.serviceManager = services;
    vp::install(p);

    // A device that has run before: storage chosen, debug lines on so their formatting runs.
    gBaseProperties = new std::map<std::string, std::string>{
        {"persist.sys.vd.storage_path", "/sdcard/"},
        {"persist.sys.vd.debug_log", "true"},
        {"persist.sys.vd.internal_sd", "false"},
        {"persist.sys.vd.secure_mode", "false"},
        {"ro.build.project", "Alder"},
        {"ro.debuggable", "1"},
    };
    gProperties->values = *gBaseProperties;
    resetDebugSwitchesForTesting();
    resetDaemonStateForTesting();

    // The order the loader leaves: the daemon's own settings, libraries by name, QuickTap.
    static VigildModule vigild;
    static AnrModule anr;
    static BtSnoopModule btsnoop;
    static LtsModule lts;
    static LogcatModule logcat;
    static RecoveryModule recovery;
    static TcpDumpModule tcpdump;
    static QuickTapModule quickTap;
    Module* modules[] = {&vigild, &anr, &btsnoop, &lts, &logcat, &recovery, &tcpdump, &quickTap};
    for (Module* m : modules) moduleRegistry.emplace_back(m);
    gSaved = new Saved;
    for (modulePair& entry : moduleRegistry) {
        entry.module->init(entry.settings);
        if (strcmp(entry.settings.moduleName, "LTSModule") == 0) {
            for (modulePair& other : moduleRegistry) other.module->ltsSettings = &entry.settings;
        }
    }
    for (modulePair& entry : moduleRegistry) {
        gSaved->values.emplace_back();
        for (const Module::config& c : entry.settings.configs) {
            gSaved->values.back().emplace_back(c.defaultValue, c.value);
        }
    }
    reset();
}

void FuzzDevice::reset() {
    for (size_t m = 0; m < moduleRegistry.size(); m++) {
        modulePair& entry = moduleRegistry[m];
        entry.restartNeeded = 0;
        auto& configs = entry.settings.configs;
        const auto& saved = gSaved->values[m];
        // Saved values go back by position: a module that grew settings after init breaks that.
        if (configs.size() != saved.size())
            fail("setting count changed", entry.settings.moduleName);
        for (size_t i = 0; i < configs.size(); i++) {
            snprintf(configs[i].defaultValue, VD_CONFIG_VALUE_SIZE, "%s", saved[i].first.c_str());
            snprintf(configs[i].value, VD_CONFIG_VALUE_SIZE, "%s", saved[i].second.c_str());
        }
    }
    resetMemory();

    removeRoot(root_ + "/sdcard");
    removeRoot(root_ + "/storage");
    removeRoot(root_ + "/bugreports");
    std::error_code ec;
    std::filesystem::create_directories(root_ + "/sdcard/Tellwick", ec);
    gLog->lines.clear();
}

void FuzzDevice::resetMemory() {
    gProperties->values = *gBaseProperties;
    // The switches put back as read from the base properties, on the same instance: dropping
    // it would retire one instance per input (tests keep them reachable), a growing heap.
    debugSingleton& debug = debugSingleton::getInstance();
    debug.debugLog = gBaseProperties->at("persist.sys.vd.debug_log") == "true";
    debug.internalSd = gBaseProperties->at("persist.sys.vd.internal_sd") == "true";
    runState = kStateStopped;
    quickTapModeAtStart = 0;
    resetSettingsStateForTesting();
    std::string().swap(gProcesses->output);
    gServices->present = true;
}

void FuzzDevice::endInput() {
    resetMemory();
    std::vector<std::string>().swap(gLog->lines);
}

void FuzzDevice::setProperty(const std::string& key, const std::string& value) {
    gProperties->values[key] = value;
}

std::string FuzzDevice::property(const std::string& key, const std::string& fallback) const {
    auto it = gProperties->values.find(key);
    return it == gProperties->values.end() ? fallback : it->second;
}

void FuzzDevice::setToolOutput(std::string output) { gProcesses->output = std::move(output); }

void FuzzDevice::setServicePresent(bool present) { gServices->present = present; }

const std::vector<std::string>& FuzzDevice::logLines() const { return gLog->lines; }

bool FuzzDevice::logged(const std::string& text) const {
    return std::find(gLog->lines.begin(), gLog->lines.end(), text) != gLog->lines.end();
}

void FuzzDevice::writeFile(const std::string& devicePath, const std::string& content) {
    std::filesystem::path host = hostPath(devicePath);
    std::error_code ec;
    std::filesystem::create_directories(host.parent_path(), ec);
    FILE* f = ::fopen(host.c_str(), "wb");
    if (f == nullptr) fail("cannot write", devicePath);
    fwrite(content.data(), 1, content.size(), f);
    fclose(f);
}

bool FuzzDevice::exists(const std::string& devicePath) const {
    return ::access(hostPath(devicePath).c_str(), F_OK) == 0;
}

void splitInput(const uint8_t* data, size_t size, char separator, std::string* first,
                std::string* second) {
    const char* text = reinterpret_cast<const char*>(data);
    const void* at = memchr(text, separator, size);
    size_t cut = at == nullptr ? size : static_cast<size_t>(static_cast<const char*>(at) - text);
    first->assign(text, cut);
    second->assign(at == nullptr ? "" : std::string(text + cut + 1, size - cut - 1));
}

void fail(const char* what, const std::string& detail) {
    fprintf(stderr, "fuzz invariant broken: %s: [%s]\n", what, detail.c_str());
    abort();
}

}  // namespace vdfuzz
