// The supervising process: a working directory (a fresh temporary one, or
// --out, locked against a second session), the session's own process
// (this program started again, so that the library's file cache drains at
// that process's exit and only a parent can look at the files after it),
// signals passed on, and the directory removed on every way out unless it
// is to be kept.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>

#include "Options.h"

namespace session {

struct Outcome {
    std::string dir;
    int status = 0;     // as waitpid gives it
    pid_t pid = 0;      // the session's process
    int64_t ended = 0;  // when it had gone, ns of the wall clock
};

// Starts the session and calls report once its process has gone; returns
// report's result, or a status of its own when the session could not run.
// A signal (SIGINT, SIGTERM) reaches the session's process too, and ends
// this one by the same signal after the clean-up.
int supervise(const Options& o, const std::function<int(const Outcome&)>& report);

// The session's process: reads the options the supervisor left in dir and
// runs the session there.
int sessionProcess(const std::string& dir);

}  // namespace session
