// A scenario's whole observable output as text, to compare with a transcript
// file kept beside the tests. The output, in the order it happened:
//     D QrnCam/CpuCtrl: [init] +           Android log: level letter, tag, text
//     u5 QrnCam/CpuCtrl[0x40007001]: ...    unified logger: level, tag, module
//                                           (and "(length N)" when the length
//                                           passed differs from the text held)
//     > CpuCtrl::init  /  <                 trace section begun / ended
//     power: configScenario(1, 1, 0, 4, 0, 0)
//     perf: perf_lock_acq(0, 3000, {...}, 2) = 1
//     file NAME: N bytes "content"          a file the scenario left
//     == text                               the scenario's own step marker
// The source line in an ERROR line's suffix shows as {#L:path}: it moves
// with every edit of the file.
//
//   #include <Cam3CPUCtrl.h>
//   #include <qrnhost/testing.h>
//   qt::TempDir dir;
//   qt::writeFile(dir.file("init.txt"), "== init\n-> true\n");  // kept beside the tests, reviewed
//   auto sim = qt::startPowerService();
//   Utils::Cam3CPUCtrl* ctrl = Utils::Cam3CPUCtrl::createInstance();
//   qt::Capture cap(1, 2, 0, false);  // WARN and ERROR lines of the Android log only
//   qt::Transcript t(cap, sim);
//   t.step("init");
//   t.note(ctrl->init() ? "-> true" : "-> false");
//   const std::string diff = t.compare(dir.file("init.txt"), dir.file("out/init.txt"));
//   EXPECT_TRUE(diff.empty()) << diff;
//   ctrl->uninit();
//   ctrl->destroyInstance();
//
// A transcript file is data, written and reviewed line by line; lines
// starting with '#' are comments. Nothing here ever writes the golden file.
// A Script (below) runs the steps that a transcript file names. The actual
// transcript that compare() writes beside carries the kept file's comments
// where they fit, and `qrncam-transcripts DIR` (installed with the harness)
// shows how every actual transcript in DIR differs from its kept one.
#pragma once

#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <qrnhost/PowerSim.h>
#include <qrnhost/capture.h>

namespace qrnhost::testing {

class Transcript {
  public:
    // Records what cap captures from now on, the calls of sim and those of
    // the simulated perf-lock library. With a null sim it follows the
    // simulator registered as the "default" power service, now and whenever
    // another one is registered there, and says so in compare()'s report
    // when there was none.
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

    // Forgets what was recorded so far: lines() starts here.
    void restart();

    std::vector<std::string> lines() const;
    // Compares the lines with the transcript file golden. Returns "" when
    // they agree (and removes a stale actualFile). Otherwise writes the
    // actual transcript to actualFile, unless that is "" (its first line
    // names golden), and returns where the two first differ, by the kept
    // file's own line number, and a unified diff of the kept file and the
    // actual transcript.
    std::string compare(const std::string& golden, const std::string& actualFile) const;

  private:
    void follow(const android::sp<power::SimPowerService>& sim);

    Capture& mCap;
    mutable std::mutex mLock;
    android::sp<power::SimPowerService> mSim QRNHOST_GUARDED_BY(mLock);
    bool mFollowed QRNHOST_GUARDED_BY(mLock) = false;  // some simulator was followed
    int mRegistrations = 0;                            // observer id while following the default service
    size_t mStart = 0;  // the transcript's first record, counted from the Capture's start
    std::vector<std::pair<std::string, std::string>> mReplace;
};

// The arguments of a step: the words between its parentheses, split at
// commas, blanks trimmed. One that is missing, or not a number where a
// number is asked for, reads as "" or 0 and is reported by Script::run, as
// is one that the action never reads.
class Args {
  public:
    Args(std::vector<std::string> words, std::string* problem) : mWords(std::move(words)), mProblem(problem) {}
    size_t size() const { return mWords.size(); }
    std::string text(size_t i) const;
    // As strtoll reads it, in base 0 (0x1A, 010, -5).
    long long operator[](size_t i) const;
    // How many of the words, from the first, the action has read.
    size_t used() const { return mUsed; }

  private:
    std::vector<std::string> mWords;
    std::string* mProblem;
    mutable size_t mUsed = 0;
};

// A scenario whose steps are read from its own transcript file: each
// "== " line there runs the action named by the text before its "(" (or
// by the whole text), with the words in the parentheses as arguments. A
// transcript then is the scenario: written once, read by people and run.
// What an action returns is noted after its step: "-> true" or "-> false"
// for a bool, "-> N" for a number, "-> text" for a string.
//
//   #include <Cam3CPUCtrl.h>
//   #include <qrnhost/testing.h>
//   qt::TempDir dir;
//   qt::writeFile(dir.file("mode.txt"),
//                 "# A performance mode of 5 s on the first scenario.\n"
//                 "== init\n-> true\n"
//                 "== cpuPerformanceMode(5000)\n"
//                 "power: registerScenario() -> 1\n"
//                 "power: configScenario(1, 5, 1, 0, 0, 0)\n"
//                 "power: enableScenario(1, 5000)\n"
//                 "-> true\n"
//                 "== uninit\n"
//                 "power: disableScenario(1)\n"
//                 "power: unregisterScenario(1)\n"
//                 "-> true\n");
//   auto sim = qt::startPowerService();
//   Utils::Cam3CPUCtrl* ctrl = Utils::Cam3CPUCtrl::createInstance();
//   qt::Capture cap(1, 2, 0, false);
//   qt::Transcript t(cap, sim);
//   qt::Script s(t);
//   s.on("init", [&] { return ctrl->init(); });
//   s.on("uninit", [&] { return ctrl->uninit(); });
//   s.on("cpuPerformanceMode", [&](const qt::Args& a) { return ctrl->cpuPerformanceMode(int(a[0])); });
//   const std::string diff = s.run(dir.file("mode.txt"), dir.file("out/mode.txt"));
//   EXPECT_TRUE(diff.empty()) << diff;
//   ctrl->destroyInstance();
//
// "setprop(KEY, VALUE)" is known to every script. Each run() starts a fresh
// transcript (Transcript::restart()), so one Script can run several files.
class Script {
  public:
    explicit Script(Transcript& t);

    template <typename F>
    Script& on(const std::string& name, F action) {
        constexpr bool kTakesArgs = std::is_invocable_v<F, const Args&>;
        mActions[name] = Action{kTakesArgs, [t = &mT, action](const Args& a) {
                                    auto call = [&] {
                                        if constexpr (kTakesArgs) {
                                            return action(a);
                                        } else {
                                            (void)a;
                                            return action();
                                        }
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
                                }};
        return *this;
    }

    // Runs the steps of golden in order, then compares as Transcript does.
    // A step without an action, or with arguments it cannot use or does not
    // take, stops the run and is reported first, with its line in golden.
    std::string run(const std::string& golden, const std::string& actualFile);

  private:
    struct Action {
        bool takesArgs;
        std::function<void(const Args&)> run;
    };
    Transcript& mT;
    std::map<std::string, Action> mActions;
    std::string mProblem;
};

}  // namespace qrnhost::testing
