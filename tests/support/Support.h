// What the tests share beyond the harness (qrnhost/testing.h): children run
// and watched, the file cache's exit drain, and the transcripts kept beside
// each area's tests.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <qrnhost/capture.h>
#include <mutex>
#include <string>
#include <vector>

namespace qrntest {

// Starts argv in a child whose standard output and error go to out (in a
// process group of its own if asked); returns its pid.
pid_t startChild(const std::vector<std::string>& argv, const std::vector<std::string>& env, int out,
                 bool ownGroup = false);

// Runs argv in a child, returns its exit status (as from waitpid) and its
// combined standard output and error.
struct ChildResult {
    int status = 0;
    std::string output;
};
ChildResult runChild(const std::vector<std::string>& argv, const std::vector<std::string>& env = {});

// While alive, what the harness reports (a wait that ran out, a refused
// node) is collected here instead of failing the running test.
class Reported {
  public:
    Reported();
    ~Reported();
    Reported(const Reported&) = delete;
    Reported& operator=(const Reported&) = delete;
    std::vector<std::string> messages() const;

  private:
    mutable std::mutex mLock;
    std::vector<std::string> mMessages QRNHOST_GUARDED_BY(mLock);
    qrnhost::testing::FailureReporter mPrevious;
};

// Runs the file cache's helper program (child) as "dump DIR" in a fresh
// directory: it exits with five caches' flushes still queued. Returns ""
// when it exited 0 and every dump file holds all its blocks, else what went
// wrong.
std::string exitDumpProblem(const std::string& child);

}  // namespace qrntest

// Compares a transcript with golden/NAME.txt of the test's area, or runs
// the script kept there. A difference fails the test and leaves the actual
// transcript under the build's transcripts/ directory, where
// tools/transcripts.sh shows it.
#define QRN_GOLDEN(name) QRNCAM_GOLDEN_DIR "/" name ".txt", QRNCAM_TRANSCRIPT_OUT "/" name ".txt"
#define QRN_EXPECT_NO_DIFF(diff)                                                                           \
    do {                                                                                                   \
        const std::string qrnDiff = (diff);                                                                \
        if (!qrnDiff.empty()) ADD_FAILURE() << qrnDiff << "(tools/transcripts.sh shows every difference)"; \
    } while (0)
#define QRN_CHECK_TRANSCRIPT(transcript, name) QRN_EXPECT_NO_DIFF((transcript).compare(QRN_GOLDEN(name)))
#define QRN_RUN_SCRIPT(script, name) QRN_EXPECT_NO_DIFF((script).run(QRN_GOLDEN(name)))
