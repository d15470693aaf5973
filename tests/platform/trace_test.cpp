#include <cutils/properties.h>
#include <cutils/trace.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <qrnhost/capture.h>
#include <qrnhost/trace.h>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

extern "C" void atrace_begin_body(const char* name);
extern "C" void atrace_end_body();

namespace {

namespace qt = qrnhost::testing;

// Puts the trace tags property back as the test found it.
struct KeepTags {
    char old[PROPERTY_VALUE_MAX] = {};
    KeepTags() { property_get(qrnhost::trace::kTagsProperty, old, ""); }
    ~KeepTags() {
        property_set(qrnhost::trace::kTagsProperty, old);
        qrnhost::trace::resetSetup();
    }
};

// The tags are read from the property at the first traced call after a
// setup reset, once; sections go to the observer and, in the device's form,
// to the marker file.
TEST(Trace, TagsFromThePropertyAndSectionsInDeviceForm) {
    KeepTags kept;
    qt::TempDir dir;
    ASSERT_TRUE(qrnhost::trace::setMarkerPath(dir.file("marker")));
    property_set(qrnhost::trace::kTagsProperty, "0x400");
    qrnhost::trace::resetSetup();
    EXPECT_FALSE(atrace_is_ready.load(std::memory_order_acquire));
    uint64_t before = qrnhost::trace::setupCount();
    EXPECT_TRUE(atrace_is_tag_enabled(ATRACE_TAG_CAMERA));
    EXPECT_TRUE(atrace_is_tag_enabled(ATRACE_TAG_ALWAYS));  // always on, as on a device
    EXPECT_FALSE(atrace_is_tag_enabled(ATRACE_TAG_GRAPHICS));
    EXPECT_TRUE(atrace_is_ready.load(std::memory_order_acquire));
    EXPECT_EQ(before + 1, qrnhost::trace::setupCount());  // ready: no second setup

    std::vector<qrnhost::trace::Event> events;
    qrnhost::trace::setObserver([&](const qrnhost::trace::Event& e) { events.push_back(e); });
    atrace_begin_body("CpuCtrl::init");
    atrace_end_body();
    qrnhost::trace::setObserver(nullptr);
    qrnhost::trace::setMarkerPath("");
    ASSERT_EQ(2u, events.size());
    EXPECT_TRUE(events[0].begin && events[0].name == "CpuCtrl::init" && !events[1].begin);
    std::string pid = std::to_string(getpid());
    EXPECT_EQ("B|" + pid + "|CpuCtrl::init\nE|" + pid + "\n", qt::readFile(dir.file("marker")));

    property_set(qrnhost::trace::kTagsProperty, "0");
    qrnhost::trace::resetSetup();
    EXPECT_FALSE(atrace_is_tag_enabled(ATRACE_TAG_CAMERA));
}

// Threads that make their first traced call together must not each rewrite
// the tag word while the others read it: exactly one of them sets up.
TEST(Trace, ConcurrentFirstCallsSetUpOnce) {
    KeepTags kept;
    property_set(qrnhost::trace::kTagsProperty, "0x400");
    for (int round = 0; round < 20; ++round) {
        qrnhost::trace::resetSetup();
        uint64_t before = qrnhost::trace::setupCount();
        std::atomic<int> waiting{8};
        std::atomic<int> enabled{0};
        std::vector<std::thread> threads;
        for (int t = 0; t < 8; ++t)
            threads.emplace_back([&] {
                for (--waiting; waiting.load() > 0;) std::this_thread::yield();
                enabled += atrace_is_tag_enabled(ATRACE_TAG_CAMERA) ? 1 : 0;
            });
        for (auto& t : threads) t.join();
        EXPECT_EQ(before + 1, qrnhost::trace::setupCount()) << "round " << round;
        EXPECT_EQ(8, enabled.load());
    }
}

}  // namespace
