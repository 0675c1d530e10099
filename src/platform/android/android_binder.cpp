// The binder transport on a device: our parcel bytes are copied into a libbinder Parcel and
// the reply's bytes copied back, so the proxy's codec is the same on the host and a device.
#include <binder/IBinder.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <utils/String16.h>

#include <memory>

#include "platform/android/android_platform.h"

namespace vigild::platform::android {

namespace {

class BinderConnection : public Binder {
  public:
    explicit BinderConnection(::android::sp<::android::IBinder> remote)
        : remote_(std::move(remote)) {}

    int32_t transact(uint32_t code, const std::vector<uint8_t>& data, std::vector<uint8_t>* reply,
                     uint32_t flags) override {
        ::android::Parcel request;
        ::android::Parcel response;
        request.setData(data.data(), data.size());
        const ::android::status_t status = remote_->transact(code, request, &response, flags);
        const uint8_t* bytes = response.data();
        reply->assign(bytes, bytes == nullptr ? bytes : bytes + response.dataSize());
        return status;
    }

  private:
    ::android::sp<::android::IBinder> remote_;
};

class BinderServiceManager : public ServiceManager {
  public:
    std::shared_ptr<Binder> getService(const std::string& name) override {
        ::android::sp<::android::IServiceManager> manager = ::android::defaultServiceManager();
        if (manager == nullptr) return nullptr;
        // checkService does not wait: getService (deprecated) blocks for seconds per try, and
        // the command loop already retries every second on its own.
        ::android::sp<::android::IBinder> binder =
            manager->checkService(::android::String16(name.c_str()));
        if (binder == nullptr) return nullptr;
        return std::make_shared<BinderConnection>(binder);
    }
};

}  // namespace

ServiceManager* binderServiceManager() {
    if (::android::defaultServiceManager() == nullptr) return nullptr;
    static BinderServiceManager manager;
    return &manager;
}

}  // namespace vigild::platform::android
