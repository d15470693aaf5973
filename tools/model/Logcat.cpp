#include "Logcat.h"

#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>

#include <unistd.h>

#include <log/logprint.h>
#include <set>

namespace qrnsession {

LogcatFormat::LogcatFormat(const std::string& words) : mFormat(android_log_format_new()) {
    std::string word;
    bool any = false;
    auto take = [&] {
        if (word.empty()) return;
        // liblog reads any word it does not know as a time zone and sets TZ
        // to it; only a zone the system knows is taken as one here.
        static const std::set<std::string> kWords = {
            "brief", "process", "tag",       "thread", "raw",  "time",  "threadtime", "long", "color",      "colour",
            "usec",  "nsec",    "printable", "year",   "zone", "epoch", "monotonic",  "uid",  "descriptive"};
        const bool zone = kWords.count(word) == 0 && word.find("..") == std::string::npos &&
                          access(("/usr/share/zoneinfo/" + word).c_str(), R_OK) == 0;
        const AndroidLogPrintFormat f =
            kWords.count(word) != 0 || zone ? android_log_formatFromString(word.c_str()) : FORMAT_OFF;
        if (f == FORMAT_OFF) {
            if (mError.empty()) mError = "unknown log format \"" + word + "\"";
        } else {
            android_log_setPrintFormat(mFormat, f);
            any = any || f < FORMAT_MODIFIER_COLOR;
        }
        word.clear();
    };
    for (char c : words) {
        if (c == ',' || c == ' ' || c == '\t')
            take();
        else
            word += c;
    }
    take();
    // Modifiers alone keep logcat's default verb.
    if (!any && mError.empty()) android_log_setPrintFormat(mFormat, FORMAT_THREADTIME);
}

LogcatFormat::~LogcatFormat() {
    android_log_format_free(mFormat);
}

namespace {
android_LogPriority priorityOf(char level) {
    switch (level) {
        case 'V': return ANDROID_LOG_VERBOSE;
        case 'D': return ANDROID_LOG_DEBUG;
        case 'I': return ANDROID_LOG_INFO;
        case 'W': return ANDROID_LOG_WARN;
        case 'E': return ANDROID_LOG_ERROR;
        case 'F': return ANDROID_LOG_FATAL;
        default: return ANDROID_LOG_UNKNOWN;
    }
}
}  // namespace

std::string LogcatFormat::format(const LogLine& line) const {
    std::string tag = line.tag;
    if (line.sink == Sink::ULog) {
        char mod[16];
        snprintf(mod, sizeof mod, "%08" PRIx32, line.module);
        tag = "ulog/" + tag + "[" + mod + "]";
    }
    AndroidLogEntry e = {};
    // The formatter wants a non-negative time; a monotonic session starts
    // near zero anyway.
    const Nanos ns = line.ns < 0 ? 0 : line.ns;
    e.tv_sec = static_cast<time_t>(ns / 1000000000);
    e.tv_nsec = static_cast<long>(ns % 1000000000);
    e.priority = priorityOf(line.level);
    e.uid = line.uid;
    e.pid = line.pid;
    e.tid = line.tid;
    e.tag = tag.c_str();
    e.tagLen = tag.size();
    e.message = line.text.c_str();
    e.messageLen = line.text.size();
    char buf[1024];
    size_t length = 0;
    char* out = android_log_formatLogLine(mFormat, buf, sizeof buf, &e, &length);
    if (out == nullptr) return "";
    std::string text(out, length);
    if (out != buf) free(out);
    return text;
}

std::string renderLogcat(const Session& s, const LogcatFormat& format, bool withULog) {
    std::string out;
    for (const LogLine& l : s.log)
        if (withULog || l.sink == Sink::Android) out += format.format(l);
    return out;
}

}  // namespace qrnsession
