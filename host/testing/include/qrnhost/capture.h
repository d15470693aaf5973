// What camera code writes, as a test sees it: Android log lines (through
// liblog's logger hook), unified-logger lines (through a capturing logger in
// sULogger) and trace sections (through the host trace observer), all in one
// ordered record, so that a test can check the order across sinks.
//
//   qrnhost::testing::Capture cap;           // both sinks, DEBUG and up
//   ... run the camera code ...
//   EXPECT_TRUE(cap.hasAndroid(ANDROID_LOG_WARN, "Cam3CPUCtrl_util", "..."));
//
// Link qrncam_sysutils::capture (or the whole harness, which includes it).
// Only one Capture should be alive at a time: the newest receives the lines.
#pragma once

#include <stdint.h>

#include <qrncam/utils/ULog.h>
#include <qrnhost/locking.h>
#include <condition_variable>
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

// Captures everything from construction to destruction. Sets the unified
// logger's controls to the values given (output mode, details level, module
// mask; the defaults open both sinks to every module's DEBUG lines) and
// restores the old ones after; installs itself as sULogger. cameraTrace sets
// the trace tags property to the camera tag alone, or to none.
class Capture : public NSCam::Utils::ULog::ULogger {
  public:
    explicit Capture(uint32_t mode = 3, uint32_t detailsLevel = 5, uint32_t mask = 0x40107000, bool cameraTrace = true);
    ~Capture() override;
    Capture(const Capture&) = delete;
    Capture& operator=(const Capture&) = delete;

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
    //   cap.waitUntilHeld();
    //   ... destroy the controller ...
    //   cap.release();
    // The destructor releases a thread still held.
    void holdAt(std::string text);
    void waitUntilHeld();
    void release();

  private:
    friend struct CaptureHooks;
    void add(Record r);

    enum class Hold { None, Armed, Held, Released };
    mutable std::mutex mLock;
    std::condition_variable mHoldChanged;
    std::vector<Record> mRecords QRNHOST_GUARDED_BY(mLock);
    Hold mHold QRNHOST_GUARDED_BY(mLock) = Hold::None;
    std::string mHoldText QRNHOST_GUARDED_BY(mLock);
    uint32_t mSavedMode, mSavedLevel, mSavedMask;
    ULogger* mSavedLogger;
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
