// The session as one self-contained page (no network, no script from
// elsewhere): a summary line, a zoomable timeline with a time axis and a
// legend (scenarios with their enabled spans, perf locks, flushes; what was
// left held runs to the end and says so; WARN and ERROR lines, refused
// blocks and the process exit as marks), the dump budget against its
// limit, the dump files, and a filterable table of the log.
#pragma once

#include <string>

#include "Session.h"

namespace qrnsession {

// The page for the session. title heads it; facts are extra lines for the
// summary (the closing report's figures of a host session).
std::string renderPage(const Session& s, const std::string& title, const std::vector<std::string>& facts = {});

// The data the page draws, as JSON: times in microseconds from the
// session's start. Exposed for tests.
std::string pageData(const Session& s, const std::string& title, const std::vector<std::string>& facts);

}  // namespace qrnsession
