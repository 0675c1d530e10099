// The companion service "com.tandril.vd.Ivd_service", client side. The daemon is always the
// client; commands reach it as replies to waitForResponse().
//
// No proxy is cached: every use calls getInterface() for a fresh connection and drops the
// proxy afterwards, so a restarted service is found again. Any thread may do so at once.
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "platform/platform.h"
#include "service/protocol.h"

template <typename T>
using sp = std::shared_ptr<T>;

// The service's name in the service manager and the interface descriptor.
constexpr const char* kServiceName = "com.tandril.vd.Ivd_service";

// Where the daemon looks for the service, for log lines: the socket path on a host, the
// service manager's entry on a device.
std::string serviceLookupPlace();
// The command loop's pause between failed lookups, so the "still not reachable" reminders
// follow the daemon's own (scaled) time: after 1, 2, 4, 8... minutes without the service.
void serviceRetryPaused(std::chrono::milliseconds pause);

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
    virtual int ambientLight() = 0;  // -2147483648 on failure
    virtual void stopAmbientLight() = 0;
    virtual int wanSignalStrength(int& out) = 0;
    virtual int foregroundApplication(std::string* out) = 0;  // room for two strings
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
