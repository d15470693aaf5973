#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <qrnhost/PowerSim.h>
#include <qrnhost/hidl.h>
#include <vendor/quarnel/hardware/power/2.0/IPower.h>
#include <atomic>

namespace {

using ::android::sp;
using ::android::wp;
using ::android::hardware::hidl_death_recipient;
using ::android::hardware::Return;
using ::android::hardware::Status;
using ::android::hidl::base::V1_0::IBase;
using qrnhost::power::SimPowerService;
using vendor::quarnel::hardware::power::V2_0::IPower;

int tid() {
    return static_cast<int>(syscall(SYS_gettid));
}

struct Recipient : public hidl_death_recipient {
    std::atomic<int> calls{0};
    std::atomic<int> tid{0};
    std::atomic<uint64_t> cookie{0};
    wp<IBase> who;
    std::atomic<bool>* destroyed = nullptr;
    void serviceDied(uint64_t c, const wp<IBase>& w) override {
        cookie = c;
        who = w;
        tid = ::tid();
        ++calls;
    }
    ~Recipient() override {
        if (destroyed) *destroyed = true;
    }
};

class Hidl : public ::testing::Test {
  protected:
    void TearDown() override { qrnhost::hidl::unregisterAll(); }
};

TEST_F(Hidl, ReturnStatusRules) {
    Return<int32_t> ok(5);
    EXPECT_EQ(5, static_cast<int32_t>(ok));
    Return<int32_t> failed(Status::fromStatusT(::android::DEAD_OBJECT));
    EXPECT_FALSE(failed.isOk());
    EXPECT_TRUE(failed.isDeadObject());
    EXPECT_EQ(7, failed.withDefault(7));
    EXPECT_NE(std::string::npos, failed.description().find("DEAD_OBJECT"));
    // Moving a checked failure carries the checked state along (no abort).
    Return<void> v = Status::fromExceptionCode(Status::EX_ILLEGAL_ARGUMENT, "bad");
    EXPECT_FALSE(v.isOk());
    Return<void> moved = std::move(v);
    EXPECT_EQ("Status(EX_ILLEGAL_ARGUMENT): 'bad'", moved.description());
}

TEST(HidlDeathTest, ReadingTheValueOfAFailedCallEndsTheProcess) {
    EXPECT_DEATH(
        {
            Return<int32_t> r(Status::fromStatusT(::android::FAILED_TRANSACTION));
            int32_t v = r;
            (void)v;
        },
        "Attempted to retrieve value from failed HIDL call: Status\\(EX_TRANSACTION_FAILED\\): "
        "'FAILED_TRANSACTION: '");
}

TEST(HidlDeathTest, AnUncheckedFailureEndsTheProcessWhenDropped) {
    EXPECT_DEATH({ Return<void> r(Status::fromStatusT(::android::DEAD_OBJECT)); },
                 "Failed HIDL return status not checked");
    // Checked first: no abort.
    Return<void> r(Status::fromStatusT(::android::DEAD_OBJECT));
    EXPECT_FALSE(r.isOk());
}

TEST_F(Hidl, RegistryFindsAndLosesServices) {
    EXPECT_EQ(nullptr, IPower::getService("default", false));
    sp<SimPowerService> sim = qrnhost::power::startDefaultService();
    ASSERT_NE(nullptr, sim);
    sp<IPower> proxy = IPower::getService("default", false);
    ASSERT_NE(nullptr, proxy);
    EXPECT_TRUE(proxy->isRemote());
    EXPECT_EQ(nullptr, IPower::getService("other", false));
    // getStub asks for the implementation itself.
    sp<IPower> stub = IPower::getService("default", true);
    EXPECT_EQ(static_cast<IPower*>(sim.get()), stub.get());

    int32_t h = proxy->registerScenario();
    EXPECT_GE(h, 0);
    EXPECT_TRUE(qrnhost::power::killDefaultService());
    EXPECT_FALSE(qrnhost::power::killDefaultService());
    EXPECT_EQ(nullptr, IPower::getService("default", false));
    Return<int32_t> r = proxy->registerScenario();
    EXPECT_TRUE(r.isDeadObject());
    Return<void> v = proxy->disableScenario(h);
    EXPECT_FALSE(v.isOk());
    // Nothing reached the dead service, and it cannot be linked to any more.
    EXPECT_EQ(1u, sim->calls(qrnhost::power::Op::RegisterScenario).size());
    EXPECT_TRUE(sim->calls(qrnhost::power::Op::DisableScenario).empty());
    sp<Recipient> late = new Recipient;
    Return<bool> linked = proxy->linkToDeath(late, 0);
    EXPECT_FALSE(linked.isOk());
}

TEST_F(Hidl, DeathReachesAWeaklyHeldRecipientOnceOnTheRuntimeThread) {
    sp<SimPowerService> sim = qrnhost::power::startDefaultService();
    sp<IPower> proxy = IPower::getService("default", false);
    sp<Recipient> r1 = new Recipient;
    sp<Recipient> r2 = new Recipient;
    EXPECT_TRUE(static_cast<bool>(proxy->linkToDeath(r1, 11)));
    EXPECT_TRUE(static_cast<bool>(proxy->linkToDeath(r2, 22)));
    EXPECT_TRUE(static_cast<bool>(proxy->linkToDeath(r2, 23)));  // not de-duplicated
    EXPECT_TRUE(static_cast<bool>(proxy->unlinkToDeath(r2)));    // removes the latest link only
    sp<Recipient> never = new Recipient;
    EXPECT_FALSE(static_cast<bool>(proxy->unlinkToDeath(never)));

    // Only the runtime's weak reference remains to this one.
    std::atomic<bool> goneDestroyed{false};
    sp<Recipient> gone = new Recipient;
    gone->destroyed = &goneDestroyed;
    EXPECT_TRUE(static_cast<bool>(proxy->linkToDeath(gone, 33)));
    gone.clear();
    EXPECT_TRUE(goneDestroyed);

    // The recipient is held weakly: a recipient alive only through the
    // runtime's promotion still gets its call.
    wp<Recipient> weakR1 = r1;
    qrnhost::power::killDefaultService();
    qrnhost::hidl::waitForRuntimeIdle();
    EXPECT_EQ(1, r1->calls.load());
    EXPECT_EQ(11u, r1->cookie.load());
    EXPECT_EQ(1, r2->calls.load());
    EXPECT_EQ(22u, r2->cookie.load());
    EXPECT_NE(tid(), r1->tid.load());
    EXPECT_NE(0, r1->tid.load());
    EXPECT_EQ(proxy.get(), r1->who.promote().get());

    // A later death (of a re-registered service) does not reach them again.
    sp<SimPowerService> sim2 = qrnhost::power::startDefaultService();
    qrnhost::power::killDefaultService();
    qrnhost::hidl::waitForRuntimeIdle();
    EXPECT_EQ(1, r1->calls.load());
}

}  // namespace
