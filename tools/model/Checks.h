// What a session left behind and what went wrong in it, in words, for the
// closing report, the page and the JSON document.
#pragma once

#include <string>
#include <vector>

#include "Session.h"

namespace qrnsession {

struct Finding {
    // "left registered", "left enabled", "perf lock held", "users left",
    // "dump pending", "cache open", "scope unpaired", "warning", "error"
    std::string kind;
    std::string what;
    bool onPurpose = false;
    std::string why;
    Nanos ns = kNoTime;
    int pid = 0;
};

// What was still held when the source ended or its process did: scenarios
// registered or enabled (each marked as left on purpose or not), perf locks
// not released, users that never called uninit, caches never dropped and
// dumps not written.
std::vector<Finding> leftHeld(const Session& s);
// "[%s] +" lines without their "[%s] -" on the same thread, and the reverse.
std::vector<Finding> unpairedScopes(const Session& s);
// Every WARN and ERROR line (ERROR lines with their function, line and file).
std::vector<Finding> problems(const Session& s);
// All of the above, in that order.
std::vector<Finding> findings(const Session& s);

// Findings of leftHeld that are not on purpose.
int unintended(const std::vector<Finding>& held);

}  // namespace qrnsession
