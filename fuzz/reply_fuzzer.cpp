// Arbitrary bytes as the reply to every proxy method: no crash, no read past the reply.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/platform.h"
#include "service/bpvd_service.h"
#include "service/parcel.h"

namespace {

class CannedBinder : public vigild::platform::Binder {
  public:
    int32_t transact(uint32_t, const std::vector<uint8_t>&, std::vector<uint8_t>* reply,
                     uint32_t) override {
        *reply = bytes;
        return 0;
    }
    std::vector<uint8_t> bytes;
};

class NullSink : public vigild::platform::LogSink {
  public:
    void write(int, const char*, const char*) override {}
};

class NullProperties : public vigild::platform::Properties {
  public:
    // Debug lines on, so their formatting is exercised too.
    int get(const char* key, char* value, const char* defaultValue) override {
        const char* v = std::string(key) == "persist.sys.vd.debug_log" ? "true" : defaultValue;
        size_t n = 0;
        for (; v[n] != '\0' && n + 1 < vigild::platform::kPropValueMax; n++) value[n] = v[n];
        value[n] = '\0';
        return static_cast<int>(n);
    }
    int set(const char*, const char*) override { return 0; }
};

void installOnce() {
    static bool done = false;
    if (done) return;
    static NullSink sink;
    static NullProperties properties;
    vigild::platform::Platform p;
    p.log = &sink;
    p.properties = &properties;
    vigild::platform::install(p);
    done = true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    installOnce();
    auto binder = std::make_shared<CannedBinder>();
    binder->bytes.assign(data, data + size);
    Bpvd_service proxy(binder);

    proxy.waitForResponse();
    proxy.receiveConfig();
    proxy.sendConfig("{}");
    proxy.sendState(1);
    proxy.sendVersion("vigild", "14.0.15.19");
    proxy.sendConfigErrorMessage("[]");
    proxy.enableNotification(true);
    proxy.getState();
    proxy.startBTSnoop();
    proxy.stopBTSnoop();
    proxy.setTraceLevel(3);
    proxy.isBTSnooplogConfigChanged(true);
    proxy.bluetoothIsEnabled();
    proxy.bluetoothIsDiscoverable();
    proxy.bluetoothIsConnected();
    proxy.ambientLight();
    proxy.stopAmbientLight();
    int value = 0;
    proxy.wanSignalStrength(value);
    std::string two[2];
    proxy.foregroundApplication(two);
    std::string text;
    proxy.serialNumber(text);
    proxy.modelNumber(text);
    proxy.bspNumber(text);
    proxy.wifiSignalStrength(value);
    proxy.dhcp(text);
    proxy.gateway(text);
    proxy.getDefaultDirPath(text);
    proxy.isSDcardPresent();
    proxy.getSDcardPath(text);
    proxy.getTellwickVersion(text);
    proxy.isUserValidToDeploy();
    proxy.updateValidUserStatus(false);
    proxy.getQcMetaIdVersion(text);
    proxy.setQcMetaIdVersion("QC");
    proxy.resetToDefault();
    proxy.deleteTwLogs(value);
    proxy.getDeleteLogsParam();
    proxy.updateTwBugreportStatus(true);

    // The codec on its own: every read on the same bytes.
    vigild::Parcel parcel(binder->bytes);
    std::u16string s16;
    parcel.readExceptionCode();
    parcel.readString16(&s16);
    parcel.enforceInterface(u"com.tandril.vd.Ivd_service");
    return 0;
}
