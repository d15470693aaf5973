// Turns the log of a host session (its qrncam-session JSON) into what a
// device's logcat would give for it: text in any of logcat's formats,
// written by liblog's own formatter, or the records of `adb logcat -B`.
// Only the Android log's lines: the unified logger's do not reach logcat.
// Usage: forge SESSION.json FORMAT OUT   (FORMAT: logcat's -v words, or "binary")
#include <stdio.h>
#include <string.h>

#include <log/log_read.h>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "Json.h"
#include "Logcat.h"

int main(int argc, char** argv) {
    if (argc != 4) {
        fprintf(stderr, "usage: forge SESSION.json FORMAT OUT\n");
        return 2;
    }
    std::ifstream in(argv[1]);
    std::stringstream text;
    text << in.rdbuf();
    qrnsession::Session s;
    std::string error;
    if (!qrnsession::fromJson(text.str(), s, &error)) {
        fprintf(stderr, "forge: %s: %s\n", argv[1], error.c_str());
        return 1;
    }
    std::ofstream out(argv[3], std::ios::binary | std::ios::trunc);
    const std::string format = argv[2];
    const qrnsession::LogcatFormat logcat(format == "binary" ? "threadtime" : format);
    if (!logcat.valid()) {
        fprintf(stderr, "forge: %s\n", logcat.error().c_str());
        return 2;
    }
    for (const qrnsession::LogLine& l : s.log) {
        if (l.sink != qrnsession::Sink::Android) continue;
        if (format != "binary") {
            out << logcat.format(l);
            continue;
        }
        // A logd entry record: its header, then the priority, the tag and
        // the text, each string with its terminator.
        static const char kLevels[] = "??VDIWEF";
        const char* level = strchr(kLevels + 2, l.level);
        std::string payload(1, static_cast<char>(level != nullptr ? level - kLevels : 0));
        payload += l.tag;
        payload += '\0';
        payload += l.text;
        payload += '\0';
        logger_entry e = {};
        e.len = static_cast<uint16_t>(payload.size());
        e.hdr_size = sizeof(logger_entry);
        e.pid = l.pid;
        e.tid = static_cast<uint32_t>(l.tid);
        e.sec = static_cast<uint32_t>(l.ns / 1000000000);
        e.nsec = static_cast<uint32_t>(l.ns % 1000000000);
        e.lid = 0;  // main
        e.uid = static_cast<uint32_t>(l.uid < 0 ? 0 : l.uid);
        out.write(reinterpret_cast<const char*>(&e), sizeof e);
        out.write(payload.data(), static_cast<std::streamsize>(payload.size()));
    }
    return out ? 0 : 1;
}
