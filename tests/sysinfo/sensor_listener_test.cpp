#include <SensorListener.h>
#include <gtest/gtest.h>

#include <atomic>

namespace {

int gListenerCalls = 0;
void listener() {
    ++gListenerCalls;
}

TEST(SensorListener, FactoryMakesNoInstance) {
    EXPECT_EQ(nullptr, SensorListener::createInstance("any"));
    EXPECT_EQ(nullptr, SensorListener::createInstance(nullptr));
    EXPECT_EQ(nullptr, SensorListener::createInstance());
}

TEST(SensorListener, StubAnswers) {
    SensorListenerImp imp("test");
    SensorListener& l = imp;  // through the interface, as callers do
    EXPECT_EQ(1, l.setListener(nullptr));
    EXPECT_EQ(1, l.setListener(&listener));
    EXPECT_EQ(0, gListenerCalls);  // neither stored nor called
    for (int t = SensorListener::SensorType_Acc; t <= SensorListener::SensorType_Num; ++t) {
        auto type = static_cast<SensorListener::SensorTypeEnum>(t);
        EXPECT_EQ(0, l.enableSensor(type, t == 0 ? 0u : 0xffffffffu)) << t;
        EXPECT_EQ(0, l.disableSensor(type)) << t;
    }
    EXPECT_EQ(0, l.init());
    EXPECT_EQ(0, l.getEvents());
    EXPECT_EQ(0, l.isSupport());
    EXPECT_EQ(0, l.uninit());
    EXPECT_EQ(0, gListenerCalls);
    EXPECT_EQ(1, SensorListenerImp_callback(-1, 0, nullptr));
}

// Counts destructions; a second free of the same object is what ASan and
// valgrind (which run this test) report.
std::atomic<int> gDestroyed{0};
struct CountingListener : SensorListenerImp {
    CountingListener() : SensorListenerImp("counting") {}
    ~CountingListener() override { ++gDestroyed; }
};

TEST(SensorListener, DestroyInstanceDestroysTheObjectOnce) {
    // Only the interface's link to its operations: no state is kept.
    EXPECT_EQ(sizeof(void*), sizeof(SensorListenerImp));
    SensorListener* l = new CountingListener;
    gDestroyed = 0;
    l->destroyInstance();  // through the deleting destructor
    EXPECT_EQ(1, gDestroyed.load());
}

}  // namespace
