// One CpuCtrl used by several threads at once: users come and go while
// requests run. The service's journal must read as the calls of one
// serialised controller, and the count and the lock must end clean.
#include <gtest/gtest.h>

#include <qrnhost/PowerSim.h>
#include <qrnhost/hidl.h>
#include <atomic>
#include <chrono>
#include <climits>
#include <random>
#include <thread>

#include "Capture.h"
#include "CpuCtrlImp.h"

struct CpuCtrlImpPeer {
    static int32_t users(CpuCtrlImp& c) { return c.mUser.load(); }
    static bool unlocked(CpuCtrlImp& c) {
        if (pthread_mutex_trylock(&c.mLock) != 0) return false;
        pthread_mutex_unlock(&c.mLock);
        return true;
    }
};

namespace {

using namespace qrnhost::power;
using qrntest::Sink;

bool request(CpuCtrl& c, unsigned kind) {
    CpuCtrl::CPU_CTRL_INFO info{2, 2000, 4, 1000, 1};
    CpuCtrl::CPU_CTRL_RANGE_INFO range{1, -1, 3, 4, 500, 600, 700, 800, 0};
    switch (kind % 7) {
        case 0: return c.enable(info);
        case 1: return c.enable(range);
        case 2: return c.enableBoost(1);
        case 3: return c.enablePreferIdle();
        case 4: return c.cpuPerformanceMode(1);
        case 5:
            c.resetTimeout(1);  // false while no scenario is registered: not a failure here
            return true;
        default: return c.disable();
    }
}

// Walks the journal as the calls of one controller whose handle is
// `current`, expecting each operation's calls contiguous and from one thread.
// Returns the number of handles dropped by a last user.
int checkJournalIsSerialised(const std::vector<Call>& j) {
    int32_t current = -1;
    int dropped = 0;
    size_t i = 0;
    constexpr int32_t kAny = INT32_MIN;
    auto next = [&](Op op, std::vector<int32_t> args, pid_t tid) {
        ASSERT_LT(i, j.size());
        EXPECT_EQ(op, j[i].op) << j[i].toString() << " at " << i;
        for (size_t a = 0; a < args.size() && a < j[i].args.size(); ++a)
            if (args[a] == kAny) args[a] = j[i].args[a];
        EXPECT_EQ(args, j[i].args) << j[i].toString() << " at " << i;
        EXPECT_EQ(tid, j[i].tid) << j[i].toString() << " at " << i;
        ++i;
    };
    while (i < j.size() && !::testing::Test::HasFailure()) {
        const Call& c = j[i++];
        switch (c.op) {
            case Op::RegisterScenario:  // a request: its settings, then enabled
                current = c.result;
                while (i < j.size() && j[i].op == Op::ConfigScenario) {
                    EXPECT_EQ(current, j[i].args[0]);
                    EXPECT_EQ(c.tid, j[i++].tid);
                }
                next(Op::EnableScenario, {current, kAny}, c.tid);
                break;
            case Op::QuerySystemInfo:  // the boost, on the current handle
                for (int32_t k = 0; k < c.result; ++k) {
                    int32_t f = i < j.size() ? j[i].result : 0;
                    next(Op::QuerySystemInfo, {4, k}, c.tid);
                    next(Op::ConfigScenario, {current, 3, k, f, 0, 0}, c.tid);
                    next(Op::ConfigScenario, {current, 4, k, f, 0, 0}, c.tid);
                }
                next(Op::EnableScenario, {current, 1000}, c.tid);
                break;
            case Op::EnableScenario:  // resetTimeout
            case Op::DisableScenario:
                EXPECT_NE(-1, current) << c.toString() << " at " << i - 1;
                EXPECT_EQ(current, c.args[0]) << c.toString() << " at " << i - 1;
                break;
            case Op::UnregisterScenario:  // the last user
                EXPECT_EQ(current, c.args[0]) << c.toString() << " at " << i - 1;
                next(Op::DisableScenario, {current}, c.tid);
                current = -1;
                ++dropped;
                break;
            default: ADD_FAILURE() << "stray " << c.toString();
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
                for (int k = 0; k < 3; ++k) EXPECT_TRUE(request(*ctrl, rnd()));
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
    int dropped = checkJournalIsSerialised(sim->journal());

    int first = 0, moreIn = 0, moreOut = 0, last = 0, noUser = 0;
    for (const std::string& l : cap.texts(Sink::Android, "QrnCam/CpuCtrl")) {
        first += l == "[init] First user(0)";
        moreIn += l.rfind("[init] More user(", 0) == 0;
        moreOut += l.rfind("[uninit] More user(", 0) == 0;
        last += l == "[uninit] Last user(0)";
        noUser += l.find("No user") != std::string::npos;
    }
    EXPECT_EQ(kThreads * kRounds, first + moreIn);
    EXPECT_EQ(kThreads * kRounds, last + moreOut);
    EXPECT_EQ(first, last);
    EXPECT_EQ(last, dropped);
    EXPECT_EQ(0, noUser);

    ctrl->destroyInstance();
    sim.clear();
    qrnhost::hidl::unregisterAll();
}

}  // namespace
