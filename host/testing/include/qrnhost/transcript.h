// A scenario's whole observable output as text, to compare with a transcript
// file kept beside the tests. The output, in the order it happened:
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
// with every edit of the file.
//
//   qrnhost::testing::Capture cap;
//   qrnhost::testing::Transcript t(cap, sim);
//   qrnhost::testing::Steps run{t};
//   run("init", [&] { return ctrl->init(); });
//   const std::string diff = t.compare("golden/init.txt", "out/init.txt");
//   EXPECT_TRUE(diff.empty()) << diff;
//
// A transcript file is data, written and reviewed line by line; lines
// starting with '#' are comments. Nothing here ever writes the golden file.
#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <qrnhost/PowerSim.h>
#include <qrnhost/capture.h>

namespace qrnhost::testing {

class Transcript {
  public:
    // Records what cap captures, the calls of sim (may be null) and those of
    // the simulated perf-lock library.
    Transcript(Capture& cap, const android::sp<power::SimPowerService>& sim);
    ~Transcript();
    Transcript(const Transcript&) = delete;
    Transcript& operator=(const Transcript&) = delete;

    // Shown as "== what" in its place.
    void step(const std::string& what);
    // Shown as it is (a call's result, say).
    void note(const std::string& line);
    // Follows the calls of another simulator from now on (a service that was
    // registered again).
    void replaceSim(const android::sp<power::SimPowerService>& sim);
    // Lists the regular files of dir, by name, with their sizes and contents.
    void files(const std::string& dir);
    // Text that varies between runs (a temporary directory) and its stand-in.
    void replace(const std::string& text, const std::string& by);

    std::vector<std::string> lines() const;
    // Compares the lines with the transcript file golden. Returns "" when
    // they agree (and removes a stale actualFile). Otherwise writes the
    // actual transcript to actualFile, unless that is "", and returns the
    // first differing lines.
    std::string compare(const std::string& golden, const std::string& actualFile) const;

  private:
    Capture& mCap;
    android::sp<power::SimPowerService> mSim;
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

}  // namespace qrnhost::testing
