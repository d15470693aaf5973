// What the session's process saw, recorded as it happens: one JSON object a
// line, appended with a single write and never rewritten. The dumps still
// queued when that process exits are flushed by its exit handlers, after the
// session's own code has finished; their notes reach the record too, so the
// supervising process, which reads the record once the session's process
// has gone, sees everything up to that process's last moment.
//
// Recorder is the one writer (the session's process), readRecord the one
// reader (the supervisor); they share the format below and nothing else.
#pragma once

#include <qrnhost/PowerSim.h>
#include <string>
#include <vector>

#include "Session.h"

namespace session {

class Recorder {
  public:
    // Opens path (truncated) and installs the hooks that feed it: liblog's
    // logger, the unified logger, the trace observer, the perf-lock
    // library's observer and the file cache's notes. The recorder lives until
    // the process ends, exit handlers included. Null, with the reason in
    // error, when path cannot be written.
    static Recorder* start(const std::string& path, std::string* error);

    // The power service's calls, from now on.
    void observe(const android::sp<qrnhost::power::SimPowerService>& service);

    // What the session itself says.
    void controller(int id, qrnsession::ControllerKind kind, const std::string& what, int users);
    void thread(int tid, const std::string& name);
    void dump(const std::string& path, const std::vector<int>& frames);
    void mark(const std::string& what, const std::string& detail);
    void fact(const std::string& text);
    // The session's last word before it exits: a record without it was cut
    // short. False when anything could not be written.
    bool end();

    // Calls made on this thread while an Acting lives are the controller's.
    class Acting {
      public:
        explicit Acting(int controller);
        ~Acting();
        Acting(const Acting&) = delete;
        Acting& operator=(const Acting&) = delete;

      private:
        int mPrevious;
    };

    void write(const std::string& line);  // one record, as JSON without the newline

  private:
    explicit Recorder(int fd) : mFd(fd) {}
    int mFd;
};

// Builds the session from a record: its processes and threads, log lines,
// sections, calls, controllers, caches, budget and marks, then derives the
// rest. facts receives the session's own statements in order. False (with
// the reason) when the record cannot be read or lacks the session's last
// word.
bool readRecord(const std::string& path, qrnsession::Session& s, std::vector<std::string>* facts, std::string* error);

}  // namespace session
