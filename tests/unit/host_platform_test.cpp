#include "platform/host/host_platform.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "fakes/test_platform.h"

using vigild::platform::kPropValueMax;
using vigild::platform::host::FileProperties;
using vigild::platform::host::HostProcesses;
using vigild::platform::host::HostRoot;
using vigild::platform::host::kDeadObject;
using vigild::platform::host::kMaxFrameSize;
using vigild::testing::TestPlatform;

namespace {

class HostPlatformTest : public ::testing::Test {
  protected:
    std::string storeFile(const std::string& name) {
        return p.root() + "/dev/__properties__/" + name;
    }
    void writeHost(const std::string& hostPath, const std::string& content) {
        std::filesystem::create_directories(std::filesystem::path(hostPath).parent_path());
        std::ofstream(hostPath, std::ios::binary) << content;
    }
    std::string readHost(const std::string& hostPath) {
        std::stringstream ss;
        ss << std::ifstream(hostPath, std::ios::binary).rdbuf();
        return ss.str();
    }
    std::string get(const char* key, const char* fallback = "UNKNOWN") {
        char value[kPropValueMax];
        int n = props.get(key, value, fallback);
        EXPECT_EQ(n, static_cast<int>(strlen(value))) << key;
        return value;
    }

    TestPlatform p;
    HostRoot root{p.root()};
    FileProperties props{&root};
};

std::string drain(int fd) {
    std::string output;
    char buf[256];
    for (ssize_t n; (n = read(fd, buf, sizeof(buf))) > 0;) output.append(buf, n);
    close(fd);
    return output;
}

}  // namespace

TEST_F(HostPlatformTest, PropertyReads) {
    std::pair<std::string, std::string> cases[] = {
        {"", "UNKNOWN"},         // empty reads as the default
        {"true\n", "true"},      // echo's newline is dropped
        {"true\n\n", "true\n"},  // only one
        {"\n", "UNKNOWN"},
        {std::string(91, 'v') + "\n", std::string(91, 'v')},
        {std::string(150, 'w'), std::string(91, 'w')},  // reads return at most 91 bytes
    };
    EXPECT_EQ(get("persist.sys.vd.autostart"), "UNKNOWN");  // unset
    for (const auto& [stored, expected] : cases) {
        writeHost(storeFile("persist.sys.vd.autostart"), stored);
        EXPECT_EQ(get("persist.sys.vd.autostart"), expected) << stored;
    }
    EXPECT_EQ(get("missing", nullptr), "");
    EXPECT_EQ(get("missing", std::string(120, 'd').c_str()), std::string(91, 'd'));
    // A folder, or a name that would leave the store, reads as unset.
    std::filesystem::create_directories(storeFile("dir"));
    EXPECT_EQ(get("dir"), "UNKNOWN");
    writeHost(p.root() + "/dev/secret", "x");
    EXPECT_EQ(get("../secret"), "UNKNOWN");
}

TEST_F(HostPlatformTest, PropertyWrites) {
    // The store folder is created on the first write.
    EXPECT_EQ(props.set("persist.sys.vd.debug_log", "true"), 0);
    EXPECT_EQ(readHost(storeFile("persist.sys.vd.debug_log")), "true");
    EXPECT_EQ(props.set("persist.sys.vd.debug_log", ""), 0);
    EXPECT_EQ(get("persist.sys.vd.debug_log"), "UNKNOWN");

    EXPECT_EQ(props.set("persist.sys.vd.storage_path", std::string(91, 'a').c_str()), 0);
    for (size_t len : {92, 200}) {
        EXPECT_EQ(props.set("persist.sys.vd.storage_path", std::string(len, 'b').c_str()), -1);
        EXPECT_EQ(get("persist.sys.vd.storage_path"), std::string(91, 'a'));  // old value kept
    }
    EXPECT_EQ(props.set("ro.build.project", std::string(120, 'r').c_str()), 0);
    EXPECT_EQ(get("ro.build.project"), std::string(91, 'r'));

    for (const char* bad : {"", "a/b", ".hidden", ".."}) EXPECT_EQ(props.set(bad, "x"), -1);
    EXPECT_EQ(props.set("k", nullptr), -1);

    // Long names still write (the temporary name is cut, not the property's).
    std::string longName(240, 'n');
    EXPECT_EQ(props.set(longName.c_str(), "v"), 0);
    EXPECT_EQ(get(longName.c_str()), "v");
    // No temporary file is left behind.
    for (const auto& entry : std::filesystem::directory_iterator(storeFile(""))) {
        EXPECT_NE(entry.path().filename().string()[0], '.') << entry.path();
    }

    std::vector<std::string> seen;
    props.onCtlStop([&](const std::string& value) { seen.push_back(value); });
    EXPECT_EQ(props.set("ctl.stop", "vigild"), 0);
    EXPECT_EQ(props.set("ctl.start", "vigild"), 0);
    EXPECT_EQ(seen, std::vector<std::string>{"vigild"});
    EXPECT_EQ(readHost(storeFile("ctl.stop")), "vigild");
}

TEST_F(HostPlatformTest, ReadersNeverSeeHalfAValue) {
    const std::string a(91, 'a'), b(91, 'b');
    ASSERT_EQ(props.set("persist.sys.vd.race", a.c_str()), 0);
    std::atomic<bool> done{false};
    std::atomic<int> torn{0}, reads{0};
    auto reader = [&] {
        // Each reader has its own store object, as separate processes would.
        FileProperties mine(&root);
        char value[kPropValueMax];
        while (!done) {
            mine.get("persist.sys.vd.race", value, "UNSET");
            if (value != a && value != b) torn++;
            reads++;
        }
    };
    std::thread r1(reader), r2(reader);
    for (int i = 0; i < 1000; i++) {
        ASSERT_EQ(props.set("persist.sys.vd.race", (i % 2 ? a : b).c_str()), 0);
    }
    done = true;
    r1.join();
    r2.join();
    EXPECT_GT(reads, 0);
    EXPECT_EQ(torn, 0);
}

TEST(HostRootTest, MapsDevicePathsInsideTheRoot) {
    std::pair<std::string, std::string> cases[] = {
        {"/sdcard/Tellwick/config.json", "/tmp/r/sdcard/Tellwick/config.json"},
        {"/sdcard/Tellwick/", "/tmp/r/sdcard/Tellwick/"},
        {"/", "/tmp/r/"},
        {"", ""},
        {"/sdcard/../system/lib64", "/tmp/r/system/lib64"},
        {"/../../../etc/passwd", "/tmp/r/etc/passwd"},
        {"/sdcard/..", "/tmp/r/"},
        {"/./a/./b", "/tmp/r/a/b"},
        {"/a/.", "/tmp/r/a"},
        {"//a//b//", "/tmp/r/a/b/"},
        {"relative/x", "/tmp/r/relative/x"},
        {"..", "/tmp/r/"},
    };
    for (const char* rootPath : {"/tmp/r", "/tmp/r/", "/tmp/r///"}) {
        HostRoot root(rootPath);
        EXPECT_EQ(root.root(), "/tmp/r");
        for (const auto& [device, host] : cases) EXPECT_EQ(root.toHost(device), host) << device;
    }
    HostRoot identity("/");
    EXPECT_EQ(identity.toHost("/sdcard/x"), "/sdcard/x");
    EXPECT_EQ(identity.toHost("/"), "/");
    EXPECT_EQ(identity.toHost("/../a/"), "/a/");
}

namespace {

void setOrUnset(const char* name, const char* value) {
    value ? setenv(name, value, 1) : unsetenv(name);
}

struct EnvGuard {
    std::optional<std::string> saved[2];
    const char* names[2] = {"VIGILD_ROOT", "VIGILD_TIME_SCALE"};
    EnvGuard() {
        for (int i = 0; i < 2; i++)
            if (const char* v = getenv(names[i])) saved[i] = v;
    }
    ~EnvGuard() {
        for (int i = 0; i < 2; i++) setOrUnset(names[i], saved[i] ? saved[i]->c_str() : nullptr);
    }
};

}  // namespace

TEST(InstallFromEnvironmentTest, RefusesBadVariables) {
    EnvGuard guard;
    std::pair<const char*, const char*> cases[] = {
        {nullptr, nullptr}, {"", nullptr},      {"relative/root", nullptr}, {"/tmp/r", "0"},
        {"/tmp/r", "-1"},   {"/tmp/r", "abc"},  {"/tmp/r", "1x"},           {"/tmp/r", "inf"},
        {"/tmp/r", "nan"},  {"/tmp/r", "-0.5"}, {"/tmp/r", "0x1"},          {"/tmp/r", " 1"},
    };
    for (const auto& [rootVar, scale] : cases) {
        TestPlatform p;
        vigild::platform::DeviceRoot* before = vigild::platform::current().root;
        setOrUnset("VIGILD_ROOT", rootVar);
        setOrUnset("VIGILD_TIME_SCALE", scale);
        std::string error;
        EXPECT_FALSE(vigild::platform::host::installFromEnvironment(&error))
            << (rootVar ? rootVar : "unset") << " " << (scale ? scale : "unset");
        EXPECT_FALSE(error.empty());
        EXPECT_EQ(error.find('\n'), std::string::npos);
        EXPECT_EQ(vigild::platform::current().root, before);  // nothing installed
    }
}

TEST(InstallFromEnvironmentTest, InstallsTheHostBackend) {
    EnvGuard guard;
    TestPlatform p;
    setenv("VIGILD_ROOT", p.root().c_str(), 1);
    setenv("VIGILD_TIME_SCALE", "0.001", 1);
    std::string error;
    ASSERT_TRUE(vigild::platform::host::installFromEnvironment(&error)) << error;
    auto& platform = vigild::platform::current();
    EXPECT_EQ(platform.root->toHost("/sdcard/x"), p.root() + "/sdcard/x");
    EXPECT_EQ(platform.properties->set("persist.sys.vd.autostart", "true"), 0);
    std::string stored;
    std::ifstream(p.root() + "/dev/__properties__/persist.sys.vd.autostart") >> stored;
    EXPECT_EQ(stored, "true");
    auto start = std::chrono::steady_clock::now();
    platform.clock->sleepFor(std::chrono::seconds(60));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30));
    EXPECT_LE(std::abs(platform.clock->wallTime() - time(nullptr)), 2);  // not scaled
    // No service manager until "/dev/binder/" exists.
    EXPECT_EQ(platform.serviceManager(), nullptr);
    std::filesystem::create_directories(p.root() + "/dev/binder");
    ASSERT_NE(platform.serviceManager(), nullptr);
    EXPECT_EQ(platform.serviceManager()->getService("com.tandril.vd.Ivd_service"), nullptr);

    unsetenv("VIGILD_TIME_SCALE");  // defaults to 1
    EXPECT_TRUE(vigild::platform::host::installFromEnvironment(&error)) << error;
    TestPlatform restore;  // leaves a test backend installed for whatever runs next
}

TEST_F(HostPlatformTest, ProcessesHandleDeviceCommandsAndSpawnInsideTheRoot) {
    HostProcesses processes(&root, &props);
    EXPECT_EQ(processes.runShell("setprop persist.sys.vd.autostart true"), 0);
    EXPECT_EQ(get("persist.sys.vd.autostart"), "true");
    FILE* stream = processes.openShell("setprop ctl.stop vigild");
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(fgetc(stream), EOF);
    EXPECT_EQ(processes.closeShell(stream), 0);
    EXPECT_EQ(get("ctl.stop"), "vigild");
    // Android users do not exist on the host; the command is skipped, not failed.
    EXPECT_EQ(processes.runShell("chown -R system:ext_data_rw /sdcard/Android/data/x/"), 0);
    // Everything else is a real shell.
    EXPECT_NE(processes.runShell("exit 3"), 0);
    stream = processes.openShell("echo hello");
    ASSERT_NE(stream, nullptr);
    char line[32] = {};
    ASSERT_NE(fgets(line, sizeof(line), stream), nullptr);
    EXPECT_STREQ(line, "hello\n");
    processes.closeShell(stream);

    std::string tool = p.root() + "/system/bin/bugreportz";
    writeHost(tool, "#!/bin/sh\necho OK:/data/report.zip\necho oops >&2\nexit 4\n");
    ASSERT_EQ(chmod(tool.c_str(), 0755), 0);
    vigild::platform::Child child = processes.spawn("/system/bin/bugreportz");
    ASSERT_GT(child.pid, 0);
    ASSERT_GE(child.outputFd, 0);
    EXPECT_EQ(drain(child.outputFd), "OK:/data/report.zip\noops\n");
    int status = 0;
    EXPECT_EQ(processes.wait(child.pid, &status, 0), child.pid);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 4);

    child = processes.spawn("/system/bin/missing");
    ASSERT_GT(child.pid, 0);
    drain(child.outputFd);
    EXPECT_EQ(processes.wait(child.pid, &status, 0), child.pid);
    EXPECT_NE(WEXITSTATUS(status), 0);
}

namespace {

// A one-connection service on a real socket; `serve` gets the accepted descriptor.
class FakeService {
  public:
    FakeService(const std::string& root, std::function<void(int)> serve) {
        std::filesystem::create_directories(root + "/dev/binder");
        std::string path = root + "/dev/binder/com.tandril.vd.Ivd_service";
        listener_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        struct sockaddr_un addr = {};
        addr.sun_family = AF_UNIX;
        strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
        EXPECT_EQ(bind(listener_, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);
        EXPECT_EQ(listen(listener_, 4), 0);
        thread_ = std::thread([this, serve] {
            int fd = accept(listener_, nullptr, nullptr);
            if (fd >= 0) {
                serve(fd);
                close(fd);
            }
        });
    }
    ~FakeService() {
        shutdown(listener_, SHUT_RDWR);
        thread_.join();
        close(listener_);
    }

  private:
    int listener_ = -1;
    std::thread thread_;
};

// A reply frame: status, size, payload (little endian).
void sendReply(int fd, int32_t status, uint32_t size, const std::vector<uint8_t>& payload = {}) {
    std::vector<uint8_t> out;
    for (uint32_t v : {static_cast<uint32_t>(status), size})
        for (int i = 0; i < 4; i++) out.push_back(static_cast<uint8_t>(v >> (8 * i)));
    out.insert(out.end(), payload.begin(), payload.end());
    vigild::platform::host::writeAll(fd, out.data(), out.size());
}

std::vector<uint8_t> readRequest(int fd) {
    uint8_t header[12];
    if (!vigild::platform::host::readAll(fd, header, sizeof(header))) return {};
    uint32_t size = header[8] | header[9] << 8 | header[10] << 16 | header[11] << 24;
    std::vector<uint8_t> frame(header, header + 12);
    frame.resize(12 + size);
    vigild::platform::host::readAll(fd, frame.data() + 12, size);
    return frame;
}

}  // namespace

TEST_F(HostPlatformTest, SocketTransportFrames) {
    vigild::platform::host::SocketServiceManager services(&root);
    EXPECT_FALSE(services.exists());
    std::vector<uint8_t> request;
    FakeService service(p.root(), [&](int fd) {
        request = readRequest(fd);
        sendReply(fd, -74, 4, {'a', 'b', 'c', 'd'});
        readRequest(fd);
        vigild::platform::host::writeAll(fd, "\0\0", 2);  // half a header, then the peer closes
    });
    EXPECT_TRUE(services.exists());
    auto binder = services.getService("com.tandril.vd.Ivd_service");
    ASSERT_NE(binder, nullptr);
    std::vector<uint8_t> reply = {9, 9};
    EXPECT_EQ(binder->transact(7, {1, 2, 3, 4, 5}, &reply, 0), -74);
    EXPECT_EQ(reply, (std::vector<uint8_t>{'a', 'b', 'c', 'd'}));
    EXPECT_EQ(request, (std::vector<uint8_t>{7, 0, 0, 0, 0, 0, 0, 0, 5, 0, 0, 0, 1, 2, 3, 4, 5}));

    EXPECT_EQ(binder->transact(8, {}, &reply, 0), kDeadObject);
    EXPECT_TRUE(reply.empty());
    EXPECT_EQ(services.getService("no.such.service"), nullptr);
    EXPECT_EQ(services.getService("../escape"), nullptr);
}

TEST_F(HostPlatformTest, SocketTransportDropsTheConnectionOnAnOversizeFrame) {
    struct {
        std::function<void(int)> serve;
        std::vector<uint8_t> request;
    } cases[] = {
        // An oversize reply.
        {[](int fd) {
             readRequest(fd);
             sendReply(fd, 0, kMaxFrameSize + 1);
             readRequest(fd);  // waits until the client closes
         },
         {0, 0, 0, 0}},
        // An oversize request, to a service that answers every request with success.
        {[](int fd) {
             while (!readRequest(fd).empty()) sendReply(fd, 0, 0);
         },
         std::vector<uint8_t>(kMaxFrameSize + 1)},
    };
    for (auto& c : cases) {
        vigild::platform::host::SocketServiceManager services(&root);
        FakeService service(p.root(), c.serve);
        auto binder = services.getService("com.tandril.vd.Ivd_service");
        ASSERT_NE(binder, nullptr);
        std::vector<uint8_t> reply = {1};
        EXPECT_EQ(binder->transact(2, c.request, &reply, 0), kDeadObject);
        EXPECT_TRUE(reply.empty());
        // The connection is closed: later transactions fail at once.
        EXPECT_EQ(binder->transact(1, {0, 0, 0, 0}, &reply, 0), kDeadObject);
        std::filesystem::remove(p.root() + "/dev/binder/com.tandril.vd.Ivd_service");
    }
}
