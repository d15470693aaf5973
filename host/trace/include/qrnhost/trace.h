// Host-only view of the platform trace implementation. Library code uses the
// device's <cutils/trace.h>; tests and host programs use this to see which
// sections were begun and ended, and to steer setup.
#pragma once

#include <stdint.h>

#include <functional>
#include <string>
#include <vector>

namespace qrnhost::trace {

// Property from which atrace_setup() loads the enabled tags, as on a device.
inline constexpr const char* kTagsProperty = "debug.atrace.tags.enableflags";

struct Event {
    bool begin;        // true for a begin, false for an end
    std::string name;  // section name (empty for an end)
    int tid;           // thread that called
};

// Receives every begin and end. Set it before threads start tracing; pass an
// empty function to remove it.
void setObserver(std::function<void(const Event&)> observer);

// Marks tracing not ready, so the next trace call runs atrace_setup() again
// and reloads the tags from the property.
void resetSetup();

// Writes enabled sections to this file instead of the kernel's trace marker
// (an empty path closes it). Lines use the device's "B|pid|name" / "E|pid".
bool setMarkerPath(const std::string& path);

// Path of the trace marker that atrace_setup() opened, or empty.
std::string markerPath();

// Number of atrace_setup() calls so far (tests check that ready short-cuts it).
uint64_t setupCount();

}  // namespace qrnhost::trace
