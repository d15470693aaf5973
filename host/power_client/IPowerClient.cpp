// Host build of the vendor power service's client library: getService()
// returns a proxy whose calls go through the host HIDL runtime, so that a
// service declared dead fails calls in transport exactly as a remote one.
#include <qrnhost/hidl.h>
#include <vendor/quarnel/hardware/power/2.0/IPower.h>

namespace vendor {
namespace quarnel {
namespace hardware {
namespace power {
namespace V2_0 {

using ::android::sp;
using ::android::hardware::Return;
using ::android::hardware::Status;

const char* IPower::descriptor = "vendor.quarnel.hardware.power@2.0::IPower";

namespace {

class BpHwPower final : public qrnhost::hidl::Proxy<IPower> {
  public:
    using qrnhost::hidl::Proxy<IPower>::Proxy;

    Return<int32_t> querySystemInfo(int32_t cmd, int32_t param) override {
        Status st;
        sp<IPower> s = target(&st);
        if (s == nullptr) return st;
        return s->querySystemInfo(cmd, param);
    }
    Return<int32_t> registerScenario() override {
        Status st;
        sp<IPower> s = target(&st);
        if (s == nullptr) return st;
        return s->registerScenario();
    }
    Return<void> configScenario(int32_t handle, int32_t cmd, int32_t p1, int32_t p2, int32_t p3, int32_t p4) override {
        Status st;
        sp<IPower> s = target(&st);
        if (s == nullptr) return st;
        return s->configScenario(handle, cmd, p1, p2, p3, p4);
    }
    Return<void> unregisterScenario(int32_t handle) override {
        Status st;
        sp<IPower> s = target(&st);
        if (s == nullptr) return st;
        return s->unregisterScenario(handle);
    }
    Return<void> enableScenario(int32_t handle, int32_t timeout) override {
        Status st;
        sp<IPower> s = target(&st);
        if (s == nullptr) return st;
        return s->enableScenario(handle, timeout);
    }
    Return<void> disableScenario(int32_t handle) override {
        Status st;
        sp<IPower> s = target(&st);
        if (s == nullptr) return st;
        return s->disableScenario(handle);
    }
};

}  // namespace

sp<IPower> IPower::getService(const std::string& serviceName, bool getStub) {
    sp<qrnhost::hidl::Connection> c = qrnhost::hidl::lookup(descriptor, serviceName);
    if (c == nullptr) return nullptr;
    if (getStub) {
        sp<::android::hidl::base::V1_0::IBase> s = c->service();
        return s == nullptr ? nullptr : sp<IPower>(static_cast<IPower*>(s.get()));
    }
    return new BpHwPower(c);
}

::android::status_t IPower::registerAsService(const std::string& serviceName) {
    return qrnhost::hidl::registerService(descriptor, serviceName, this);
}

}  // namespace V2_0
}  // namespace power
}  // namespace hardware
}  // namespace quarnel
}  // namespace vendor
