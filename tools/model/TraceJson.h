// The session in the trace-event JSON format that trace viewers open as it
// is (Perfetto's UI, Chrome's about:tracing, speedscope):
//  - every process and thread named (M events);
//  - each controller object as an async track from creation to destruction;
//  - the library's trace sections as B/E pairs on their threads, the end
//    carrying the same name and category as its begin;
//  - each power scenario as an async track from register to unregister (or
//    the end), with its enabled spans inside, and each configScenario as an
//    instant on the calling thread with its code named;
//  - each perf lock from acquire to release or run-out;
//  - the dump budget as a counter, each flush as a complete slice on the
//    thread that wrote it, each refused block as an instant;
//  - every log line as an instant on its thread, and the session's marks
//    (the process exit with its dumps pending) as process-wide instants.
// What was left held ends where the source ends and says so in the
// arguments of its end ("left registered", "left enabled", "left held",
// "users left"). Moments the source could not place in time are left out.
#pragma once

#include <string>

#include "Session.h"

namespace qrnsession {

std::string renderTrace(const Session& s);

}  // namespace qrnsession
