// What the log reader makes of a device's log written by hand: a process
// that crashes holding a scenario and a perf lock, logd's notices, an ERROR
// line split over two lines, and the process started again without a power
// service or a perf-lock library.
#include <gmock/gmock.h>

#include "Checks.h"
#include "Interpret.h"

namespace {

namespace qs = qrnsession;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

std::vector<qs::Session> read(const std::string& path) {
    qrnlog::ReaderOptions options;
    options.tags = qrnscan::tags();
    options.year = 2026;
    qrnlog::Reader reader(options);
    reader.addPath(path);
    qrnscan::Interpreter interpreter;
    qrnlog::Item item;
    while (reader.next(item)) interpreter.add(item);
    return interpreter.finish(reader.inputs());
}

std::vector<std::string> kinds(const qs::Session& s) {
    std::vector<std::string> out;
    for (const qs::Finding& f : qs::leftHeld(s)) out.push_back(f.kind + (f.onPurpose ? " (on purpose)" : ""));
    return out;
}

TEST(LogInterpret, ACrashedProcessLeavesWhatItHeldAndItsSuccessorStartsAfresh) {
    const std::vector<qs::Session> sessions = read(QRNCAM_LOGSCAN_DATA "/camera-crash.txt");
    ASSERT_EQ(2u, sessions.size());
    const qs::Session& crashed = sessions[0];
    ASSERT_EQ(1234, crashed.processes[0].pid);
    EXPECT_EQ("killed by signal 11", crashed.processes[0].ending);  // init's line names the service
    EXPECT_EQ("vendor.camera-provider-2-4", crashed.processes[0].name);
    // Scenario 7 still enabled and the camera's perf lock held when the
    // process died; its one user never left.
    EXPECT_THAT(kinds(crashed), ElementsAre("left enabled", "perf lock held", "users left"));
    ASSERT_EQ(1u, crashed.scenarios.size());
    EXPECT_EQ(7, crashed.scenarios[0].handle);
    EXPECT_FALSE(crashed.scenarios[0].enabled[0].timeoutKnown);  // cpuPerformanceMode does not log it
    EXPECT_EQ(qs::SpanEnd::ProcessEnded, crashed.scenarios[0].enabled[0].endedBy);
    ASSERT_EQ(1u, crashed.perfLocks.size());
    EXPECT_EQ("camera perf", crashed.perfLocks[0].request);
    EXPECT_EQ(-1, crashed.perfLocks[0].handle);  // granted, its handle not logged
    // The split ERROR line is one message, its suffix parsed.
    std::vector<std::string> functions;
    for (const qs::LogLine& l : crashed.log)
        if (l.level == 'E') functions.push_back(l.function + ":" + std::to_string(l.line));
    EXPECT_THAT(functions, ElementsAre("write:91", "write:91", "open:50"));
    ASSERT_EQ(1u, crashed.caches.size());
    EXPECT_EQ(2u, crashed.caches[0].refused.size());
    EXPECT_EQ(static_cast<int64_t>(1024) << 20, crashed.budgetLimit);
    EXPECT_THAT(crashed.coverage.gaps, ElementsAre(HasSubstr("identical 4 lines")));
    EXPECT_THAT(crashed.coverage.notes, ::testing::Contains(HasSubstr("no INFO or DEBUG lines of file_cache")));

    // The same service again, in a new process: no service, no perf library.
    const qs::Session& again = sessions[1];
    EXPECT_EQ(1400, again.processes[0].pid);
    EXPECT_TRUE(again.powerCalls.empty());
    EXPECT_TRUE(again.perfCalls.empty());
    EXPECT_TRUE(kinds(again).empty());
    EXPECT_THAT(again.coverage.notes, ::testing::Contains(HasSubstr("perf-lock library could not be loaded")));
    EXPECT_THAT(again.coverage.notes, ::testing::Contains(HasSubstr("does not say how the process ended")));
    std::vector<std::string> events;
    for (const auto& e : again.controllers[0].events) events.push_back(e.what);
    EXPECT_THAT(events, ElementsAre("create", "no service", "init", "no service", "uninit"));
}

}  // namespace
