// The harness as a camera engineer's test meets it, against the library
// itself: what a test leaves is named, waits end, a call that ends the
// process is proven in a child, testing_main watches a whole program, and
// the named nodes and properties are the ones the library uses.
#include <Cam3CPUCtrl.h>
#include <IFileCache.h>
#include <MemoryInfo.h>
#include <ThermalInfo.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <qrnhost/testing.h>
#include <thread>
#include "Support.h"

namespace {

namespace qt = qrnhost::testing;
using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using Ctrl = Utils::Cam3CPUCtrl;

std::vector<std::string> leftovers() {
    std::vector<std::string> out;
    for (const qt::Leftover& l : qt::leftovers()) out.push_back(std::string(qt::leftName(l.kind)) + ": " + l.what);
    return out;
}

const std::string kPowerService = "vendor.quarnel.hardware.power@2.0::IPower/default";
const std::string kCameraPerfLock =
    "lock 1 {0x01404300, 0x00000001, 0x01404100, 0x00000001} until released (camera perf mode: enterCameraPerf)";

TEST(Leftovers, EachItemHeldIsNamedUnlessDeclaredAndAResetHidesNone) {
    property_set(qt::prop::kCameraPreferIdle, "0");
    qt::markClean();
    property_set(qt::prop::kCameraPreferIdle, "1");
    qt::TempDir dir;
    auto sim = qt::startPowerService();
    Ctrl* ctrl = Ctrl::createInstance();
    ctrl->init();
    ctrl->cpuPerformanceMode(0);
    ctrl->enterCameraPerf();
    ctrl->enterNoTempa();
    android::sp<NSCam::IFileCache> cache = NSCam::IFileCache::open(dir.file("open.raw").c_str());
    property_set(qt::prop::kFileCacheLog, "1");
    qt::leaveOnPurpose(qt::Left::PerfLock, "enterNoTempa");
    const std::string stillOpen = "dump: " + dir.file("open.raw") + ": its cache is still open";
    EXPECT_THAT(leftovers(),
                ElementsAre(StartsWith("scenario: power service \"default\": scenario 1: enabled"),
                            "perf lock: " + kCameraPerfLock, "death recipient: 1 linked to " + kPowerService,
                            StartsWith(stillOpen), "property: vendor.cam3dev.cpupreferidle=1 (was 0)",
                            "property: vendor.debug.file_cache.log=1 (was unset)"));

    // Reset before the code has let go: nothing is hidden.
    qt::reset();
    const std::string reset = ", until reset() took it away";
    EXPECT_THAT(leftovers(), AllOf(Contains(AllOf(StartsWith("scenario: "), HasSubstr(reset))),
                                   Contains("perf lock: " + kCameraPerfLock + reset),
                                   Contains("death recipient: 1 linked to " + kPowerService + reset),
                                   Contains(AllOf(StartsWith(stillOpen), HasSubstr(reset)))));
    cache.clear();
    EXPECT_TRUE(qt::waitForDumps());
    ctrl->destroyInstance();
    qt::markClean();  // what this test left was the point of it
    EXPECT_THAT(leftovers(), ElementsAre());
}

// Fifty dumps, all complete once the wait returns; and a worker that cannot
// get on (its file is a pipe nobody reads yet) ends the wait, named.
TEST(Waits, DumpsAreCompleteWhenTheWaitReturnsAndAStuckFlushIsNamed) {
    qt::TempDir dir;
    const std::string frame(64 << 10, 'f');
    for (int i = 0; i < 50; ++i) {
        android::sp<NSCam::IFileCache> fc = NSCam::IFileCache::open(dir.file(std::to_string(i)).c_str());
        fc->write(frame.data(), frame.size()), fc->write(frame.data(), frame.size());
    }
    ASSERT_TRUE(qt::waitForDumps());
    for (int i = 0; i < 50; ++i) EXPECT_EQ(2 * frame.size(), qt::readFile(dir.file(std::to_string(i))).size()) << i;

    const std::string pipe = dir.file("pipe"), after = dir.file("after");
    ASSERT_EQ(0, mkfifo(pipe.c_str(), 0600));
    NSCam::IFileCache::open(pipe.c_str())->write("p", 1);
    NSCam::IFileCache::open(after.c_str())->write("a", 1);
    {
        qrntest::Reported reported;
        EXPECT_FALSE(qt::waitForDumps(std::chrono::milliseconds(50)));
        EXPECT_THAT(reported.messages(), ElementsAre("waitForDumps(): the flushes of " + pipe + ", " + after +
                                                     " were not over within 50 ms (is the file cache's worker "
                                                     "held?)"));
    }
    const int reader = open(pipe.c_str(), O_RDONLY);
    EXPECT_TRUE(qt::waitForDumps());
    close(reader);
    EXPECT_EQ("a", qt::readFile(after));
}

TEST(Waits, AHoldThatNoThreadReachesEndsTheWaitNamed) {
    qt::Capture cap;
    qrntest::Reported reported;
    EXPECT_FALSE(cap.waitUntilHeld(std::chrono::milliseconds(0)));
    cap.holdAt("[init] never");
    EXPECT_FALSE(cap.waitUntilHeld(std::chrono::milliseconds(20)));
    EXPECT_THAT(reported.messages(),
                ElementsAre("Capture::waitUntilHeld(): no holdAt() is armed, so no thread can be held",
                            "Capture::waitUntilHeld(): no thread logged \"[init] never\" or began a section of that "
                            "name within 20 ms"));
}

// Captures nest: both see what happens while both live, the newest one's
// controls are in force, and the older one goes on with its own after.
TEST(Captures, ASecondCaptureStacksOnTheFirst) {
    using ULogger = NSCam::Utils::ULog::ULogger;
    auto say = [](const char* text) {
        __android_log_print(ANDROID_LOG_WARN, "stage", "%s", text);
        ULogger::sULogger->logNormal(0x40007001, "stage", 2, text, 3);
    };
    std::vector<std::string> innerSaw;
    qt::Capture outer(1, 2, 0, false);
    outer.keepLast(5);
    say("one");
    {
        qt::Capture inner(3, 5, 0x40107000, true);
        EXPECT_EQ(3u, ULogger::sMode);
        EXPECT_EQ(0x40107000u, ULogger::sNormalDetailsMask);
        EXPECT_EQ(0x400, property_get_int32(qt::prop::kTraceTags, 0));
        say("two");
        innerSaw = inner.texts(qt::Sink::Android);
    }
    EXPECT_EQ(1u, ULogger::sMode);
    EXPECT_EQ(0, property_get_int32(qt::prop::kTraceTags, -1));
    say("three");
    EXPECT_EQ(std::vector<std::string>{"two"}, innerSaw);
    EXPECT_EQ((std::vector<std::string>{"two", "three"}), outer.texts(qt::Sink::Android));
    EXPECT_EQ((std::vector<std::string>{"one", "two", "three"}), outer.texts(qt::Sink::ULog));
    EXPECT_EQ(1u, outer.dropped());
    { qt::Capture last; }
    char after[PROPERTY_VALUE_MAX] = {};
    property_get(qt::prop::kTraceTags, after, "");
    EXPECT_STREQ("0", after);  // the outer one's, put back by the one made after it
}

TEST(Harness, TheNamedNodesAndPropertiesAreTheOnesTheLibraryUses) {
    qt::KernelNodes nodes;
    ASSERT_TRUE(nodes.set(qt::node::kApTemperature, "452\n"));
    EXPECT_EQ(452, NSCam::NSThermalInfo::getSystemThermalValue());
    ASSERT_TRUE(nodes.set(qt::node::kThermalMode, ""));
    EXPECT_EQ(0, NSCam::NSThermalInfo::setThermalMode(1));
    EXPECT_EQ("1", nodes.contents(qt::node::kThermalMode));
    ASSERT_TRUE(nodes.set(qt::node::kMemInfo, "MemTotal: 1048576 kB\nMemFree: 1 kB\nBuffers: 1 kB\nCached: 1 kB\n"));
    EXPECT_EQ(int64_t(1) << 30, NSCam::NSMemoryInfo::getSystemTotalMemorySize());
    {
        qrntest::Reported reported;
        EXPECT_FALSE(nodes.set("/proc/qrntz/qrntsBP", "1"));
        EXPECT_FALSE(nodes.remove("/proc/meminfo "));
        const std::string known =
            "\"): the library never opens that path; the nodes it reads and writes are "
            "/proc/meminfo, /proc/qrntz/qrntsAP, /proc/driver/cl_apu_status";
        EXPECT_THAT(reported.messages(), ElementsAre("KernelNodes::set(\"/proc/qrntz/qrntsBP" + known,
                                                     "KernelNodes::remove(\"/proc/meminfo " + known));
    }

    qt::TempDir dir;
    auto sim = qt::startPowerService();
    Ctrl* ctrl = Ctrl::createInstance();
    ctrl->init();
    property_set(qt::prop::kCameraPerf, "false");
    EXPECT_FALSE(ctrl->enterCameraPerf());
    EXPECT_TRUE(qrnhost::perf::journal().empty());
    EXPECT_FALSE(ctrl->enablePreferIdle());
    property_set(qt::prop::kCameraPreferIdle, "1");
    EXPECT_TRUE(ctrl->enablePreferIdle());
    ctrl->uninit();
    ctrl->destroyInstance();
    property_set(qt::prop::kFileCacheBudget, "10");
    property_set(qt::prop::kFileCacheLog, "1");
    qt::Capture cap;
    android::sp<NSCam::IFileCache> fc = NSCam::IFileCache::open(dir.file("f").c_str());
    EXPECT_EQ(-1, fc->write("0123456789a", 11));
    EXPECT_TRUE(cap.hasAndroid(ANDROID_LOG_INFO, "file_cache", "Initialize FileCache <" + dir.file("f") + ">"));
    fc.clear();
    qt::reset();
}

// Calls that end the process on a device end a child here, and the test
// learns how: a failed registerScenario, and a request that meets a killed
// service before its death notice arrived.
TEST(HarnessChildTest, ACallThatEndsTheProcessIsProvenInAChild) {
    const qt::ChildEnd failed = qt::runInChild([] {
        qt::startPowerService()->injectTransportFailure(qrnhost::power::Op::RegisterScenario,
                                                        qt::transportFailure("binder gone"));
        Ctrl* ctrl = Ctrl::createInstance();
        ctrl->init();
        ctrl->cpuPerformanceMode(0);
    });
    EXPECT_TRUE(failed.aborted()) << failed.describe();
    EXPECT_THAT(failed.output, HasSubstr("Attempted to retrieve value from failed HIDL call: "
                                         "Status(EX_TRANSACTION_FAILED): 'FAILED_TRANSACTION: binder gone'"));

    // The death notice is on its way when the child is made: the runtime
    // thread is held in serviceDied() before the controller lets go of the
    // service. (The child starts no thread: neither ThreadSanitizer nor
    // qemu-user allow one after the fork of a threaded process.)
    qt::startPowerService();
    Ctrl* ctrl = Ctrl::createInstance();
    ctrl->init();
    qt::Capture cap;
    cap.holdAt("[serviceDied] IPower hidl service died");
    ASSERT_TRUE(qt::kill(qt::powerService()));
    ASSERT_TRUE(cap.waitUntilHeld());
    const qt::ChildEnd killed = qt::runInChild([ctrl] { ctrl->cpuPerformanceMode(0); });
    cap.release();
    EXPECT_TRUE(killed.aborted()) << killed.describe();
    EXPECT_THAT(killed.output, HasSubstr("Attempted to retrieve value from failed HIDL call: "
                                         "Status(EX_TRANSACTION_FAILED): 'DEAD_OBJECT: '"));
    ASSERT_TRUE(qt::waitForDeathNotices(qt::powerService()));
    ctrl->uninit();
    ctrl->destroyInstance();
}

TEST(HarnessChildTest, HowAChildEndedIsReported) {
    const qt::ChildEnd returned = qt::runInChild([] { printf("out\n"), fflush(stdout), fprintf(stderr, "err\n"); });
    EXPECT_TRUE(returned.exited && returned.exitStatus == 0 && !returned.aborted()) << returned.describe();
    EXPECT_EQ("exited with status 0; its output:\nout\nerr\n", returned.describe());
    const qt::ChildEnd exited = qt::runInChild([] { _exit(3); });
    EXPECT_EQ("exited with status 3, no output", exited.describe());
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the child's runtime thread would be a thread after a fork, which ThreadSanitizer refuses";
#endif
    const qt::ChildEnd killed = qt::runInChild([] { raise(SIGKILL); });
    EXPECT_EQ("ended by signal 9 (Killed), no output", killed.describe());
    std::string lines;
    for (int i = 1; i <= 30; ++i) lines += std::to_string(i) + "\n";
    const qt::ChildEnd stuck = qt::runInChild(
        [&] {
            printf("%s", lines.c_str()), fflush(stdout);
            pause();
        },
        std::chrono::milliseconds(100));
    EXPECT_TRUE(stuck.timedOut);
    EXPECT_EQ(
        "still running at the deadline (killed); its output ends with:\n" + lines.substr(lines.find("\n11\n") + 1),
        stuck.describe());
}

// A program run by testing_main (tests/platform/watched_main.cpp): each of
// its tests starts fresh, one that leaves something held fails with the
// item named, and a failed one shows what the harness saw.
TEST(HarnessChildTest, TestingMainWatchesEveryTestOfAProgram) {
    const qrntest::ChildResult r = qrntest::runChild({QRNCAM_WATCHED_MAIN});
    EXPECT_TRUE(WIFEXITED(r.status) && WEXITSTATUS(r.status) == 1) << r.output;
    const auto failed = [&](const std::string& test) {
        return r.output.find("[  FAILED  ] Watched." + test + " (") != std::string::npos;
    };
    EXPECT_TRUE(failed("LeavesTheCameraPerfLockHeld") && failed("SetsAPropertyAndARefusal") &&
                failed("WaitsForALineNeverLogged") && failed("FailsAndShowsWhatHappened"))
        << r.output;
    EXPECT_FALSE(failed("StartsOnAFreshPlatform") || failed("LeavesALockOnPurpose")) << r.output;
    EXPECT_THAT(r.output, HasSubstr("the test left a perf lock behind: " + kCameraPerfLock));
    EXPECT_THAT(r.output, HasSubstr("the test left a property behind: vendor.cam3dev.idleprefer.enable=0 (was unset)"));
    EXPECT_THAT(r.output, HasSubstr("Capture::waitUntilHeld(): no thread logged \"never\""));
    EXPECT_THAT(r.output, HasSubstr("[ qrnhost ] what Watched.FailsAndShowsWhatHappened did, as the harness saw it:\n"
                                    "--- captured: all "));
    EXPECT_THAT(r.output, HasSubstr("D Cam3CPUCtrl_util: [init] First user\n"));
    EXPECT_THAT(r.output, HasSubstr("--- calls on the perf-lock library: all 1 ---\n"
                                    "perf_lock_acq(0, 0, {0x02004000, 0x00000000}, 2) = 1\n"));
}

}  // namespace
