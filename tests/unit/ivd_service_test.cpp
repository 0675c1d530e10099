// The proxy against crafted replies (a fake binder) and the connection steps.
#include "service/ivd_service.h"

#include <gtest/gtest.h>

#include <climits>
#include <functional>
#include <sstream>
#include <string_view>

#include "core/debug_singleton.h"
#include "core/log.h"
#include "fakes/test_platform.h"
#include "service/bpvd_service.h"
#include "service/parcel.h"
#include "service/protocol.h"

namespace {

using vigild::Parcel;

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
    std::vector<uint32_t> codes;
    std::vector<uint32_t> flags;
    std::vector<std::vector<uint8_t>> requests;
};

// A reply built word by word; u16 strings added as raw units.
struct Reply {
    Parcel p;
    Reply& i(int32_t v) {
        p.writeInt32(v);
        return *this;
    }
    Reply& s16(std::u16string_view units) {
        p.writeString16(units);
        return *this;
    }
    std::vector<uint8_t> bytes() const { return p.data(); }
};

class IvdServiceTest : public ::testing::Test {
  protected:
    vigild::testing::TestPlatform platform;
    std::shared_ptr<FakeBinder> binder = std::make_shared<FakeBinder>();
    Bpvd_service proxy{binder};

    void reply(const Reply& r) { binder->nextReply = r.bytes(); }
};

// The interface token as platform libbinder writes it for a system-partition client on
// Android 11 and later (Parcel::writeInterfaceToken: strict-mode policy with the gather bit,
// no work source, "SYST", the descriptor as String16). Android 10 has no "SYST" word; vendor
// clients write "VNDR" there instead.
constexpr const char* kToken =
    "00000080 ffffffff 54535953 1a000000 63006f00 6d002e00 74006100 6e006400 72006900"
    "6c002e00 76006400 2e004900 76006400 5f007300 65007200 76006900 63006500 00000000";

std::vector<uint8_t> hex(std::string text) {
    std::erase(text, ' ');
    std::vector<uint8_t> out;
    for (size_t i = 0; i + 1 < text.size(); i += 2)
        out.push_back(std::stoi(text.substr(i, 2), 0, 16));
    return out;
}

// Every transaction of the table, byte for byte: the request (token included) and what the
// proxy makes of a typical reply. A change in either encoding fails here, and the device
// backend sends these same bytes (it copies them into a libbinder Parcel).
TEST_F(IvdServiceTest, EveryTransactionsBytesArePinned) {
    int v = 99;
    std::string t = "old", apps[2] = {"x", "y"};
    // The result, then the out value, read after the call (bound by reference).
    auto both = [](int result, const auto&... out) {
        std::ostringstream text;
        text << result;
        ((text << " " << out), ...);
        return text.str();
    };
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
        {28,
         [&] {
             const int r = proxy.foregroundApplication(apps);
             return both(r, apps[0] + "|" + apps[1]);
         },
         // A length of -1 (a null string) consumes only its length word.
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

TEST_F(IvdServiceTest, IncomingStrings) {
    std::string out;
    for (int32_t n : {-1, 0, INT_MIN, INT_MAX, 1000, 0x40000000}) {
        SCOPED_TRACE(n);
        reply(Reply().i(0).i(n).i(0x00420041));
        EXPECT_EQ(proxy.receiveConfig(), "");
        reply(Reply().i(0).i(0).i(1).i(n).i(0x00420041));
        out = "old";
        EXPECT_EQ(proxy.modelNumber(out), 0);
        EXPECT_EQ(out, "");
    }
    // An empty reply (a dead service) reads as success with empty values.
    binder->nextReply.clear();
    binder->status = -32;
    EXPECT_EQ(proxy.waitForResponse(), "");
    EXPECT_EQ(proxy.sendState(1), 0);
    EXPECT_EQ(proxy.getState(), 0);
}

TEST_F(IvdServiceTest, ExceptionRepliesGiveTheFailureValues) {
    // An exception with its message and an empty stack header.
    Reply ex;
    ex.p.writeException(-3, u"bad");
    reply(ex);
    platform.enableDebugLog();
    EXPECT_EQ(proxy.waitForResponse(), "Error");
    EXPECT_EQ(proxy.receiveConfig(), "Error");
    EXPECT_TRUE(platform.log().contains("vd_service got an exception -3", kLogDebug));
    EXPECT_EQ(proxy.ambientLight(), INT_MIN);
    EXPECT_EQ(proxy.getState(), -1);
    EXPECT_EQ(proxy.bluetoothIsEnabled(), -1);
    EXPECT_EQ(proxy.sendState(1), -1);
    // Out values stay as they were.
    int out = 42;
    std::string text = "kept", apps[2] = {"a", "b"};
    EXPECT_EQ((std::vector<int>{proxy.wanSignalStrength(out), proxy.wifiSignalStrength(out),
                                proxy.dhcp(text), proxy.foregroundApplication(apps)}),
              (std::vector<int>{-1, -1, -1, -1}));
    EXPECT_EQ(std::to_string(out) + text + apps[1], "42keptb");
    EXPECT_EQ(platform.log().count("Ivd_service got an exception -3", kLogError), 3);

    // Without the debug switch the proxy's own exception line stays silent.
    platform.properties().set("persist.sys.vd.debug_log", "false");
    debugSingleton::resetForTesting();
    platform.log().clear();
    EXPECT_EQ(proxy.sendState(1), -1);
    EXPECT_EQ(platform.log().lines().size(), 0u);
}

TEST_F(IvdServiceTest, StatusWordAndValueForms) {
    reply(Reply().i(0).i(1).i(1).s16(u"x"));
    std::string out = "kept";
    EXPECT_EQ(proxy.bspNumber(out), -1);
    EXPECT_EQ(out, "kept");
    EXPECT_TRUE(platform.log().contains("Ivd_service return status was bad", kLogError));

    // -1 is a failure although the call went through.
    reply(Reply().i(0).i(-1));
    int value = 0;
    EXPECT_EQ(proxy.wanSignalStrength(value), -1);
    EXPECT_EQ(value, -1);
}

TEST_F(IvdServiceTest, ADocumentLargerThanOneTransactionIsRefusedNotLost) {
    // One byte per word: a quarter of the limit in characters already fills it.
    const std::string huge(kMaxTransactionData / 4, 'x');
    EXPECT_EQ(proxy.sendConfig(huge.c_str()), -1);
    EXPECT_TRUE(binder->codes.empty());
    EXPECT_TRUE(platform.log().contains("sendConfig: the document takes 1048652 bytes in a parcel, "
                                        "more than the 1048576 one transaction carries; not sent",
                                        kLogError));
    EXPECT_EQ(proxy.sendConfig("{}"), 0);
    EXPECT_EQ(binder->codes, std::vector<uint32_t>{SEND_CONFIG});
}

TEST_F(IvdServiceTest, ForegroundApplicationStoresAtMostTwoStrings) {
    struct {
        int32_t count;
        const char* after;  // the caller's three strings
    } cases[] = {{0, "a|b|c"}, {-5, "a|b|c"}, {1, "p|b|c"}, {2, "p|q|c"}, {3, "p|q|c"}};
    for (const auto& c : cases) {
        reply(Reply().i(0).i(0).i(c.count).s16(u"p").s16(u"q").s16(u"r"));
        std::string apps[3] = {"a", "b", "c"};
        EXPECT_EQ(proxy.foregroundApplication(apps), 0);
        EXPECT_EQ(apps[0] + "|" + apps[1] + "|" + apps[2], c.after) << c.count;
    }
}

TEST_F(IvdServiceTest, DebugLinesFollowTheDebugSwitch) {
    platform.enableDebugLog();
    reply(Reply().i(0).i(2));
    proxy.getState();
    proxy.bluetoothIsDiscoverable();
    proxy.bluetoothIsConnected();
    proxy.setTraceLevel(4);
    int v;
    proxy.wanSignalStrength(v);
    reply(Reply().i(0).s16(u"start:"));
    proxy.waitForResponse();
    reply(Reply().i(0).i(0).i(1).s16(u"ab"));
    std::string s;
    proxy.gateway(s);
    for (const char* line :
         {"Ivd_service transaction enabled: 8",
          "Ivd_service transaction called get state and value is : 2",
          "Ivd_service transaction discoveable: 23", "Ivd_service transaction connected: 24",
          "Ivd_service transaction enabled: 20 and 4", "vd_service::wanSignalStrength::value == 2",
          "full read: start:", "Ivd_service size is 2"}) {
        EXPECT_TRUE(platform.log().contains(line, kLogDebug)) << line;
    }
}

TEST_F(IvdServiceTest, GetInterfaceReportsEachMissingPiece) {
    // No service folder: no service manager.
    EXPECT_EQ(Ivd_service::getInterface(), nullptr);
    EXPECT_TRUE(platform.log().contains("Failed to obtain a handle to the default Service Manager",
                                        kLogError));
    // A folder but no socket.
    platform.makeDir("/dev/binder/");
    EXPECT_EQ(Ivd_service::getInterface(), nullptr);
    EXPECT_TRUE(platform.log().contains("Failed to obtain a handle to the vd_service", kLogError));
    EXPECT_EQ(Ivd_service::asInterface(nullptr), nullptr);
    EXPECT_NE(Ivd_service::asInterface(binder), nullptr);
}

}  // namespace
