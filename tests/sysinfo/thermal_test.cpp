#include <ThermalInfo.h>
#include <android/log.h>
#include <gtest/gtest.h>

#include <climits>
#include <stdexcept>
#include <string>

#include "KernelFiles.h"

namespace {

using namespace NSCam::NSThermalInfo;
using qrntest::Capture;
using qrntest::readFile;
using qrntest::Sink;
using sysinfotest::kThermalModeNode;
using sysinfotest::kThermalValueNode;
using sysinfotest::OpenWatch;

class ThermalInfo : public sysinfotest::KernelFilesTest {};

TEST_F(ThermalInfo, ReadsTheFirstTokenAsADecimalInt) {
    struct Case {
        const char* content;
        int value;
    } cases[] = {
        {"452\n", 452},       {"  -5 and further words\n", -5}, {"\t\n 17", 17},          {"+8\n", 8},
        {"0x1A\n", 0},  // decimal only: the text stops at the 'x'
        {"012\n", 12},  // and a leading zero is no octal prefix
        {"37500mC\n", 37500}, {"2147483647", INT_MAX},          {"-2147483648", INT_MIN},
    };
    for (const Case& c : cases) {
        place(kThermalValueNode, c.content);
        EXPECT_EQ(c.value, getSystemThermalValue()) << '"' << c.content << '"';
    }
}

TEST_F(ThermalInfo, ReadsTheNodeAfreshOnEveryCall) {
    std::string file = place(kThermalValueNode, "40\n");
    EXPECT_EQ(40, getSystemThermalValue());
    qrntest::writeFile(file, "41\n");
    EXPECT_EQ(41, getSystemThermalValue());
}

// A node without a number is the caller's to handle: the conversion's own
// exceptions come through.
TEST_F(ThermalInfo, ConversionFailuresReachTheCaller) {
    for (const char* content : {"", "   \n", "abc\n", "- 5\n", "--5\n"}) {
        place(kThermalValueNode, content);
        EXPECT_THROW(getSystemThermalValue(), std::invalid_argument) << '"' << content << '"';
    }
    for (const char* content : {"2147483648\n", "-2147483649\n", "99999999999999999999\n"}) {
        place(kThermalValueNode, content);
        EXPECT_THROW(getSystemThermalValue(), std::out_of_range) << '"' << content << '"';
    }
}

TEST_F(ThermalInfo, AbsentValueNodeLogsAnErrorAndAnswersMinus2) {
    remove(kThermalValueNode);
    Capture cap(3, 0, 0);
    EXPECT_EQ(-2, getSystemThermalValue());
    std::vector<qrntest::Record> r = cap.records();
    ASSERT_EQ(2u, r.size());
    EXPECT_EQ(Sink::Android, r[0].sink);
    EXPECT_EQ(ANDROID_LOG_ERROR, r[0].priority);
    EXPECT_EQ("ThermalInfo", r[0].tag);
    EXPECT_EQ("[getSystemThermalValue] Open File Node Error (getSystemThermalValue){#81:utils/sys/ThermalInfo.cpp}",
              r[0].text);
    EXPECT_EQ(Sink::ULog, r[1].sink);
    EXPECT_EQ("ThermalInfo", r[1].tag);
    EXPECT_EQ(0x40007001u, r[1].module);
    EXPECT_EQ(1, r[1].level);
    EXPECT_EQ("[getSystemThermalValue] Open File Node Error", r[1].text);
}

TEST_F(ThermalInfo, AbsentNodesAnswerMinus2EvenWithLoggingOff) {
    remove(kThermalValueNode);
    remove(kThermalModeNode);
    Capture cap(0, 0, 0);
    EXPECT_EQ(-2, getSystemThermalValue());
    EXPECT_EQ(-2, setThermalMode(0));
    EXPECT_TRUE(cap.records().empty());
}

TEST_F(ThermalInfo, ModesAreWrittenAsOneByte) {
    std::string file = place(kThermalModeNode, "previous content\n");
    EXPECT_EQ(0, setThermalMode(0));
    EXPECT_EQ("0", readFile(file));
    EXPECT_EQ(0, setThermalMode(1));
    EXPECT_EQ("1", readFile(file));
}

TEST_F(ThermalInfo, InvalidModesWriteNothingButTheNodeIsOpenedFirst) {
    Capture cap(3, 5, 0x40007000);
    for (int mode : {2, 7, -1, INT_MIN, INT_MAX}) {
        std::string file = place(kThermalModeNode, "1");
        OpenWatch watch(file);
        EXPECT_EQ(-22, setThermalMode(mode)) << mode;
        EXPECT_EQ(1, watch.opens()) << mode;
        EXPECT_EQ("", readFile(file)) << mode;  // truncated by the open, nothing written
    }
    EXPECT_TRUE(cap.records().empty());
}

TEST_F(ThermalInfo, AbsentModeNodeWinsOverAnInvalidMode) {
    remove(kThermalModeNode);
    Capture cap(3, 0, 0);
    EXPECT_EQ(-2, setThermalMode(7));
    std::vector<std::string> android = cap.texts(Sink::Android, "ThermalInfo");
    ASSERT_EQ(1u, android.size());
    EXPECT_EQ(
        "[setThermalMode] Open File Node(/proc/driver/cl_apu_status) Error "
        "(setThermalMode){#104:utils/sys/ThermalInfo.cpp}",
        android[0]);
    EXPECT_TRUE(cap.hasAndroid(ANDROID_LOG_ERROR, "ThermalInfo", android[0]));
    std::vector<std::string> ulog = cap.texts(Sink::ULog, "ThermalInfo");
    ASSERT_EQ(1u, ulog.size());
    EXPECT_EQ("[setThermalMode] Open File Node(/proc/driver/cl_apu_status) Error", ulog[0]);
}

}  // namespace
