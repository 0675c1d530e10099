// The proxy of the companion service around one connection. Built by
// Ivd_service::asInterface(); tests and the fuzz target build it around any Binder.
// Keeps no state besides the connection and takes no lock.
#pragma once

#include <memory>
#include <string>

#include "platform/platform.h"
#include "service/ivd_service.h"
#include "service/parcel.h"

class Bpvd_service : public Ivd_service {
  public:
    explicit Bpvd_service(std::shared_ptr<vigild::platform::Binder> remote)
        : remote_(std::move(remote)) {}

    const std::shared_ptr<vigild::platform::Binder>& remote() const { return remote_; }

    std::string waitForResponse() override;
    int sendConfig(const char* json) override;
    std::string receiveConfig() override;
    int sendState(int state) override;
    int sendVersion(const char* name, const char* version) override;
    int sendConfigErrorMessage(const char* message) override;
    int enableNotification(bool on) override;
    int getState() override;
    int startBTSnoop() override;
    int stopBTSnoop() override;
    int setTraceLevel(int level) override;
    int isBTSnooplogConfigChanged(bool changed) override;
    int bluetoothIsEnabled() override;
    int bluetoothIsDiscoverable() override;
    int bluetoothIsConnected() override;
    int ambientLight() override;
    void stopAmbientLight() override;
    int wanSignalStrength(int& out) override;
    int foregroundApplication(std::string* out) override;
    int serialNumber(std::string& out) override;
    int modelNumber(std::string& out) override;
    int bspNumber(std::string& out) override;
    int wifiSignalStrength(int& out) override;
    int dhcp(std::string& out) override;
    int gateway(std::string& out) override;
    int getDefaultDirPath(std::string& out) override;
    int isSDcardPresent() override;
    int getSDcardPath(std::string& out) override;
    int getTellwickVersion(std::string& out) override;
    int isUserValidToDeploy() override;
    int updateValidUserStatus(bool valid) override;
    int getQcMetaIdVersion(std::string& out) override;
    int setQcMetaIdVersion(std::string version) override;
    int resetToDefault() override;
    int deleteTwLogs(int& out) override;
    int getDeleteLogsParam() override;
    int updateTwBugreportStatus(bool done) override;

  private:
    // A request parcel holding the interface token, after the transaction's debug line.
    static vigild::Parcel request(uint32_t code);
    // The reply; the transport status is not looked at (a dead peer reads as empty).
    vigild::Parcel transact(uint32_t code, const vigild::Parcel& data);
    // Request of nothing but the token and an optional int32.
    int statusCall(uint32_t code, vigild::Parcel& data);
    int valueCall(uint32_t code, int failure);
    int stringOutCall(uint32_t code, std::string& out);
    int intOutCall(uint32_t code, int& out);
    std::string stringReplyCall(uint32_t code);

    std::shared_ptr<vigild::platform::Binder> remote_;
};
