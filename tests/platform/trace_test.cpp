#include <cutils/properties.h>
#include <cutils/trace.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <qrnhost/trace.h>
#include <string>
#include <vector>

#include "Capture.h"

extern "C" void atrace_begin_body(const char* name);
extern "C" void atrace_end_body();

namespace {

TEST(Trace, SetupLoadsTheTagsFromTheProperty) {
    qrntest::TempDir dir;
    ASSERT_TRUE(qrnhost::trace::setMarkerPath(dir.file("marker")));
    property_set(qrnhost::trace::kTagsProperty, "0x400");
    qrnhost::trace::resetSetup();
    EXPECT_FALSE(atrace_is_ready.load(std::memory_order_acquire));
    uint64_t before = qrnhost::trace::setupCount();
    EXPECT_TRUE(atrace_is_tag_enabled(ATRACE_TAG_CAMERA));
    EXPECT_TRUE(atrace_is_tag_enabled(ATRACE_TAG_ALWAYS));  // always on, as on a device
    EXPECT_FALSE(atrace_is_tag_enabled(ATRACE_TAG_GRAPHICS));
    EXPECT_TRUE(atrace_is_ready.load(std::memory_order_acquire));
    EXPECT_EQ(before + 1, qrnhost::trace::setupCount());
    atrace_is_tag_enabled(ATRACE_TAG_CAMERA);  // ready: no second setup
    EXPECT_EQ(before + 1, qrnhost::trace::setupCount());

    property_set(qrnhost::trace::kTagsProperty, "0");
    qrnhost::trace::resetSetup();
    EXPECT_FALSE(atrace_is_tag_enabled(ATRACE_TAG_CAMERA));
    qrnhost::trace::setMarkerPath("");
}

TEST(Trace, SectionsReachTheObserverAndTheMarkerInDeviceForm) {
    qrntest::TempDir dir;
    std::string marker = dir.file("marker");
    ASSERT_TRUE(qrnhost::trace::setMarkerPath(marker));
    std::vector<qrnhost::trace::Event> events;
    qrnhost::trace::setObserver([&](const qrnhost::trace::Event& e) { events.push_back(e); });
    atrace_begin_body("CpuCtrl::init");
    atrace_end_body();
    qrnhost::trace::setObserver(nullptr);
    qrnhost::trace::setMarkerPath("");
    ASSERT_EQ(2u, events.size());
    EXPECT_TRUE(events[0].begin);
    EXPECT_EQ("CpuCtrl::init", events[0].name);
    EXPECT_FALSE(events[1].begin);
    std::string pid = std::to_string(getpid());
    EXPECT_EQ("B|" + pid + "|CpuCtrl::init\nE|" + pid + "\n", qrntest::readFile(marker));
}

}  // namespace
