// The session itself, in a process of its own: the camera controller's
// typical use, a CpuCtrl session, memory and thermal readings, and a
// capture burst through the file cache, after which the process exits with
// dumps still pending. Everything it does goes to the record (Record.h).
#pragma once

#include <string>
#include <vector>

#include "Options.h"

namespace session {

// The record's file name in the session's directory.
inline constexpr const char* kRecordFile = "record.jsonl";
// The options' file name in the session's directory.
inline constexpr const char* kOptionsFile = "options.json";

// Frame content is deterministic, so the supervisor can check every byte.
void fillFrame(std::vector<uint64_t>& buf, uint64_t frame);

// Runs the session in dir and exits the process (status 0 with the dumps
// still pending, 3 when the record could not be written). Returns a status
// only when the session could not start.
int runSession(const Options& o, const std::string& dir);

}  // namespace session
