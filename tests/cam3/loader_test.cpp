// The perf-lock loader, each case in a process of its own: library absent,
// present without one of its entry points, and present.
#include <Cam3CPUCtrl.h>
#include <Capture.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <sstream>
#include <string>
#include <vector>

namespace {

using ::testing::ElementsAre;
using ::testing::MatchesRegex;

std::vector<std::string> runLoader(const std::string& libDir, int rounds) {
    qrntest::ChildResult r =
        qrntest::runChild({QRN_LOADER_CHILD, std::to_string(rounds)}, {"LD_LIBRARY_PATH=" + libDir});
    EXPECT_TRUE(WIFEXITED(r.status) && WEXITSTATUS(r.status) == 0) << r.output;
    // Only the child's report: the logs themselves go to the capture.
    std::vector<std::string> lines;
    std::istringstream in(r.output);
    for (std::string l; std::getline(in, l);)
        if (l.rfind("round ", 0) == 0 || l.rfind("ops ", 0) == 0 || l.rfind("  ", 0) == 0) lines.push_back(l);
    return lines;
}

TEST(PerfLockLoader, AbsentLibraryIsRetriedOnEveryConstruction) {
    qrntest::TempDir empty;
    EXPECT_THAT(
        runLoader(empty.path(), 2),
        ElementsAre("round 1 dlopen=1 acq=0 rel=0 mapped=0",
                    MatchesRegex("  W \\[loadPerfAPI\\] dlopen fail: .*libqrnperf_client_vendor\\.so.*\\\\n"),
                    "round 2 dlopen=1 acq=0 rel=0 mapped=0", MatchesRegex("  W \\[loadPerfAPI\\] dlopen fail: .*\\\\n"),
                    // Without the library every operation declines
                    // silently, but for the entry line of enterNoTempa.
                    "ops 0 0 0 1 1 1", "  D [enterNoTempa] "));
}

TEST(PerfLockLoader, MissingReleaseClosesTheLibraryAndForgetsBothEntries) {
    // The second round looks up perf_lock_acq again: the cached one was
    // dropped with the library.
    const std::string rel = "  W \\[loadPerfAPI\\] perfLockRel error: .*perf_lock_rel.*\\\\n";
    EXPECT_THAT(runLoader(QRN_PERF_NOREL_DIR, 2),
                ElementsAre("round 1 dlopen=1 acq=0 rel=0 mapped=0", "  D [loadPerfAPI] load lib",
                            "  D [loadPerfAPI] load funcA", MatchesRegex(rel), "round 2 dlopen=1 acq=0 rel=0 mapped=0",
                            "  D [loadPerfAPI] load lib", "  D [loadPerfAPI] load funcA", MatchesRegex(rel),
                            "ops 0 0 0 1 1 1", "  D [enterNoTempa] "));
}

TEST(PerfLockLoader, MissingAcquireClosesTheLibrary) {
    EXPECT_THAT(runLoader(QRN_PERF_NOACQ_DIR, 1),
                ElementsAre("round 1 dlopen=1 acq=0 rel=0 mapped=0", "  D [loadPerfAPI] load lib",
                            MatchesRegex("  W \\[loadPerfAPI\\] perfLockAcq error: .*perf_lock_acq.*\\\\n"),
                            "ops 0 0 0 1 1 1", "  D [enterNoTempa] "));
}

TEST(PerfLockLoader, LoadedOnceThenOnlyCopied) {
    EXPECT_THAT(
        runLoader(QRN_PERF_DIR, 3),
        ElementsAre("round 1 dlopen=1 acq=1 rel=1 mapped=1", "  D [loadPerfAPI] load lib",
                    "  D [loadPerfAPI] load funcA", "  D [loadPerfAPI] load funcR",
                    "round 2 dlopen=0 acq=1 rel=1 mapped=1", "round 3 dlopen=0 acq=1 rel=1 mapped=1", "ops 1 1 1 1 1 1",
                    "  D [enterCameraPerf] enable camera idle prefer", "  D [enterCameraPerf] enter camera perf mode",
                    "  D [enterCPUBoost] enter CPU boost", "  D [enterNoTempa] ",
                    "  D [enterNoTempa] enter CPU No TEMPA", "  D [exitCameraPerf] exit camera perf mode",
                    "  D [exitCPUBoost] exit cpu boost", "  D [exitNoTempa] exit cpu NO TEMPA"));
}

TEST(PerfLockLoader, FoundThroughTheRunpathOfTheLibrary) {
    // This process links neither the simulator nor has it on a search path:
    // only the RUNPATH of libqrncam_sysutils.so leads there, as on a device.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizer's dlopen interceptor becomes the caller, so the library's RUNPATH is not searched";
#endif
    Utils::Cam3CPUCtrl* c = Utils::Cam3CPUCtrl::createInstance();
    EXPECT_TRUE(c->enterCPUBoost(0));
    EXPECT_TRUE(c->exitCPUBoost());
    c->destroyInstance();
}

}  // namespace
