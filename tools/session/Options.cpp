#include "Options.h"

#include <errno.h>
#include <getopt.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <qrnhost/properties.h>
#include <climits>
#include <nlohmann/json.hpp>

#include "Logcat.h"

namespace session {

namespace {

const char* kUsage =
    "usage: qrncam_session [options]\n"
    "Runs a camera session on the host against the simulated vendor power service,\n"
    "perf-lock library and kernel nodes, then reports what it did.\n"
    "\n"
    "  --out DIR           work in DIR (kept) instead of a fresh temporary directory\n"
    "  --keep              keep the temporary directory and the dump files\n"
    "  --prop KEY=VALUE    set a system property before the session (repeatable), e.g.\n"
    "                      --prop vendor.cam3dev.cpupreferidle=1\n"
    "  --mode N            unified logger sMode: bit 0 Android log, bits 1-3 unified logger (default 1)\n"
    "  --level N           sDetailsLevel: 5 shows DEBUG, 2 WARN, 1 only ERROR (default 5)\n"
    "  --mask N            sNormalDetailsMask (default 0x40107000: both controllers' DEBUG lines)\n"
    "  --frames N          frames in the capture burst, split over two threads (default 60)\n"
    "  --frame-size SIZE   bytes per frame, K/M/G suffixes allowed (default 12M)\n"
    "  --frames-per-file N frames dumped into one file (default 10)\n"
    "  --fps N             frames per second of each capture thread, 0 for no pacing (default 60)\n"
    "  --budget SIZE       file cache budget (vendor.debug.file_cache.storage_size, default 200M)\n"
    "  --log-format WORDS  how the log is printed: logcat's -v words, e.g. time,usec or long\n"
    "                      (default threadtime)\n"
    "  --trace FILE        write the session's trace to FILE (trace-event JSON: open it in\n"
    "                      ui.perfetto.dev, chrome://tracing or speedscope; FILE is replaced)\n"
    "  --report FILE.html  write a page that shows the session: its timeline, the dump\n"
    "                      budget over time, the flushes, the files and the log (self-contained)\n"
    "  --json FILE         write the session as one JSON object (schema qrncam-session/1)\n"
    "  --scenario NAME     what the controllers do: default (the typical camera use),\n"
    "                      two-of-each (two objects of each class at once), service-death\n"
    "                      (the power service dies and comes back), refused-locks (the\n"
    "                      perf-lock library refuses locks)\n"
    "  --quiet-log         do not print log lines\n"
    "  --help              this text\n";

int bad(const char* what, const char* value) {
    fprintf(stderr, "qrncam_session: invalid %s: '%s'\n(see --help)\n", what, value ? value : "");
    return 2;
}

}  // namespace

bool parseSize(const char* s, uint64_t* out) {
    char* end = nullptr;
    errno = 0;
    const unsigned long long v = strtoull(s, &end, 0);
    if (end == s || errno != 0 || *s == '-') return false;
    uint64_t mul = 1;
    if (*end == 'K' || *end == 'k')
        mul = 1ull << 10, ++end;
    else if (*end == 'M' || *end == 'm')
        mul = 1ull << 20, ++end;
    else if (*end == 'G' || *end == 'g')
        mul = 1ull << 30, ++end;
    if (*end != '\0' || v > UINT64_MAX / mul) return false;
    *out = v * mul;
    return true;
}

bool parseU32(const char* s, uint32_t* out) {
    char* end = nullptr;
    errno = 0;
    const unsigned long v = strtoul(s, &end, 0);
    if (end == s || *end != '\0' || errno != 0 || v > UINT32_MAX || *s == '-') return false;
    *out = static_cast<uint32_t>(v);
    return true;
}

int parseOptions(int argc, char** argv, Options* o) {
    enum {
        kOut = 1,
        kKeep,
        kProp,
        kMode,
        kLevel,
        kMask,
        kFrames,
        kFrameSize,
        kPerFile,
        kFps,
        kBudget,
        kTrace,
        kReport,
        kJson,
        kLogFormat,
        kScenario,
        kQuiet,
        kHelp
    };
    static const struct option longOpts[] = {{"out", required_argument, nullptr, kOut},
                                             {"keep", no_argument, nullptr, kKeep},
                                             {"prop", required_argument, nullptr, kProp},
                                             {"mode", required_argument, nullptr, kMode},
                                             {"level", required_argument, nullptr, kLevel},
                                             {"mask", required_argument, nullptr, kMask},
                                             {"frames", required_argument, nullptr, kFrames},
                                             {"frame-size", required_argument, nullptr, kFrameSize},
                                             {"frames-per-file", required_argument, nullptr, kPerFile},
                                             {"fps", required_argument, nullptr, kFps},
                                             {"budget", required_argument, nullptr, kBudget},
                                             {"trace", required_argument, nullptr, kTrace},
                                             {"report", required_argument, nullptr, kReport},
                                             {"json", required_argument, nullptr, kJson},
                                             {"log-format", required_argument, nullptr, kLogFormat},
                                             {"scenario", required_argument, nullptr, kScenario},
                                             {"quiet-log", no_argument, nullptr, kQuiet},
                                             {"help", no_argument, nullptr, kHelp},
                                             {nullptr, 0, nullptr, 0}};
    opterr = 0;
    optind = 1;
    int c;
    while ((c = getopt_long(argc, argv, "", longOpts, nullptr)) != -1) {
        uint64_t size = 0;
        uint32_t u = 0;
        switch (c) {
            case kOut:
                o->outDir = optarg;
                o->keep = true;
                break;
            case kKeep: o->keep = true; break;
            case kProp:
                // Tried on this process's own store: what it refuses, the
                // session's would refuse too.
                if (!qrnhost::properties::setFromAssignment(optarg))
                    return bad("--prop (want KEY=VALUE, a key that is not blank, a value of at most 91 characters)",
                               optarg);
                o->props.emplace_back(optarg);
                break;
            case kMode:
                if (!parseU32(optarg, &o->mode)) return bad("--mode", optarg);
                break;
            case kLevel:
                if (!parseU32(optarg, &o->level)) return bad("--level", optarg);
                break;
            case kMask:
                if (!parseU32(optarg, &o->mask)) return bad("--mask", optarg);
                break;
            case kFrames:
                if (!parseU32(optarg, &u) || u < 1 || u > 100000) return bad("--frames (1 to 100000)", optarg);
                o->frames = static_cast<int>(u);
                break;
            case kFrameSize:
                if (!parseSize(optarg, &size) || size < 8 || size > (1ull << 31) - 1)
                    return bad("--frame-size (8 bytes to 2G-1)", optarg);
                o->frameSize = size;
                break;
            case kPerFile:
                if (!parseU32(optarg, &u) || u < 1 || u > 100000) return bad("--frames-per-file (1 to 100000)", optarg);
                o->framesPerFile = static_cast<int>(u);
                break;
            case kFps:
                if (!parseU32(optarg, &u) || u > 1000) return bad("--fps (0 to 1000)", optarg);
                o->fps = static_cast<int>(u);
                break;
            case kBudget:
                if (!parseSize(optarg, &size) || size > static_cast<uint64_t>(INT64_MAX))
                    return bad("--budget", optarg);
                o->budget = static_cast<int64_t>(size);
                break;
            case kTrace: o->traceFile = optarg; break;
            case kReport: o->reportFile = optarg; break;
            case kJson: o->jsonFile = optarg; break;
            case kLogFormat:
                if (!qrnsession::LogcatFormat(optarg).valid()) return bad("--log-format (logcat's -v words)", optarg);
                o->logFormat = optarg;
                break;
            case kScenario: {
                bool known = false;
                for (const char* name : kScenarios) known = known || strcmp(name, optarg) == 0;
                if (!known) return bad("--scenario (default, two-of-each, service-death, refused-locks)", optarg);
                o->scenario = optarg;
                break;
            }
            case kQuiet: o->quietLog = true; break;
            case kHelp: fputs(kUsage, stdout); return 0;
            default:
                fprintf(stderr, "qrncam_session: unknown or incomplete option '%s'\n(see --help)\n", argv[optind - 1]);
                return 2;
        }
    }
    if (optind < argc) {
        fprintf(stderr, "qrncam_session: unexpected argument '%s'\n(see --help)\n", argv[optind]);
        return 2;
    }
    return -1;
}

std::string Options::toJson() const {
    const nlohmann::json j = {{"out", outDir},
                              {"keep", keep},
                              {"props", props},
                              {"mode", mode},
                              {"level", level},
                              {"mask", mask},
                              {"frames", frames},
                              {"frame_size", frameSize},
                              {"frames_per_file", framesPerFile},
                              {"fps", fps},
                              {"budget", budget},
                              {"trace", traceFile},
                              {"report", reportFile},
                              {"json", jsonFile},
                              {"log_format", logFormat},
                              {"quiet_log", quietLog},
                              {"scenario", scenario}};
    return j.dump();
}

bool Options::fromJson(const std::string& text, std::string* error) {
    try {
        const nlohmann::json j = nlohmann::json::parse(text);
        Options o;
        o.outDir = j.at("out");
        o.keep = j.at("keep");
        o.props = j.at("props").get<std::vector<std::string>>();
        o.mode = j.at("mode");
        o.level = j.at("level");
        o.mask = j.at("mask");
        o.frames = j.at("frames");
        o.frameSize = j.at("frame_size");
        o.framesPerFile = j.at("frames_per_file");
        o.fps = j.at("fps");
        o.budget = j.at("budget");
        o.traceFile = j.at("trace");
        o.reportFile = j.at("report");
        o.jsonFile = j.at("json");
        o.logFormat = j.at("log_format");
        o.quietLog = j.at("quiet_log");
        o.scenario = j.at("scenario");
        *this = std::move(o);
        return true;
    } catch (const std::exception& e) {
        if (error != nullptr) *error = e.what();
        return false;
    }
}

}  // namespace session
