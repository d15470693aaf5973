// The supervisor's side once the session's process has gone: the session
// built from its record, every dump file checked byte for byte against the
// frames written into it, and the views: the log, the timeline, what was
// left held, the session's results and the closing report on standard
// output, and the trace, page and JSON files asked for.
#pragma once

#include <string>

#include "Options.h"
#include "Session.h"
#include "Supervisor.h"

namespace session {

// Compares a dump file with the frames it should hold; "" when equal.
std::string verifyDump(const std::string& path, const std::vector<int>& frames, uint64_t frameSize);

// Returns the program's status: 0, or 1 when the session failed, a dump
// did not verify, something was left held unintentionally or an output
// could not be written.
int closingReport(const Options& o, const Outcome& outcome);

}  // namespace session
