// User counting, power-service binding and the power-service requests.
#include <algorithm>
#include <functional>

#include "Cam3Fixture.h"

namespace cam3test {
namespace {

using qrnhost::power::Op;

TEST_F(Cam3Test, UserCountingAndItsLogLines) {
    Capture cap;
    Owned c;
    cap.clear();
    EXPECT_TRUE(c->uninit());  // before any init: only logs
    EXPECT_TRUE(c->init());
    EXPECT_EQ(1u, linkedRecipients());
    EXPECT_TRUE(c->init());  // the binding is kept, not linked again
    EXPECT_EQ(1u, linkedRecipients());
    EXPECT_TRUE(c->uninit());
    EXPECT_EQ(1u, linkedRecipients());
    EXPECT_TRUE(c->uninit());
    EXPECT_EQ(0u, linkedRecipients());  // unlinked though no scenario was ever registered
    EXPECT_TRUE(sim->journal().empty());
    // clang-format off
    EXPECT_EQ((Strings{"[uninit] +", "[uninit] No user(0)", "[uninit] -",
                       "[init] +", "[__initPowerHAL] +", "[__initPowerHAL] Loaded power HAL service +",
                       "[__initPowerHAL] Loaded power HAL service -", "[__initPowerHAL] -", "[init] First user",
                       "[init] -",
                       "[init] +", "[__initPowerHAL] +", "[__initPowerHAL] -", "[init] More user(1)", "[init] -",
                       "[uninit] +", "[uninit] More user(1)", "[uninit] -",
                       "[uninit] +", "[uninit] Last user(0)", "[uninit] -"}),
              cap.texts(Sink::Android, kTag));
    // clang-format on
    EXPECT_EQ((Strings{"Cam3CPUCtrl::uninit", "Cam3CPUCtrl::init", "Cam3CPUCtrl::__initPowerHAL", "Cam3CPUCtrl::init",
                       "Cam3CPUCtrl::__initPowerHAL", "Cam3CPUCtrl::uninit", "Cam3CPUCtrl::uninit"}),
              cap.sectionsBegun());
    EXPECT_EQ(7u, cap.sectionsEnded());
}

TEST_F(Cam3Test, RequestsRunOnFreshScenarios) {
    property_set("vendor.cam3dev.cpupreferidle", "1");
    Owned c;
    ASSERT_TRUE(c->init());
    EXPECT_TRUE(c->enablePreferIdle());
    EXPECT_TRUE(c->cpuPerformanceMode(2000));
    EXPECT_EQ((Strings{"registerScenario() -> 1", "configScenario(1, 73, 1, 0, 0, 0)", "enableScenario(1, 0)",
                       "disableScenario(1)", "unregisterScenario(1)", "registerScenario() -> 2",
                       "configScenario(2, 5, 1, 0, 0, 0)", "enableScenario(2, 2000)"}),
              journalText(sim));
    // No time limit, however it is asked for.
    for (int timeout : {0, -5, 1}) EXPECT_TRUE(c->cpuPerformanceMode(timeout));
    auto enables = sim->calls(Op::EnableScenario);
    ASSERT_EQ(5u, enables.size());
    EXPECT_EQ((std::vector<int32_t>{268435455, 268435455, 1}),
              (std::vector<int32_t>{enables[2].args[1], enables[3].args[1], enables[4].args[1]}));
    sim->clearJournal();
    // The last user's uninit goes through disable, which gives the handle back.
    EXPECT_TRUE(c->uninit());
    EXPECT_EQ((Strings{"disableScenario(5)", "unregisterScenario(5)"}), journalText(sim));
    EXPECT_TRUE(sim->registered().empty()) << sim->report();
}

TEST_F(Cam3Test, RequestsThatAreRefusedOrHaveNothingToDo) {
    Capture cap;
    Owned c;
    EXPECT_FALSE(c.imp()->disable());  // no user yet
    EXPECT_FALSE(c->cpuPerformanceMode(10));
    ASSERT_TRUE(c->init());
    cap.clear();
    EXPECT_TRUE(c.imp()->disable());
    EXPECT_TRUE(cap.hasAndroid(ANDROID_LOG_DEBUG, kTag, "[disable] Not thing to disable"));
    // Prefer-idle is off by default: refused before any trace section or lock.
    EXPECT_TRUE(c->cpuPerformanceMode(10));
    cap.clear();
    EXPECT_FALSE(c->enablePreferIdle());
    EXPECT_EQ(Strings{"[enablePreferIdle] CPU prefer idle is disabled"}, cap.texts(Sink::Android, kTag));
    EXPECT_TRUE(cap.sectionsBegun().empty());
    EXPECT_EQ(1u, sim->active().size());  // the performance mode stays in force
    EXPECT_TRUE(c->uninit());
    EXPECT_TRUE(sim->registered().empty()) << sim->report();
}

TEST_F(Cam3Test, WithoutAServiceInitStillCountsAndRequestsFail) {
    qrnhost::hidl::unregisterAll();
    Capture cap;
    Owned c;
    EXPECT_TRUE(c->init());
    EXPECT_TRUE(cap.hasAndroid(ANDROID_LOG_WARN, kTag, "[__initPowerHAL] Couldn't load power HAL service"));
    EXPECT_FALSE(c->cpuPerformanceMode(5));
    EXPECT_TRUE(cap.hasAndroid(ANDROID_LOG_WARN, kTag, "[cpuPerformanceMode] mPowerHalService == NULL !!!"));
    // A service that appears later is bound by the next request.
    sp<SimPowerService> late = qrnhost::power::startDefaultService();
    EXPECT_TRUE(c->cpuPerformanceMode(5));
    EXPECT_EQ(1u, late->active().size());
    EXPECT_EQ(1u, linkedRecipients());
    EXPECT_TRUE(c->uninit());
    EXPECT_TRUE(late->registered().empty()) << late->report();
}

TEST_F(Cam3Test, AfterADeathTheNextCallBindsAndLinksTheNewService) {
    property_set("vendor.cam3dev.cpupreferidle", "1");
    Capture cap;
    Owned c;
    ASSERT_TRUE(c->init());
    ASSERT_TRUE(c->cpuPerformanceMode(100));
    const std::vector<std::function<bool()>> binders = {
        [&] { return c->init(); }, [&] { return c->enablePreferIdle(); }, [&] { return c->cpuPerformanceMode(200); }};
    for (const auto& bind : binders) {
        ASSERT_TRUE(qrnhost::power::killDefaultService());
        qrnhost::hidl::waitForRuntimeIdle();
        sim = qrnhost::power::startDefaultService();
        EXPECT_TRUE(bind());
        EXPECT_EQ(1u, linkedRecipients());
    }
    Strings texts = cap.texts(Sink::Android, kTag);
    EXPECT_EQ(3, std::count(texts.begin(), texts.end(), "[serviceDied] IPower hidl service died"));
    // mEnabled outlived the death without a handle: the request only cleared
    // it before registering anew.
    EXPECT_EQ((Strings{"registerScenario() -> 1", "configScenario(1, 5, 1, 0, 0, 0)", "enableScenario(1, 200)"}),
              journalText(sim));
    EXPECT_TRUE(c->uninit());
    EXPECT_TRUE(c->uninit());
    EXPECT_TRUE(sim->registered().empty()) << sim->report();
}

TEST_F(Cam3Test, ADeathAfterTheLastUserLeftGoesUnnoticed) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    Owned c;
    ASSERT_TRUE(c->init());
    ASSERT_TRUE(c->uninit());  // unlinked, but still bound
    ASSERT_TRUE(qrnhost::power::killDefaultService());
    sp<SimPowerService> second = qrnhost::power::startDefaultService();
    qrnhost::hidl::waitForRuntimeIdle();
    ASSERT_TRUE(c->init());  // keeps the dead binding
    EXPECT_EQ(0u, linkedRecipients());
    EXPECT_DEATH(c->cpuPerformanceMode(1), "Attempted to retrieve value from failed HIDL call");
    EXPECT_TRUE(second->journal().empty());
}

}  // namespace
}  // namespace cam3test
