// Log lines as logcat prints them, through liblog's own formatter, so that
// every format logcat has is available: the verbs ("threadtime", "time",
// "brief", "long", "process", "tag", "thread", "raw") and the modifiers
// ("uid", "year", "usec", "nsec", "epoch", "monotonic", "zone", "printable",
// "color", "descriptive").
#pragma once

#include <string>

#include "Session.h"

struct AndroidLogFormat_t;

namespace qrnsession {

class LogcatFormat {
  public:
    // words: logcat's -v arguments, separated by commas or blanks; empty is
    // "threadtime". An unknown word makes the format invalid.
    explicit LogcatFormat(const std::string& words = "threadtime");
    ~LogcatFormat();
    LogcatFormat(const LogcatFormat&) = delete;
    LogcatFormat& operator=(const LogcatFormat&) = delete;

    bool valid() const { return mError.empty(); }
    const std::string& error() const { return mError; }
    // The text logcat prints for the line, its newline included (one line
    // of output per line of a message). A unified-logger line shows with
    // the tag "ulog/TAG[module]".
    std::string format(const LogLine& line) const;

  private:
    AndroidLogFormat_t* mFormat = nullptr;
    std::string mError;
};

// Every line of the session in order; unified-logger lines only when asked.
std::string renderLogcat(const Session& s, const LogcatFormat& format, bool withULog);

}  // namespace qrnsession
