// One CpuCtrl used by several threads at once while users come and go. The
// service's journal must read as the calls of one serialised controller,
// and the count and the lock must end clean.
#include <gtest/gtest.h>

#include <qrnhost/PowerSim.h>
#include <qrnhost/hidl.h>
#include <atomic>
#include <chrono>
#include <random>
#include <thread>

#include "Capture.h"
#include "CpuCtrlImp.h"

struct CpuCtrlImpPeer {
    static int32_t users(CpuCtrlImp& c) { return c.mUser.load(); }
    static bool unlocked(CpuCtrlImp& c) {
        return pthread_mutex_trylock(&c.mLock) == 0 && !pthread_mutex_unlock(&c.mLock);
    }
};

namespace {

using namespace qrnhost::power;

bool request(CpuCtrl& c, unsigned kind) {
    CpuCtrl::CPU_CTRL_INFO info{2, 2000, 4, 1000, 1};
    CpuCtrl::CPU_CTRL_RANGE_INFO range{1, -1, 3, 4, 500, 600, 700, 800, 0};
    switch (kind) {
        case 0: return c.enable(info);
        case 1: return c.enable(range);
        case 2: return c.enableBoost(1);
        case 3: return c.enablePreferIdle();
        case 4: return c.cpuPerformanceMode(1);
        case 5: return c.disable();
        default:
            c.resetTimeout(1);  // false only while no scenario was registered
            return true;
    }
}

// Replays the journal: each operation's calls must be contiguous, come from
// one thread and carry the handle the controller holds at that point.
// Returns the number of scenarios dropped by a last user.
int replay(const std::vector<Call>& j) {
    int32_t current = -1;
    int dropped = 0;
    for (size_t i = 0; i < j.size() && !::testing::Test::HasFailure();) {
        const Call& c = j[i++];
        auto then = [&](Op op, int32_t first) {
            ASSERT_LT(i, j.size()) << "cut short after " << c.toString();
            EXPECT_TRUE(j[i].op == op && j[i].args.at(0) == first && j[i].tid == c.tid)
                << j[i].toString() << " at " << i << " after " << c.toString();
            ++i;
        };
        switch (c.op) {
            case Op::RegisterScenario:  // a request: its settings, then enabled
                current = c.result;
                while (i < j.size() && j[i].op == Op::ConfigScenario) then(Op::ConfigScenario, current);
                then(Op::EnableScenario, current);
                break;
            case Op::QuerySystemInfo:  // the boost, on the current handle
                for (int32_t k = 0; k < c.result; ++k) {
                    then(Op::QuerySystemInfo, 4);
                    then(Op::ConfigScenario, current);
                    then(Op::ConfigScenario, current);
                }
                then(Op::EnableScenario, current);
                break;
            case Op::UnregisterScenario:  // the last user
                EXPECT_EQ(current, c.args[0]) << i;
                then(Op::DisableScenario, current);
                current = -1;
                ++dropped;
                break;
            default:  // disable() or resetTimeout()
                EXPECT_TRUE(current != -1 && c.args[0] == current) << c.toString() << " at " << i - 1;
        }
    }
    return dropped;
}

TEST(CpuCtrlConcurrency, UsersAndRequestsFromSeveralThreadsStayConsistent) {
    qrntest::Capture cap(1, 5, 0x40007000);
    Config config;
    config.clusterMaxFreq = {1800000, 2400000};
    sp<SimPowerService> sim = startDefaultService(config);
    auto* ctrl = static_cast<CpuCtrlImp*>(CpuCtrl::createInstance());

    constexpr int kThreads = 4, kRounds = 60;
    std::atomic<int> finished{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            std::minstd_rand rnd(t + 1);
            for (int r = 0; r < kRounds; ++r) {
                ctrl->init();
                for (int k = 0; k < 3; ++k) EXPECT_TRUE(request(*ctrl, rnd() % 7));
                ctrl->uninit();
            }
            ++finished;
        });
    }
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(90);
    while (finished < kThreads && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    if (finished < kThreads) {
        for (auto& t : threads) t.detach();
        FAIL() << "threads stuck: the lock is not released around the nested disable()";
    }
    for (auto& t : threads) t.join();

    EXPECT_EQ(0, CpuCtrlImpPeer::users(*ctrl));
    EXPECT_TRUE(CpuCtrlImpPeer::unlocked(*ctrl));
    int dropped = replay(sim->journal());
    int first = 0, moreIn = 0, moreOut = 0, last = 0;
    for (const std::string& l : cap.texts(qrntest::Sink::Android, "QrnCam/CpuCtrl")) {
        first += l == "[init] First user(0)";
        moreIn += l.rfind("[init] More user(", 0) == 0;
        moreOut += l.rfind("[uninit] More user(", 0) == 0;
        last += l == "[uninit] Last user(0)";
    }
    EXPECT_EQ(kThreads * kRounds, first + moreIn);
    EXPECT_EQ(kThreads * kRounds, last + moreOut);
    EXPECT_EQ(first, last);
    EXPECT_EQ(last, dropped);

    ctrl->destroyInstance();
    sim.clear();
    qrnhost::hidl::unregisterAll();
}

}  // namespace
