// The proxy against the stand-in service over a real socket in a temporary device root.
#include <gtest/gtest.h>
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

TEST_F(StandinTest, EveryReportingCallIsRecordedInOrder) {
    auto proxy = connect();
    ASSERT_NE(proxy, nullptr);
    EXPECT_EQ((std::vector<int>{proxy->sendConfig("{\"vigild\":[]}"), proxy->sendState(1),
                                proxy->sendVersion("vigild", "14.0.15.19"),
                                proxy->sendConfigErrorMessage("{\"errors\":[\"é\"]}"),
                                proxy->enableNotification(true), proxy->startBTSnoop(),
                                proxy->stopBTSnoop(), proxy->setTraceLevel(5),
                                proxy->isBTSnooplogConfigChanged(false)}),
              std::vector<int>(9, 0));
    proxy->stopAmbientLight();
    EXPECT_EQ(
        (std::vector<int>{proxy->updateValidUserStatus(true), proxy->setQcMetaIdVersion("QC-7"),
                          proxy->resetToDefault(), proxy->updateTwBugreportStatus(false)}),
        std::vector<int>(4, 0));

    std::vector<std::string> methods;
    for (const Record& r : service.records()) methods.push_back(r.method);
    EXPECT_EQ(methods, (std::vector<std::string>{
                           "sendConfig", "sendState", "sendVersion", "sendConfigErrorMessage",
                           "enableNotification", "startBTSnoop", "stopBTSnoop", "setTraceLevel",
                           "isBTSnooplogConfigChanged", "stopAmbientLight", "updateValidUserStatus",
                           "setQcMetaIdVersion", "resetToDefault", "updateTwBugreportStatus"}));
    EXPECT_EQ(service.configs(), std::vector<std::string>{"{\"vigild\":[]}"});
    EXPECT_EQ(service.states(), std::vector<int>{1});
    EXPECT_EQ(service.versions(),
              (std::vector<std::pair<std::string, std::string>>{{"vigild", "14.0.15.19"}}));
    // UTF-8 goes out one byte per word and arrives intact.
    EXPECT_EQ(service.errorMessages(), std::vector<std::string>{"{\"errors\":[\"é\"]}"});
    EXPECT_EQ(service.notificationFlags(), std::vector<int>{1});
    EXPECT_EQ(service.traceLevels(), std::vector<int>{5});
    EXPECT_EQ(service.btSnoopFlags(), std::vector<int>{0});
    EXPECT_EQ(service.validUserFlags(), std::vector<int>{1});
    EXPECT_EQ(service.qcMetaIds(), std::vector<std::string>{"QC-7"});
    EXPECT_EQ(service.bugreportStatuses(), std::vector<int>{0});
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
    std::vector<std::string> trace;
    service.setTrace([&](const std::string& line) {
        std::lock_guard<std::mutex> lock(traceMutex);
        trace.push_back(line);
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
    // One decoded line per transaction; a taken command is shown as the answer only.
    std::lock_guard<std::mutex> lock(traceMutex);
    EXPECT_EQ(trace, (std::vector<std::string>{"sendState(1)", "receiveConfig() -> \"\"",
                                               "waitForResponse() -> \"config_set:\"",
                                               "receiveConfig() -> \"{\\\"a\\\":1}\""}));
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
