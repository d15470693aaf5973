// The session as one JSON object, for query engines and for the tools' own
// round trips. Schema "qrncam-session/1":
//
//   {"schema": "qrncam-session/1", "source": "...", "clock": "realtime"|"monotonic",
//    "start_ns": N, "end_ns": N,
//    "processes":   [{"pid", "name", "start_ns", "end_ns", "ending", "threads": [{"tid", "name"}]}],
//    "controllers": [{"id", "pid", "kind": "CpuCtrl"|"Cam3CPUCtrl", "ambiguous",
//                     "events": [{"at", "tid", "what", "users"}]}],
//    "power_calls": [{"at", "pid", "tid", "controller", "op", "args": [..], "result", "transport_failed",
//                     "unknown_args" (bit i: args[i] not known), "code"}],
//    "perf_calls":  [{"at", "pid", "tid", "controller", "op": "acquire"|"release", "handle", "duration_ms",
//                     "list": [..], "result", "granted", "releases" (the acquire a release ends, or -1)}],
//    "scenarios":   [{"pid", "handle", "controller", "registered", "unregistered", "calls": [index, ..],
//                     "enabled": [{"begin", "end", "timeout_ms", "ended_by"}],
//                     "left_registered", "left_enabled", "lost_with_service", "on_purpose", "why"}],
//    "perf_locks":  [{"pid", "handle", "controller", "request", "acquired", "end", "ended_by", "duration_ms",
//                     "list", "refused"}],
//    "file_caches": [{"pid", "path", "opened", "dropped", "blocks", "bytes", "refused": [{"at", "tid", "bytes"}],
//                     "frames": [..], "flush": {"queued", "begin", "end", "tid", "bytes", "ok", "verified",
//                     "problem"}}],
//    "budget": {"limit", "points": [{"ns", "bytes", "how"}]},
//    "log": [{"ns", "pid", "tid", "uid", "level", "tag", "text", "sink": "android"|"ulog", "module",
//             "function", "line", "file"}],
//    "sections": [{"pid", "tid", "name", "begin_ns", "end_ns"}],
//    "marks": [{"ns", "pid", "what", "detail"}],
//    "coverage": {"inputs": [..], "tag_levels": {tag: "DIWE"}, "gaps": [..], "notes": [..]},
//    "findings": [{"kind", "what", "on_purpose", "why", "ns", "pid"}]}
//
// Times are integers of nanoseconds on the session's clock. A moment ("at",
// "registered", ...) is {"ns": N, "how": "seen"|"inferred"|"unknown"}, with
// "ns": null when the source cannot tell when; a moment that did not happen
// is null. Absent optional values (a result, "ok", "verified") are null, as
// are a timeout or a duration the source does not show.
// "findings" is written from the checks and ignored when read.
#pragma once

#include <string>

#include "Session.h"

namespace qrnsession {

std::string toJson(const Session& s, int indent = -1);
// False, with the reason in error, for text that is not such an object.
bool fromJson(const std::string& text, Session& s, std::string* error);

}  // namespace qrnsession
