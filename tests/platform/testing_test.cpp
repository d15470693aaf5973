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
#include <map>
#include <mutex>
#include "Support.h"

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

// Counts its notices; optionally holds the runtime thread in the first one
// until the test opens the gate.
struct Recipient : hidl_death_recipient {
    std::atomic<int> calls{0};
    std::promise<void> entered, open;
    bool hold = false;
    std::atomic<bool> idleInside{true};  // the runtime, asked from its own thread, knows it is not idle
    void serviceDied(uint64_t, const wp<IBase>&) override {
        idleInside = qrnhost::hidl::waitForRuntimeIdle(std::chrono::milliseconds(0));
        if (calls++ == 0 && hold) {
            entered.set_value();
            open.get_future().wait();
        }
    }
};

qt::Service named(const std::string& instance) {
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
    {
        // Queued behind the held one: not delivered yet, and the wait says
        // what it waited for.
        qrntest::Reported reported;
        EXPECT_FALSE(qt::waitForDeathNotices(named("late"), std::chrono::milliseconds(20)));
        EXPECT_EQ(std::vector<std::string>{"waitForDeathNotices(" + std::string(IPower::descriptor) +
                                           "/late): its death notices were not all delivered within 20 ms (is a "
                                           "serviceDied() still running?)"},
                  reported.messages());
    }
    EXPECT_EQ(0, lateR->calls.load());
    blockedR->open.set_value();
    EXPECT_TRUE(qt::waitForDeathNotices(named("late")));
    EXPECT_EQ(1, lateR->calls.load());
    EXPECT_EQ(1, blockedR->calls.load());
    EXPECT_FALSE(earlyR->idleInside.load());
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
// arguments an action cannot use or does not take, stop the run and are
// named with their line. Each run starts a fresh transcript.
TEST(Script, UnknownStepsAndUnusableOrExtraArgumentsAreReported) {
    qt::TempDir dir;
    qt::Capture cap;
    qt::Transcript t(cap, nullptr);
    std::vector<long long> got;
    qt::Script s(t);
    s.on("add", [&](const qt::Args& a) { return got.push_back(a[0] + a[1]), a[0] + a[1]; }).on("zero", [&] {
        return got.push_back(0), 0;
    });
    const std::pair<const char*, const char*> cases[] = {
        {"== add(1, 0x10)\n-> 17\n", ""},
        {"== add(1)\n", ":1: step \"add(1)\": argument 2 is missing"},
        {"== add(1, two)\n", ":1: step \"add(1, two)\": argument 2 is not a number"},
        {"# comment\n\n== sub(1, 2)\n== add(1, 1)\n", ":3: no action for the step \"sub(1, 2)\""},
        {"== add(1, 2, 3)\n", ":1: step \"add(1, 2, 3)\": add takes 2 arguments, given 3"},
        {"== zero()\n-> 0\n== zero(4)\n", ":3: step \"zero(4)\": zero takes no arguments, given 1"},
        {"== add(1, 0x10)\n-> 17\n", ""},
    };
    for (const auto& [script, problem] : cases) {
        qt::writeFile(dir.file("s.txt"), script);
        const std::string diff = s.run(dir.file("s.txt"), "");
        if (*problem)
            EXPECT_EQ(0u, diff.find(dir.file("s.txt") + problem + "\n")) << diff;
        else
            EXPECT_EQ("", diff);
    }
    // Nothing runs after an unknown step, and an action given arguments it
    // takes none of does not run at all.
    EXPECT_EQ((std::vector<long long>{17, 1, 1, 3, 0, 17}), got);
}

// A difference is shown by the kept file's own line numbers, in a unified
// diff; the actual transcript carries the kept comments where they fit.
TEST(Transcript, DifferencesAreShownWithTheKeptFilesLinesAndCommentsCarriedOver) {
    qt::TempDir dir;
    qt::Capture cap;
    qt::Transcript t(cap, nullptr);
    for (const char* line : {"== a", "-> 1", "new", "== b", "-> 3", "== c", "extra"}) t.note(line);
    const std::string golden = dir.file("g.txt"), actual = dir.file("out/a.txt");
    qt::writeFile(golden, "# setup\n== a\n-> 1\n# the second step\n== b\n-> 2\n== c\n");
    EXPECT_EQ(golden + ":4: the transcript differs from here\n--- " + golden + "\n+++ " + actual +
                  " (actual)\n@@ -1,7 +1,9 @@\n # setup\n == a\n -> 1\n+new\n # the second step\n == b\n--> 2\n+-> 3\n"
                  " == c\n+extra\nactual transcript: " +
                  actual + "\n",
              t.compare(golden, actual));
    // A line added before a kept line goes before the comments that lead it.
    EXPECT_EQ("# " + golden + "\n# setup\n== a\n-> 1\nnew\n# the second step\n== b\n-> 3\n== c\nextra\n",
              qt::readFile(actual));
    qt::writeFile(golden, "== a\n-> 1\nnew\n== b\n-> 3\n== c\nold\n\n");
    EXPECT_EQ(golden + ":7: the transcript differs from here\n--- " + golden +
                  "\n+++ the actual transcript\n@@ -4,4 +4,4 @@\n == b\n -> 3\n == c\n-old\n+extra\n",
              t.compare(golden, ""));
    t.restart();
    t.note("== z");
    qt::writeFile(golden, "== y\n");
    EXPECT_EQ(golden + ":1: the transcript differs from here\n--- " + golden +
                  "\n+++ the actual transcript\n@@ -1 +1 @@\n-== y\n+== z\n",
              t.compare(golden, ""));
    qt::writeFile(golden, "== z\n\n");
    EXPECT_EQ("", t.compare(golden, actual));
    EXPECT_FALSE(std::filesystem::exists(actual));  // a stale actual transcript goes
}

// Made before the power service starts, a transcript follows it, and the
// next one registered in its place; when it could see none, it says so.
TEST_F(Harness, ATranscriptFollowsTheDefaultServiceStartedAfterIt) {
    qt::TempDir dir;
    qt::Capture cap;
    qt::writeFile(dir.file("g.txt"), "power: registerScenario() -> 1\n");
    {
        qt::Transcript t(cap, nullptr);
        EXPECT_NE(std::string::npos, t.compare(dir.file("g.txt"), "").find("followed no power service"));
        (void)qt::startPowerService()->registerScenario();
        sp<SimPowerService> second = qt::startPowerService();  // in its place
        (void)second->registerScenario();
        (void)second->unregisterScenario(1);
        EXPECT_EQ((std::vector<std::string>{"power: registerScenario() -> 1", "power: registerScenario() -> 1",
                                            "power: unregisterScenario(1)"}),
                  t.lines());
        t.restart();
        EXPECT_TRUE(t.lines().empty());
    }
}

// Services under any instance name, proxies to them, and recipients that
// note each notice they get and their own end, driven by golden/runtime.txt.
class Runtime : public Harness {
  protected:
    // Its recipients stand for clients of the services: they stay linked
    // until the services go.
    void SetUp() override { qt::leaveOnPurpose(qt::Left::DeathRecipient); }
    struct Noting : hidl_death_recipient {
        Noting(Runtime& rt, std::string name) : rt(rt), name(std::move(name)) {}
        void serviceDied(uint64_t cookie, const wp<IBase>& who) override {
            const bool onCaller = syscall(SYS_gettid) == getpid();
            rt.cap.note(name + ": serviceDied(" + std::to_string(cookie) + ") from " + rt.nameOf(who.promote().get()) +
                        (onCaller ? " on the caller's thread" : ""));
        }
        ~Noting() override { rt.cap.note(name + " destroyed"); }
        Runtime& rt;
        const std::string name;
    };
    std::string nameOf(IBase* proxy) {
        std::lock_guard<std::mutex> l(lock);
        for (const auto& [name, p] : proxies)
            if (p.get() == proxy) return name + "'s proxy";
        return "another proxy";
    }
    sp<IPower>& proxy(const qt::Args& a) {
        std::lock_guard<std::mutex> l(lock);
        return proxies[a.text(0)];
    }
    sp<Noting>& recipient(const std::string& name) {
        sp<Noting>& r = recipients[name];
        if (r == nullptr) r = new Noting(*this, name);
        return r;
    }
    template <typename T>
    static std::string result(const Return<T>& r) {
        if (!r.isOk()) return r.description();
        if constexpr (std::is_void_v<T>)
            return "ok";
        else if constexpr (std::is_same_v<T, bool>)
            return static_cast<T>(r) ? "true" : "false";
        else
            return std::to_string(static_cast<T>(r));
    }
    qt::Script script(qt::Transcript& t) {
        qt::Script s(t);
        auto times = [](const qt::Args& a) { return a.text(1) == "every" ? qt::Times::Every : qt::Times::Next; };
        s.on("start",
             [&](const qt::Args& a) { return (sims[a.text(0)] = new SimPowerService())->registerAsService(a.text(0)); })
            .on("getService",
                [&](const qt::Args& a) {
                    sp<IPower> p = IPower::getService(a.text(0), false);
                    if (p != nullptr) proxy(a) = p;  // the test keeps the proxy it had
                    return p == nullptr ? "null" : p->isRemote() ? "a remote proxy" : "the service itself";
                })
            .on("getStub",
                [&](const qt::Args& a) {
                    return IPower::getService(a.text(0), true).get() == static_cast<IPower*>(sims[a.text(0)].get());
                })
            .on("call", [&](const qt::Args& a) { return result(proxy(a)->registerScenario()); })
            .on("calls reaching",
                [&](const qt::Args& a) { return sims[a.text(0)]->calls(Op::RegisterScenario).size(); })
            .on("next call fails",
                [&](const qt::Args& a) {
                    sims[a.text(0)]->injectTransportFailure(Op::RegisterScenario, qt::transportFailure(a.text(1)));
                })
            .on("ping", [&](const qt::Args& a) { return result(proxy(a)->ping()); })
            .on("link", [&](const qt::Args& a) { return result(proxy(a)->linkToDeath(recipient(a.text(1)), a[2])); })
            .on("unlink", [&](const qt::Args& a) { return result(proxy(a)->unlinkToDeath(recipient(a.text(1)))); })
            .on("drop", [&](const qt::Args& a) { recipients.erase(a.text(0)); })
            .on("kill",  // and wait for its notices, which are noted in between
                [](const qt::Args& a) {
                    const bool killed = qt::kill(named(a.text(0)));
                    return qt::waitForDeathNotices(named(a.text(0))) && killed;
                })
            .on("withdraw", [](const qt::Args& a) { return qt::withdraw(named(a.text(0))); })
            .on("linkToDeath returns false",
                [=](const qt::Args& a) { qt::makeLinkToDeathReturnFalse(named(a.text(0)), times(a)); })
            .on("linkToDeath fails",
                [=](const qt::Args& a) {
                    qt::makeLinkToDeathFail(named(a.text(0)), qt::transportFailure("link refused"), times(a));
                })
            .on("clear linkToDeath faults", [](const qt::Args& a) { qt::clearLinkToDeathFaults(named(a.text(0))); })
            .on("runtime idle", [] { qrnhost::hidl::waitForRuntimeIdle(); });
        return s;
    }
    void TearDown() override {
        qt::reset();
        recipients.clear();
    }
    qt::Capture cap;
    std::mutex lock;
    std::map<std::string, sp<IPower>> proxies;  // Guarded by lock
    std::map<std::string, sp<SimPowerService>> sims;
    std::map<std::string, sp<Noting>> recipients;
};

TEST_F(Runtime, Transcript) {
    qt::Transcript t(cap, nullptr);
    QRN_RUN_SCRIPT(script(t), "runtime");
}

TEST(HidlDeathTest, AFailedCallEndsTheProcessWhenItsValueIsReadOrItGoesUnchecked) {
    EXPECT_DEATH((void)static_cast<int32_t>(Return<int32_t>(Status::fromStatusT(::android::FAILED_TRANSACTION))),
                 "Attempted to retrieve value from failed HIDL call: Status\\(EX_TRANSACTION_FAILED\\): "
                 "'FAILED_TRANSACTION: '");
    EXPECT_DEATH({ Return<void> r(qt::deadObject()); }, "Failed HIDL return status not checked");
    Return<void> r(qt::deadObject());
    EXPECT_FALSE(r.isOk());  // checked first: no abort
}

}  // namespace
