// HIDL call results for host builds, with the device's rules:
//  - a Return's status counts as checked once isOk() (or isDeadObject()) was
//    asked; description() does not check it;
//  - reading the value of a failed call ends the process with
//    "Attempted to retrieve value from failed HIDL call: ...";
//  - destroying or overwriting a failed Return whose status was never
//    checked ends the process with "Failed HIDL return status not checked".
#pragma once

#include <stdint.h>
#include <utils/Errors.h>
#include <utils/StrongPointer.h>

#include <string>
#include <utility>

namespace android {
namespace hardware {

class Status final {
  public:
    enum Exception : int32_t {
        EX_NONE = 0,
        EX_SECURITY = -1,
        EX_BAD_PARCELABLE = -2,
        EX_ILLEGAL_ARGUMENT = -3,
        EX_NULL_POINTER = -4,
        EX_ILLEGAL_STATE = -5,
        EX_NETWORK_MAIN_THREAD = -6,
        EX_UNSUPPORTED_OPERATION = -7,
        EX_HAS_REPLY_HEADER = -128,
        EX_TRANSACTION_FAILED = -129,
    };

    static Status ok() { return Status(); }
    static Status fromExceptionCode(int32_t exceptionCode);
    static Status fromExceptionCode(int32_t exceptionCode, const char* message);
    static Status fromStatusT(status_t status);

    Status() = default;

    bool isOk() const { return mException == EX_NONE; }
    int32_t exceptionCode() const { return mException; }
    status_t transactionError() const { return mException == EX_TRANSACTION_FAILED ? mErrorCode : OK; }
    const std::string& exceptionMessage() const { return mMessage; }
    std::string description() const;

  private:
    int32_t mException = EX_NONE;
    status_t mErrorCode = OK;
    std::string mMessage;
};

namespace details {

class return_status {
  public:
    return_status() = default;
    explicit return_status(const Status& s) : mStatus(s) {}
    return_status(const return_status&) = delete;
    return_status& operator=(const return_status&) = delete;
    return_status(return_status&& other) noexcept { moveFrom(other); }
    return_status& operator=(return_status&& other) noexcept;
    ~return_status();

    bool isOkUnchecked() const { return mStatus.isOk(); }
    bool isOk() const {
        mCheckedStatus = true;
        return mStatus.isOk();
    }
    bool isDeadObject() const {
        mCheckedStatus = true;
        return mStatus.exceptionCode() == Status::EX_TRANSACTION_FAILED && mStatus.transactionError() == DEAD_OBJECT;
    }
    std::string description() const { return mStatus.description(); }

  protected:
    void assertOk() const;

  private:
    void moveFrom(return_status& other) noexcept {
        mStatus = std::move(other.mStatus);
        mCheckedStatus = other.mCheckedStatus;
        other.mCheckedStatus = true;  // the moved-from shell owes no check
    }
    void abortIfUnchecked() const;

    Status mStatus;
    mutable bool mCheckedStatus = false;
};

}  // namespace details

template <typename T>
class Return : public details::return_status {
  public:
    Return(T v) : mVal{std::move(v)} {}                     // NOLINT(google-explicit-constructor)
    Return(const Status& s) : details::return_status(s) {}  // NOLINT(google-explicit-constructor)
    Return(Return&& other) noexcept = default;
    Return& operator=(Return&& other) noexcept = default;
    ~Return() = default;

    operator T() const {  // NOLINT(google-explicit-constructor)
        assertOk();
        return mVal;
    }
    T withDefault(T t) { return isOk() ? mVal : std::move(t); }

  private:
    T mVal{};
};

template <typename T>
class Return<sp<T>> : public details::return_status {
  public:
    Return(sp<T> v) : mVal{std::move(v)} {}                 // NOLINT(google-explicit-constructor)
    Return(const Status& s) : details::return_status(s) {}  // NOLINT(google-explicit-constructor)
    Return(Return&& other) noexcept = default;
    Return& operator=(Return&& other) noexcept = default;
    ~Return() = default;

    operator sp<T>() const {  // NOLINT(google-explicit-constructor)
        assertOk();
        return mVal;
    }
    sp<T> withDefault(sp<T> t) { return isOk() ? mVal : t; }

  private:
    sp<T> mVal;
};

template <>
class Return<void> : public details::return_status {
  public:
    Return() = default;
    Return(const Status& s) : details::return_status(s) {}  // NOLINT(google-explicit-constructor)
    Return(Return&& other) noexcept = default;
    Return& operator=(Return&& other) noexcept = default;
    ~Return() = default;
};

inline Return<void> Void() {
    return Return<void>();
}

}  // namespace hardware
}  // namespace android
