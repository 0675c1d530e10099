#include "service/ivd_service.h"

#include <climits>
#include <cstring>
#include <mutex>
#include <vector>

#include "core/log.h"
#include "service/bpvd_service.h"
#include "service/parcel.h"
#include "service/service_state.h"

using vigild::Parcel;

namespace {

// Outgoing strings travel one byte per 32-bit word, as the service reads them.
void writeString(Parcel& data, const char* str) {
    data.writeByteWords(str == nullptr ? std::string_view() : std::string_view(str));
}

// Reads `n` UTF-16 units and keeps the low byte of each: the service's strings are
// byte strings carried in String16, so the high byte is dropped unchecked. False (nothing
// consumed) when the units claim more than the reply holds.
bool readLowBytes(Parcel& reply, int32_t n, std::string* out) {
    return n >= 0 && reply.readLowBytes(static_cast<size_t>(n), out);
}

bool isEmptyLength(int32_t n) { return n < 1 || n == INT_MAX; }

// The reply string of waitForResponse and receiveConfig; kept as a C string, so it ends
// at the first NUL.
std::string getString(Parcel& reply) {
    const int32_t n = reply.readInt32();
    if (isEmptyLength(n)) return std::string();
    std::string text;
    if (!readLowBytes(reply, n, &text)) return std::string();
    text.resize(strnlen(text.c_str(), text.size()));
    LOGD("full read: %s", text.c_str());
    return text;
}

std::string readString(Parcel& reply) {
    const int32_t n = reply.readInt32();
    LOGD("Ivd_service size is %i", n);
    std::string text;
    if (isEmptyLength(n) || !readLowBytes(reply, n, &text)) return std::string();
    return text;
}

// Exception and status word of the counted reply forms.
bool replyStatusOk(Parcel& reply) {
    const int32_t exception = reply.readExceptionCode();
    if (exception != 0) {
        LOGE("Ivd_service got an exception %i", exception);
        return false;
    }
    if (reply.readInt32() != 0) {
        LOGE("Ivd_service return status was bad");
        return false;
    }
    return true;
}

int getString(Parcel& reply, std::string& out) {
    if (!replyStatusOk(reply)) return -1;
    reply.readInt32();  // the count the service echoes
    std::string text = readString(reply);
    out.clear();
    out = std::move(text);
    return 0;
}

// The caller has room for two strings; further ones are not read.
constexpr int32_t kMultStringRoom = 2;

int getMultString(Parcel& reply, std::string* out) {
    if (!replyStatusOk(reply)) return -1;
    const int32_t count = reply.readInt32();
    for (int32_t i = 0; i < count && i < kMultStringRoom; i++) out[i] = readString(reply);
    return 0;
}

int getInt(Parcel& reply, int& out) {
    if (!replyStatusOk(reply)) return -1;
    reply.readInt32();  // the count the service echoes
    out = reply.readInt32();
    return 0;
}

// Logs the exception code already read: reading it again would read the next field.
bool noException(Parcel& reply) {
    const int32_t exception = reply.readExceptionCode();
    if (exception == 0) return true;
    LOGD("vd_service got an exception %i", exception);
    return false;
}

}  // namespace

const std::u16string& Ivd_service::getInterfaceDescriptor() {
    static const std::u16string descriptor(u"com.tandril.vd.Ivd_service");
    return descriptor;
}

sp<Ivd_service> Ivd_service::asInterface(const std::shared_ptr<vigild::platform::Binder>& binder) {
    if (binder == nullptr) return nullptr;
    // The daemon hosts no services, so a binder is never local: always a proxy.
    return std::make_shared<Bpvd_service>(binder);
}

std::string serviceLookupPlace() {
    const vigild::platform::DeviceRoot& root = *vigild::platform::current().root;
    // Only the host backend maps "/" elsewhere; its service manager is a folder of sockets.
    if (root.toHost("/") == "/") return std::string("service manager entry ") + kServiceName;
    return "socket " + root.toHost(std::string("/dev/binder/") + kServiceName);
}

namespace {

using vigild::service::state::Reachability;
using vigild::service::state::reachability;

void noteLookup(bool reached) {
    Reachability& r = reachability();
    std::lock_guard<std::mutex> lock(r.mutex);
    if (reached) {
        if (r.state != Reachability::kConnected) {
            LOGI("vd_service connected (%s)", serviceLookupPlace().c_str());
        }
        r.state = Reachability::kConnected;
        return;
    }
    if (r.state == Reachability::kUnreachable) return;
    if (r.state == Reachability::kConnected) {
        LOGI("vd_service lost; looking for it at %s", serviceLookupPlace().c_str());
    } else {
        LOGI("vd_service not reachable yet; looking for it at %s", serviceLookupPlace().c_str());
    }
    r.state = Reachability::kUnreachable;
    r.unreachableFor = std::chrono::milliseconds{0};
    r.nextReminder = std::chrono::minutes{1};
}

}  // namespace

void serviceRetryPaused(std::chrono::milliseconds pause) {
    Reachability& r = reachability();
    std::lock_guard<std::mutex> lock(r.mutex);
    if (r.state != Reachability::kUnreachable) return;
    r.unreachableFor += pause;
    if (r.unreachableFor < r.nextReminder) return;
    LOGI("vd_service still not reachable after %lld min; looking for it at %s",
         static_cast<long long>(r.nextReminder.count()), serviceLookupPlace().c_str());
    r.nextReminder *= 2;
}

namespace vigild::service::state {
Reachability& reachability() {
    static auto* r = new Reachability;
    return *r;
}
}  // namespace vigild::service::state

sp<Ivd_service> Ivd_service::getInterface() {
    vigild::platform::ServiceManager* services = vigild::platform::current().serviceManager();
    if (services == nullptr) {
        LOGE("Failed to obtain a handle to the default Service Manager");
        noteLookup(false);
        return nullptr;
    }
    std::shared_ptr<vigild::platform::Binder> binder = services->getService(kServiceName);
    if (binder == nullptr) {
        LOGE("Failed to obtain a handle to the vd_service");
        noteLookup(false);
        return nullptr;
    }
    sp<Ivd_service> service = asInterface(binder);
    if (service == nullptr) {
        LOGE("Obtained invalid IBinder handle");
        noteLookup(false);
        return nullptr;
    }
    noteLookup(true);
    return service;
}

Parcel Bpvd_service::request(uint32_t code) {
    // These wordings, "discoveable" included, are what log readers grep for.
    switch (code) {
        case BLUETOOTH_IS_DISCOVERABLE:
            LOGD("Ivd_service transaction discoveable: %i", code);
            break;
        case BLUETOOTH_IS_CONNECTED:
        case AMBIENT_LIGHT:
        case STOP_AMBIENT_LIGHT:
            LOGD("Ivd_service transaction connected: %i", code);
            break;
        case SET_TRACE_LEVEL:
            break;  // logged with its level by setTraceLevel
        default:
            LOGD("Ivd_service transaction enabled: %i", code);
            break;
    }
    Parcel data;
    data.writeInterfaceToken(getInterfaceDescriptor());
    return data;
}

Parcel Bpvd_service::transact(uint32_t code, const Parcel& data) {
    std::vector<uint8_t> reply;
    // Only the reply's exception header decides success.
    remote_->transact(code, data.data(), &reply, 0);
    return Parcel(std::move(reply));
}

int Bpvd_service::statusCall(uint32_t code, Parcel& data) {
    Parcel reply = transact(code, data);
    return noException(reply) ? 0 : -1;
}

int Bpvd_service::valueCall(uint32_t code, int failure) {
    Parcel data = request(code);
    Parcel reply = transact(code, data);
    if (!noException(reply)) return failure;
    return reply.readInt32();
}

int Bpvd_service::stringOutCall(uint32_t code, std::string& out) {
    Parcel data = request(code);
    data.writeInt32(1);
    Parcel reply = transact(code, data);
    return getString(reply, out);
}

int Bpvd_service::intOutCall(uint32_t code, int& out) {
    Parcel data = request(code);
    data.writeInt32(1);
    Parcel reply = transact(code, data);
    return getInt(reply, out);
}

std::string Bpvd_service::stringReplyCall(uint32_t code) {
    Parcel data = request(code);
    Parcel reply = transact(code, data);
    if (!noException(reply)) return "Error";
    return getString(reply);
}

std::string Bpvd_service::waitForResponse() { return stringReplyCall(WAIT_FOR_RESPONSE); }

int Bpvd_service::sendConfig(const char* json) {
    Parcel data = request(SEND_CONFIG);
    writeString(data, json);
    if (data.dataSize() > kMaxTransactionData) {
        LOGE(
            "sendConfig: the document takes %zu bytes in a parcel, more than the %zu one "
            "transaction carries; not sent",
            data.dataSize(), kMaxTransactionData);
        return -1;
    }
    return statusCall(SEND_CONFIG, data);
}

std::string Bpvd_service::receiveConfig() { return stringReplyCall(RECEIVE_CONFIG); }

int Bpvd_service::sendState(int state) {
    Parcel data = request(SEND_STATE);
    data.writeInt32(state);
    return statusCall(SEND_STATE, data);
}

int Bpvd_service::sendVersion(const char* name, const char* version) {
    Parcel data = request(SEND_VERSION);
    writeString(data, name);
    writeString(data, version);
    return statusCall(SEND_VERSION, data);
}

int Bpvd_service::sendConfigErrorMessage(const char* message) {
    Parcel data = request(SEND_CONFIG_ERROR_MESSAGE);
    writeString(data, message);
    return statusCall(SEND_CONFIG_ERROR_MESSAGE, data);
}

int Bpvd_service::enableNotification(bool on) {
    Parcel data = request(ENABLE_NOTIFICATION);
    data.writeInt32(on ? 1 : 0);
    return statusCall(ENABLE_NOTIFICATION, data);
}

int Bpvd_service::getState() {
    Parcel data = request(GET_STATE);
    Parcel reply = transact(GET_STATE, data);
    if (!noException(reply)) return -1;
    const int value = reply.readInt32();
    LOGD("Ivd_service transaction called get state and value is : %d", value);
    return value;
}

int Bpvd_service::startBTSnoop() {
    Parcel data = request(START_BT_SNOOP);
    return statusCall(START_BT_SNOOP, data);
}

int Bpvd_service::stopBTSnoop() {
    Parcel data = request(STOP_BT_SNOOP);
    return statusCall(STOP_BT_SNOOP, data);
}

int Bpvd_service::setTraceLevel(int level) {
    LOGD("Ivd_service transaction enabled: %i and %i", SET_TRACE_LEVEL, level);
    Parcel data = request(SET_TRACE_LEVEL);
    data.writeInt32(level);
    return statusCall(SET_TRACE_LEVEL, data);
}

int Bpvd_service::isBTSnooplogConfigChanged(bool changed) {
    Parcel data = request(IS_BT_SNOOPLOG_CONFIG_CHANGED);
    data.writeInt32(changed ? 1 : 0);
    return statusCall(IS_BT_SNOOPLOG_CONFIG_CHANGED, data);
}

int Bpvd_service::bluetoothIsEnabled() { return valueCall(BLUETOOTH_IS_ENABLED, -1); }

int Bpvd_service::bluetoothIsDiscoverable() { return valueCall(BLUETOOTH_IS_DISCOVERABLE, -1); }

int Bpvd_service::bluetoothIsConnected() { return valueCall(BLUETOOTH_IS_CONNECTED, -1); }

// -1 is a plausible reading, so the failure value is one no sensor gives.
int Bpvd_service::ambientLight() { return valueCall(AMBIENT_LIGHT, INT_MIN); }

void Bpvd_service::stopAmbientLight() {
    Parcel data = request(STOP_AMBIENT_LIGHT);
    statusCall(STOP_AMBIENT_LIGHT, data);
}

int Bpvd_service::wanSignalStrength(int& out) {
    Parcel data = request(WAN_SIGNAL_STRENGTH);
    data.writeInt32(1);
    Parcel reply = transact(WAN_SIGNAL_STRENGTH, data);
    if (!noException(reply)) return -1;
    out = reply.readInt32();
    LOGD("vd_service::wanSignalStrength::value == %d", out);
    // A reading of -1 is reported as a failure although `out` holds it.
    return out == -1 ? -1 : 0;
}

int Bpvd_service::foregroundApplication(std::string* out) {
    Parcel data = request(FOREGROUND_APPLICATION);
    data.writeInt32(kMultStringRoom);
    Parcel reply = transact(FOREGROUND_APPLICATION, data);
    return getMultString(reply, out);
}

int Bpvd_service::serialNumber(std::string& out) { return stringOutCall(SERIAL_NUMBER, out); }

int Bpvd_service::modelNumber(std::string& out) { return stringOutCall(MODEL_NUMBER, out); }

int Bpvd_service::bspNumber(std::string& out) { return stringOutCall(BSP_NUMBER, out); }

int Bpvd_service::wifiSignalStrength(int& out) { return intOutCall(WIFI_SIGNAL_STRENGTH, out); }

int Bpvd_service::dhcp(std::string& out) { return stringOutCall(DHCP, out); }

int Bpvd_service::gateway(std::string& out) { return stringOutCall(GATEWAY, out); }

int Bpvd_service::getDefaultDirPath(std::string& out) {
    return stringOutCall(GET_DEFAULT_DIR_PATH, out);
}

int Bpvd_service::isSDcardPresent() { return valueCall(IS_SDCARD_PRESENT, -1); }

int Bpvd_service::getSDcardPath(std::string& out) { return stringOutCall(GET_SDCARD_PATH, out); }

int Bpvd_service::getTellwickVersion(std::string& out) {
    return stringOutCall(GET_TELLWICK_VERSION, out);
}

int Bpvd_service::isUserValidToDeploy() { return valueCall(IS_USER_VALID_TO_DEPLOY, -1); }

int Bpvd_service::updateValidUserStatus(bool valid) {
    Parcel data = request(UPDATE_VALID_USER_STATUS);
    data.writeInt32(valid ? 1 : 0);
    return statusCall(UPDATE_VALID_USER_STATUS, data);
}

int Bpvd_service::getQcMetaIdVersion(std::string& out) {
    return stringOutCall(GET_QC_META_ID_VERSION, out);
}

int Bpvd_service::setQcMetaIdVersion(std::string version) {
    Parcel data = request(SET_QC_META_ID_VERSION);
    writeString(data, version.c_str());
    return statusCall(SET_QC_META_ID_VERSION, data);
}

int Bpvd_service::resetToDefault() {
    Parcel data = request(RESET_TO_DEFAULT);
    return statusCall(RESET_TO_DEFAULT, data);
}

int Bpvd_service::deleteTwLogs(int& out) { return intOutCall(DELETE_TW_LOGS, out); }

int Bpvd_service::getDeleteLogsParam() { return valueCall(GET_DELETE_LOGS_PARAM, -1); }

int Bpvd_service::updateTwBugreportStatus(bool done) {
    Parcel data = request(UPDATE_TW_BUGREPORT_STATUS);
    data.writeInt32(done ? 1 : 0);
    return statusCall(UPDATE_TW_BUGREPORT_STATUS, data);
}
