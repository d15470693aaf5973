// The session as text: a timeline of what the controllers and the file
// cache did (each power-service and perf-lock call, the controllers' life,
// caches dropped and flushed, the session's marks), and the list of what
// was left held.
#pragma once

#include <string>
#include <vector>

#include "Checks.h"
#include "Session.h"

namespace qrnsession {

// One line an event, in time order, with its offset from the session's
// start and its thread; what was inferred says so, and what cannot be
// placed in time comes last.
std::string renderTimeline(const Session& s);

// The findings of leftHeld, each with why it was left when on purpose.
std::string renderLeftHeld(const std::vector<Finding>& held);

}  // namespace qrnsession
