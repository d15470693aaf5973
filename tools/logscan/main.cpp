// qrncam_logscan: a device's log read back into camera sessions. Give it
// `adb logcat` text (any format that prints a pid), the binary stream of
// `adb logcat -B`, a bug report (.txt or .zip), several rotated files, or
// "-" for standard input; it prints, for every process session that holds
// the library's lines, what the log covered, a timeline of what the
// controllers and the file cache did, and what was left held, and writes
// the same trace, page and JSON as a host session.
#include <errno.h>
#include <getopt.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <fstream>
#include <string>
#include <vector>

#include "Checks.h"
#include "Interpret.h"
#include "Json.h"
#include "LogRead.h"
#include "Logcat.h"
#include "Page.h"
#include "Timeline.h"
#include "TraceJson.h"

namespace {

namespace qs = qrnsession;

const char* kUsage =
    "usage: qrncam_logscan [options] FILE...   (\"-\" reads standard input)\n"
    "Reads a device's log (adb logcat text in any format that prints a pid, the\n"
    "binary stream of adb logcat -B, a bug report as .txt or .zip, rotated logcat\n"
    "files) and shows each process session of the camera system utilities in it:\n"
    "what the log covered, a timeline of the controllers' and the file cache's\n"
    "work, and what was left held. Exits 1 when something was left held that the\n"
    "library does not keep on purpose.\n"
    "\n"
    "  --log[=WORDS]     also print the library's lines, in logcat's -v format WORDS\n"
    "                    (default threadtime)\n"
    "  --trace FILE      write each session as trace-event JSON\n"
    "  --report FILE     write each session as a self-contained page\n"
    "  --json FILE       write every session as one JSON object a line\n"
    "                    (schema qrncam-session/1)\n"
    "  --year N          the year of the first line, for formats that print none\n"
    "  --help            this text\n"
    "With several sessions, --trace and --report write one file each, the\n"
    "process id added to the name: page-1234.html.\n";

// FILE for one session, FILE with "-PID" before its extension for several.
std::string fileFor(const std::string& file, const qs::Session& s, size_t count, size_t index) {
    if (count == 1) return file;
    const int pid = s.processes.empty() ? 0 : s.processes.front().pid;
    std::string tag = "-" + std::to_string(pid);
    if (index > 0) tag += "-" + std::to_string(index + 1);
    const size_t slash = file.rfind('/');
    const size_t dot = file.rfind('.');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return file + tag;
    return file.substr(0, dot) + tag + file.substr(dot);
}

// A moment as the log printed it (its own clock, shown as UTC).
std::string when(const qs::Session& s, qs::Nanos ns) {
    if (ns == qs::kNoTime) return "?";
    if (s.clock == "monotonic") {
        char buf[32];
        snprintf(buf, sizeof buf, "%.3f s after boot", static_cast<double>(ns) / 1e9);
        return buf;
    }
    const time_t secs = static_cast<time_t>(ns / 1000000000);
    struct tm tm;
    gmtime_r(&secs, &tm);
    char buf[48];
    snprintf(buf, sizeof buf, "%04d-%02d-%02d %02d:%02d:%02d.%03d", tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday,
             tm.tm_hour, tm.tm_min, tm.tm_sec, static_cast<int>(ns % 1000000000 / 1000000));
    return buf;
}

bool writeFile(const std::string& path, const std::string& content) {
    std::ofstream out(path, std::ios::trunc | std::ios::binary);
    out << content;
    out.close();
    if (!out) fprintf(stderr, "qrncam_logscan: cannot write %s\n", path.c_str());
    return static_cast<bool>(out);
}

}  // namespace

int main(int argc, char** argv) {
    std::string trace, report, json, logFormat;
    bool printLog = false;
    qrnlog::ReaderOptions options;
    options.tags = qrnscan::tags();
    static const struct option longOpts[] = {{"log", optional_argument, nullptr, 'l'},
                                             {"trace", required_argument, nullptr, 't'},
                                             {"report", required_argument, nullptr, 'r'},
                                             {"json", required_argument, nullptr, 'j'},
                                             {"year", required_argument, nullptr, 'y'},
                                             {"help", no_argument, nullptr, 'h'},
                                             {nullptr, 0, nullptr, 0}};
    opterr = 0;
    int c;
    while ((c = getopt_long(argc, argv, "", longOpts, nullptr)) != -1) {
        switch (c) {
            case 'l':
                printLog = true;
                logFormat = optarg != nullptr ? optarg : "threadtime";
                if (!qs::LogcatFormat(logFormat).valid()) {
                    fprintf(stderr, "qrncam_logscan: unknown log format '%s'\n", logFormat.c_str());
                    return 2;
                }
                break;
            case 't': trace = optarg; break;
            case 'r': report = optarg; break;
            case 'j': json = optarg; break;
            case 'y': {
                char* end = nullptr;
                const long year = optarg != nullptr ? strtol(optarg, &end, 10) : 0;
                if (end == nullptr || *end != '\0' || year < 1970 || year > 9999) {
                    fprintf(stderr, "qrncam_logscan: invalid --year '%s'\n", optarg);
                    return 2;
                }
                options.year = static_cast<int>(year);
                break;
            }
            case 'h': fputs(kUsage, stdout); return 0;
            default:
                fprintf(stderr, "qrncam_logscan: unknown or incomplete option '%s'\n(see --help)\n", argv[optind - 1]);
                return 2;
        }
    }
    if (optind >= argc) {
        fprintf(stderr, "qrncam_logscan: no input (give log files, or - for standard input; see --help)\n");
        return 2;
    }

    qrnlog::Reader reader(options);
    for (int i = optind; i < argc; ++i) reader.addPath(argv[i]);
    qrnscan::Interpreter interpreter;
    qrnlog::Item item;
    while (reader.next(item)) interpreter.add(item);
    const std::vector<qrnlog::InputInfo>& inputs = reader.inputs();
    size_t failed = 0;
    for (const auto& in : inputs) {
        if (in.error.empty()) continue;
        fprintf(stderr, "qrncam_logscan: %s: %s\n", in.name.c_str(), in.error.c_str());
        ++failed;
    }
    // Times of text without a zone are the device's own wall time: shown
    // as they were printed.
    setenv("TZ", "UTC", 1);
    std::vector<qs::Session> sessions = interpreter.finish(inputs);
    if (sessions.empty()) {
        if (failed == inputs.size()) return 2;
        printf("no line of the camera system utilities in the input\n");
        return 0;
    }

    int unintended = 0;
    std::string jsonLines;
    for (size_t i = 0; i < sessions.size(); ++i) {
        const qs::Session& s = sessions[i];
        const qs::Process& p = s.processes.front();
        printf("== %s, from %s to %s%s ==\n", p.name.c_str(), when(s, s.start).c_str(), when(s, s.end).c_str(),
               p.ending.empty() ? "" : (", " + p.ending).c_str());
        printf("covered:\n");
        for (const auto& [tag, levels] : s.coverage.tagLevels) printf("  %-17s %s\n", tag.c_str(), levels.c_str());
        for (const std::string& g : s.coverage.gaps) printf("  missing: %s\n", g.c_str());
        for (const std::string& n : s.coverage.notes) printf("  note: %s\n", n.c_str());
        if (printLog) {
            printf("\n-- log --\n");
            fputs(qs::renderLogcat(s, qs::LogcatFormat(logFormat), true).c_str(), stdout);
        }
        printf("\n-- timeline --\n");
        fputs(qs::renderTimeline(s).c_str(), stdout);
        printf("\n-- left held --\n");
        const std::vector<qs::Finding> held = qs::leftHeld(s);
        fputs(qs::renderLeftHeld(held).c_str(), stdout);
        printf("\n");
        unintended += qs::unintended(held);
        bool ok = true;
        if (!trace.empty()) ok = writeFile(fileFor(trace, s, sessions.size(), i), qs::renderTrace(s)) && ok;
        if (!report.empty())
            ok = writeFile(fileFor(report, s, sessions.size(), i),
                           qs::renderPage(s, "qrncam session from a device log", s.coverage.notes)) &&
                 ok;
        if (!ok) return 2;
        jsonLines += qs::toJson(s) + "\n";
    }
    if (!json.empty() && !writeFile(json, jsonLines)) return 2;
    return unintended > 0 ? 1 : 0;
}
