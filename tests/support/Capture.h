// Test helpers that see what the library writes: Android log lines (through
// liblog's logger hook), unified-logger lines (through a capturing logger in
// sULogger) and trace sections (through the host trace observer), all in one
// ordered record so that tests can check the order across sinks.
#pragma once

#include <stdint.h>

#include <qrncam/utils/ULog.h>
#include <mutex>
#include <string>
#include <vector>

namespace qrntest {

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
// logger's controls to the values given (and restores the old ones after);
// installs itself as sULogger.
class Capture : public NSCam::Utils::ULog::ULogger {
  public:
    explicit Capture(uint32_t mode = 3, uint32_t detailsLevel = 5, uint32_t mask = 0x40107000, bool cameraTrace = true);
    ~Capture() override;

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

    static Capture* current();

  private:
    friend struct CaptureHooks;
    void add(Record r);

    mutable std::mutex mLock;
    std::vector<Record> mRecords;
    uint32_t mSavedMode, mSavedLevel, mSavedMask;
    ULogger* mSavedLogger;
};

// Runs argv in a child, returns its exit status (as from waitpid) and its
// combined standard output and error.
struct ChildResult {
    int status = 0;
    std::string output;
};
ChildResult runChild(const std::vector<std::string>& argv, const std::vector<std::string>& env = {});

// Runs the file cache's helper program (child) as "dump DIR" in a fresh
// directory: it exits with five caches' flushes still queued. Returns ""
// when it exited 0 and every dump file holds all its blocks, else what went
// wrong.
std::string exitDumpProblem(const std::string& child);

// A fresh directory under TMPDIR, removed with its contents on destruction.
class TempDir {
  public:
    TempDir();
    ~TempDir();
    const std::string& path() const { return mPath; }
    std::string file(const std::string& name) const { return mPath + "/" + name; }

  private:
    std::string mPath;
};

std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& content);

}  // namespace qrntest
