// The service link: the parcel codec, the proxy against crafted replies (a fake binder), the
// proxy against the stand-in service over a real socket, and what the daemon reports.
#include "service/ivd_service.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <climits>
#include <functional>
#include <sstream>
#include <thread>

#include "config/document.h"
#include "core/daemon_state.h"
#include "core/log.h"
#include "core/module_loader.h"
#include "core/module_registry.h"
#include "fakes/test_platform.h"
#include "service/bpvd_service.h"
#include "service/device_report.h"
#include "service/parcel.h"
#include "service/protocol.h"
#include "standin/standin_service.h"
#include "standin/standin_view.h"

namespace {

using namespace std::chrono_literals;
using vigild::Parcel;
using vigild::testing::TestPlatform;

std::vector<uint8_t> hex(std::string text) {
    std::erase(text, ' ');
    std::vector<uint8_t> out;
    for (size_t i = 0; i + 1 < text.size(); i += 2)
        out.push_back(std::stoi(text.substr(i, 2), 0, 16));
    return out;
}

// The result of a call, then its out values: "0 SN1".
template <typename... Out>
std::string both(int result, const Out&... out) {
    std::ostringstream text;
    text << result;
    ((text << " " << out), ...);
    return text.str();
}

// Each row: the words to read, what is read from them, and what that gives.
TEST(ParcelTest, ReadsStopAtTheirBoundsAndSkipHeaders) {
    auto str16 = [](Parcel& p) {
        std::u16string s = u"old";
        bool isNull = false;
        const bool ok = p.readString16(&s, &isNull);
        return both(ok, std::string(s.begin(), s.end()), isNull);
    };
    // Arguments are evaluated in no set order: each read is its own statement.
    auto ex = [](Parcel& p) {
        const int code = p.readExceptionCode();
        return both(code, p.readInt32());
    };
    const struct {
        const char* words;
        std::function<std::string(Parcel&)> read;
        const char* result;
        size_t left;
    } rows[] = {
        // A String16 is its units, a NUL and padding to the word.
        {"02000000 61006200 00000000 07000000", str16, "1 ab 0", 4},
        {"ffffffff 07000000", str16, "1  1", 4},
        // Length claims beyond the data, or negative, fail without moving.
        {"ffffff7f 61006200", str16, "0 old 0", 8},
        {"05000000 61006200", str16, "0 old 0", 8},
        {"feffffff 61006200", str16, "0 old 0", 8},
        {"01020304 0506",
         [](Parcel& p) {
             const int first = p.readInt32();
             return both(first, p.readInt32());
         },
         "67305985 0", 2},
        {"", ex, "0 0", 0},
        // An exception's message and stack header are consumed; the header counts itself.
        {"fdffffff 01000000 62000000 00000000 37000000", ex, "-3 55", 0},
        {"ffffffff 01000000 6d000000 08000000 7b000000 38000000", ex, "-1 56", 0},
        // A reply header (-128) is skipped by its size; a size below its own or beyond the
        // data leaves nothing to read.
        {"80ffffff 08000000 01000000 39000000", ex, "0 57", 0},
        {"80ffffff f8ffffff 07000000", ex, "0 0", 0},
        {"80ffffff a00f0000 07000000", ex, "0 0", 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.words);
        Parcel p(hex(row.words));
        EXPECT_EQ(row.read(p), row.result);
        EXPECT_EQ(p.dataAvail(), row.left);
    }
    // A short read fails without moving: 3 bytes take 4, and 2 need their padding too.
    uint8_t buf[3] = {};
    Parcel p(hex("01020304 0506"));
    p.readInt32();
    for (size_t n : {size_t{3}, size_t{2}, SIZE_MAX}) EXPECT_FALSE(p.read(buf, n)) << n;
    EXPECT_EQ(p.dataPosition(), 4u);
}

class FakeBinder : public vigild::platform::Binder {
  public:
    int32_t transact(uint32_t code, const std::vector<uint8_t>& data, std::vector<uint8_t>* reply,
                     uint32_t flags) override {
        codes.push_back(code);
        requests.push_back(data);
        this->flags.push_back(flags);
        *reply = nextReply;
        return status;
    }
    std::vector<uint8_t> nextReply;
    int32_t status = 0;
    std::vector<uint32_t> codes, flags;
    std::vector<std::vector<uint8_t>> requests;
};

class IvdServiceTest : public ::testing::Test {
  protected:
    TestPlatform platform;
    std::shared_ptr<FakeBinder> binder = std::make_shared<FakeBinder>();
    Bpvd_service proxy{binder};
};

// The interface token as platform libbinder writes it for a system-partition client on
// Android 11 and later (Parcel::writeInterfaceToken: strict-mode policy with the gather bit,
// no work source, "SYST", the descriptor as String16). Android 10 has no "SYST" word; vendor
// clients write "VNDR" there instead.
constexpr const char* kToken =
    "00000080 ffffffff 54535953 1a000000 63006f00 6d002e00 74006100 6e006400 72006900"
    "6c002e00 76006400 2e004900 76006400 5f007300 65007200 76006900 63006500 00000000";

// Every transaction of the table, byte for byte: the request (token included) and what the
// proxy makes of a typical reply. A change in either encoding fails here, and the device
// backend sends these same bytes (it copies them into a libbinder Parcel).
TEST_F(IvdServiceTest, EveryTransactionsBytesArePinned) {
    int v = 99;
    std::string t = "old", apps[2] = {"x", "y"};
    const std::string ok = "00000000", sn1 = ok + "00000000 01000000 03000000 53004e00 31000000";
    const struct {
        uint32_t code;
        std::function<std::string()> call;
        const char* request;  // after the token
        std::string reply;
        const char* result;
    } rows[] = {
        {1, [&] { return proxy.waitForResponse(); }, "",
         ok + "06000000 73007400 61007200 74003a00 00000000", "start:"},
        {2, [&] { return both(proxy.sendConfig("")); }, "00000000", ok, "0"},
        {3, [&] { return proxy.receiveConfig(); }, "",
         ok + "07000000 7b002200 61002200 3a003100 7d000000", "{\"a\":1}"},
        {4, [&] { return both(proxy.sendState(2)); }, "02000000", ok, "0"},
        {5, [&] { return both(proxy.sendVersion("a", "bc")); },
         "01000000 61000000 02000000 62000000 63000000", ok, "0"},
        // Bytes above 0x7f are zero-extended.
        {6, [&] { return both(proxy.sendConfigErrorMessage("\xc3\xa9")); },
         "02000000 c3000000 a9000000", ok, "0"},
        {7, [&] { return both(proxy.enableNotification(true)); }, "01000000", ok, "0"},
        {8, [&] { return both(proxy.getState()); }, "", ok + "02000000", "2"},
        {18, [&] { return both(proxy.startBTSnoop()); }, "", ok, "0"},
        {19, [&] { return both(proxy.stopBTSnoop()); }, "", ok, "0"},
        {20, [&] { return both(proxy.setTraceLevel(7)); }, "07000000", ok, "0"},
        {21, [&] { return both(proxy.isBTSnooplogConfigChanged(false)); }, "00000000", ok, "0"},
        {22, [&] { return both(proxy.bluetoothIsEnabled()); }, "", ok + "01000000", "1"},
        {23, [&] { return both(proxy.bluetoothIsDiscoverable()); }, "", ok + "00000000", "0"},
        {24, [&] { return both(proxy.bluetoothIsConnected()); }, "", ok + "01000000", "1"},
        {25, [&] { return both(proxy.ambientLight()); }, "", ok + "2c010000", "300"},
        {26, [&] { return (proxy.stopAmbientLight(), std::string("-")); }, "", ok, "-"},
        {27, [&] { return both(proxy.wanSignalStrength(v), v); }, "01000000", ok + "b0ffffff",
         "0 -80"},
        // A length of -1 (a null string) consumes only its length word.
        {28, [&] { return (proxy.foregroundApplication(apps), both(0, apps[0] + "|" + apps[1])); },
         "02000000", ok + "00000000 02000000 ffffffff 01000000 62000000", "0 |b"},
        {29, [&] { return both(proxy.serialNumber(t), t); }, "01000000", sn1, "0 SN1"},
        // High bytes are dropped: units 0x0041 0x0142 0x0043 read as "ABC".
        {30, [&] { return both(proxy.modelNumber(t), t); }, "01000000",
         ok + "00000000 01000000 03000000 41004201 43000000", "0 ABC"},
        {31, [&] { return both(proxy.bspNumber(t), t); }, "01000000", sn1, "0 SN1"},
        {32, [&] { return both(proxy.wifiSignalStrength(v), v); }, "01000000",
         ok + "00000000 01000000 c4ffffff", "0 -60"},
        {33, [&] { return both(proxy.dhcp(t), t); }, "01000000", sn1, "0 SN1"},
        {34, [&] { return both(proxy.gateway(t), t); }, "01000000", sn1, "0 SN1"},
        {35, [&] { return both(proxy.getDefaultDirPath(t), t); }, "01000000", sn1, "0 SN1"},
        {36, [&] { return both(proxy.isSDcardPresent()); }, "", ok + "01000000", "1"},
        {37, [&] { return both(proxy.getSDcardPath(t), t); }, "01000000", sn1, "0 SN1"},
        {38, [&] { return both(proxy.getTellwickVersion(t), t); }, "01000000", sn1, "0 SN1"},
        {39, [&] { return both(proxy.isUserValidToDeploy()); }, "", ok + "01000000", "1"},
        {40, [&] { return both(proxy.updateValidUserStatus(true)); }, "01000000", ok, "0"},
        {41, [&] { return both(proxy.getQcMetaIdVersion(t), t); }, "01000000", sn1, "0 SN1"},
        // The text ends at its first NUL.
        {42, [&] { return both(proxy.setQcMetaIdVersion(std::string("Q\0Z", 3))); },
         "01000000 51000000", ok, "0"},
        {43, [&] { return both(proxy.resetToDefault()); }, "", ok, "0"},
        {44, [&] { return both(proxy.deleteTwLogs(v), v); }, "01000000",
         ok + "00000000 01000000 03000000", "0 3"},
        {45, [&] { return both(proxy.getDeleteLogsParam()); }, "", ok + "02000000", "2"},
        {46, [&] { return both(proxy.updateTwBugreportStatus(false)); }, "00000000", ok, "0"},
    };
    ASSERT_EQ(std::size(rows), std::size(vigild::protocol::kTransactions));
    for (size_t i = 0; i < std::size(rows); i++) {
        const auto& row = rows[i];
        SCOPED_TRACE(row.code);
        EXPECT_EQ(row.code, vigild::protocol::kTransactions[i].code);
        binder->nextReply = hex(row.reply);
        t = "old", v = 99;
        EXPECT_EQ(row.call(), row.result);
        ASSERT_EQ(binder->codes.back(), row.code);
        EXPECT_EQ(binder->flags.back(), 0u);
        EXPECT_EQ(binder->requests.back(), hex(std::string(kToken) + row.request));
    }
}

// Replies that are not a plain value: each gives the failure value and leaves out values as
// they were, or keeps only what fits.
TEST_F(IvdServiceTest, FailedAndOddRepliesGiveTheFailureValues) {
    int v = 42;
    std::string t = "kept", apps[3] = {"a", "b", "c"};
    auto fg = [&] {
        const int result = proxy.foregroundApplication(apps);
        return both(result, apps[0] + "|" + apps[1] + "|" + apps[2]);
    };
    const std::string exception = "fdffffff 03000000 62006100 64000000 00000000";
    const struct {
        std::string reply;
        std::function<std::string()> call;
        const char* result;
    } rows[] = {
        {exception, [&] { return proxy.waitForResponse(); }, "Error"},
        {exception, [&] { return proxy.receiveConfig(); }, "Error"},
        {exception, [&] { return both(proxy.ambientLight()); }, "-2147483648"},
        {exception, [&] { return both(proxy.getState(), proxy.bluetoothIsEnabled()); }, "-1 -1"},
        {exception, [&] { return both(proxy.sendState(1)); }, "-1"},
        {exception,
         [&] { return both(proxy.wanSignalStrength(v), proxy.wifiSignalStrength(v), v); },
         "-1 -1 42"},
        {exception, [&] { return both(proxy.dhcp(t), t); }, "-1 kept"},
        {exception, fg, "-1 a|b|c"},
        // A bad status word; -1 as a value is a failure although the call went through.
        {"00000000 01000000 01000000 01000000 78000000",
         [&] { return both(proxy.bspNumber(t), t); }, "-1 kept"},
        {"00000000 ffffffff", [&] { return both(proxy.wanSignalStrength(v), v); }, "-1 -1"},
        // Length claims the reply cannot hold read as empty.
        {"00000000 ffffff7f 41004200", [&] { return proxy.receiveConfig(); }, ""},
        {"00000000 00000000 01000000 00000040 41004200",
         [&] { return both(proxy.modelNumber(t), t); }, "0 "},
        // At most two applications are stored, whatever the count says.
        {"00000000 00000000 fbffffff", fg, "0 a|b|c"},
        {"00000000 00000000 03000000 01000000 70000000 01000000 71000000 01000000 72000000", fg,
         "0 p|q|c"},
        // A dead service: no reply at all reads as success with empty values.
        {"",
         [&] { return proxy.waitForResponse() + "|" + both(proxy.getState(), proxy.sendState(1)); },
         "|0 0"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.reply);
        binder->nextReply = hex(row.reply);
        binder->status = row.reply.empty() ? -32 : 0;
        EXPECT_EQ(row.call(), row.result);
    }
    EXPECT_EQ(platform.log().count("Ivd_service got an exception -3", kLogError), 3);
    EXPECT_TRUE(platform.log().contains("Ivd_service return status was bad", kLogError));
}

TEST_F(IvdServiceTest, ADocumentLargerThanOneTransactionIsRefusedNotLost) {
    // One byte per word: a quarter of the limit in characters already fills it.
    const std::string huge(kMaxTransactionData / 4, 'x');
    EXPECT_EQ(proxy.sendConfig(huge.c_str()), -1);
    EXPECT_TRUE(binder->codes.empty());
    EXPECT_TRUE(
        platform.log().contains("sendConfig: the document takes 1048652 bytes in a parcel, "
                                "more than the 1048576 one transaction carries; not sent",
                                kLogError));
    EXPECT_EQ(proxy.sendConfig("{}"), 0);
    EXPECT_EQ(binder->codes, std::vector<uint32_t>{SEND_CONFIG});
}

TEST_F(IvdServiceTest, LogLinesOfTheLinkAndTheDebugSwitch) {
    // Without the debug switch the proxy's own exception line stays silent.
    binder->nextReply = hex("fdffffff 03000000 62006100 64000000 00000000");
    proxy.sendState(1);
    EXPECT_EQ(platform.log().lines().size(), 0u);
    EXPECT_EQ(Ivd_service::getInterface(), nullptr);
    platform.makeDir("/dev/binder/");
    EXPECT_EQ(Ivd_service::getInterface(), nullptr);
    platform.enableDebugLog();
    proxy.sendState(1);
    EXPECT_TRUE(platform.log().contains("Failed to obtain a handle to the default Service Manager",
                                        kLogError));
    EXPECT_TRUE(platform.log().contains("Failed to obtain a handle to the vd_service", kLogError));
    EXPECT_TRUE(platform.log().contains("vd_service got an exception -3", kLogDebug));
}

// The proxy against the stand-in over a real socket in a temporary device root.
class StandinTest : public ::testing::Test {
  protected:
    TestPlatform platform;
    vdstandin::StandinService service{platform.root()};

    void SetUp() override { ASSERT_TRUE(service.start()) << strerror(errno); }
};

// Every call is traced in order with its code and arguments; the device questions are answered
// from the stand-in's settings. (Its status document: StandinE2ETest.)
TEST_F(StandinTest, CallsAreTracedAndQuestionsGetTheSettings) {
    auto proxy = Ivd_service::getInterface();
    ASSERT_NE(proxy, nullptr);
    for (int i = 0; i < 4; i++) EXPECT_EQ(proxy->sendState(1), 0);
    // UTF-8 goes out one byte per word and arrives intact.
    EXPECT_EQ(proxy->sendConfigErrorMessage("{\"errors\":[\"é\"]}"), 0);
    EXPECT_EQ(service.errorMessages().back(), "{\"errors\":[\"é\"]}");
    EXPECT_EQ(proxy->enableNotification(true), 0);
    const auto trace = service.recentTrace(2);
    ASSERT_EQ(trace.size(), 2u);
    EXPECT_EQ(trace[0].seq, 5u);
    EXPECT_EQ(vdstandin::traceEventText(trace[1]).substr(12), " #6 -> enableNotification[7](1)");

    // The service echoes the last state unless told otherwise; each question has its own field.
    EXPECT_EQ(proxy->getState(), 1);
    service.updateAnswers([](vdstandin::DeviceAnswers& a) {
        a = {11,   12,   13,    14, 15,    {"p", "q"}, "sn", "mo", "bsp", 16,
             "dh", "gw", "/d/", 17, "/c/", "tw",       18,   19,   "qc",  2};
    });
    int v = 0;
    std::string s[12], apps[2];
    EXPECT_EQ(both(proxy->getState(), proxy->bluetoothIsEnabled(), proxy->bluetoothIsDiscoverable(),
                   proxy->bluetoothIsConnected(), proxy->ambientLight(), proxy->isSDcardPresent(),
                   proxy->isUserValidToDeploy(), proxy->getDeleteLogsParam()),
              "2 11 12 13 14 17 18 19");
    proxy->wanSignalStrength(v);
    EXPECT_EQ(v, 15);
    proxy->wifiSignalStrength(v);
    EXPECT_EQ(v, 16);
    proxy->deleteTwLogs(v);
    EXPECT_EQ(v, 19);
    proxy->foregroundApplication(apps);
    proxy->serialNumber(s[0]), proxy->modelNumber(s[1]), proxy->bspNumber(s[2]);
    proxy->dhcp(s[3]), proxy->gateway(s[4]), proxy->getDefaultDirPath(s[5]);
    proxy->getSDcardPath(s[6]), proxy->getTellwickVersion(s[7]), proxy->getQcMetaIdVersion(s[8]);
    EXPECT_EQ(both(0, apps[0], apps[1], s[0], s[1], s[2], s[3], s[4], s[5], s[6], s[7], s[8]),
              "0 p q sn mo bsp dh gw /d/ /c/ tw qc");
}

// Stop releases a blocked waiter as a dead peer; a second service never takes over a live
// socket, but replaces a leftover one. Unknown codes and wrong tokens change nothing.
TEST_F(StandinTest, StopServeAgainAndBadRequests) {
    vigild::platform::host::HostRoot hostRoot(platform.root());
    vigild::platform::host::SocketServiceManager services(&hostRoot);
    auto binder = services.getService(kServiceName);
    ASSERT_NE(binder, nullptr);
    Parcel data, wrong;
    data.writeInterfaceToken(Ivd_service::getInterfaceDescriptor());
    wrong.writeInterfaceToken(u"com.example.Other");
    wrong.writeInt32(1);
    std::vector<uint8_t> reply;
    EXPECT_EQ(binder->transact(12, data.data(), &reply, 0),
              vigild::platform::host::kUnknownTransaction);
    EXPECT_EQ(binder->transact(SEND_STATE, wrong.data(), &reply, 0), 0);
    EXPECT_NE(Parcel(reply).readExceptionCode(), 0);
    EXPECT_TRUE(service.states().empty());
    EXPECT_EQ(service.summary().state, std::nullopt);

    vdstandin::StandinService second(platform.root());
    EXPECT_FALSE(second.start());
    EXPECT_EQ(errno, EADDRINUSE);
    auto proxy = Ivd_service::getInterface();
    ASSERT_NE(proxy, nullptr);
    std::string command = "unset";
    std::thread t([&] { command = proxy->waitForResponse(); });
    ASSERT_TRUE(vigild::testing::finishesWithin(
        [&] {
            while (service.waitingForCommand() != 1) std::this_thread::yield();
        },
        5s));
    ASSERT_TRUE(vigild::testing::finishesWithin([&] { service.stop(); }, 5s));
    t.join();
    EXPECT_EQ(command, "");  // a dead peer's empty reply
    EXPECT_EQ(Ivd_service::getInterface(), nullptr);
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    std::string path = platform.hostPath("/dev/binder/com.tandril.vd.Ivd_service");
    memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    int stale = ::socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_EQ(::bind(stale, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);
    ::close(stale);
    EXPECT_TRUE(second.start()) << strerror(errno);
    EXPECT_NE(Ivd_service::getInterface(), nullptr);
}

// What the daemon tells the service about itself: every version, then the document, then the
// state by its word; an unknown state reports nothing, and no service skips to the state step.
TEST_F(StandinTest, DeviceReportSendsVersionsThenDocumentThenState) {
    ASSERT_TRUE(vigild::testing::installTestModules(platform.root(),
                                                    {"lib_vd_alpha.so", "lib_vd_beta.so"}));
    platform.setProperty("persist.sys.vd.storage_path", "/sdcard/");
    platform.makeDir("/sdcard/Tellwick/");
    ASSERT_EQ(buildModuleRegistry(), 0);
    for (int state : {kStateRunning, kStateStopped, kStateTransition, 7}) {
        runState = state;
        sendInfo();
    }
    std::vector<std::string> methods;
    for (const auto& r : service.records()) methods.push_back(r.method);
    EXPECT_EQ(methods.size(), 4u * 7 - 1);
    EXPECT_EQ(std::vector<std::string>(methods.begin(), methods.begin() + 7),
              (std::vector<std::string>{"sendVersion", "sendVersion", "sendVersion", "sendVersion",
                                        "sendVersion", "sendConfig", "sendState"}));
    const auto versions = service.versions();
    EXPECT_EQ(std::vector(versions.begin(), versions.begin() + 5),
              (std::vector<std::pair<std::string, std::string>>{{"vigild", "14.0.15.19"},
                                                                {"Tellwick Settings", "14.0.0.0"},
                                                                {"A", "14.0.3.1"},
                                                                {"B", "14.0.0.1"},
                                                                {"QuickTapModule", "14.0.1.0"}}));
    EXPECT_EQ(service.states(), (std::vector<int>{kStateRunning, kStateStopped, kStateTransition}));
    EXPECT_EQ(runState.load(), 7);

    // Concurrent sends each carry a whole document, the one the registry gives now.
    char* now = getConfig();
    ASSERT_NE(now, nullptr);
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; t++) {
        threads.emplace_back([] {
            for (int i = 0; i < 10; i++) sendConfig();
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(service.configs(), std::vector<std::string>(4 + 30, now));
    free(now);

    service.stop();
    runState = kStateStopped;
    sendInfo();
    // Once for the versions and the document, skipped together, once for the state.
    EXPECT_EQ(platform.log().count("Failed to obtain a handle on vd_service", kLogError), 2);
}

}  // namespace
