#define LOG_TAG "hidl_host"
#include <android/hidl/base/1.0/IBase.h>
#include <log/log.h>
#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <qrnhost/hidl.h>
#include <qrnhost/locking.h>
#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>

namespace android {
namespace hardware {

namespace {

const char* exceptionName(int32_t e) {
    switch (e) {
        case Status::EX_NONE: return "EX_NONE";
        case Status::EX_SECURITY: return "EX_SECURITY";
        case Status::EX_BAD_PARCELABLE: return "EX_BAD_PARCELABLE";
        case Status::EX_ILLEGAL_ARGUMENT: return "EX_ILLEGAL_ARGUMENT";
        case Status::EX_NULL_POINTER: return "EX_NULL_POINTER";
        case Status::EX_ILLEGAL_STATE: return "EX_ILLEGAL_STATE";
        case Status::EX_NETWORK_MAIN_THREAD: return "EX_NETWORK_MAIN_THREAD";
        case Status::EX_UNSUPPORTED_OPERATION: return "EX_UNSUPPORTED_OPERATION";
        case Status::EX_HAS_REPLY_HEADER: return "EX_HAS_REPLY_HEADER";
        case Status::EX_TRANSACTION_FAILED: return "EX_TRANSACTION_FAILED";
        default: return "EX_UNKNOWN";
    }
}

std::string statusName(status_t s) {
    switch (s) {
        case OK: return "OK";
        case UNKNOWN_ERROR: return "UNKNOWN_ERROR";
        case NO_MEMORY: return "NO_MEMORY";
        case INVALID_OPERATION: return "INVALID_OPERATION";
        case BAD_VALUE: return "BAD_VALUE";
        case BAD_TYPE: return "BAD_TYPE";
        case NAME_NOT_FOUND: return "NAME_NOT_FOUND";
        case PERMISSION_DENIED: return "PERMISSION_DENIED";
        case NO_INIT: return "NO_INIT";
        case ALREADY_EXISTS: return "ALREADY_EXISTS";
        case DEAD_OBJECT: return "DEAD_OBJECT";
        case FAILED_TRANSACTION: return "FAILED_TRANSACTION";
        case BAD_INDEX: return "BAD_INDEX";
        case NOT_ENOUGH_DATA: return "NOT_ENOUGH_DATA";
        case WOULD_BLOCK: return "WOULD_BLOCK";
        case TIMED_OUT: return "TIMED_OUT";
        case UNKNOWN_TRANSACTION: return "UNKNOWN_TRANSACTION";
        default: return "status " + std::to_string(s);
    }
}

}  // namespace

Status Status::fromExceptionCode(int32_t exceptionCode) {
    Status s;
    s.mException = exceptionCode;
    // A transaction failure raised as an exception carries the generic
    // transport error, so that transactionError() never reads OK for it.
    if (exceptionCode == EX_TRANSACTION_FAILED) s.mErrorCode = FAILED_TRANSACTION;
    return s;
}

Status Status::fromExceptionCode(int32_t exceptionCode, const char* message) {
    Status s = fromExceptionCode(exceptionCode);
    s.mMessage = message ? message : "";
    return s;
}

Status Status::fromStatusT(status_t status) {
    Status s;
    if (status == OK) return s;
    s.mException = EX_TRANSACTION_FAILED;
    s.mErrorCode = status;
    return s;
}

// The device's text: "No error", or the exception and the quoted message,
// the message preceded by the transport error for a failed transaction
// ("Status(EX_TRANSACTION_FAILED): 'DEAD_OBJECT: '" when there is none).
std::string Status::description() const {
    if (mException == EX_NONE) return "No error";
    std::string out = "Status(";
    out += exceptionName(mException);
    out += "): '";
    if (mException == EX_TRANSACTION_FAILED) out += statusName(mErrorCode) + ": ";
    out += mMessage;
    out += "'";
    return out;
}

namespace details {

return_status& return_status::operator=(return_status&& other) noexcept {
    if (this != &other) {
        abortIfUnchecked();
        moveFrom(other);
    }
    return *this;
}

return_status::~return_status() {
    abortIfUnchecked();
}

void return_status::abortIfUnchecked() const {
    // Checked flag first: isOk() would set it.
    if (!mCheckedStatus && !mStatus.isOk()) {
        LOG_ALWAYS_FATAL("Failed HIDL return status not checked: %s", mStatus.description().c_str());
    }
}

void return_status::assertOk() const {
    if (!isOk()) {
        LOG_ALWAYS_FATAL("Attempted to retrieve value from failed HIDL call: %s", description().c_str());
    }
}

}  // namespace details
}  // namespace hardware

namespace hidl {
namespace base {
namespace V1_0 {

const char* IBase::descriptor = "android.hidl.base@1.0::IBase";

::android::hardware::Return<bool> IBase::linkToDeath(
    const ::android::sp<::android::hardware::hidl_death_recipient>& recipient, uint64_t) {
    // A service object in this process cannot die apart from its client.
    return recipient != nullptr;
}

::android::hardware::Return<bool> IBase::unlinkToDeath(
    const ::android::sp<::android::hardware::hidl_death_recipient>& recipient) {
    return recipient != nullptr;
}

::android::hardware::Return<void> IBase::ping() {
    return ::android::hardware::Void();
}

}  // namespace V1_0
}  // namespace base
}  // namespace hidl
}  // namespace android

namespace qrnhost::hidl {

namespace {

// One thread that delivers death notifications, like a binder thread of the
// device's runtime. Started on first use and joined at exit. A child made by
// fork() starts a thread of its own when it needs one: the parent's is not
// there, and the notice it was delivering at the fork is lost to the child.
class Runtime {
  public:
    ~Runtime() { stop(); }

    void post(std::function<void()> job) {
        std::lock_guard<std::mutex> g(mLock);
        if (mThread == nullptr || mThreadPid != getpid()) {
            if (mThread != nullptr) (void)mThread.release();  // the parent's thread
            mThreadPid = getpid();
            mThread = std::make_unique<std::thread>([this] { loop(); });
        }
        mJobs.push_back(std::move(job));
        mCond.notify_all();
    }

    bool waitIdle(std::chrono::milliseconds timeout) {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        qrnhost::UniqueLock g(mLock);
        // On the runtime thread itself what is queued could never be delivered.
        if (onThread()) return mJobs.empty() && !mBusy;
        while (!mJobs.empty() || mBusy)
            if (mIdle.wait_until(g.get(), deadline) == std::cv_status::timeout) return mJobs.empty() && !mBusy;
        return true;
    }

    bool onThread() const { return std::this_thread::get_id() == mThreadId.load(); }

    // fork() while the runtime thread holds the lock would leave it locked
    // in the child for good: the forking thread takes it around the fork.
    void lockForFork() QRNHOST_ACQUIRE(mLock) { mLock.lock(); }
    void unlockInParent() QRNHOST_RELEASE(mLock) { mLock.unlock(); }
    void unlockInChild() QRNHOST_RELEASE(mLock) {
        mBusy = false;
        mThreadId.store(std::thread::id());
        mLock.unlock();
    }

  private:
    // Lets the thread deliver what is queued, then joins it.
    void stop() {
        std::unique_ptr<std::thread> thread;
        bool ours = false;
        {
            std::lock_guard<std::mutex> g(mLock);
            mStop = true;
            thread = std::move(mThread);
            ours = mThreadPid == getpid();
        }
        mCond.notify_all();
        if (thread == nullptr) return;
        if (ours)
            thread->join();
        else
            (void)thread.release();  // the parent's thread: nothing to join here
    }

    void loop() {
        mThreadId.store(std::this_thread::get_id());
        qrnhost::UniqueLock g(mLock);
        for (;;) {
            while (!mStop && mJobs.empty()) mCond.wait(g.get());
            if (mJobs.empty()) break;  // stopping with nothing left
            auto job = std::move(mJobs.front());
            mJobs.pop_front();
            mBusy = true;
            g.unlock();
            job();
            job = nullptr;  // drop captured references outside the lock
            g.lock();
            mBusy = false;
            if (mJobs.empty()) mIdle.notify_all();
        }
    }

    std::mutex mLock;
    std::condition_variable mCond;
    std::condition_variable mIdle;
    std::deque<std::function<void()>> mJobs QRNHOST_GUARDED_BY(mLock);
    bool mStop QRNHOST_GUARDED_BY(mLock) = false;
    bool mBusy QRNHOST_GUARDED_BY(mLock) = false;
    std::atomic<std::thread::id> mThreadId{};
    std::unique_ptr<std::thread> mThread QRNHOST_GUARDED_BY(mLock);
    pid_t mThreadPid QRNHOST_GUARDED_BY(mLock) = 0;
};

Runtime& runtime();

using Name = std::pair<std::string, std::string>;  // descriptor, instance

struct LinkFault {
    Times times = Times::Next;
    bool returnFalse = false;  // else fail with status
    Status status;
};

struct Registry {
    std::mutex lock;
    std::map<Name, sp<Connection>> services QRNHOST_GUARDED_BY(lock);

    // Taken alone, never with another lock of the registry.
    std::mutex observerLock;
    std::vector<std::pair<int, std::function<void(const sp<Connection>&)>>> observers QRNHOST_GUARDED_BY(observerLock);
    int nextObserver QRNHOST_GUARDED_BY(observerLock) = 1;

    // A leaf lock: taken under a connection's lock, never the other way.
    std::mutex faultLock;
    std::map<Name, LinkFault> linkFaults QRNHOST_GUARDED_BY(faultLock);

    // Death notices are numbered as they are queued. The runtime delivers
    // them in that order, so "delivered up to n" tells every waiter whether
    // its service's last notice is through. Queuing happens under
    // noticeLock, so that numbers and runtime order agree.
    std::mutex noticeLock;
    std::condition_variable noticeDelivered;
    uint64_t lastQueued QRNHOST_GUARDED_BY(noticeLock) = 0;
    uint64_t deliveredUpTo QRNHOST_GUARDED_BY(noticeLock) = 0;
    std::map<Name, uint64_t> lastNoticeOf QRNHOST_GUARDED_BY(noticeLock);
};

Registry& registry() {
    static Registry* r = new Registry;  // outlives every exit handler
    return *r;
}

// Around fork(): the notice lock before the runtime's, the order in which
// die() takes them. Taken in one handler and let go in another, which the
// lock analysis cannot follow.
void prepareFork() QRNHOST_NO_THREAD_SAFETY_ANALYSIS {
    registry().noticeLock.lock();
    runtime().lockForFork();
}
void parentAfterFork() QRNHOST_NO_THREAD_SAFETY_ANALYSIS {
    runtime().unlockInParent();
    registry().noticeLock.unlock();
}
void childAfterFork() QRNHOST_NO_THREAD_SAFETY_ANALYSIS {
    runtime().unlockInChild();
    registry().noticeLock.unlock();
}

Runtime& runtime() {
    static Runtime* r = [] {
        static Runtime runtime;
        registry();
        pthread_atfork(prepareFork, parentAfterFork, childAfterFork);
        return &runtime;
    }();
    return *r;
}

}  // namespace

Connection::Connection(std::string descriptor, std::string instance, sp<IBase> service)
    : mDescriptor(std::move(descriptor)), mInstance(std::move(instance)), mService(std::move(service)) {}

sp<IBase> Connection::service() const {
    std::lock_guard<std::mutex> g(mLock);
    return mService;
}

bool Connection::alive() const {
    std::lock_guard<std::mutex> g(mLock);
    return mService != nullptr;
}

Status Connection::transactionStatus() const {
    return alive() ? Status::ok() : Status::fromStatusT(::android::DEAD_OBJECT);
}

namespace {

// The fault that applies to one linkToDeath() on the named service, if any;
// a one-off fault is used up.
bool takeLinkFault(const Name& name, LinkFault* fault) {
    Registry& r = registry();
    std::lock_guard<std::mutex> g(r.faultLock);
    auto it = r.linkFaults.find(name);
    if (it == r.linkFaults.end()) return false;
    *fault = it->second;
    if (it->second.times == Times::Next) r.linkFaults.erase(it);
    return true;
}

}  // namespace

Return<bool> Connection::linkToDeath(const sp<hidl_death_recipient>& recipient, uint64_t cookie, const wp<IBase>& who) {
    std::lock_guard<std::mutex> g(mLock);
    if (mService == nullptr) return Status::fromStatusT(::android::DEAD_OBJECT);
    LinkFault fault;
    if (takeLinkFault({mDescriptor, mInstance}, &fault)) {
        if (fault.returnFalse) return false;
        return fault.status;
    }
    if (recipient == nullptr) return false;
    // Held weakly and not de-duplicated, as the device's proxies do.
    mLinks.push_back(Link{recipient, cookie, who});
    return true;
}

Return<bool> Connection::unlinkToDeath(const sp<hidl_death_recipient>& recipient) {
    std::lock_guard<std::mutex> g(mLock);
    if (mService == nullptr) return Status::fromStatusT(::android::DEAD_OBJECT);
    for (auto it = mLinks.rbegin(); it != mLinks.rend(); ++it) {
        if (it->recipient == recipient) {
            mLinks.erase(std::next(it).base());
            return true;
        }
    }
    return false;
}

size_t Connection::linkedRecipients() const {
    std::lock_guard<std::mutex> g(mLock);
    return mLinks.size();
}

void Connection::die() {
    sp<IBase> service;
    std::vector<Link> links;
    {
        std::lock_guard<std::mutex> g(mLock);
        service = std::move(mService);
        mService = nullptr;
        links.swap(mLinks);
    }
    if (!links.empty()) {
        Registry& r = registry();
        std::lock_guard<std::mutex> g(r.noticeLock);
        const uint64_t notice = ++r.lastQueued;
        r.lastNoticeOf[{mDescriptor, mInstance}] = notice;
        runtime().post([links = std::move(links), notice] {
            for (const Link& l : links) {
                sp<hidl_death_recipient> recipient = l.recipient.promote();
                if (recipient != nullptr) recipient->serviceDied(l.cookie, l.who);
            }
            Registry& reg = registry();
            std::lock_guard<std::mutex> delivered(reg.noticeLock);
            reg.deliveredUpTo = notice;
            reg.noticeDelivered.notify_all();
        });
    }
    // The service object itself is released here, on the caller's thread,
    // as the last reference of the server side goes.
}

::android::status_t registerService(const std::string& descriptor, const std::string& instance,
                                    const sp<IBase>& service) {
    if (service == nullptr) return ::android::BAD_VALUE;
    sp<Connection> old, added;
    Registry& r = registry();
    {
        std::lock_guard<std::mutex> g(r.lock);
        auto& slot = r.services[{descriptor, instance}];
        old = slot;
        slot = added = new Connection(descriptor, instance, service);
    }
    if (old != nullptr) old->die();
    std::lock_guard<std::mutex> g(r.observerLock);
    for (const auto& o : r.observers) o.second(added);
    return ::android::OK;
}

int addRegistrationObserver(std::function<void(const sp<Connection>&)> observer) {
    Registry& r = registry();
    std::lock_guard<std::mutex> g(r.observerLock);
    r.observers.emplace_back(r.nextObserver, std::move(observer));
    return r.nextObserver++;
}

void removeRegistrationObserver(int id) {
    Registry& r = registry();
    std::lock_guard<std::mutex> g(r.observerLock);
    r.observers.erase(
        std::remove_if(r.observers.begin(), r.observers.end(), [id](const auto& o) { return o.first == id; }),
        r.observers.end());
}

std::vector<sp<Connection>> registered() {
    Registry& r = registry();
    std::lock_guard<std::mutex> g(r.lock);
    std::vector<sp<Connection>> out;
    out.reserve(r.services.size());
    for (const auto& e : r.services) out.push_back(e.second);
    return out;
}

sp<Connection> lookup(const std::string& descriptor, const std::string& instance) {
    Registry& r = registry();
    std::lock_guard<std::mutex> g(r.lock);
    auto it = r.services.find({descriptor, instance});
    return it == r.services.end() ? nullptr : it->second;
}

bool declareServiceDead(const std::string& descriptor, const std::string& instance) {
    sp<Connection> c;
    {
        Registry& r = registry();
        std::lock_guard<std::mutex> g(r.lock);
        auto it = r.services.find({descriptor, instance});
        if (it == r.services.end()) return false;
        c = it->second;
        r.services.erase(it);
    }
    c->die();
    return true;
}

bool withdrawService(const std::string& descriptor, const std::string& instance) {
    Registry& r = registry();
    std::lock_guard<std::mutex> g(r.lock);
    return r.services.erase({descriptor, instance}) != 0;
}

bool waitForDeathNotices(const std::string& descriptor, const std::string& instance,
                         std::chrono::milliseconds timeout) {
    Registry& r = registry();
    qrnhost::UniqueLock g(r.noticeLock);
    auto it = r.lastNoticeOf.find({descriptor, instance});
    if (it == r.lastNoticeOf.end()) return true;
    const uint64_t notice = it->second;
    if (onRuntimeThread()) return r.deliveredUpTo >= notice;
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (r.deliveredUpTo < notice)
        if (r.noticeDelivered.wait_until(g.get(), deadline) == std::cv_status::timeout)
            return r.deliveredUpTo >= notice;
    return true;
}

void makeLinkToDeathReturnFalse(const std::string& descriptor, const std::string& instance, Times times) {
    Registry& r = registry();
    std::lock_guard<std::mutex> g(r.faultLock);
    r.linkFaults[{descriptor, instance}] = LinkFault{times, true, Status::ok()};
}

void makeLinkToDeathFail(const std::string& descriptor, const std::string& instance, const Status& status,
                         Times times) {
    Registry& r = registry();
    std::lock_guard<std::mutex> g(r.faultLock);
    r.linkFaults[{descriptor, instance}] = LinkFault{times, false, status};
}

void clearLinkToDeathFaults(const std::string& descriptor, const std::string& instance) {
    Registry& r = registry();
    std::lock_guard<std::mutex> g(r.faultLock);
    r.linkFaults.erase({descriptor, instance});
}

bool unregisterAll(std::chrono::milliseconds timeout) {
    std::map<Name, sp<Connection>> all;
    {
        Registry& r = registry();
        std::lock_guard<std::mutex> g(r.lock);
        all.swap(r.services);
    }
    {
        Registry& r = registry();
        std::lock_guard<std::mutex> g(r.faultLock);
        r.linkFaults.clear();
    }
    for (auto& e : all) e.second->die();
    all.clear();
    return waitForRuntimeIdle(timeout);
}

bool waitForRuntimeIdle(std::chrono::milliseconds timeout) {
    return runtime().waitIdle(timeout);
}

void postToRuntime(std::function<void()> job) {
    runtime().post(std::move(job));
}

bool onRuntimeThread() {
    return runtime().onThread();
}

}  // namespace qrnhost::hidl
