// A scenario's whole observable output as text, compared with a transcript
// kept beside the tests (tests/<area>/golden/<name>.txt). The output, in the
// order it happened:
//   D QrnCam/CpuCtrl: [init] +           Android log: level letter, tag, text
//   u5 QrnCam/CpuCtrl[0x40007001]: ...    unified logger: level, tag, module
//                                         (and "(length N)" when the length
//                                         passed differs from the text held)
//   > CpuCtrl::init  /  <                 trace section begun / ended
//   power: configScenario(1, 1, 0, 4, 0, 0)
//   perf: perf_lock_acq(0, 3000, {...}, 2) = 1
//   file NAME: N bytes "content"          a file the scenario left
//   == text                               the scenario's own step marker
// The source line in an ERROR line's suffix shows as {#L:path}: it moves
// with every edit of the file, and the facade's test checks the number.
//
// A transcript file is data, written and reviewed line by line; lines
// starting with '#' are comments. A mismatch fails the test and writes the
// actual transcript under the build's transcripts/ directory, where
// tools/transcripts.sh shows the differences; nothing ever updates the
// golden file but an edit of it.
#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <qrnhost/PowerSim.h>

#include "Capture.h"

namespace qrntest {

class Transcript {
  public:
    // Records what cap captures, the calls of sim (may be null) and those of
    // the simulated perf-lock library.
    Transcript(Capture& cap, const android::sp<qrnhost::power::SimPowerService>& sim);
    ~Transcript();
    Transcript(const Transcript&) = delete;
    Transcript& operator=(const Transcript&) = delete;

    // Shown as "== what" in its place.
    void step(const std::string& what);
    // Shown as it is (a call's result, say).
    void note(const std::string& line);
    // Follows the calls of another simulator from now on (a service that was
    // registered again).
    void replaceSim(const android::sp<qrnhost::power::SimPowerService>& sim);
    // Lists the regular files of dir, by name, with their sizes and contents.
    void files(const std::string& dir);
    // Text that varies between runs (a temporary directory) and its stand-in.
    void replace(const std::string& text, const std::string& by);

    std::vector<std::string> lines() const;
    // Compares with goldenDir/name.txt; on a difference, adds a failure that
    // shows the first differing lines and where the actual transcript went.
    void check(const std::string& goldenDir, const std::string& name) const;

  private:
    Capture& mCap;
    android::sp<qrnhost::power::SimPowerService> mSim;
    std::vector<std::pair<std::string, std::string>> mReplace;
};

// One step of a scenario: its name, what it made happen, what it returned.
struct Steps {
    Transcript& t;
    void operator()(const std::string& what, const std::function<bool()>& call) const {
        t.step(what);
        t.note(call() ? "-> true" : "-> false");
    }
};

}  // namespace qrntest

// Tests of each area keep their transcripts in its golden/ directory.
#define QRN_CHECK_TRANSCRIPT(transcript, name) (transcript).check(QRNCAM_GOLDEN_DIR, name)
