#include "Report.h"

#include <stdio.h>
#include <string.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "Checks.h"
#include "Json.h"
#include "Logcat.h"
#include "Page.h"
#include "Record.h"
#include "Run.h"
#include "Timeline.h"
#include "TraceJson.h"

namespace session {

namespace fs = std::filesystem;
namespace qs = qrnsession;

namespace {

std::string human(double bytes) {
    char buf[32];
    if (bytes >= (1 << 30))
        snprintf(buf, sizeof buf, "%.2f GiB", bytes / (1 << 30));
    else
        snprintf(buf, sizeof buf, "%.1f MiB", bytes / (1 << 20));
    return buf;
}

void section(const char* title) {
    printf("\n== %s ==\n", title);
}

bool writeFile(const std::string& path, const std::string& content) {
    std::ofstream out(path, std::ios::trunc | std::ios::binary);
    out << content;
    out.close();
    return static_cast<bool>(out);
}

}  // namespace

std::string verifyDump(const std::string& path, const std::vector<int>& frames, uint64_t frameSize) {
    FILE* in = fopen(path.c_str(), "rb");
    if (in == nullptr) return "missing";
    std::vector<uint64_t> want(frameSize / 8 + 1);
    std::vector<char> got(frameSize);
    std::string problem;
    for (int fr : frames) {
        fillFrame(want, static_cast<uint64_t>(fr));
        if (fread(got.data(), 1, frameSize, in) != frameSize) {
            problem = "short at frame " + std::to_string(fr);
            break;
        }
        if (memcmp(got.data(), want.data(), frameSize) != 0) {
            problem = "content differs in frame " + std::to_string(fr);
            break;
        }
    }
    if (problem.empty() && fgetc(in) != EOF) problem = "longer than its frames";
    fclose(in);
    return problem;
}

int closingReport(const Options& o, const Outcome& outcome) {
    if (!WIFEXITED(outcome.status) || WEXITSTATUS(outcome.status) != 0) {
        section("closing report");
        printf("the session process failed (status 0x%x)\n", outcome.status);
        return 1;
    }
    qs::Session s;
    std::vector<std::string> facts;
    std::string error;
    if (!readRecord(outcome.dir + "/" + kRecordFile, s, &facts, &error)) {
        section("closing report");
        printf("the session's record is unusable: %s\n", error.c_str());
        return 1;
    }
    qs::Process& child = s.processFor(outcome.pid);
    child.name = "qrncam_session (session)";
    child.end = std::max(outcome.ended, s.end);
    child.ending = "exited 0";
    s.end = child.end;

    // The supervisor checks every dump now that the session's process, and
    // with it every flush, has gone.
    const int self = static_cast<int>(getpid());
    qs::Process& supervisor = s.processFor(self);
    supervisor.name = "qrncam_session (supervisor)";
    supervisor.start = s.start;
    s.nameThread(self, self, "supervisor");
    for (qs::FileCache& fc : s.caches) {
        if (!fc.dropped) continue;
        const std::string problem = verifyDump(fc.path, fc.frames, o.frameSize);
        fc.flush.verified = problem.empty();
        fc.flush.problem = problem;
    }
    supervisor.end = qs::wallClockNow();
    supervisor.ending = "reporting";
    qs::derive(s);
    // The dumps still pending when the session's process began to exit: those
    // whose flush ended after that moment.
    int pending = 0;
    for (qs::Mark& m : s.marks) {
        if (m.what != "exit") continue;
        for (const qs::FileCache& fc : s.caches)
            pending += fc.dropped && fc.dropped->ns < m.ns && (!fc.flush.end || fc.flush.end->ns > m.ns);
        m.detail = std::to_string(pending) + (pending == 1 ? " dump" : " dumps") + " still pending";
    }

    if (!o.quietLog) {
        section("log");
        fputs(qs::renderLogcat(s, qs::LogcatFormat(o.logFormat), true).c_str(), stdout);
    }
    section("timeline");
    fputs(qs::renderTimeline(s).c_str(), stdout);
    section("left held");
    const std::vector<qs::Finding> held = qs::leftHeld(s);
    fputs(qs::renderLeftHeld(held).c_str(), stdout);
    section("results");
    for (const std::string& f : facts) printf("%s\n", f.c_str());

    section("closing report");
    int verified = 0, refused = 0;
    uint64_t bytesOnDisk = 0, peak = 0;
    double busy = 0;
    std::vector<std::string> lines;
    for (const qs::FileCache& fc : s.caches) {
        const bool ok = fc.flush.verified.value_or(false);
        verified += ok;
        refused += static_cast<int>(fc.refused.size());
        if (ok) bytesOnDisk += fc.frames.size() * o.frameSize;
        if (fc.flush.begin && fc.flush.end) busy += static_cast<double>(fc.flush.end->ns - fc.flush.begin->ns) / 1e9;
        printf("  %-32s %2zu frames%s  %s\n", fs::path(fc.path).filename().c_str(), fc.frames.size(),
               fc.refused.empty() ? "" : (" (" + std::to_string(fc.refused.size()) + " refused: budget)").c_str(),
               ok ? "verified" : ("FAILED: " + fc.flush.problem).c_str());
    }
    for (const qs::BudgetPoint& b : s.budget) peak = std::max(peak, b.bytes);
    int scenariosLeft = 0, locksLeft = 0;
    for (const qs::Finding& f : held) {
        scenariosLeft += f.kind == "left registered" || f.kind == "left enabled";
        locksLeft += f.kind == "perf lock held";
    }
    const int unintended = qs::unintended(held);
    const int files = static_cast<int>(s.caches.size());
    lines.push_back("scenarios left registered: " + std::to_string(scenariosLeft) +
                    " (unintended: " + std::to_string(unintended) + ")");
    lines.push_back("perf locks left held:      " + std::to_string(locksLeft));
    lines.push_back("bytes dumped:              " + human(static_cast<double>(bytesOnDisk)) + " in " +
                    std::to_string(files) + " files (" + std::to_string(refused) + " frames refused by the budget)");
    lines.push_back("peak of the cache budget:  " + human(static_cast<double>(peak)) + " of " +
                    human(static_cast<double>(o.budget)));
    if (busy > 0) {
        char buf[96];
        snprintf(buf, sizeof buf, "%s/s (%.0f ms of flushing)", human(static_cast<double>(bytesOnDisk) / busy).c_str(),
                 busy * 1000);
        lines.push_back(std::string("flush throughput:          ") + buf);
    }
    lines.push_back("files verified:            " + std::to_string(verified) + " of " + std::to_string(files) +
                    ", byte for byte, after the session exited with " + std::to_string(pending) +
                    " of them still pending");
    for (const std::string& l : lines) printf("%s\n", l.c_str());

    int rc = verified == files && unintended == 0 ? 0 : 1;
    if (!o.traceFile.empty()) {
        if (writeFile(o.traceFile, qs::renderTrace(s)))
            printf("trace:                     %s (open it in ui.perfetto.dev, chrome://tracing or speedscope)\n",
                   o.traceFile.c_str());
        else
            printf("cannot write the trace file %s\n", o.traceFile.c_str()), rc = 1;
    }
    if (!o.reportFile.empty()) {
        std::vector<std::string> pageFacts = facts;
        pageFacts.insert(pageFacts.end(), lines.begin(), lines.end());
        if (writeFile(o.reportFile, qs::renderPage(s, "qrncam session", pageFacts)))
            printf("report:                    %s (open it in a browser)\n", o.reportFile.c_str());
        else
            printf("cannot write the report %s\n", o.reportFile.c_str()), rc = 1;
    }
    if (!o.jsonFile.empty()) {
        if (writeFile(o.jsonFile, qs::toJson(s, 1) + "\n"))
            printf("json:                      %s\n", o.jsonFile.c_str());
        else
            printf("cannot write the JSON file %s\n", o.jsonFile.c_str()), rc = 1;
    }
    fflush(stdout);
    return rc;
}

}  // namespace session
