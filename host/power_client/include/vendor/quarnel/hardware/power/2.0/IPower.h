// Host stand-in for the generated client header of the vendor power
// service, vendor.quarnel.hardware.power@2.0::IPower. The device's header
// comes from the service's own interface definition and has more
// operations; these six are the ones the camera system utilities call, in
// the interface's order. The codes the library sends are its own
// declaration (utils/power/PowerScenario.h).
#pragma once

#include <android/hidl/base/1.0/IBase.h>
#include <hidl/Status.h>
#include <stdint.h>
#include <utils/Errors.h>
#include <utils/StrongPointer.h>

#include <string>

namespace vendor {
namespace quarnel {
namespace hardware {
namespace power {
namespace V2_0 {

struct IPower : public ::android::hidl::base::V1_0::IBase {
    static const char* descriptor;

    virtual ::android::hardware::Return<int32_t> querySystemInfo(int32_t cmd, int32_t param) = 0;
    virtual ::android::hardware::Return<int32_t> registerScenario() = 0;
    virtual ::android::hardware::Return<void> configScenario(int32_t handle, int32_t cmd, int32_t p1, int32_t p2,
                                                             int32_t p3, int32_t p4) = 0;
    virtual ::android::hardware::Return<void> unregisterScenario(int32_t handle) = 0;
    virtual ::android::hardware::Return<void> enableScenario(int32_t handle, int32_t timeout) = 0;
    virtual ::android::hardware::Return<void> disableScenario(int32_t handle) = 0;

    // The registered service "serviceName", or null. getStub asks for the
    // in-process implementation rather than a proxy.
    static ::android::sp<IPower> getService(const std::string& serviceName = "default", bool getStub = false);
    static ::android::sp<IPower> getService(const char* serviceName, bool getStub = false) {
        return getService(std::string(serviceName), getStub);
    }
    ::android::status_t registerAsService(const std::string& serviceName = "default");
};

}  // namespace V2_0
}  // namespace power
}  // namespace hardware
}  // namespace quarnel
}  // namespace vendor
