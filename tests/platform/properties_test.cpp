#include <cutils/properties.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <qrnhost/capture.h>
#include <qrnhost/properties.h>
#include <string>
#include <thread>
#include <vector>

namespace {

namespace qt = qrnhost::testing;

class Properties : public ::testing::Test {
  protected:
    void SetUp() override { qrnhost::properties::reset(); }
    void TearDown() override { qrnhost::properties::reset(); }
};

TEST_F(Properties, ParsingFollowsLibcutils) {
    // Booleans: the device's words; anything else (case differs, blanks,
    // unset) is the default.
    const std::pair<const char*, int8_t> bools[] = {
        {"1", 1},  {"y", 1},   {"yes", 1},   {"on", 1},    {"true", 1},  {"0", 0},  {"n", 0},
        {"no", 0}, {"off", 0}, {"false", 0}, {"TRUE", -1}, {"yes ", -1}, {"2", -1}, {"", -1},
    };
    for (const auto& [v, want] : bools) {
        property_set("t.b", v);
        EXPECT_EQ(want, property_get_bool("t.b", -1)) << "'" << v << "'";
    }
    // Integers: base 0, a leading number is enough, the type's range.
    struct Case {
        const char* value;
        int64_t want64;
        int32_t want32;
    } cases[] = {
        {"0x10", 16, 16},
        {"010", 8, 8},
        {"12abc", 12, 12},
        {"abc", -1, -1},
        {"2147483648", 2147483648LL, -1},
        {"9223372036854775808", -1, -1},
    };
    for (const auto& c : cases) {
        property_set("t.int", c.value);
        EXPECT_EQ(c.want64, property_get_int64("t.int", -1)) << c.value;
        EXPECT_EQ(c.want32, property_get_int32("t.int", -1)) << c.value;
    }
}

TEST_F(Properties, ValueLimitAndClear) {
    char buf[PROPERTY_VALUE_MAX];
    std::string longest(PROPERTY_VALUE_MAX - 1, 'x');
    EXPECT_EQ(0, property_set("t.long", longest.c_str()));
    EXPECT_EQ(-1, property_set("t.long", (longest + "x").c_str()));  // refused, as on a device
    EXPECT_EQ(static_cast<int>(longest.size()), property_get("t.long", buf, ""));
    qrnhost::properties::clear("t.long");
    EXPECT_EQ(3, property_get("t.long", buf, "def"));
}

// A malformed file is refused whole, naming its line; a good one is loaded
// before the first read, and a later set wins over it.
TEST_F(Properties, StartupFile) {
    qt::TempDir dir;
    qt::writeFile(dir.file("bad"), "a=1\nnot an assignment\nb=2\n");
    int line = 0;
    EXPECT_EQ(-1, qrnhost::properties::loadFile(dir.file("bad"), &line));
    EXPECT_EQ(2, line);
    EXPECT_EQ(-1, property_get_int32("a", -1));

    qt::writeFile(dir.file("props"), "# camera\n\n vendor.debug.file_cache.log = 1 \nvendor.x=0x20\n");
    setenv(qrnhost::properties::kFileEnv, dir.file("props").c_str(), 1);
    qrnhost::properties::reset();
    EXPECT_EQ(1, property_get_int32("vendor.debug.file_cache.log", 0));
    EXPECT_EQ(32, property_get_int32("vendor.x", 0));
    property_set("vendor.x", "5");
    EXPECT_EQ(5, property_get_int32("vendor.x", 0));
    unsetenv(qrnhost::properties::kFileEnv);
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
