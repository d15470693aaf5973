// The host's HIDL runtime: a process-local service registry, connections
// that proxies use to reach a service, death notification on a runtime
// thread, and the host-only call that declares a service dead.
#pragma once

#include <android/hidl/base/1.0/IBase.h>
#include <hidl/HidlSupport.h>
#include <hidl/Status.h>
#include <qrnhost/locking.h>
#include <utils/RefBase.h>

#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace qrnhost::hidl {

using ::android::sp;
using ::android::wp;
using ::android::hardware::hidl_death_recipient;
using ::android::hardware::Return;
using ::android::hardware::Status;
using ::android::hidl::base::V1_0::IBase;

// The link between a registered service and the proxies that clients hold.
// While the service lives, calls reach it; once it is declared dead, every
// call through the connection fails in transport with DEAD_OBJECT and the
// linked recipients are told once, on the runtime thread.
class Connection : public ::android::RefBase {
  public:
    Connection(std::string descriptor, std::string instance, sp<IBase> service);

    // The service while it lives, or null after its death.
    sp<IBase> service() const;
    bool alive() const;
    // Status of a transaction on this connection: OK, or DEAD_OBJECT.
    Status transactionStatus() const;

    Return<bool> linkToDeath(const sp<hidl_death_recipient>& recipient, uint64_t cookie, const wp<IBase>& who);
    Return<bool> unlinkToDeath(const sp<hidl_death_recipient>& recipient);
    size_t linkedRecipients() const;

    // Marks the connection dead and queues the death notifications.
    void die();

    const std::string& descriptor() const { return mDescriptor; }
    const std::string& instance() const { return mInstance; }

  private:
    struct Link {
        wp<hidl_death_recipient> recipient;
        uint64_t cookie;
        wp<IBase> who;
    };
    const std::string mDescriptor;
    const std::string mInstance;
    mutable std::mutex mLock;
    sp<IBase> mService QRNHOST_GUARDED_BY(mLock);
    std::vector<Link> mLinks QRNHOST_GUARDED_BY(mLock);
};

// Registers service under (descriptor, instance), replacing an earlier one
// (which is declared dead first, as a restarted service would be).
::android::status_t registerService(const std::string& descriptor, const std::string& instance,
                                    const sp<IBase>& service);

// The live connection for (descriptor, instance), or null.
sp<Connection> lookup(const std::string& descriptor, const std::string& instance);

// Every registered connection, by descriptor and instance name.
std::vector<sp<Connection>> registered();

// Observers told of each registration (the new connection), on the thread
// that registers, after the service is reachable. addRegistrationObserver
// returns an id for removeRegistrationObserver. An observer must not
// register services itself.
int addRegistrationObserver(std::function<void(const sp<Connection>&)> observer);
void removeRegistrationObserver(int id);

// Host only: the service dies. getService() stops returning it, calls through
// existing proxies fail in transport, and each recipient linked to it has
// serviceDied() called once, on the runtime thread. Returns false when no
// such service is registered.
bool declareServiceDead(const std::string& descriptor, const std::string& instance);

// Host only: withdraws the registration quietly, as a service that
// unregisters itself and lives on. getService() stops returning it, proxies
// already handed out keep reaching it, and no recipient is told anything.
// Returns false when no such service is registered.
bool withdrawService(const std::string& descriptor, const std::string& instance);

// Host only: blocks until every death notice of the named service queued so
// far has been delivered (each recipient's serviceDied() has returned), or
// until timeout. Notices of other services queued later are not waited for.
// Returns false on timeout, and at once when called on the runtime thread
// with notices still pending (they could never arrive).
bool waitForDeathNotices(const std::string& descriptor, const std::string& instance,
                         std::chrono::milliseconds timeout = std::chrono::seconds(10));

// Host only: faults of linkToDeath() through proxies of the named service.
// They are kept by name, so they also apply to a service registered under it
// later, until cleared; a new setting replaces the earlier one. A call made
// on a dead service fails with DEAD_OBJECT as before and consumes nothing.
enum class Times { Next, Every };
// linkToDeath() returns false and links nothing.
void makeLinkToDeathReturnFalse(const std::string& descriptor, const std::string& instance, Times times = Times::Next);
// linkToDeath() fails in transport with status (a failed one, e.g.
// Status::fromStatusT(DEAD_OBJECT) or Status::fromExceptionCode(
// Status::EX_TRANSACTION_FAILED, "message")) and links nothing.
void makeLinkToDeathFail(const std::string& descriptor, const std::string& instance, const Status& status,
                         Times times = Times::Next);
void clearLinkToDeathFaults(const std::string& descriptor, const std::string& instance);

// Removes every registration (each is declared dead), forgets every
// linkToDeath() fault and waits for the runtime to deliver the
// notifications, at most timeout; false when they were not all delivered.
bool unregisterAll(std::chrono::milliseconds timeout = std::chrono::seconds(10));

// Blocks until the runtime thread has delivered every queued notification,
// at most timeout; false on timeout, and at once on the runtime thread
// itself with work still queued (it could never finish).
bool waitForRuntimeIdle(std::chrono::milliseconds timeout = std::chrono::seconds(10));

// Runs job on the runtime thread (the thread on which serviceDied arrives).
void postToRuntime(std::function<void()> job);

// True on the runtime thread.
bool onRuntimeThread();

// Generic client proxy: IBase's death calls go through the connection.
template <typename Interface>
class Proxy : public Interface {
  public:
    explicit Proxy(sp<Connection> connection) : mConnection(std::move(connection)) {}
    bool isRemote() const override { return true; }
    Return<bool> linkToDeath(const sp<hidl_death_recipient>& recipient, uint64_t cookie) override {
        return mConnection->linkToDeath(recipient, cookie, wp<IBase>(static_cast<IBase*>(this)));
    }
    Return<bool> unlinkToDeath(const sp<hidl_death_recipient>& recipient) override {
        return mConnection->unlinkToDeath(recipient);
    }
    Return<void> ping() override {
        Status st = mConnection->transactionStatus();
        if (!st.isOk()) return st;
        return ::android::hardware::Void();
    }

  protected:
    // The service for one transaction, typed, or null with *st failed.
    sp<Interface> target(Status* st) const {
        sp<IBase> s = mConnection->service();
        if (s == nullptr) {
            *st = Status::fromStatusT(::android::DEAD_OBJECT);
            return nullptr;
        }
        *st = Status::ok();
        return sp<Interface>(static_cast<Interface*>(s.get()));
    }
    const sp<Connection>& connection() const { return mConnection; }

  private:
    sp<Connection> mConnection;
};

}  // namespace qrnhost::hidl
