#include <gtest/gtest.h>
#include <sys/stat.h>

#include <qrnhost/PowerSim.h>
#include <qrnhost/capture.h>
#include <qrnhost/hidl.h>
#include <thread>

namespace {

namespace qt = qrnhost::testing;

using namespace qrnhost::power;
using namespace vendor::quarnel::hardware::power::V2_0;

TEST(PowerSim, ClustersComeFromCpufreqPoliciesOrTheDefault) {
    qt::TempDir dir;
    for (auto [n, f] : {std::pair{0, "1800000"}, std::pair{4, "2400000"}, std::pair{7, "3000000"}}) {
        std::string p = dir.file("policy" + std::to_string(n));
        mkdir(p.c_str(), 0755);
        qt::writeFile(p + "/cpuinfo_max_freq", std::string(f) + "\n");
    }
    mkdir(dir.file("policyX").c_str(), 0755);  // not a policy
    EXPECT_EQ((std::vector<int32_t>{1800000, 2400000, 3000000}), readCpufreqPolicies(dir.path()));

    Config c;
    c.cpufreqRoot = dir.path();
    sp<SimPowerService> sim = new SimPowerService(c);
    EXPECT_EQ(3, static_cast<int32_t>(sim->querySystemInfo(SYSINFO_CLUSTER_NUM, 0)));
    EXPECT_EQ(2400000, static_cast<int32_t>(sim->querySystemInfo(SYSINFO_CLUSTER_FREQ_MAX, 1)));
    EXPECT_EQ(-1, static_cast<int32_t>(sim->querySystemInfo(SYSINFO_CLUSTER_FREQ_MAX, 3)));

    Config none;
    none.cpufreqRoot = dir.file("absent");
    none.defaultClusters = 3;
    none.defaultMaxFreq = 1000;
    sp<SimPowerService> fallback = new SimPowerService(none);
    EXPECT_EQ((std::vector<int32_t>{1000, 1000, 1000}), fallback->clusterMaxFreq());
}

TEST(PowerSim, ScenarioTableAppliesCommandsAndReportsWhatIsLeft) {
    sp<SimPowerService> sim = new SimPowerService();
    int32_t a = sim->registerScenario();
    int32_t b = sim->registerScenario();
    EXPECT_NE(a, b);
    sim->configScenario(a, CMD_SET_CPU_FREQ_BIG_LITTLE_MIN, CLUSTER_BIG, 1500, 0, 0);
    sim->configScenario(a, CMD_SET_CPU_CORE_BIG_LITTLE_MAX, CLUSTER_LITTLE, 4, 0, 0);
    sim->configScenario(a, CMD_SET_PREFER_IDLE_PARAM, 100, 0, 0, 0);
    sim->configScenario(a, 999, 1, 2, 3, 4);
    sim->configScenario(-1, CMD_SET_CPU_PERF_MODE, 1, 0, 0, 0);  // unknown handle: ignored
    sim->enableScenario(a, 0);
    sim->enableScenario(b, 1);  // 1 ms
    std::vector<Scenario> reg = sim->registered();
    ASSERT_EQ(2u, reg.size());
    EXPECT_EQ(1500, reg[0].settings.freqMin.at(CLUSTER_BIG));
    EXPECT_EQ(4, reg[0].settings.coreMax.at(CLUSTER_LITTLE));
    EXPECT_EQ(100, reg[0].settings.preferIdleParam);
    ASSERT_EQ(1u, reg[0].settings.unknown.size());
    EXPECT_EQ(4u, reg[0].commands.size());
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    std::vector<Scenario> act = sim->active();
    ASSERT_EQ(1u, act.size());  // b timed out
    EXPECT_EQ(a, act[0].handle);
    EXPECT_NE(std::string::npos, sim->report().find("timed out"));

    sim->disableScenario(a);
    EXPECT_TRUE(sim->active().empty());
    EXPECT_EQ(2u, sim->registered().size());  // disabled, still registered
    sim->unregisterScenario(a);
    sim->unregisterScenario(b);
    EXPECT_TRUE(sim->registered().empty());
    EXPECT_EQ("no scenario registered\n", sim->report());
}

TEST(PowerSim, JournalKeepsEveryCallAndInjectedFailuresChangeNothing) {
    sp<SimPowerService> sim = new SimPowerService();
    sim->injectTransportFailure(Op::RegisterScenario);
    sim->injectTransportFailure(Op::DisableScenario, 2);
    Return<int32_t> failed = sim->registerScenario();
    EXPECT_FALSE(failed.isOk());
    int32_t h = sim->registerScenario();
    sim->enableScenario(h, 100);
    for (int i = 0; i < 2; ++i) {
        Return<void> r = sim->disableScenario(h);
        EXPECT_FALSE(r.isOk());
    }
    EXPECT_EQ(1u, sim->active().size());  // the failed disables did nothing
    sim->disableScenario(h);
    EXPECT_TRUE(sim->active().empty());

    std::vector<Call> j = sim->journal();
    ASSERT_EQ(6u, j.size());
    EXPECT_EQ("registerScenario() -> transport failure", j[0].toString());
    EXPECT_EQ("enableScenario(" + std::to_string(h) + ", 100)", j[2].toString());
    EXPECT_EQ(3u, sim->calls(Op::DisableScenario).size());
}

}  // namespace
