#include "Capture.h"

#include <android/log.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cutils/properties.h>
#include <qrnhost/trace.h>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace qrntest {

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
    std::lock_guard<std::mutex> g(mLock);
    mRecords.push_back(std::move(r));
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

Capture* Capture::current() {
    return gCurrent.load();
}

ChildResult runChild(const std::vector<std::string>& argv, const std::vector<std::string>& env) {
    ChildResult res;
    int fds[2];
    if (pipe(fds) != 0) return res;
    pid_t pid = fork();
    if (pid == 0) {
        dup2(fds[1], 1);
        dup2(fds[1], 2);
        close(fds[0]);
        close(fds[1]);
        for (auto& e : env) putenv(strdup(e.c_str()));
        std::vector<char*> args;
        for (auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
        args.push_back(nullptr);
        execv(args[0], args.data());
        _exit(127);
    }
    close(fds[1]);
    char buf[4096];
    ssize_t n;
    while ((n = read(fds[0], buf, sizeof buf)) > 0) res.output.append(buf, static_cast<size_t>(n));
    close(fds[0]);
    waitpid(pid, &res.status, 0);
    return res;
}

std::string exitDumpProblem(const std::string& child) {
    TempDir dir;
    ChildResult r = runChild({child, "dump", dir.path()});
    if (!WIFEXITED(r.status) || WEXITSTATUS(r.status) != 0) return "the child failed: " + r.output;
    for (int c = 0; c < 5; ++c) {
        std::string expected;
        for (int b = 0; b < 4; ++b) expected += std::string(300000, static_cast<char>('A' + c * 4 + b));
        if (expected != readFile(dir.file("dump" + std::to_string(c) + ".bin")))
            return "dump" + std::to_string(c) + ".bin is not whole";
    }
    return "";
}

TempDir::TempDir() {
    const char* base = getenv("TMPDIR");
    std::string tmpl = std::string(base && *base ? base : "/tmp") + "/qrncam-test-XXXXXX";
    std::vector<char> buf(tmpl.begin(), tmpl.end());
    buf.push_back('\0');
    if (mkdtemp(buf.data())) mPath = buf.data();
}

TempDir::~TempDir() {
    std::error_code ec;
    if (!mPath.empty()) std::filesystem::remove_all(mPath, ec);
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

}  // namespace qrntest
