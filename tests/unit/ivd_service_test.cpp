// The proxy against crafted replies (a fake binder) and the connection steps.
#include "service/ivd_service.h"

#include <gtest/gtest.h>

#include <climits>

#include "core/debug_singleton.h"
#include "core/log.h"
#include "fakes/test_platform.h"
#include "service/bpvd_service.h"
#include "service/parcel.h"

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

std::vector<int32_t> words(const std::vector<uint8_t>& bytes) {
    Parcel p(bytes);
    std::vector<int32_t> out;
    while (p.dataAvail() >= 4) out.push_back(p.readInt32());
    return out;
}

// The request's words after the interface token.
std::vector<int32_t> fields(const std::vector<uint8_t>& request) {
    Parcel token;
    token.writeInterfaceToken(u"com.tandril.vd.Ivd_service");
    EXPECT_GE(request.size(), token.dataSize());
    EXPECT_TRUE(std::equal(token.data().begin(), token.data().end(), request.begin()));
    return words(std::vector<uint8_t>(request.begin() + token.dataSize(), request.end()));
}

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
    std::vector<int32_t> lastFields() { return fields(binder->requests.back()); }
};

TEST_F(IvdServiceTest, RequestsCarryTheTokenAndTheirFields) {
    proxy.sendConfig("");
    EXPECT_EQ(binder->codes.back(), SEND_CONFIG);
    EXPECT_EQ(lastFields(), std::vector<int32_t>{0});
    // The token itself, byte for byte.
    const std::vector<uint8_t> tokenStart = {0x00, 0x00, 0x00, 0x80, 0xff, 0xff, 0xff,
                                             0xff, 0x54, 0x53, 0x59, 0x53, 26,   0,
                                             0,    0,    'c',  0,    'o',  0};
    EXPECT_TRUE(std::equal(tokenStart.begin(), tokenStart.end(), binder->requests[0].begin()));
    EXPECT_EQ(binder->requests[0].size(), 12u + 4u + 56u + 4u);  // 26 units + NUL, padded
    EXPECT_EQ(binder->flags.back(), 0u);

    proxy.sendVersion("a", "bc");
    EXPECT_EQ(lastFields(), (std::vector<int32_t>{1, 0x61, 2, 0x62, 0x63}));
    // Bytes above 0x7f are zero-extended, not sign-extended.
    proxy.sendConfigErrorMessage("\xc3\xa9");
    EXPECT_EQ(lastFields(), (std::vector<int32_t>{2, 0xc3, 0xa9}));
    proxy.setQcMetaIdVersion(std::string("Q\0Z", 3));
    EXPECT_EQ(lastFields(), (std::vector<int32_t>{1, 'Q'}));

    int v;
    std::string text, apps[2];
    struct {
        std::function<void()> call;
        uint32_t code;
        std::vector<int32_t> fields;
    } cases[] = {
        {[&] { proxy.waitForResponse(); }, WAIT_FOR_RESPONSE, {}},
        {[&] { proxy.receiveConfig(); }, RECEIVE_CONFIG, {}},
        {[&] { proxy.sendState(2); }, SEND_STATE, {2}},
        {[&] { proxy.enableNotification(true); }, ENABLE_NOTIFICATION, {1}},
        {[&] { proxy.getState(); }, GET_STATE, {}},
        {[&] { proxy.setTraceLevel(7); }, SET_TRACE_LEVEL, {7}},
        {[&] { proxy.isBTSnooplogConfigChanged(false); }, IS_BT_SNOOPLOG_CONFIG_CHANGED, {0}},
        {[&] { proxy.stopAmbientLight(); }, STOP_AMBIENT_LIGHT, {}},
        {[&] { proxy.wanSignalStrength(v); }, WAN_SIGNAL_STRENGTH, {1}},
        {[&] { proxy.foregroundApplication(apps); }, FOREGROUND_APPLICATION, {2}},
        {[&] { proxy.getSDcardPath(text); }, GET_SDCARD_PATH, {1}},
        {[&] { proxy.wifiSignalStrength(v); }, WIFI_SIGNAL_STRENGTH, {1}},
        {[&] { proxy.deleteTwLogs(v); }, DELETE_TW_LOGS, {1}},
        {[&] { proxy.updateValidUserStatus(false); }, UPDATE_VALID_USER_STATUS, {0}},
        {[&] { proxy.updateTwBugreportStatus(true); }, UPDATE_TW_BUGREPORT_STATUS, {1}},
        {[&] { proxy.getDeleteLogsParam(); }, GET_DELETE_LOGS_PARAM, {}},
    };
    for (auto& c : cases) {
        c.call();
        EXPECT_EQ(binder->codes.back(), c.code);
        EXPECT_EQ(lastFields(), c.fields) << "code " << c.code;
    }
}

TEST_F(IvdServiceTest, IncomingStrings) {
    // Only the low byte of each unit is kept.
    reply(Reply().i(0).s16(u"\u0041\u0142\u0043"));
    EXPECT_EQ(proxy.waitForResponse(), "ABC");
    reply(Reply().i(0).i(0).i(1).s16(u"\u0041\u0142\u0043"));
    std::string out = "old";
    EXPECT_EQ(proxy.serialNumber(out), 0);
    EXPECT_EQ(out, "ABC");

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

    // A length of -1 (a null string) consumes only its length word.
    reply(Reply().i(0).i(0).i(2).i(-1).s16(u"zz"));
    std::string apps[2] = {"x", "y"};
    EXPECT_EQ(proxy.foregroundApplication(apps), 0);
    EXPECT_EQ(apps[0] + "|" + apps[1], "|zz");
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

TEST_F(IvdServiceTest, ReplyHeaderStatusWordAndValueForms) {
    // -128, a header of 12 bytes (counting its size word), then the value.
    reply(Reply().i(-128).i(12).i(99).i(99).i(7));
    EXPECT_EQ(proxy.getDeleteLogsParam(), 7);
    // A header size that cannot be right leaves nothing to read.
    reply(Reply().i(-128).i(4000).i(7));
    EXPECT_EQ(proxy.getDeleteLogsParam(), 0);

    reply(Reply().i(0).i(1).i(1).s16(u"x"));
    std::string out = "kept";
    EXPECT_EQ(proxy.bspNumber(out), -1);
    EXPECT_EQ(out, "kept");
    EXPECT_TRUE(platform.log().contains("Ivd_service return status was bad", kLogError));

    reply(Reply().i(0).i(0).i(1).i(-7));
    int value = 0;
    EXPECT_EQ(proxy.deleteTwLogs(value), 0);
    EXPECT_EQ(value, -7);

    // -1 is a failure although the call went through.
    reply(Reply().i(0).i(-1));
    EXPECT_EQ(proxy.wanSignalStrength(value), -1);
    EXPECT_EQ(value, -1);
    reply(Reply().i(0).i(-80));
    EXPECT_EQ(proxy.wanSignalStrength(value), 0);
    EXPECT_EQ(value, -80);
}

TEST_F(IvdServiceTest, ForegroundApplicationStoresAtMostTwoStrings) {
    struct {
        int32_t count;
        std::string first, second;
    } cases[] = {{0, "a", "b"}, {-5, "a", "b"}, {1, "p", "b"}, {2, "p", "q"}, {3, "p", "q"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.count);
        reply(Reply().i(0).i(0).i(c.count).s16(u"p").s16(u"q").s16(u"r"));
        std::string apps[3] = {"a", "b", "untouched"};
        EXPECT_EQ(proxy.foregroundApplication(apps), 0);
        EXPECT_EQ(apps[0], c.first);
        EXPECT_EQ(apps[1], c.second);
        EXPECT_EQ(apps[2], "untouched");
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
    EXPECT_EQ(Ivd_service::getInterfaceDescriptor(), u"com.tandril.vd.Ivd_service");
}

}  // namespace
