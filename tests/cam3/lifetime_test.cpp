// The controller is its own death recipient. These cases check that linking,
// death and destruction never free it behind its owner's back and never
// leave the runtime a recipient that points at freed memory; they are meant
// to run under ASan/UBSan and TSan with the real libutils.
#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

#include "Cam3Fixture.h"

namespace cam3test {
namespace {

// A capture that can stop the thread writing a given unified-logger line
// until the test lets it go.
class Gate : public Capture {
  public:
    explicit Gate(std::string text) : mText(std::move(text)) {}
    void logNormal(uint32_t module, const char* tag, int32_t level, const char* text, int64_t length) override {
        Capture::logNormal(module, tag, level, text, length);
        if (mText != text) return;
        std::unique_lock<std::mutex> g(mLock);
        mHeld = true;
        mCv.notify_all();
        mCv.wait(g, [this] { return mOpen; });
    }
    void waitHeld() {
        std::unique_lock<std::mutex> g(mLock);
        mCv.wait(g, [this] { return mHeld; });
    }
    void open() {
        std::lock_guard<std::mutex> g(mLock);
        mOpen = true;
        mCv.notify_all();
    }

  private:
    const std::string mText;
    std::mutex mLock;
    std::condition_variable mCv;
    bool mHeld = false, mOpen = false;
};

size_t countAndroid(const Capture& cap, const std::string& text) {
    size_t n = 0;
    for (const auto& t : cap.texts(Sink::Android, kTag)) n += t == text;
    return n;
}

TEST_F(Cam3Test, DestroyingWithTwoUsersRunsOneUninitAndLeavesNoLiveRecipient) {
    Capture cap;
    Owned c;
    ASSERT_TRUE(c->init());
    ASSERT_TRUE(c->init());
    ASSERT_TRUE(c->cpuPerformanceMode(0));
    cap.clear();
    c.destroy();
    EXPECT_EQ(1u, countAndroid(cap, "[uninit] +"));
    EXPECT_EQ(1u, countAndroid(cap, "[uninit] More user(1)"));
    EXPECT_EQ(1u, countAndroid(cap, "[~Cam3CPUCtrlImp] "));
    EXPECT_EQ("[destroyInstance] -", cap.texts(Sink::Android, kTag).back());
    // The scenario was given back by the one uninit; the link is left with
    // the proxy, but it can no longer reach the object.
    EXPECT_TRUE(sim->registered().empty()) << sim->report();
    EXPECT_EQ(1u, linkedRecipients());
    cap.clear();
    ASSERT_TRUE(qrnhost::power::killDefaultService());
    qrnhost::hidl::waitForRuntimeIdle();
    EXPECT_TRUE(cap.texts(Sink::Android, kTag).empty());
}

TEST_F(Cam3Test, DestroyingTheLastUserUnlinks) {
    Capture cap;
    Owned c;
    ASSERT_TRUE(c->init());
    ASSERT_TRUE(c->cpuPerformanceMode(0));
    c.destroy();
    EXPECT_EQ(1u, countAndroid(cap, "[uninit] Last user(0)"));
    EXPECT_EQ(0u, linkedRecipients());
    EXPECT_TRUE(sim->registered().empty()) << sim->report();
}

TEST_F(Cam3Test, DestroyDuringServiceDiedDefersTheDestructor) {
    Gate gate("[serviceDied] IPower hidl service died");
    Owned c;
    ASSERT_TRUE(c->init());
    ASSERT_TRUE(qrnhost::power::killDefaultService());
    gate.waitHeld();  // the runtime holds the promoted recipient now
    c.destroy();
    EXPECT_EQ(0u, countAndroid(gate, "[~Cam3CPUCtrlImp] "));
    gate.open();  // serviceDied returns and lets go of the last reference
    qrnhost::hidl::waitForRuntimeIdle();
    EXPECT_EQ(1u, countAndroid(gate, "[~Cam3CPUCtrlImp] "));
}

TEST_F(Cam3Test, DeathBetweenTheTwoLockedSectionsOfARequest) {
    // disable() writes its "+" line in the gap where the request has let
    // go of its lock.
    Gate gate("[disable] +");
    Owned c;
    ASSERT_TRUE(c->init());
    ASSERT_TRUE(c->cpuPerformanceMode(0));
    bool result = false;
    std::thread caller([&] { result = c->cpuPerformanceMode(50); });
    gate.waitHeld();
    ASSERT_TRUE(qrnhost::power::killDefaultService());
    qrnhost::hidl::waitForRuntimeIdle();  // serviceDied has run
    sp<SimPowerService> next = qrnhost::power::startDefaultService();
    gate.open();
    caller.join();
    EXPECT_TRUE(result);
    EXPECT_EQ(std::vector<std::string>(
                  {"registerScenario() -> 1", "configScenario(1, 5, 1, 0, 0, 0)", "enableScenario(1, 50)"}),
              journalText(next));
    EXPECT_EQ(1u, linkedRecipients());
    EXPECT_TRUE(c->uninit());
    EXPECT_TRUE(next->registered().empty()) << next->report();
}

TEST_F(Cam3Test, DeathBeforeTheLinkIsReportedAndTheBindingKept) {
    Gate gate("[__initPowerHAL] Loaded power HAL service -");
    Owned c;
    std::thread caller([&] { c->init(); });
    gate.waitHeld();  // bound, not linked yet
    ASSERT_TRUE(qrnhost::power::killDefaultService());
    gate.open();
    caller.join();
    const std::string error =
        "[__initPowerHAL] Transaction error in linking to PowerHAL death: Status(EX_TRANSACTION_FAILED): "
        "'DEAD_OBJECT'";
    EXPECT_TRUE(gate.hasAndroid(ANDROID_LOG_ERROR, kTag, error + " (__initPowerHAL){#629:utils/sys/Cam3CPUCtrl.cpp}"));
    std::vector<std::string> ulog = gate.texts(Sink::ULog, kTag);
    EXPECT_NE(ulog.end(), std::find(ulog.begin(), ulog.end(), error));
    EXPECT_TRUE(c->uninit());
}

TEST_F(Cam3Test, DeathsRacingUsersOnOtherThreads) {
    // Registering on a service that has just died ends the process by
    // design, so the racing callers stick to what tolerates a dead service:
    // counting users, binding and disabling. One user stays for the whole
    // run: the last uninit unlinks, and a death after that is not heard.
    // Only WARN and ERROR lines are kept while the threads race, so the
    // record stays small however fast they go.
    Capture cap(3, 2, 0);
    Owned c;
    ASSERT_TRUE(c->init());
    std::atomic<bool> stop{false};
    std::vector<std::thread> users;
    for (int t = 0; t < 3; ++t) {
        users.emplace_back([&c, &stop] {
            while (!stop.load()) {
                c->init();
                c.imp()->disable();
                c->uninit();
                std::this_thread::sleep_for(std::chrono::microseconds(50));
            }
        });
    }
    for (int i = 0; i < 50; ++i) {
        qrnhost::power::killDefaultService();
        qrnhost::power::startDefaultService();
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    stop = true;
    for (auto& t : users) t.join();
    qrnhost::hidl::waitForRuntimeIdle();
    EXPECT_LT(0u, countAndroid(cap, "[serviceDied] IPower hidl service died"));
    // Every init was matched, whatever died in between.
    cap.clear();
    NSCam::Utils::ULog::ULogger::sDetailsLevel = 5;
    NSCam::Utils::ULog::ULogger::sNormalDetailsMask = 0x00107000;
    EXPECT_TRUE(c->uninit());
    EXPECT_TRUE(cap.hasAndroid(ANDROID_LOG_DEBUG, kTag, "[uninit] Last user(0)"));
}

}  // namespace
}  // namespace cam3test
