// The proxy against the stand-in service over a real socket in a temporary device root.
#include <gtest/gtest.h>
#include <jansson.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <climits>
#include <mutex>
#include <thread>

#include "core/log.h"
#include "fakes/test_platform.h"
#include "platform/host/host_platform.h"
#include "service/ivd_service.h"
#include "service/parcel.h"
#include "standin/standin_service.h"
#include "standin/standin_view.h"

namespace {

using namespace std::chrono_literals;
using vdstandin::Record;
using vdstandin::StandinService;

class StandinTest : public ::testing::Test {
  protected:
    vigild::testing::TestPlatform platform;
    StandinService service{platform.root()};

    void SetUp() override { ASSERT_TRUE(service.start()) << strerror(errno); }

    sp<Ivd_service> connect() {
        sp<Ivd_service> proxy = Ivd_service::getInterface();
        EXPECT_NE(proxy, nullptr);
        return proxy;
    }
    void awaitOneWaiter() {
        ASSERT_TRUE(vigild::testing::finishesWithin(
            [&] {
                while (service.waitingForCommand() != 1) std::this_thread::yield();
            },
            5s));
    }
    sockaddr_un address() {
        sockaddr_un addr = {};
        addr.sun_family = AF_UNIX;
        std::string path = platform.hostPath("/dev/binder/com.tandril.vd.Ivd_service");
        memcpy(addr.sun_path, path.c_str(), path.size() + 1);
        return addr;
    }
};

// Every reporting call is recorded in order and lands in the status a console shows.
TEST_F(StandinTest, ReportsReachRecordsAndStatus) {
    auto proxy = connect();
    ASSERT_NE(proxy, nullptr);
    platform.writeFile("/dev/__properties__/persist.sys.vd.storage_path", "/storage/1A2B-3C4D/\n");
    const char* document =
        "{\"Tellwick Settings\":{\"settings\":[{\"name\":\"Enable Module\",\"type\":"
        "\"boolean\",\"value\":\"true\",\"list\":[]}]},\"LogcatModule\":{\"settings\":[{"
        "\"name\":\"Enable Module\",\"type\":\"boolean\",\"value\":\"false\",\"list\":[]}]}}";
    EXPECT_EQ(
        (std::vector<int>{
            proxy->sendVersion("vigild", "14.0.15.19"), proxy->sendVersion("LogcatModule", "1.0"),
            proxy->sendVersion("LogcatModule", "1.1"), proxy->sendConfig(document),
            proxy->sendState(2), proxy->sendState(1),
            proxy->sendConfigErrorMessage("{\"errors\":[\"é\"]}"), proxy->enableNotification(true),
            proxy->setTraceLevel(5), proxy->setQcMetaIdVersion("QC-7"), proxy->resetToDefault()}),
        std::vector<int>(11, 0));
    proxy->stopAmbientLight();

    std::vector<std::string> methods;
    for (const Record& r : service.records()) methods.push_back(r.method);
    EXPECT_EQ(methods,
              (std::vector<std::string>{"sendVersion", "sendVersion", "sendVersion", "sendConfig",
                                        "sendState", "sendState", "sendConfigErrorMessage",
                                        "enableNotification", "setTraceLevel", "setQcMetaIdVersion",
                                        "resetToDefault", "stopAmbientLight"}));
    EXPECT_EQ(service.states(), (std::vector<int>{2, 1}));

    const int64_t lastCall = service.summary().lastCallMillis;
    json_error_t error;
    json_t* status = json_loads(vdstandin::statusJson(service, lastCall + 1000).c_str(), 0, &error);
    ASSERT_NE(status, nullptr) << error.text;
    auto str = [&](const char* key) {
        const char* v = json_string_value(json_object_get(status, key));
        return v ? std::string(v) : "(not a string)";
    };
    EXPECT_EQ(str("state"), "running");
    EXPECT_EQ(json_integer_value(json_object_get(status, "stateCode")), 1);
    EXPECT_EQ(str("storageRoot"), "/storage/1A2B-3C4D/");
    EXPECT_EQ(str("layout"), "normal");
    EXPECT_EQ(str("daemonVersion"), "14.0.15.19");
    // UTF-8 goes out one byte per word and arrives intact.
    EXPECT_EQ(str("lastError"), "{\"errors\":[\"é\"]}");
    EXPECT_TRUE(json_is_true(json_object_get(status, "connected")));
    char* modules = json_dumps(json_object_get(status, "modules"), JSON_COMPACT);
    EXPECT_STREQ(modules,
                 "[{\"name\":\"Tellwick Settings\",\"version\":null,\"enabled\":true,"
                 "\"running\":true},{\"name\":\"LogcatModule\",\"version\":\"1.1\","
                 "\"enabled\":false,\"running\":false}]");
    free(modules);
    char* reports = json_dumps(json_object_get(status, "reports"), JSON_COMPACT | JSON_SORT_KEYS);
    EXPECT_STREQ(reports,
                 "{\"enableNotification\":[1],\"resetToDefault\":[],\"setQcMetaIdVersion\":"
                 "[\"QC-7\"],\"setTraceLevel\":[5],\"stopAmbientLight\":[]}");
    free(reports);
    EXPECT_EQ(
        json_integer_value(json_object_get(json_object_get(status, "device"), "sdcard-present")),
        0);
    EXPECT_TRUE(json_is_null(json_object_get(json_object_get(status, "device"), "state")));
    json_decref(status);
    // Quiet for longer than the window and nobody waiting: not connected.
    status = json_loads(
        vdstandin::statusJson(service, lastCall + vdstandin::kConnectedWindowMillis + 1).c_str(), 0,
        nullptr);
    EXPECT_TRUE(json_is_false(json_object_get(status, "connected")));
    json_decref(status);
}

TEST_F(StandinTest, DeviceQuestionsAreAnsweredFromTheSettings) {
    service.updateAnswers([](vdstandin::DeviceAnswers& a) {
        a.bluetoothEnabled = 0;
        a.bluetoothDiscoverable = 1;
        a.bluetoothConnected = 1;
        a.ambientLight = -5;
        a.wanSignalStrength = -97;
        // An even length: the second string must start right after the first's units.
        a.foregroundApplication[0] = "com.xy";
        a.foregroundApplication[1] = "com.x.Main";
        a.serialNumber = "SN1";
        a.modelNumber = "M2";
        a.bspNumber = "B3";
        a.wifiSignalStrength = -41;
        a.dhcp = "10.0.0.2";
        a.gateway = "10.0.0.1";
        a.defaultDirPath = "/storage/1A2B-3C4D/";
        a.sdcardPresent = 1;
        a.sdcardPath = "/storage/1A2B-3C4D/";
        a.tellwickVersion = "14.1";
        a.userValidToDeploy = 0;
        a.deleteLogsParam = 2;
        a.qcMetaIdVersion = "QC-9";
    });
    auto proxy = connect();
    ASSERT_NE(proxy, nullptr);
    int wan = 0, wifi = 0, deleteType = 0;
    EXPECT_EQ(
        (std::vector<int>{proxy->bluetoothIsEnabled(), proxy->bluetoothIsDiscoverable(),
                          proxy->bluetoothIsConnected(), proxy->ambientLight(),
                          proxy->wanSignalStrength(wan), wan, proxy->wifiSignalStrength(wifi), wifi,
                          proxy->deleteTwLogs(deleteType), deleteType, proxy->isSDcardPresent(),
                          proxy->isUserValidToDeploy(), proxy->getDeleteLogsParam()}),
        (std::vector<int>{0, 1, 1, -5, 0, -97, 0, -41, 0, 2, 1, 0, 2}));
    std::string apps[2];
    EXPECT_EQ(proxy->foregroundApplication(apps), 0);
    EXPECT_EQ(apps[0], "com.xy");
    EXPECT_EQ(apps[1], "com.x.Main");

    struct {
        int (Ivd_service::*method)(std::string&);
        std::string expected;
    } cases[] = {
        {&Ivd_service::serialNumber, "SN1"},
        {&Ivd_service::modelNumber, "M2"},
        {&Ivd_service::bspNumber, "B3"},
        {&Ivd_service::dhcp, "10.0.0.2"},
        {&Ivd_service::gateway, "10.0.0.1"},
        {&Ivd_service::getDefaultDirPath, "/storage/1A2B-3C4D/"},
        {&Ivd_service::getSDcardPath, "/storage/1A2B-3C4D/"},
        {&Ivd_service::getTellwickVersion, "14.1"},
        {&Ivd_service::getQcMetaIdVersion, "QC-9"},
    };
    for (const auto& c : cases) {
        std::string out = "stale";
        EXPECT_EQ(((*proxy).*c.method)(out), 0) << c.expected;
        EXPECT_EQ(out, c.expected);
    }
}

TEST_F(StandinTest, GetStateFollowsTheLastStateUnlessOverridden) {
    auto proxy = connect();
    ASSERT_NE(proxy, nullptr);
    EXPECT_EQ(proxy->getState(), 0);
    proxy->sendState(2);
    EXPECT_EQ(proxy->getState(), 2);
    service.updateAnswers([](vdstandin::DeviceAnswers& a) { a.stateOverride = 1; });
    EXPECT_EQ(proxy->getState(), 1);
}

TEST_F(StandinTest, QueuedCommandsAndDocumentsReachTheDaemon) {
    std::mutex traceMutex;
    std::vector<vdstandin::TraceEvent> trace;
    service.addTraceListener([&](const vdstandin::TraceEvent& e) {
        std::lock_guard<std::mutex> lock(traceMutex);
        trace.push_back(e);
    });
    auto waiter = connect();
    ASSERT_NE(waiter, nullptr);
    std::string command;
    std::thread t([&] { command = waiter->waitForResponse(); });
    // The blocked waiter must not stop other connections from being served.
    awaitOneWaiter();
    auto other = connect();
    ASSERT_NE(other, nullptr);
    EXPECT_EQ(other->sendState(1), 0);
    EXPECT_EQ(other->receiveConfig(), "");  // nothing queued yet

    service.queueConfig("{\"a\":1}");
    service.queueCommand("config_set:");
    t.join();
    EXPECT_EQ(command, "config_set:");
    EXPECT_EQ(waiter->receiveConfig(), "{\"a\":1}");
    EXPECT_EQ(service.waitingForCommand(), 0);
    // One event per transaction, numbered in the order answered; the taken command is the
    // waiter's reply, not an argument.
    std::lock_guard<std::mutex> lock(traceMutex);
    std::vector<std::string> lines;
    for (const auto& e : trace) {
        lines.push_back(std::to_string(e.seq) + " " + e.name + " " + e.replySummary);
    }
    EXPECT_EQ(lines, (std::vector<std::string>{
                         "1 sendState ", "2 receiveConfig ",
                         "3 waitForResponse config_set:", "4 receiveConfig {\"a\":1}"}));
    ASSERT_EQ(trace.size(), 4u);
    EXPECT_EQ(service.recentTrace(2).front().seq, 3u);
    const std::string json = vdstandin::traceEventJson(trace[0], true);
    for (const char* part :
         {"\"name\":\"sendState\"", "\"direction\":\"report\"", "\"args\":[1]", "\"code\":4"}) {
        EXPECT_NE(json.find(part), std::string::npos) << part << " in " << json;
    }
    EXPECT_NE(vdstandin::traceEventJson(trace[2], false).find("\"direction\":\"query\""),
              std::string::npos);
    EXPECT_NE(vdstandin::traceEventText(trace[2]).find("<- waitForResponse[1]() = \"config_set:\""),
              std::string::npos);
}

TEST_F(StandinTest, StopReleasesABlockedWaiterAsADeadPeer) {
    auto proxy = connect();
    ASSERT_NE(proxy, nullptr);
    std::string command = "unset";
    std::thread t([&] { command = proxy->waitForResponse(); });
    awaitOneWaiter();
    ASSERT_TRUE(vigild::testing::finishesWithin([&] { service.stop(); }, 5s));
    t.join();
    // A dead peer leaves an empty reply, which reads as an empty command.
    EXPECT_EQ(command, "");
    EXPECT_FALSE(platform.exists("/dev/binder/com.tandril.vd.Ivd_service"));
    EXPECT_EQ(Ivd_service::getInterface(), nullptr);
    EXPECT_TRUE(platform.log().contains("Failed to obtain a handle to the vd_service", kLogError));
    // And it can serve again.
    ASSERT_TRUE(service.start());
    EXPECT_NE(Ivd_service::getInterface(), nullptr);
}

TEST_F(StandinTest, ASecondServiceDoesNotTakeOverALiveSocket) {
    StandinService second(platform.root());
    EXPECT_FALSE(second.start());
    EXPECT_EQ(errno, EADDRINUSE);
    auto proxy = connect();
    ASSERT_NE(proxy, nullptr);
    EXPECT_EQ(proxy->sendState(1), 0);
    EXPECT_EQ(service.states(), std::vector<int>{1});

    // A socket nobody answers on is a leftover and is replaced.
    service.stop();
    int stale = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr = address();
    ASSERT_EQ(::bind(stale, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);
    ::close(stale);
    EXPECT_TRUE(second.start()) << strerror(errno);
}

// Raw frames, for what the proxy never sends.
std::vector<uint8_t> rawTransact(const std::string& root, uint32_t code, const vigild::Parcel& data,
                                 int32_t* status) {
    vigild::platform::host::HostRoot hostRoot(root);
    vigild::platform::host::SocketServiceManager services(&hostRoot);
    auto binder = services.getService(kServiceName);
    std::vector<uint8_t> reply;
    *status = binder ? binder->transact(code, data.data(), &reply, 0) : -1;
    return reply;
}

TEST_F(StandinTest, UnknownCodesAndWrongTokensAreRefused) {
    vigild::Parcel data;
    data.writeInterfaceToken(Ivd_service::getInterfaceDescriptor());
    int32_t status = 0;
    EXPECT_TRUE(rawTransact(platform.root(), 12, data, &status).empty());
    EXPECT_EQ(status, vigild::platform::host::kUnknownTransaction);

    vigild::Parcel wrong;
    wrong.writeInterfaceToken(u"com.example.Other");
    wrong.writeInt32(1);
    vigild::Parcel reply(rawTransact(platform.root(), SEND_STATE, wrong, &status));
    EXPECT_EQ(status, 0);
    EXPECT_NE(reply.readExceptionCode(), 0);
    EXPECT_TRUE(service.states().empty());
}

TEST_F(StandinTest, AnOversizeFrameClosesTheConnection) {
    int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_GE(fd, 0);
    sockaddr_un addr = address();
    ASSERT_EQ(::connect(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr)), 0);
    vigild::Parcel header;
    header.writeInt32(SEND_STATE);
    header.writeInt32(0);
    header.writeInt32(static_cast<int32_t>(vigild::platform::host::kMaxFrameSize + 1));
    ASSERT_TRUE(vigild::platform::host::writeAll(fd, header.data().data(), header.dataSize()));
    timeval timeout{5, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
    char byte;
    EXPECT_EQ(::read(fd, &byte, 1), 0);  // closed, no reply
    ::close(fd);
    EXPECT_TRUE(service.records().empty());
}

}  // namespace
