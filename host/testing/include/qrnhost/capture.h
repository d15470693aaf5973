// What camera code writes, as a test sees it: Android log lines (through
// liblog's logger hook), unified-logger lines (through a capturing logger in
// sULogger) and trace sections (through the host trace observer), all in one
// ordered record, so that a test can check the order across sinks.
//
//   qrnhost::testing::Capture cap;  // both sinks, DEBUG and up
//   __android_log_print(ANDROID_LOG_WARN, "CaptureStage", "frame %d late", 7);  // the code under test
//   EXPECT_TRUE(cap.hasAndroid(ANDROID_LOG_WARN, "CaptureStage", "frame 7 late"));
//
// Link qrncam_sysutils::capture (or the whole harness, which includes it).
//
// Captures nest: one made while another lives stacks on it. Every Capture
// alive receives every line and section; the newest one's controls (output
// mode, details level, mask, trace tag) are in force while it lives, and the
// older one's come back when it goes. Lines nobody captures go to stderr, as
// liblog writes them on a workstation.
#pragma once

#include <android/log.h>  // the ANDROID_LOG_* priorities that records carry
#include <stdint.h>

#include <qrncam/utils/ULog.h>
#include <qrnhost/locking.h>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace qrnhost::testing {

enum class Sink { Android, ULog, TraceBegin, TraceEnd, Note };

struct Record {
    Sink sink;
    int priority = 0;     // Android priority (Android sink)
    int32_t level = 0;    // unified-logger level (ULog sink)
    uint32_t module = 0;  // ULog sink
    std::string tag;      // both log sinks
    std::string text;     // message, section name for TraceBegin, or a note's text
    int64_t length = 0;   // ULog sink: the length argument as passed
    size_t held = 0;      // ULog sink: strlen of the buffer handed over
    int tid = 0;
};

// How long a wait of the harness waits when the test names no deadline.
inline constexpr std::chrono::milliseconds kDefaultWait = std::chrono::seconds(10);

// Failures the harness finds by itself (a wait whose deadline passed, a
// kernel node the library never touches) go to the reporter: by default a
// line on stderr, and with testing_main (testing_main.h) a failure of the
// running test. The call that found it also returns false. setFailureReporter
// returns the reporter it replaces; an empty function restores the default.
using FailureReporter = std::function<void(const std::string& message)>;
FailureReporter setFailureReporter(FailureReporter reporter);
void reportFailure(const std::string& message);

// Captures everything from construction to destruction. Sets the unified
// logger's controls to the values given (output mode, details level, module
// mask; the defaults open both sinks to every module's DEBUG lines) and
// restores the old ones after. cameraTrace sets the trace tags property
// ("debug.atrace.tags.enableflags") to the camera tag alone, or to none, and
// the destructor puts back the value it had.
class Capture : public NSCam::Utils::ULog::ULogger {
  public:
    explicit Capture(uint32_t mode = 3, uint32_t detailsLevel = 5, uint32_t mask = 0x40107000, bool cameraTrace = true);
    ~Capture() override;
    Capture(const Capture&) = delete;
    Capture& operator=(const Capture&) = delete;

    // Records one unified-logger line in this Capture alone.
    void logNormal(uint32_t moduleId, const char* tag, int32_t level, const char* text, int64_t length) override;

    std::vector<Record> records() const;
    std::vector<Record> records(Sink sink) const;
    // Texts of the lines of one sink (Android or ULog), optionally of one tag.
    std::vector<std::string> texts(Sink sink, const std::string& tag = std::string()) const;
    // Names of the trace sections begun, in order.
    std::vector<std::string> sectionsBegun() const;
    size_t sectionsEnded() const;
    bool hasAndroid(int priority, const std::string& tag, const std::string& text) const;
    void clear();
    // Keeps only the newest n records from now on (0: all, the default), for
    // a Capture that lives long; dropped() counts those let go.
    void keepLast(size_t n);
    size_t dropped() const;
    // Adds a line of the test's own (a call seen by a simulator, a step) in
    // its place among the captured records.
    void note(std::string text);

    // Stops the first thread that logs text (to either sink) or begins a
    // trace section of that name, from now on, until release(). What the
    // test does in between happens at that exact point of the other
    // thread's call: a controller destroyed while its serviceDied() runs on
    // the runtime thread, say.
    //   cap.holdAt("[serviceDied] IPower hidl service died");
    //   qt::kill(qt::powerService());
    //   ASSERT_TRUE(cap.waitUntilHeld());
    //   ctrl->destroyInstance();  // while its serviceDied() runs
    //   cap.release();
    // waitUntilHeld() returns true once a thread is held (or was released
    // again), and false, reporting what it waited for, when no thread logged
    // the text within the deadline or no holdAt() is armed. The destructor
    // releases a thread still held.
    void holdAt(std::string text);
    bool waitUntilHeld(std::chrono::milliseconds timeout = kDefaultWait);
    void release();

  private:
    friend struct CaptureHooks;
    void add(Record r);

    enum class Hold { None, Armed, Held, Released };
    mutable std::mutex mLock;
    std::condition_variable mHoldChanged;
    std::deque<Record> mRecords QRNHOST_GUARDED_BY(mLock);
    size_t mKeep QRNHOST_GUARDED_BY(mLock) = 0;
    size_t mDropped QRNHOST_GUARDED_BY(mLock) = 0;
    Hold mHold QRNHOST_GUARDED_BY(mLock) = Hold::None;
    std::string mHoldText QRNHOST_GUARDED_BY(mLock);
    uint32_t mSavedMode, mSavedLevel, mSavedMask;
    std::string mSavedTrace;  // the trace tags property before, "" when unset
    int mDispatching = 0;     // lines being handed to this Capture; guarded by the stack's lock
};

// A record as a transcript shows it (see transcript.h), e.g.
// "W Cam3CPUCtrl_util: [loadPerfAPI] ..."; the source line of an error
// suffix shows as L.
std::string describe(const Record& r);
// text with newlines as \n and other control or non-ASCII bytes as \xNN.
std::string printable(const std::string& text);

// A fresh directory under TMPDIR (or /tmp), removed with its contents on
// destruction. Aborts if none can be made: a test cannot go on without it.
class TempDir {
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return mPath; }
    std::string file(const std::string& name) const { return mPath + "/" + name; }

  private:
    std::string mPath;
};

// A whole file's bytes ("" when it cannot be read), and a file replaced by
// content.
std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& content);

}  // namespace qrnhost::testing
