#include <cutils/properties.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <qrnhost/properties.h>
#include <string>
#include <thread>
#include <vector>

#include "Capture.h"

namespace {

class Properties : public ::testing::Test {
  protected:
    void SetUp() override { qrnhost::properties::reset(); }
    void TearDown() override { qrnhost::properties::reset(); }
};

TEST_F(Properties, BooleansFollowTheDeviceWords) {
    const char* yes[] = {"1", "y", "yes", "on", "true"};
    const char* no[] = {"0", "n", "no", "off", "false"};
    const char* neither[] = {"", "TRUE", "Yes", "2", "yes ", "t", "enable"};
    for (const char* v : yes) {
        property_set("t.bool", v);
        EXPECT_EQ(1, property_get_bool("t.bool", 0)) << v;
    }
    for (const char* v : no) {
        property_set("t.bool", v);
        EXPECT_EQ(0, property_get_bool("t.bool", 1)) << v;
    }
    for (const char* v : neither) {
        property_set("t.bool", v);
        EXPECT_EQ(1, property_get_bool("t.bool", 1)) << "'" << v << "'";
        EXPECT_EQ(0, property_get_bool("t.bool", 0)) << "'" << v << "'";
    }
    EXPECT_EQ(1, property_get_bool("t.unset", 1));
    EXPECT_EQ(0, property_get_bool(nullptr, 0));
}

TEST_F(Properties, IntegersUseBaseZeroWithinTheirRange) {
    struct Case {
        const char* value;
        int64_t want64;
        int32_t want32;
    } cases[] = {
            {"42", 42, 42},
            {"-7", -7, -7},
            {"0x10", 16, 16},
            {"010", 8, 8},      // octal, as libcutils reads it
            {"12abc", 12, 12},  // a leading number is enough
            {"abc", -1, -1},
            {"", -1, -1},
            {"2147483648", 2147483648LL, -1},  // out of the 32-bit range
            {"-2147483649", -2147483649LL, -1},
            {"9223372036854775807", INT64_MAX, -1},
            {"9223372036854775808", -1, -1},  // overflow
            {"1073741824", 1073741824, 1073741824},
    };
    for (const auto& c : cases) {
        property_set("t.int", c.value);
        EXPECT_EQ(c.want64, property_get_int64("t.int", -1)) << c.value;
        EXPECT_EQ(c.want32, property_get_int32("t.int", -1)) << c.value;
    }
}

TEST_F(Properties, SetGetClearAndLimits) {
    char buf[PROPERTY_VALUE_MAX];
    EXPECT_EQ(3, property_get("t.none", buf, "def"));
    EXPECT_STREQ("def", buf);
    EXPECT_EQ(0, property_set("t.s", "value"));
    EXPECT_EQ(5, property_get("t.s", buf, "def"));
    EXPECT_STREQ("value", buf);
    qrnhost::properties::clear("t.s");
    EXPECT_EQ(0, property_get("t.s", buf, nullptr));
    EXPECT_STREQ("", buf);

    std::string longest(PROPERTY_VALUE_MAX - 1, 'x');
    EXPECT_EQ(0, property_set("t.long", longest.c_str()));
    EXPECT_EQ(-1, property_set("t.long", (longest + "x").c_str()));
    EXPECT_EQ(static_cast<int>(longest.size()), property_get("t.long", buf, ""));
    EXPECT_EQ(-1, property_set(nullptr, "v"));
    EXPECT_EQ(-1, property_set("t.k", nullptr));
}

TEST_F(Properties, StartupFileIsLoadedBeforeTheFirstRead) {
    qrntest::TempDir dir;
    std::string path = dir.file("props");
    qrntest::writeFile(path, "# camera\n\n vendor.debug.file_cache.log = 1 \nvendor.x=0x20\n");
    setenv(qrnhost::properties::kFileEnv, path.c_str(), 1);
    qrnhost::properties::reset();
    EXPECT_EQ(1, property_get_int32("vendor.debug.file_cache.log", 0));
    EXPECT_EQ(32, property_get_int32("vendor.x", 0));
    // A later set wins over the file.
    property_set("vendor.x", "5");
    EXPECT_EQ(5, property_get_int32("vendor.x", 0));
    unsetenv(qrnhost::properties::kFileEnv);
}

TEST_F(Properties, MalformedFileIsRefusedWhole) {
    qrntest::TempDir dir;
    std::string path = dir.file("bad");
    qrntest::writeFile(path, "a=1\nnot an assignment\nb=2\n");
    int line = 0;
    EXPECT_EQ(-1, qrnhost::properties::loadFile(path, &line));
    EXPECT_EQ(2, line);
    EXPECT_EQ(-1, property_get_int32("a", -1));
    EXPECT_EQ(-1, qrnhost::properties::loadFile(dir.file("missing")));
    EXPECT_TRUE(qrnhost::properties::setFromAssignment("c = 3"));
    EXPECT_EQ(3, property_get_int32("c", 0));
    EXPECT_FALSE(qrnhost::properties::setFromAssignment("=3"));
}

TEST_F(Properties, ConcurrentReadersAndWritersAgree) {
    // The store is shared by every thread of the camera service.
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t] {
            std::string key = "t.c" + std::to_string(t);
            for (int i = 0; i < 2000; ++i) {
                property_set(key.c_str(), std::to_string(i).c_str());
                ASSERT_EQ(i, property_get_int32(key.c_str(), -1));
            }
        });
    }
    for (auto& th : threads) th.join();
}

}  // namespace
