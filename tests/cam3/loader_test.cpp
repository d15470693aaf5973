// The perf-lock loader, each case in a process of its own: library absent,
// present without one of its entry points, and present.
#include <Cam3CPUCtrl.h>
#include <gmock/gmock.h>
#include <sys/wait.h>

#include <qrnhost/capture.h>
#include <sstream>

#include "Support.h"

namespace {

namespace qt = qrnhost::testing;

using ::testing::ElementsAre;
using ::testing::Matcher;

// Two constructions, one after the other, then the six operations.
std::vector<std::string> runLoader(const std::string& libDir) {
    qrntest::ChildResult r = qrntest::runChild({QRN_LOADER_CHILD}, {"LD_LIBRARY_PATH=" + libDir});
    EXPECT_TRUE(WIFEXITED(r.status) && WEXITSTATUS(r.status) == 0) << r.output;
    std::vector<std::string> lines;
    std::istringstream in(r.output);
    for (std::string l; std::getline(in, l);) lines.push_back(l);
    return lines;
}

// The loader's warnings end in a newline of their own, shown as \n.
Matcher<const std::string&> warning(const std::string& what) {
    return ::testing::MatchesRegex("  W Cam3CPUCtrl_util: \\[loadPerfAPI\\] " + what + ".*\\\\n");
}

TEST(PerfLockLoader, RetriedUntilLoadedThenOnlyCopied) {
    // Without the library every enter declines and the exits have nothing to do.
    qt::TempDir empty;
    const auto absent = warning("dlopen fail: .*libqrnperf_client_vendor\\.so");
    EXPECT_THAT(runLoader(empty.path()),
                ElementsAre("round 1 dlopen=1 acq=0 rel=0 mapped=0", absent, "round 2 dlopen=1 acq=0 rel=0 mapped=0",
                            absent, "ops 0 0 0 1 1 1"));
    // A missing entry point closes the library and forgets both: each round
    // looks up perf_lock_acq again.
    const auto noRel = warning("perfLockRel error: .*perf_lock_rel");
    EXPECT_THAT(runLoader(QRN_PERF_NOREL_DIR),
                ElementsAre("round 1 dlopen=1 acq=0 rel=0 mapped=0", "  D Cam3CPUCtrl_util: [loadPerfAPI] load lib",
                            "  D Cam3CPUCtrl_util: [loadPerfAPI] load funcA", noRel,
                            "round 2 dlopen=1 acq=0 rel=0 mapped=0", "  D Cam3CPUCtrl_util: [loadPerfAPI] load lib",
                            "  D Cam3CPUCtrl_util: [loadPerfAPI] load funcA", noRel, "ops 0 0 0 1 1 1"));
    const auto noAcq = warning("perfLockAcq error: .*perf_lock_acq");
    EXPECT_THAT(runLoader(QRN_PERF_NOACQ_DIR),
                ElementsAre("round 1 dlopen=1 acq=0 rel=0 mapped=0", "  D Cam3CPUCtrl_util: [loadPerfAPI] load lib",
                            noAcq, "round 2 dlopen=1 acq=0 rel=0 mapped=0",
                            "  D Cam3CPUCtrl_util: [loadPerfAPI] load lib", noAcq, "ops 0 0 0 1 1 1"));
    // Loaded once, the second construction only copies the pointers, silently.
    EXPECT_THAT(
        runLoader(QRN_PERF_DIR),
        ElementsAre("round 1 dlopen=1 acq=1 rel=1 mapped=1", "  D Cam3CPUCtrl_util: [loadPerfAPI] load lib",
                    "  D Cam3CPUCtrl_util: [loadPerfAPI] load funcA", "  D Cam3CPUCtrl_util: [loadPerfAPI] load funcR",
                    "round 2 dlopen=0 acq=1 rel=1 mapped=1", "ops 1 1 1 1 1 1"));
}

TEST(PerfLockLoader, FoundThroughTheRunpathOfTheLibrary) {
    // This process links neither the simulator nor has it on a search path:
    // only the RUNPATH of libqrncam_sysutils.so leads there, as on a device.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizer's dlopen interceptor becomes the caller, so the library's RUNPATH is not searched";
#endif
    Utils::Cam3CPUCtrl* c = Utils::Cam3CPUCtrl::createInstance();
    EXPECT_TRUE(c->enterCPUBoost(0) && c->exitCPUBoost());
    c->destroyInstance();
}

}  // namespace
