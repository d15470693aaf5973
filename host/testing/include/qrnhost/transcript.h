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
//   t.step("init");
//   t.note(ctrl->init() ? "-> true" : "-> false");
//   const std::string diff = t.compare("golden/init.txt", "out/init.txt");
//   EXPECT_TRUE(diff.empty()) << diff;
//
// A transcript file is data, written and reviewed line by line; lines
// starting with '#' are comments. Nothing here ever writes the golden file.
// A Script (below) runs the steps that a transcript file names.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <type_traits>
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

// The arguments of a step: the words between its parentheses, split at
// commas, blanks trimmed. One that is missing, or not a number where a
// number is asked for, reads as "" or 0 and is reported by Script::run.
class Args {
  public:
    Args(std::vector<std::string> words, std::string* problem) : mWords(std::move(words)), mProblem(problem) {}
    size_t size() const { return mWords.size(); }
    std::string text(size_t i) const;
    // As strtoll reads it, in base 0 (0x1A, 010, -5).
    long long operator[](size_t i) const;

  private:
    std::vector<std::string> mWords;
    std::string* mProblem;
};

// A scenario whose steps are read from its own transcript file: each
// "== " line there runs the action named by the text before its "(" (or
// by the whole text), with the words in the parentheses as arguments. A
// transcript then is the scenario: written once, read by people and run.
// What an action returns is noted after its step: "-> true" or "-> false"
// for a bool, "-> N" for a number, "-> text" for a string.
//
//   qrnhost::testing::Script s(t);
//   s.on("init", [&] { return ctrl->init(); });
//   s.on("cpuPerformanceMode", [&](const Args& a) { return ctrl->cpuPerformanceMode(a[0]); });
//   const std::string diff = s.run("golden/init.txt", "out/init.txt");
//
// "setprop(KEY, VALUE)" is known to every script.
class Script {
  public:
    explicit Script(Transcript& t);

    template <typename F>
    Script& on(const std::string& name, F action) {
        mActions[name] = [t = &mT, action](const Args& a) {
            auto call = [&] {
                if constexpr (std::is_invocable_v<F, const Args&>)
                    return action(a);
                else
                    return action();
            };
            using R = decltype(call());
            if constexpr (std::is_void_v<R>)
                call(), (void)t;
            else if constexpr (std::is_same_v<R, bool>)
                t->note(call() ? "-> true" : "-> false");
            else if constexpr (std::is_arithmetic_v<R>)
                t->note("-> " + std::to_string(call()));
            else
                t->note("-> " + std::string(call()));
        };
        return *this;
    }

    // Runs the steps of golden in order, then compares as Transcript does.
    // A step without an action, or with arguments it cannot use, stops the
    // run and is reported first.
    std::string run(const std::string& golden, const std::string& actualFile);

  private:
    Transcript& mT;
    std::map<std::string, std::function<void(const Args&)>> mActions;
    std::string mProblem;
};

}  // namespace qrnhost::testing
