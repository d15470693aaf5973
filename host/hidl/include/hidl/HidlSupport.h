#pragma once

#include <hidl/Status.h>
#include <stdint.h>
#include <utils/RefBase.h>

namespace android {
namespace hidl {
namespace base {
namespace V1_0 {
struct IBase;
}  // namespace V1_0
}  // namespace base
}  // namespace hidl

namespace hardware {

// Receives the death of a service that it was linked to. The runtime holds
// recipients weakly: one that is gone by the time the service dies is skipped.
struct hidl_death_recipient : virtual public RefBase {
    virtual void serviceDied(uint64_t cookie, const ::android::wp<::android::hidl::base::V1_0::IBase>& who) = 0;
};

}  // namespace hardware
}  // namespace android
