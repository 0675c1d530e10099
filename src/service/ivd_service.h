// The companion service "com.tandril.vd.Ivd_service", client side. The daemon is always the
// client; commands reach it as replies to waitForResponse().
//
// No proxy is cached: every use calls getInterface() for a fresh connection and drops the
// proxy afterwards, so a restarted service is found again. Any thread may do so at once.
#pragma once

#include <memory>
#include <string>

#include "platform/platform.h"

template <typename T>
using sp = std::shared_ptr<T>;

// Transaction codes. 9 to 17 are not used and must not be reused.
enum Ivd_serviceCode : uint32_t {
    WAIT_FOR_RESPONSE = 1,
    SEND_CONFIG = 2,
    RECEIVE_CONFIG = 3,
    SEND_STATE = 4,
    SEND_VERSION = 5,
    SEND_CONFIG_ERROR_MESSAGE = 6,
    ENABLE_NOTIFICATION = 7,
    GET_STATE = 8,
    START_BT_SNOOP = 18,
    STOP_BT_SNOOP = 19,
    SET_TRACE_LEVEL = 20,
    IS_BT_SNOOPLOG_CONFIG_CHANGED = 21,
    BLUETOOTH_IS_ENABLED = 22,
    BLUETOOTH_IS_DISCOVERABLE = 23,
    BLUETOOTH_IS_CONNECTED = 24,
    AMBIENT_LIGHT = 25,
    STOP_AMBIENT_LIGHT = 26,
    WAN_SIGNAL_STRENGTH = 27,
    FOREGROUND_APPLICATION = 28,
    SERIAL_NUMBER = 29,
    MODEL_NUMBER = 30,
    BSP_NUMBER = 31,
    WIFI_SIGNAL_STRENGTH = 32,
    DHCP = 33,
    GATEWAY = 34,
    GET_DEFAULT_DIR_PATH = 35,
    IS_SDCARD_PRESENT = 36,
    GET_SDCARD_PATH = 37,
    GET_TELLWICK_VERSION = 38,
    IS_USER_VALID_TO_DEPLOY = 39,
    UPDATE_VALID_USER_STATUS = 40,
    GET_QC_META_ID_VERSION = 41,
    SET_QC_META_ID_VERSION = 42,
    RESET_TO_DEFAULT = 43,
    DELETE_TW_LOGS = 44,
    GET_DELETE_LOGS_PARAM = 45,
    UPDATE_TW_BUGREPORT_STATUS = 46,
};

// The service's name in the service manager and the interface descriptor.
constexpr const char* kServiceName = "com.tandril.vd.Ivd_service";

class Ivd_service {
public:
    virtual ~Ivd_service() = default;

    // A fresh proxy, or null (with an error line) when the service cannot be reached.
    static sp<Ivd_service> getInterface();
    static sp<Ivd_service> asInterface(const std::shared_ptr<vigild::platform::Binder>& binder);
    static const std::u16string& getInterfaceDescriptor();

    // Status methods return 0 or -1; value methods the value or -1; string-out methods fill
    // `out` and return 0, or -1 leaving it untouched. waitForResponse and receiveConfig give
    // "Error" on failure.
    virtual std::string waitForResponse() = 0;
    virtual int sendConfig(const char* json) = 0;
    virtual std::string receiveConfig() = 0;
    virtual int sendState(int state) = 0;
    virtual int sendVersion(const char* name, const char* version) = 0;
    virtual int sendConfigErrorMessage(const char* message) = 0;
    virtual int enableNotification(bool on) = 0;
    virtual int getState() = 0;
    virtual int startBTSnoop() = 0;
    virtual int stopBTSnoop() = 0;
    virtual int setTraceLevel(int level) = 0;
    virtual int isBTSnooplogConfigChanged(bool changed) = 0;
    virtual int bluetoothIsEnabled() = 0;
    virtual int bluetoothIsDiscoverable() = 0;
    virtual int bluetoothIsConnected() = 0;
    virtual int ambientLight() = 0; // -2147483648 on failure
    virtual void stopAmbientLight() = 0;
    virtual int wanSignalStrength(int& out) = 0;
    virtual int foregroundApplication(std::string* out) = 0; // room for two strings
    virtual int serialNumber(std::string& out) = 0;
    virtual int modelNumber(std::string& out) = 0;
    virtual int bspNumber(std::string& out) = 0;
    virtual int wifiSignalStrength(int& out) = 0;
    virtual int dhcp(std::string& out) = 0;
    virtual int gateway(std::string& out) = 0;
    virtual int getDefaultDirPath(std::string& out) = 0;
    virtual int isSDcardPresent() = 0;
    virtual int getSDcardPath(std::string& out) = 0;
    virtual int getTellwickVersion(std::string& out) = 0;
    virtual int isUserValidToDeploy() = 0;
    virtual int updateValidUserStatus(bool valid) = 0;
    virtual int getQcMetaIdVersion(std::string& out) = 0;
    virtual int setQcMetaIdVersion(std::string version) = 0;
    virtual int resetToDefault() = 0;
    virtual int deleteTwLogs(int& out) = 0;
    virtual int getDeleteLogsParam() = 0;
    virtual int updateTwBugreportStatus(bool done) = 0;
};
