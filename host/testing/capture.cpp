#include <android/log.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cutils/properties.h>
#include <qrnhost/capture.h>
#include <qrnhost/trace.h>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

namespace qrnhost::testing {

namespace {
std::atomic<Capture*> gCurrent{nullptr};
int tid() {
    return static_cast<int>(syscall(SYS_gettid));
}
}  // namespace

struct CaptureHooks {
    static void androidLogger(const struct __android_logger_data* data, const char* message) {
        Capture* c = gCurrent.load();
        if (!c) {
            __android_log_stderr_logger(data, message);
            return;
        }
        Record r;
        r.sink = Sink::Android;
        r.priority = data->priority;
        r.tag = data->tag ? data->tag : "";
        r.text = message ? message : "";
        r.tid = tid();
        c->add(std::move(r));
    }
};

Capture::Capture(uint32_t mode, uint32_t detailsLevel, uint32_t mask, bool cameraTrace)
    : mSavedMode(sMode), mSavedLevel(sDetailsLevel), mSavedMask(sNormalDetailsMask), mSavedLogger(sULogger) {
    __android_log_set_logger(&CaptureHooks::androidLogger);
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
    sMode = mode;
    sDetailsLevel = detailsLevel;
    sNormalDetailsMask = mask;
    sULogger = this;
    gCurrent.store(this);
    property_set(qrnhost::trace::kTagsProperty, cameraTrace ? "0x400" : "0");
    qrnhost::trace::resetSetup();
    qrnhost::trace::setObserver([this](const qrnhost::trace::Event& e) {
        Record r;
        r.sink = e.begin ? Sink::TraceBegin : Sink::TraceEnd;
        r.text = e.name;
        r.tid = e.tid;
        add(std::move(r));
    });
}

Capture::~Capture() {
    release();
    qrnhost::trace::setObserver(nullptr);
    gCurrent.store(nullptr);
    sMode = mSavedMode;
    sDetailsLevel = mSavedLevel;
    sNormalDetailsMask = mSavedMask;
    sULogger = mSavedLogger;
}

void Capture::logNormal(uint32_t moduleId, const char* tag, int32_t level, const char* text, int64_t length) {
    Record r;
    r.sink = Sink::ULog;
    r.module = moduleId;
    r.level = level;
    r.tag = tag ? tag : "";
    r.text = text ? text : "";
    r.held = text ? strlen(text) : 0;
    r.length = length;
    r.tid = tid();
    add(std::move(r));
}

void Capture::add(Record r) {
    UniqueLock g(mLock);
    const bool hold = mHold == Hold::Armed && r.sink != Sink::TraceEnd && r.sink != Sink::Note && r.text == mHoldText;
    mRecords.push_back(std::move(r));
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

void Capture::waitUntilHeld() {
    UniqueLock g(mLock);
    while (mHold != Hold::Held && mHold != Hold::Released) mHoldChanged.wait(g.get());
}

void Capture::release() {
    std::lock_guard<std::mutex> g(mLock);
    mHold = Hold::Released;
    mHoldChanged.notify_all();
}

std::vector<Record> Capture::records() const {
    std::lock_guard<std::mutex> g(mLock);
    return mRecords;
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
