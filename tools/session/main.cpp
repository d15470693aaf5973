// qrncam_session: a camera session on the host, end to end, against the
// simulated platform (vendor power service, perf-lock client library, kernel
// nodes under a temporary root). It prints the log in logcat style, a
// timeline of what the controllers and the file cache did, what was left
// held (and whether on purpose), and a closing report with every dump file
// verified byte for byte after the session's process has exited with dumps
// still pending; on request it writes the session as a trace, a page and a
// JSON document.
//
// The pieces: Options (the command line), Supervisor (the working directory,
// the session's own process, signals), Run (the session), Record (what the
// session's process saw, read back by the supervisor), Report (the checks
// and views, from the session model of tools/model).
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <errno.h>
#include <qrnhost/properties.h>
#include <string>
#include <utility>

#include "Options.h"
#include "Report.h"
#include "Supervisor.h"

int main(int argc, char** argv) {
    using namespace session;
    if (argc == 3 && strcmp(argv[1], "--session") == 0) return sessionProcess(argv[2]);

    Options o;
    const int rc = parseOptions(argc, argv, &o);
    if (rc >= 0) return rc;

    // A start-up property file that cannot be used would silently change
    // nothing: refuse to run instead.
    const char* propertyFile = getenv(qrnhost::properties::kFileEnv);
    if (propertyFile != nullptr && *propertyFile != '\0') {
        int line = 0;
        if (qrnhost::properties::loadFile(propertyFile, &line) < 0) {
            if (line > 0)
                fprintf(stderr, "qrncam_session: %s:%d: expected key=value (file named by %s)\n", propertyFile, line,
                        qrnhost::properties::kFileEnv);
            else
                fprintf(stderr, "qrncam_session: %s names %s, which is not a readable file\n",
                        qrnhost::properties::kFileEnv, propertyFile);
            return 2;
        }
    }
    // Checked before the session starts, so that an hour's run does not end
    // with nowhere to put its outputs.
    const std::pair<const char*, const std::string*> outputs[] = {
        {"the trace file", &o.traceFile}, {"the report", &o.reportFile}, {"the JSON file", &o.jsonFile}};
    for (const auto& [what, file] : outputs) {
        if (file->empty()) continue;
        FILE* f = fopen(file->c_str(), "w");
        if (f == nullptr) {
            fprintf(stderr, "qrncam_session: cannot write %s %s: %s\n", what, file->c_str(), strerror(errno));
            return 2;
        }
        fclose(f);
    }
    return supervise(o, [&](const Outcome& outcome) { return closingReport(o, outcome); });
}
