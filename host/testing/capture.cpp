#include <android/log.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cutils/properties.h>
#include <qrnhost/capture.h>
#include <qrnhost/properties.h>
#include <qrnhost/trace.h>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

namespace qrnhost::testing {

namespace {

int tid() {
    return static_cast<int>(syscall(SYS_gettid));
}

// The Captures alive, oldest first. A line is handed to each of them outside
// the stack's lock (a Capture may hold the thread that logs it), and a
// Capture going away waits until no line is being handed to it.
struct Stack {
    std::mutex lock;
    std::condition_variable idle;
    std::vector<Capture*> captures QRNHOST_GUARDED_BY(lock);
    // sULogger before the first Capture.
    NSCam::Utils::ULog::ULogger* savedLogger QRNHOST_GUARDED_BY(lock) = nullptr;
};

Stack& stack() {
    static auto* s = new Stack;  // lines may be logged from exit handlers
    return *s;
}

// Every unified-logger line reaches this one logger while a Capture lives;
// it never goes away, so a line logged as the last Capture ends is safe.
struct Dispatcher : NSCam::Utils::ULog::ULogger {
    void logNormal(uint32_t moduleId, const char* tag, int32_t level, const char* text, int64_t length) override;
};
Dispatcher& dispatcher() {
    static auto* d = new Dispatcher;  // never destroyed, like the stack
    return *d;
}

std::mutex gReporterLock;
FailureReporter gReporter QRNHOST_GUARDED_BY(gReporterLock);  // empty: stderr

}  // namespace

struct CaptureHooks {
    // Hands r to every Capture alive; false when there is none.
    static bool dispatch(const Record& r) {
        Stack& st = stack();
        std::vector<Capture*> targets;
        {
            std::lock_guard<std::mutex> g(st.lock);
            targets = st.captures;
            for (Capture* c : targets) ++c->mDispatching;
        }
        for (Capture* c : targets) c->add(r);
        std::lock_guard<std::mutex> g(st.lock);
        for (Capture* c : targets) --c->mDispatching;
        st.idle.notify_all();
        return !targets.empty();
    }

    static void androidLogger(const struct __android_logger_data* data, const char* message) {
        Record r;
        r.sink = Sink::Android;
        r.priority = data->priority;
        r.tag = data->tag ? data->tag : "";
        r.text = message ? message : "";
        r.tid = tid();
        if (!dispatch(r)) __android_log_stderr_logger(data, message);
    }

    static void traceObserver(const qrnhost::trace::Event& e) {
        Record r;
        r.sink = e.begin ? Sink::TraceBegin : Sink::TraceEnd;
        r.text = e.name;
        r.tid = e.tid;
        dispatch(r);
    }

    // A child made by fork() has none of the parent's Captures that anybody
    // reads: its lines go to stderr, where a parent watching it sees them.
    // Taken in one handler and let go in another, which the lock analysis
    // cannot follow.
    static void prepareFork() QRNHOST_NO_THREAD_SAFETY_ANALYSIS { stack().lock.lock(); }
    static void parentAfterFork() QRNHOST_NO_THREAD_SAFETY_ANALYSIS { stack().lock.unlock(); }
    static void childAfterFork() QRNHOST_NO_THREAD_SAFETY_ANALYSIS {
        Stack& st = stack();
        if (!st.captures.empty()) {
            st.captures.clear();
            NSCam::Utils::ULog::ULogger::sULogger = st.savedLogger;
            qrnhost::trace::setObserver(nullptr);
        }
        st.lock.unlock();
    }
};

namespace {

Record ulogRecord(uint32_t moduleId, const char* tag, int32_t level, const char* text, int64_t length) {
    Record r;
    r.sink = Sink::ULog;
    r.module = moduleId;
    r.level = level;
    r.tag = tag ? tag : "";
    r.text = text ? text : "";
    r.held = text ? strlen(text) : 0;
    r.length = length;
    r.tid = tid();
    return r;
}

void Dispatcher::logNormal(uint32_t moduleId, const char* tag, int32_t level, const char* text, int64_t length) {
    if (!CaptureHooks::dispatch(ulogRecord(moduleId, tag, level, text, length)))
        NSCam::Utils::ULog::defaultLogger()->logNormal(moduleId, tag, level, text, length);
}

const int gForkHandlers =
    pthread_atfork(CaptureHooks::prepareFork, CaptureHooks::parentAfterFork, CaptureHooks::childAfterFork);

}  // namespace

FailureReporter setFailureReporter(FailureReporter reporter) {
    std::lock_guard<std::mutex> g(gReporterLock);
    FailureReporter old = std::move(gReporter);
    gReporter = std::move(reporter);
    return old;
}

void reportFailure(const std::string& message) {
    FailureReporter reporter;
    {
        std::lock_guard<std::mutex> g(gReporterLock);
        reporter = gReporter;
    }
    if (reporter)
        reporter(message);
    else
        fprintf(stderr, "qrnhost: %s\n", message.c_str());
}

Capture::Capture(uint32_t mode, uint32_t detailsLevel, uint32_t mask, bool cameraTrace)
    : mSavedMode(sMode), mSavedLevel(sDetailsLevel), mSavedMask(sNormalDetailsMask) {
    (void)gForkHandlers;
    char trace[PROPERTY_VALUE_MAX] = {};
    property_get(qrnhost::trace::kTagsProperty, trace, "");
    mSavedTrace = trace;
    // liblog's hook stays set for good: with no Capture it writes to stderr.
    // Set outside the stack's lock, which logging takes under liblog's.
    __android_log_set_logger(&CaptureHooks::androidLogger);
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
    Stack& st = stack();
    {
        std::lock_guard<std::mutex> g(st.lock);
        if (st.captures.empty()) {
            st.savedLogger = sULogger;
            qrnhost::trace::setObserver(&CaptureHooks::traceObserver);
            sULogger = &dispatcher();
        }
        st.captures.push_back(this);
    }
    sMode = mode;
    sDetailsLevel = detailsLevel;
    sNormalDetailsMask = mask;
    property_set(qrnhost::trace::kTagsProperty, cameraTrace ? "0x400" : "0");
    qrnhost::trace::resetSetup();
}

Capture::~Capture() {
    release();
    Stack& st = stack();
    {
        UniqueLock g(st.lock);
        for (auto it = st.captures.begin(); it != st.captures.end(); ++it) {
            if (*it == this) {
                st.captures.erase(it);
                break;
            }
        }
        while (mDispatching != 0) st.idle.wait(g.get());
        if (st.captures.empty()) {
            qrnhost::trace::setObserver(nullptr);
            sULogger = st.savedLogger;
        }
    }
    sMode = mSavedMode;
    sDetailsLevel = mSavedLevel;
    sNormalDetailsMask = mSavedMask;
    if (mSavedTrace.empty())
        qrnhost::properties::clear(qrnhost::trace::kTagsProperty);
    else
        property_set(qrnhost::trace::kTagsProperty, mSavedTrace.c_str());
    qrnhost::trace::resetSetup();
}

void Capture::logNormal(uint32_t moduleId, const char* tag, int32_t level, const char* text, int64_t length) {
    add(ulogRecord(moduleId, tag, level, text, length));
}

void Capture::add(Record r) {
    UniqueLock g(mLock);
    const bool hold = mHold == Hold::Armed && r.sink != Sink::TraceEnd && r.sink != Sink::Note && r.text == mHoldText;
    mRecords.push_back(std::move(r));
    if (mKeep != 0 && mRecords.size() > mKeep) {
        mRecords.pop_front();
        ++mDropped;
    }
    if (!hold) return;
    mHold = Hold::Held;
    mHoldChanged.notify_all();
    while (mHold != Hold::Released) mHoldChanged.wait(g.get());
}

void Capture::holdAt(std::string text) {
    std::lock_guard<std::mutex> g(mLock);
    mHoldText = std::move(text);
    mHold = Hold::Armed;
}

bool Capture::waitUntilHeld(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    std::string text;
    {
        UniqueLock g(mLock);
        if (mHold == Hold::None) {
            g.unlock();
            reportFailure("Capture::waitUntilHeld(): no holdAt() is armed, so no thread can be held");
            return false;
        }
        while (mHold != Hold::Held && mHold != Hold::Released) {
            if (mHoldChanged.wait_until(g.get(), deadline) == std::cv_status::timeout && mHold != Hold::Held &&
                mHold != Hold::Released)
                break;
        }
        if (mHold == Hold::Held || mHold == Hold::Released) return true;
        text = mHoldText;
    }
    reportFailure("Capture::waitUntilHeld(): no thread logged \"" + printable(text) +
                  "\" or began a section of that name within " + std::to_string(timeout.count()) + " ms");
    return false;
}

void Capture::release() {
    std::lock_guard<std::mutex> g(mLock);
    mHold = Hold::Released;
    mHoldChanged.notify_all();
}

void Capture::keepLast(size_t n) {
    std::lock_guard<std::mutex> g(mLock);
    mKeep = n;
    while (mKeep != 0 && mRecords.size() > mKeep) {
        mRecords.pop_front();
        ++mDropped;
    }
}

size_t Capture::dropped() const {
    std::lock_guard<std::mutex> g(mLock);
    return mDropped;
}

std::vector<Record> Capture::records() const {
    std::lock_guard<std::mutex> g(mLock);
    return std::vector<Record>(mRecords.begin(), mRecords.end());
}

std::vector<Record> Capture::records(Sink sink) const {
    std::vector<Record> out;
    for (auto& r : records())
        if (r.sink == sink) out.push_back(r);
    return out;
}

std::vector<std::string> Capture::texts(Sink sink, const std::string& tag) const {
    std::vector<std::string> out;
    for (auto& r : records(sink))
        if (tag.empty() || r.tag == tag) out.push_back(r.text);
    return out;
}

std::vector<std::string> Capture::sectionsBegun() const {
    return texts(Sink::TraceBegin);
}

size_t Capture::sectionsEnded() const {
    return records(Sink::TraceEnd).size();
}

bool Capture::hasAndroid(int priority, const std::string& tag, const std::string& text) const {
    for (auto& r : records(Sink::Android))
        if (r.priority == priority && r.tag == tag && r.text == text) return true;
    return false;
}

void Capture::clear() {
    std::lock_guard<std::mutex> g(mLock);
    mRecords.clear();
}

void Capture::note(std::string text) {
    Record r;
    r.sink = Sink::Note;
    r.text = std::move(text);
    r.tid = tid();
    add(std::move(r));
}

std::string printable(const std::string& s) {
    std::string out;
    for (unsigned char c : s) {
        if (c == '\n') {
            out += "\\n";
        } else if (c < 0x20 || c >= 0x7F) {
            char buf[8];
            snprintf(buf, sizeof buf, "\\x%02x", c);
            out += buf;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out;
}

std::string describe(const Record& r) {
    static const std::regex kSuffixLine("\\{#[0-9]+:");
    switch (r.sink) {
        case Sink::Android:
            return std::string(1, "??VDIWEF"[r.priority & 7]) + " " + r.tag + ": " +
                   std::regex_replace(printable(r.text), kSuffixLine, "{#L:");
        case Sink::ULog: {
            char module[16];
            snprintf(module, sizeof module, "0x%08x", r.module);
            std::string line = "u" + std::to_string(r.level) + " " + r.tag + "[" + module + "]: " + printable(r.text);
            if (r.length != static_cast<int64_t>(r.held)) line += " (length " + std::to_string(r.length) + ")";
            return line;
        }
        case Sink::TraceBegin: return "> " + r.text;
        case Sink::TraceEnd: return "<";
        case Sink::Note: return printable(r.text);
    }
    return "?";
}

TempDir::TempDir() {
    std::error_code ec;
    std::filesystem::path base = std::filesystem::temp_directory_path(ec);  // TMPDIR, else /tmp
    std::string pattern = ((ec ? std::filesystem::path("/tmp") : base) / "qrncam-test-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) abort();
    mPath = pattern;
}

TempDir::~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(mPath, ec);
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

void writeFile(const std::string& path, const std::string& content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
}

}  // namespace qrnhost::testing
