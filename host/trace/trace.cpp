// Platform tracing for host builds, with the device's contract:
// atrace_is_ready is false until atrace_setup() has run; atrace_setup() opens
// the kernel trace marker when there is one and loads atrace_enabled_tags
// from "debug.atrace.tags.enableflags" (always adding ATRACE_TAG_ALWAYS);
// atrace_begin_body/atrace_end_body write "B|pid|name" and "E|pid".
//
// Debian's libcutils exports stubs of these symbols. This library is linked
// ahead of it, so its definitions are the ones the process uses.
#include <cutils/properties.h>
#include <cutils/trace.h>
#include <fcntl.h>
#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <qrnhost/locking.h>
#include <qrnhost/trace.h>
#include <atomic>
#include <mutex>
#include <string>

extern "C" {
std::atomic_bool atrace_is_ready(false);
uint64_t atrace_enabled_tags = 0;
int atrace_marker_fd = -1;
}

namespace {

struct TraceState {
    std::mutex lock;
    std::function<void(const qrnhost::trace::Event&)> observer QRNHOST_GUARDED_BY(lock);
    std::string markerPath QRNHOST_GUARDED_BY(lock);
    bool markerOverridden QRNHOST_GUARDED_BY(lock) = false;
    uint64_t setups QRNHOST_GUARDED_BY(lock) = 0;
};

TraceState& state() {
    static TraceState* s = new TraceState;  // used from exit handlers too
    return *s;
}

int currentTid() {
    return static_cast<int>(syscall(SYS_gettid));
}

void openKernelMarkerLocked(TraceState& s) QRNHOST_REQUIRES(s.lock) {
    if (s.markerOverridden) return;
    static const char* const kMarkers[] = {"/sys/kernel/tracing/trace_marker",
                                           "/sys/kernel/debug/tracing/trace_marker"};
    for (const char* path : kMarkers) {
        int fd = open(path, O_WRONLY | O_CLOEXEC);
        if (fd >= 0) {
            atrace_marker_fd = fd;
            s.markerPath = path;
            return;
        }
    }
}

// The enabled tags are written under the state's lock only; callers read
// them without it, once the ready flag says they are set, as on a device.
void setTagsLocked(TraceState& s, uint64_t tags) QRNHOST_REQUIRES(s.lock) {
    (void)s;
    atrace_enabled_tags = tags;
}

// The enabled tags as the property gives them, with the always-on tag.
uint64_t loadTags() {
    char buf[PROPERTY_VALUE_MAX] = {};
    uint64_t tags = 0;
    if (property_get(qrnhost::trace::kTagsProperty, buf, "0") > 0) tags = strtoull(buf, nullptr, 0);
    return tags | ATRACE_TAG_ALWAYS;
}

void emit(const qrnhost::trace::Event& e, const char* text, size_t len) {
    std::function<void(const qrnhost::trace::Event&)> observer;
    int fd;
    bool file;
    {
        TraceState& s = state();
        std::lock_guard<std::mutex> g(s.lock);
        observer = s.observer;
        fd = atrace_marker_fd;
        file = s.markerOverridden;
    }
    if (fd >= 0) {
        // The kernel marker takes one record per write; a plain file needs
        // line ends to stay readable.
        std::string line(text, len);
        if (file) line += '\n';
        ssize_t ignored = write(fd, line.data(), line.size());
        (void)ignored;
    }
    if (observer) observer(e);
}

}  // namespace

// Runs the setup once: threads making their first traced call together all
// come here, and only the first loads the tags. The ready flag is published
// last, with release ordering, so a reader that sees it set (with acquire
// ordering, as the device's callers read it) also sees the tag word.
extern "C" void atrace_setup() {
    TraceState& s = state();
    std::lock_guard<std::mutex> g(s.lock);
    if (atrace_is_ready.load(std::memory_order_acquire)) return;
    ++s.setups;
    if (atrace_marker_fd < 0) openKernelMarkerLocked(s);
    // Unlike the device, a host without tracefs still gets its tags: tests
    // observe sections through the observer even where no marker exists.
    setTagsLocked(s, loadTags());
    atrace_is_ready.store(true, std::memory_order_release);
}

extern "C" void atrace_update_tags() {
    if (!atrace_is_ready.load(std::memory_order_acquire)) return;
    TraceState& s = state();
    std::lock_guard<std::mutex> g(s.lock);
    setTagsLocked(s, loadTags());
}

extern "C" void atrace_init() {
    if (!atrace_is_ready.load(std::memory_order_acquire)) atrace_setup();
}

extern "C" uint64_t atrace_get_enabled_tags() {
    atrace_init();
    return atrace_enabled_tags;
}

extern "C" void atrace_set_debuggable(bool) {}
extern "C" void atrace_set_tracing_enabled(bool) {}

extern "C" void atrace_begin_body(const char* name) {
    char buf[1024];
    int n = snprintf(buf, sizeof buf, "B|%d|%s", static_cast<int>(getpid()), name ? name : "");
    size_t len = n < 0 ? 0 : (static_cast<size_t>(n) < sizeof buf ? static_cast<size_t>(n) : sizeof buf - 1);
    emit(qrnhost::trace::Event{true, name ? name : "", currentTid()}, buf, len);
}

extern "C" void atrace_end_body() {
    char buf[32];
    int n = snprintf(buf, sizeof buf, "E|%d", static_cast<int>(getpid()));
    emit(qrnhost::trace::Event{false, std::string(), currentTid()}, buf, n < 0 ? 0 : static_cast<size_t>(n));
}

extern "C" void atrace_async_begin_body(const char*, int32_t) {}
extern "C" void atrace_async_end_body(const char*, int32_t) {}
extern "C" void atrace_int_body(const char*, int32_t) {}
extern "C" void atrace_int64_body(const char*, int64_t) {}

namespace qrnhost::trace {

void setObserver(std::function<void(const Event&)> observer) {
    TraceState& s = state();
    std::lock_guard<std::mutex> g(s.lock);
    s.observer = std::move(observer);
}

void resetSetup() {
    atrace_is_ready.store(false, std::memory_order_release);
}

bool setMarkerPath(const std::string& path) {
    TraceState& s = state();
    std::lock_guard<std::mutex> g(s.lock);
    if (atrace_marker_fd >= 0) close(atrace_marker_fd);
    atrace_marker_fd = -1;
    s.markerPath.clear();
    s.markerOverridden = !path.empty();
    if (path.empty()) return true;
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0) return false;
    atrace_marker_fd = fd;
    s.markerPath = path;
    return true;
}

std::string markerPath() {
    TraceState& s = state();
    std::lock_guard<std::mutex> g(s.lock);
    return s.markerPath;
}

uint64_t setupCount() {
    TraceState& s = state();
    std::lock_guard<std::mutex> g(s.lock);
    return s.setups;
}

}  // namespace qrnhost::trace
