#include <SensorListener.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <atomic>
#include <new>

// The library's deleting destructor frees through operator delete, which
// this program replaces to see which pointers are given back. Allocation
// stays with malloc, so ASan still checks every block.
namespace {
std::atomic<void*> gWatched{nullptr};
std::atomic<int> gWatchedFrees{0};

void release(void* p) {
    if (p != nullptr && p == gWatched.load()) ++gWatchedFrees;
    free(p);
}
}  // namespace

void* operator new(size_t size) {
    if (void* p = malloc(size ? size : 1)) return p;
    throw std::bad_alloc();
}
void operator delete(void* p) noexcept {
    release(p);
}
void operator delete(void* p, size_t) noexcept {
    release(p);
}

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

TEST(SensorListener, DestroyInstanceFreesTheObjectOnce) {
    // Only the interface's link to its operations: no state is kept.
    EXPECT_EQ(sizeof(void*), sizeof(SensorListenerImp));
    SensorListener* l = new SensorListenerImp(nullptr);
    gWatched = l;
    gWatchedFrees = 0;
    l->destroyInstance();
    EXPECT_EQ(1, gWatchedFrees.load());
    gWatched = nullptr;
}

}  // namespace
