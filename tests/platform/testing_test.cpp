// The HIDL runtime and the test harness of qrnhost/testing.h: call results
// and their rules, the registry, death notices, quiet withdrawal, linkToDeath
// faults, per-service waiting for death notices, transport failures that
// keep their message, and the kernel-node stand-ins.
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <qrnhost/testing.h>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <future>

namespace {

namespace qt = qrnhost::testing;
using ::android::sp;
using ::android::wp;
using ::android::hardware::hidl_death_recipient;
using ::android::hardware::Return;
using ::android::hardware::Status;
using ::android::hidl::base::V1_0::IBase;
using qrnhost::power::Op;
using qrnhost::power::SimPowerService;
using vendor::quarnel::hardware::power::V2_0::IPower;

// Counts its notices and keeps the last one's cookie, service and thread;
// optionally holds the runtime thread in the first one until the test opens
// the gate.
struct Recipient : hidl_death_recipient {
    std::atomic<int> calls{0}, tid{0};
    std::atomic<uint64_t> cookie{0};
    wp<IBase> who;
    std::atomic<bool>* destroyed = nullptr;
    std::promise<void> entered, open;
    bool hold = false;
    void serviceDied(uint64_t c, const wp<IBase>& w) override {
        cookie = c, who = w, tid = static_cast<int>(syscall(SYS_gettid));
        if (calls++ == 0 && hold) {
            entered.set_value();
            open.get_future().wait();
        }
    }
    ~Recipient() override {
        if (destroyed) *destroyed = true;
    }
};

qt::Service named(const char* instance) {
    return {IPower::descriptor, instance};
}

// A simulated service under another instance name, and a proxy to it.
sp<IPower> startNamed(const char* instance) {
    sp<SimPowerService> s = new SimPowerService();
    if (s->registerAsService(instance) != ::android::OK) return nullptr;
    return IPower::getService(instance, false);
}

class Harness : public ::testing::Test {
  protected:
    void TearDown() override { qt::reset(); }
};

TEST_F(Harness, CallResultsAndStatusesReadAsOnTheDevice) {
    Return<int32_t> ok(5), failed(qt::deadObject());
    EXPECT_EQ(5, static_cast<int32_t>(ok));
    EXPECT_TRUE(!failed.isOk() && failed.isDeadObject());
    EXPECT_EQ(7, failed.withDefault(7));
    // Moving a checked failure carries the checked state along (no abort).
    Return<void> v = Status::fromExceptionCode(Status::EX_ILLEGAL_ARGUMENT, "bad");
    EXPECT_FALSE(v.isOk());
    Return<void> moved = std::move(v);
    EXPECT_EQ("Status(EX_ILLEGAL_ARGUMENT): 'bad'", moved.description());

    struct Case {
        Status status;
        const char* text;
        ::android::status_t transactionError;
    } cases[] = {
        {Status::ok(), "No error", ::android::OK},
        {qt::deadObject(), "Status(EX_TRANSACTION_FAILED): 'DEAD_OBJECT: '", ::android::DEAD_OBJECT},
        {qt::transportFailure("binder buffer full"),
         "Status(EX_TRANSACTION_FAILED): 'FAILED_TRANSACTION: binder buffer full'", ::android::FAILED_TRANSACTION},
        {Status::fromExceptionCode(Status::EX_ILLEGAL_ARGUMENT, "bad"), "Status(EX_ILLEGAL_ARGUMENT): 'bad'",
         ::android::OK},
        {Status::fromExceptionCode(Status::EX_SECURITY), "Status(EX_SECURITY): ''", ::android::OK},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(c.text, c.status.description());
        EXPECT_EQ(c.transactionError, c.status.transactionError()) << c.text;
    }
    // An injected failure with a message reaches the caller whole, and
    // asking for the description does not count as checking it.
    sp<SimPowerService> sim = qt::startPowerService();
    sim->injectTransportFailure(Op::EnableScenario, qt::transportFailure("pool exhausted"));
    sp<IPower> proxy = IPower::getService("default", false);
    Return<void> r = proxy->enableScenario(1, 0);
    EXPECT_EQ("Status(EX_TRANSACTION_FAILED): 'FAILED_TRANSACTION: pool exhausted'", r.description());
    EXPECT_FALSE(r.isOk());
    EXPECT_TRUE(sim->calls(Op::EnableScenario).at(0).transportFailed);
    EXPECT_TRUE(proxy->enableScenario(1, 0).isOk());  // used up
}

TEST_F(Harness, WithdrawingAServiceIsQuietAndLeavesItsProxiesWorking) {
    sp<SimPowerService> sim = qt::startPowerService();
    sp<IPower> proxy = IPower::getService("default", false);
    sp<Recipient> r = new Recipient;
    ASSERT_TRUE(proxy->linkToDeath(r, 0).withDefault(false));

    EXPECT_TRUE(qt::withdraw(qt::powerService()));
    EXPECT_FALSE(qt::withdraw(qt::powerService()));
    EXPECT_EQ(nullptr, IPower::getService("default", false));
    EXPECT_FALSE(qt::kill(qt::powerService()));  // nothing registered to kill
    EXPECT_EQ(1, proxy->registerScenario().withDefault(-1));
    EXPECT_EQ(1u, sim->calls(Op::RegisterScenario).size());

    // A successor under the same name dies with notices to its own
    // recipients only.
    sp<SimPowerService> next = qt::startPowerService();
    sp<Recipient> nextR = new Recipient;
    ASSERT_TRUE(IPower::getService("default", false)->linkToDeath(nextR, 0).withDefault(false));
    EXPECT_TRUE(qt::kill(qt::powerService()));
    ASSERT_TRUE(qt::waitForDeathNotices(qt::powerService()));
    EXPECT_EQ(1, nextR->calls.load());
    qrnhost::hidl::waitForRuntimeIdle();
    EXPECT_EQ(0, r->calls.load());
    EXPECT_TRUE(proxy->ping().isOk());
}

TEST_F(Harness, LinkToDeathFaultsApplyOnceOrEveryTimeByName) {
    using qt::Times;
    struct Case {
        const char* name;
        Times times;
        bool returnFalse;
        // Results of two links: 'T' true, 'F' false, 'X' transport failure.
        const char* results;
    };
    const Case cases[] = {
        {"next returns false", Times::Next, true, "FT"},
        {"every returns false", Times::Every, true, "FF"},
        {"next fails", Times::Next, false, "XT"},
        {"every fails", Times::Every, false, "XX"},
    };
    const Status failure = qt::transportFailure("link refused");
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        // Set before the service exists: faults go by name.
        if (c.returnFalse)
            qt::makeLinkToDeathReturnFalse(qt::powerService(), c.times);
        else
            qt::makeLinkToDeathFail(qt::powerService(), failure, c.times);
        qt::startPowerService();
        sp<IPower> proxy = IPower::getService("default", false);
        sp<Recipient> r = new Recipient;
        std::string got;
        for (int i = 0; i < 2; ++i) {
            Return<bool> linked = proxy->linkToDeath(r, 0);
            if (!linked.isOk()) {
                EXPECT_EQ(failure.description(), linked.description());
                got += 'X';
            } else {
                got += linked ? 'T' : 'F';
            }
        }
        EXPECT_EQ(c.results, got);
        // Only a successful link is told of the death.
        qt::kill(qt::powerService());
        ASSERT_TRUE(qt::waitForDeathNotices(qt::powerService()));
        EXPECT_EQ(got.back() == 'T' ? 1 : 0, r->calls.load());
        qt::reset();
    }

    // A link refused on a dead service uses nothing up; clearing and
    // another service's name leave the rest alone.
    qt::makeLinkToDeathReturnFalse(qt::powerService());
    qt::makeLinkToDeathReturnFalse(named("other"), Times::Every);
    qt::startPowerService();
    sp<IPower> proxy = IPower::getService("default", false);
    qt::kill(qt::powerService());
    sp<Recipient> r = new Recipient;
    EXPECT_TRUE(proxy->linkToDeath(r, 0).isDeadObject());
    qt::startPowerService();
    proxy = IPower::getService("default", false);
    EXPECT_FALSE(proxy->linkToDeath(r, 0).withDefault(true));
    EXPECT_TRUE(proxy->linkToDeath(r, 0).withDefault(false));
    sp<IPower> other = startNamed("other");
    EXPECT_FALSE(other->linkToDeath(r, 0).withDefault(true));
    qt::clearLinkToDeathFaults(named("other"));
    EXPECT_TRUE(other->linkToDeath(r, 0).withDefault(false));
}

TEST_F(Harness, WaitingForOneServicesNoticesIgnoresOthersQueuedLater) {
    sp<IPower> early = startNamed("early");
    sp<IPower> blocked = startNamed("blocked");
    sp<IPower> late = startNamed("late");
    sp<Recipient> earlyR = new Recipient, blockedR = new Recipient, lateR = new Recipient;
    blockedR->hold = true;
    const std::pair<sp<IPower>, sp<Recipient>> links[] = {{early, earlyR}, {blocked, blockedR}, {late, lateR}};
    for (const auto& [proxy, r] : links) ASSERT_TRUE(proxy->linkToDeath(r, 0).withDefault(false));

    ASSERT_TRUE(qt::kill(named("early")));
    ASSERT_TRUE(qt::kill(named("blocked")));
    blockedR->entered.get_future().wait();  // the runtime thread is held now
    EXPECT_TRUE(qt::kill(named("late")));
    // Delivered before the held one: no wait, although the runtime is busy.
    EXPECT_TRUE(qt::waitForDeathNotices(named("early"), std::chrono::milliseconds(0)));
    EXPECT_EQ(1, earlyR->calls.load());
    EXPECT_TRUE(qt::waitForDeathNotices(named("never died"), std::chrono::milliseconds(0)));
    // Queued behind the held one: not delivered yet.
    EXPECT_FALSE(qt::waitForDeathNotices(named("late"), std::chrono::milliseconds(20)));
    EXPECT_EQ(0, lateR->calls.load());
    blockedR->open.set_value();
    EXPECT_TRUE(qt::waitForDeathNotices(named("late")));
    EXPECT_EQ(1, lateR->calls.load());
    EXPECT_EQ(1, blockedR->calls.load());
}

TEST_F(Harness, KernelNodesStandInForTheFixedPathsAndGoAway) {
    std::string root;
    {
        qt::KernelNodes nodes;
        root = nodes.root();
        nodes.set("/proc/driver/cl_apu_status", "");
        nodes.set("/proc/meminfo", "MemTotal: 2048 kB\n");
        const std::string file = qrnhost::kernelfs::resolve("/proc/meminfo");
        EXPECT_EQ(root + "/proc/meminfo", file);
        EXPECT_EQ("MemTotal: 2048 kB\n", nodes.contents("/proc/meminfo"));
        nodes.remove("/proc/meminfo");
        EXPECT_FALSE(std::filesystem::exists(file));
        EXPECT_FALSE(std::ofstream(qrnhost::kernelfs::resolve("/proc/meminfo")).is_open());
        EXPECT_EQ("", nodes.contents("/proc/meminfo"));
        EXPECT_EQ(root + "/proc/driver/cl_apu_status", qrnhost::kernelfs::resolve("/proc/driver/cl_apu_status"));
    }
    EXPECT_EQ("/proc/meminfo", qrnhost::kernelfs::resolve("/proc/meminfo"));
    EXPECT_EQ("/proc/driver/cl_apu_status", qrnhost::kernelfs::resolve("/proc/driver/cl_apu_status"));
    EXPECT_FALSE(std::filesystem::exists(root));
}

// A script's steps come from its file; one the script does not know, or
// arguments an action cannot use, stop the run and are named.
TEST(Script, UnknownStepsAndUnusableArgumentsAreReported) {
    qt::TempDir dir;
    qt::Capture cap;
    qt::Transcript t(cap, nullptr);
    std::vector<long long> got;
    qt::Script s(t);
    s.on("add", [&](const qt::Args& a) { return got.push_back(a[0] + a[1]), a[0] + a[1]; });
    const std::pair<const char*, const char*> cases[] = {
        {"== add(1, 0x10)\n-> 17\n", ""},
        {"== add(1)\n", "step \"add(1)\": argument 2 is missing"},
        {"== add(1, two)\n", "step \"add(1, two)\": argument 2 is not a number"},
        {"# comment\n== sub(1, 2)\n== add(1, 1)\n", "no action for the step \"sub(1, 2)\""},
    };
    for (const auto& [script, problem] : cases) {
        qt::writeFile(dir.file("s.txt"), script);
        cap.clear();
        const std::string diff = s.run(dir.file("s.txt"), "");
        EXPECT_EQ(0u, diff.find(*problem ? dir.file("s.txt") + ": " + problem + "\n" : "")) << diff;
    }
    EXPECT_EQ((std::vector<long long>{17, 1, 1}), got);  // nothing after an unknown step
}

TEST(HidlDeathTest, AFailedCallEndsTheProcessWhenItsValueIsReadOrItGoesUnchecked) {
    EXPECT_DEATH((void)static_cast<int32_t>(Return<int32_t>(Status::fromStatusT(::android::FAILED_TRANSACTION))),
                 "Attempted to retrieve value from failed HIDL call: Status\\(EX_TRANSACTION_FAILED\\): "
                 "'FAILED_TRANSACTION: '");
    EXPECT_DEATH({ Return<void> r(qt::deadObject()); }, "Failed HIDL return status not checked");
    Return<void> r(qt::deadObject());
    EXPECT_FALSE(r.isOk());  // checked first: no abort
}

TEST_F(Harness, RegistryFindsAndLosesServices) {
    EXPECT_EQ(nullptr, IPower::getService("default", false));
    sp<SimPowerService> sim = qt::startPowerService();
    sp<IPower> proxy = IPower::getService("default", false);
    ASSERT_NE(nullptr, proxy);
    EXPECT_TRUE(proxy->isRemote());
    EXPECT_EQ(nullptr, IPower::getService("other", false));
    // getStub asks for the implementation itself.
    EXPECT_EQ(static_cast<IPower*>(sim.get()), IPower::getService("default", true).get());

    int32_t h = proxy->registerScenario();
    EXPECT_TRUE(qt::kill(qt::powerService()));
    EXPECT_FALSE(qt::kill(qt::powerService()));
    EXPECT_EQ(nullptr, IPower::getService("default", false));
    EXPECT_TRUE(proxy->registerScenario().isDeadObject());
    EXPECT_FALSE(proxy->disableScenario(h).isOk());
    // Nothing reached the dead service.
    EXPECT_EQ(1u, sim->calls(Op::RegisterScenario).size());
    EXPECT_TRUE(sim->calls(Op::DisableScenario).empty());
}

TEST_F(Harness, DeathReachesAWeaklyHeldRecipientOnceOnTheRuntimeThread) {
    sp<SimPowerService> sim = qt::startPowerService();
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
    qt::kill(qt::powerService());
    qrnhost::hidl::waitForRuntimeIdle();
    EXPECT_EQ(1, r1->calls.load());
    EXPECT_EQ(11u, r1->cookie.load());
    EXPECT_EQ(1, r2->calls.load());
    EXPECT_EQ(22u, r2->cookie.load());
    EXPECT_NE(static_cast<int>(syscall(SYS_gettid)), r1->tid.load());
    EXPECT_NE(0, r1->tid.load());
    EXPECT_EQ(proxy.get(), r1->who.promote().get());

    // A later death (of a re-registered service) does not reach them again.
    sp<SimPowerService> sim2 = qt::startPowerService();
    qt::kill(qt::powerService());
    qrnhost::hidl::waitForRuntimeIdle();
    EXPECT_EQ(1, r1->calls.load());
}

}  // namespace
