#pragma once

#include <hidl/HidlSupport.h>
#include <hidl/Status.h>
#include <utils/RefBase.h>

namespace android {
namespace hidl {
namespace base {
namespace V1_0 {

// Root of every HIDL interface. A service object in the same process answers
// the death calls trivially; a proxy obtained from getService() links to the
// death of the service behind it.
struct IBase : virtual public ::android::RefBase {
    static const char* descriptor;

    virtual bool isRemote() const { return false; }
    virtual ::android::hardware::Return<bool> linkToDeath(
        const ::android::sp<::android::hardware::hidl_death_recipient>& recipient, uint64_t cookie);
    virtual ::android::hardware::Return<bool> unlinkToDeath(
        const ::android::sp<::android::hardware::hidl_death_recipient>& recipient);
    virtual ::android::hardware::Return<void> ping();

  protected:
    ~IBase() override = default;
};

}  // namespace V1_0
}  // namespace base
}  // namespace hidl
}  // namespace android
