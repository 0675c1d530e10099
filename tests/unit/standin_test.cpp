// The proxy against the stand-in service over a real socket in a temporary device root.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <thread>

#include "fakes/test_platform.h"
#include "platform/host/host_platform.h"
#include "service/ivd_service.h"
#include "service/parcel.h"
#include "standin/standin_service.h"
#include "standin/standin_view.h"

namespace {

using namespace std::chrono_literals;
using vdstandin::StandinService;

class StandinTest : public ::testing::Test {
  protected:
    vigild::testing::TestPlatform platform;
    StandinService service{platform.root()};

    void SetUp() override { ASSERT_TRUE(service.start()) << strerror(errno); }

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

// What the daemon reports lands in the status a console shows, and in the trace.
TEST_F(StandinTest, ReportsReachTheStatusAndTheTrace) {
    auto proxy = Ivd_service::getInterface();
    ASSERT_NE(proxy, nullptr);
    platform.writeFile("/dev/__properties__/persist.sys.vd.storage_path", "/storage/1A2B-3C4D/");
    const char* document =
        R"({"Tellwick Settings":{"settings":[]},"LogcatModule":{"settings":[{"name":)"
        R"("Enable Module","type":"boolean","value":"true","list":[]}]}})";
    EXPECT_EQ((std::vector<int>{proxy->sendVersion("LogcatModule", "1.0"),
                                proxy->sendVersion("LogcatModule", "1.1"),
                                proxy->sendConfig(document), proxy->sendState(1),
                                proxy->sendConfigErrorMessage("{\"errors\":[\"é\"]}"),
                                proxy->enableNotification(true)}),
              std::vector<int>(6, 0));
    const int64_t last = service.summary().lastCallMillis;
    const std::string status = vdstandin::statusJson(service, last + 1000);
    for (const char* part : {
             R"({"state":"running","stateCode":1,"storageRoot":"/storage/1A2B-3C4D/")",
             R"("connected":true)",
             R"("modules":[{"name":"Tellwick Settings","version":null,"enabled":null,)"
             R"("running":null},{"name":"LogcatModule","version":"1.1","enabled":true,)"
             R"("running":true}])",
             // UTF-8 goes out one byte per word and arrives intact.
             R"("lastError":"{\"errors\":[\"é\"]}","reports":{"enableNotification":[1]})",
         }) {
        EXPECT_NE(status.find(part), std::string::npos) << part << " in " << status;
    }
    EXPECT_NE(vdstandin::statusJson(service, last + vdstandin::kConnectedWindowMillis + 1)
                  .find(R"("connected":false)"),
              std::string::npos);
    const auto trace = service.recentTrace(2);
    ASSERT_EQ(trace.size(), 2u);
    EXPECT_EQ(trace[0].seq, 5u);
    EXPECT_EQ(vdstandin::traceEventText(trace[1]).substr(12), " #6 -> enableNotification[7](1)");
    // The service echoes the last state unless told otherwise.
    service.updateAnswers([](vdstandin::DeviceAnswers& a) { a.stateOverride = 2; });
    EXPECT_EQ(proxy->getState(), 2);
}

// Stop releases a blocked waiter as a dead peer; a second service never takes over a live
// socket, but replaces a leftover one.
TEST_F(StandinTest, StopAndServeAgain) {
    StandinService second(platform.root());
    EXPECT_FALSE(second.start());
    EXPECT_EQ(errno, EADDRINUSE);
    auto proxy = Ivd_service::getInterface();
    ASSERT_NE(proxy, nullptr);
    std::string command = "unset";
    std::thread t([&] { command = proxy->waitForResponse(); });
    awaitOneWaiter();
    ASSERT_TRUE(vigild::testing::finishesWithin([&] { service.stop(); }, 5s));
    t.join();
    EXPECT_EQ(command, "");  // a dead peer's empty reply
    EXPECT_EQ(Ivd_service::getInterface(), nullptr);
    int stale = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr = address();
    ASSERT_EQ(::bind(stale, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);
    ::close(stale);
    EXPECT_TRUE(second.start()) << strerror(errno);
    EXPECT_NE(Ivd_service::getInterface(), nullptr);
}

// Unknown codes and wrong tokens are refused and change nothing.
TEST_F(StandinTest, BadRequestsAreRefused) {
    vigild::platform::host::HostRoot hostRoot(platform.root());
    vigild::platform::host::SocketServiceManager services(&hostRoot);
    auto binder = services.getService(kServiceName);
    ASSERT_NE(binder, nullptr);
    vigild::Parcel data, wrong;
    data.writeInterfaceToken(Ivd_service::getInterfaceDescriptor());
    wrong.writeInterfaceToken(u"com.example.Other");
    wrong.writeInt32(1);
    std::vector<uint8_t> reply;
    EXPECT_EQ(binder->transact(12, data.data(), &reply, 0),
              vigild::platform::host::kUnknownTransaction);
    EXPECT_EQ(binder->transact(SEND_STATE, wrong.data(), &reply, 0), 0);
    EXPECT_NE(vigild::Parcel(reply).readExceptionCode(), 0);

    EXPECT_TRUE(service.states().empty());
    EXPECT_EQ(service.summary().state, std::nullopt);
}

}  // namespace
