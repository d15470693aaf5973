// The session model and its views, on a small session made by hand: what
// derive() makes of the calls, what the checks find, and what each renderer
// (logcat text, timeline, trace file, page data, JSON) makes of it.
#include <gmock/gmock.h>
#include <stdlib.h>
#include <time.h>

#include <fstream>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

#include "Checks.h"
#include "Json.h"
#include "Logcat.h"
#include "Page.h"
#include "Session.h"
#include "Timeline.h"
#include "TraceJson.h"

namespace {

namespace qs = qrnsession;
using nlohmann::json;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

constexpr qs::Nanos kMs = 1000000;
constexpr int kPid = 4000, kMain = 4000, kWorker = 4001;

qs::Stamp at(int64_t ms, qs::Evidence how = qs::Evidence::Seen) {
    return {ms * kMs, how};
}

// A session of one process: a camera controller used and given back, a
// CpuCtrl whose user never left, perf locks released, run out, refused and
// held, caches written, pending and never dropped, and a few log lines.
qs::Session handMade() {
    qs::Session s;
    s.source = "hand-made";
    s.start = 0;
    s.end = 5000 * kMs;
    qs::Process& p = s.processFor(kPid);
    p.name = "cameraserver";
    p.start = 0;
    s.nameThread(kPid, kMain, "main");
    auto ctrl = [&](int id, qs::ControllerKind kind, std::vector<std::pair<int, const char*>> events) {
        qs::Controller c;
        c.id = id, c.pid = kPid, c.kind = kind;
        int users = 0;
        for (auto [ms, what] : events) {
            users += std::string(what) == "init" ? 1 : std::string(what) == "uninit" ? -1 : 0;
            c.events.push_back({at(ms), kMain, what, users});
        }
        s.controllers.push_back(c);
    };
    ctrl(1, qs::ControllerKind::Cam3CPUCtrl, {{1, "create"}, {2, "init"}, {20, "uninit"}, {21, "destroy"}});
    ctrl(2, qs::ControllerKind::CpuCtrl, {{30, "create"}, {31, "init"}});
    auto power = [&](int64_t ms, int controller, qs::PowerOp op, std::vector<int32_t> args,
                     std::optional<int32_t> result = std::nullopt, qs::Evidence how = qs::Evidence::Seen) {
        s.powerCalls.push_back({at(ms, how), kPid, kMain, controller, op, std::move(args), result, false, 0});
    };
    using Op = qs::PowerOp;
    power(3, 1, Op::RegisterScenario, {}, 1);
    power(4, 1, Op::ConfigScenario, {1, 5, 1, 0, 0, 0}, std::nullopt, qs::Evidence::Inferred);
    power(5, 1, Op::EnableScenario, {1, 3000});
    power(10, 1, Op::DisableScenario, {1});
    power(11, 1, Op::UnregisterScenario, {1});
    power(32, 2, Op::RegisterScenario, {}, 2);
    power(33, 2, Op::EnableScenario, {2, 1000});  // runs out at 1033 ms
    power(40, 2, Op::RegisterScenario, {}, 3);
    power(41, 2, Op::EnableScenario, {3, 0});
    power(42, 2, Op::EnableScenario, {3, 0x0FFFFFFF});
    auto perf = [&](int64_t ms, qs::PerfOp op, int32_t handle, int32_t duration, std::vector<int32_t> list,
                    int32_t result) {
        qs::PerfCall c;
        c.at = at(ms), c.pid = kPid, c.tid = kMain, c.controller = 1, c.op = op, c.handle = handle;
        c.duration = duration, c.list = std::move(list), c.result = result;
        s.perfCalls.push_back(std::move(c));
    };
    const std::vector<int32_t> camera = {0x01404300, 1, 0x01404100, 1}, boost = {0x00414000, 1},
                               noTempa = {0x02004000, 0};
    perf(6, qs::PerfOp::Acquire, 0, 0, camera, 1);
    perf(7, qs::PerfOp::Acquire, 0, 500, boost, 2);
    perf(8, qs::PerfOp::Acquire, 0, 0, noTempa, 0);
    perf(9, qs::PerfOp::Release, 1, 0, {}, 0);
    perf(600, qs::PerfOp::Release, 2, 0, {}, 0);  // after its run-out
    perf(700, qs::PerfOp::Acquire, 0, 0, camera, 3);
    qs::FileCache written;
    written.pid = kPid, written.path = "/data/a.raw", written.opened = at(100), written.dropped = at(110);
    written.blocks = 2, written.bytes = 200, written.refused = {{at(105), kMain, 50}};
    written.flush.queued = at(110), written.flush.begin = at(111), written.flush.end = at(119);
    written.flush.tid = kWorker, written.flush.bytes = 200, written.flush.ok = true;
    qs::FileCache pending = written;
    pending.path = "/data/b.raw", pending.refused.clear(), pending.flush = {}, pending.flush.queued = at(120);
    qs::FileCache open = written;
    open.path = "/data/c.raw", open.dropped.reset(), open.refused.clear(), open.flush = {};
    s.caches = {written, pending, open};
    s.nameThread(kPid, kWorker, "FileCache worker");
    s.budgetLimit = 300;
    s.budget = {{100 * kMs, 100}, {104 * kMs, 200}, {118 * kMs, 0}};
    auto log = [&](int64_t ms, char level, const char* tag, const std::string& text) {
        qs::LogLine l;
        l.ns = ms * kMs, l.pid = kPid, l.tid = kMain, l.uid = 1047, l.level = level, l.tag = tag, l.text = text;
        qs::parseErrorSuffix(l);
        s.log.push_back(l);
    };
    log(2, 'D', "Cam3CPUCtrl_util", "[init] +");
    log(2, 'D', "Cam3CPUCtrl_util", "[init] -");
    log(20, 'D', "Cam3CPUCtrl_util", "[uninit] +");
    log(20, 'D', "Cam3CPUCtrl_util", "[disable] +");
    log(20, 'D', "Cam3CPUCtrl_util", "[disable] -");
    log(20, 'D', "Cam3CPUCtrl_util", "[uninit] -");
    log(31, 'D', "QrnCam/CpuCtrl", "[enable] +");
    log(105, 'E', "file_cache", "</data/a.raw> Storage size exceed 0MB/0MB (write){#91:utils/sys/FileCache}");
    log(200, 'W', "Cam3CPUCtrl_util", "[uninit] No user(0)\nsecond line");
    s.sections = {{kPid, kMain, "Cam3CPUCtrl::init", 2 * kMs, 3 * kMs},
                  {kPid, kMain, "CpuCtrl::enable", 31 * kMs, qs::kNoTime}};
    s.marks = {{800 * kMs, kPid, "exit", "1 dump still pending"}};
    qs::derive(s);
    return s;
}

TEST(SessionModel, DeriveEndsSpansAndLocksAndTheChecksSayWhatWasLeft) {
    const qs::Session s = handMade();
    ASSERT_EQ(3u, s.scenarios.size());
    EXPECT_EQ(qs::SpanEnd::Disabled, s.scenarios[0].enabled[0].endedBy);
    EXPECT_FALSE(s.scenarios[0].leftRegistered());
    EXPECT_EQ(qs::SpanEnd::TimedOut, s.scenarios[1].enabled[0].endedBy);
    EXPECT_EQ(1033 * kMs, s.scenarios[1].enabled[0].end.ns);
    EXPECT_TRUE(s.scenarios[1].onPurpose);  // an earlier CpuCtrl scenario
    EXPECT_EQ(qs::SpanEnd::Reenabled, s.scenarios[2].enabled[0].endedBy);
    EXPECT_TRUE(s.scenarios[2].leftEnabled());
    EXPECT_FALSE(s.scenarios[2].onPurpose);  // the last one: it should have been unregistered
    ASSERT_EQ(4u, s.perfLocks.size());
    EXPECT_EQ(qs::LockEnd::Released, s.perfLocks[0].endedBy);
    EXPECT_EQ(qs::LockEnd::RanOut, s.perfLocks[1].endedBy);
    EXPECT_EQ(507 * kMs, s.perfLocks[1].end.ns);
    EXPECT_TRUE(s.perfLocks[2].refused());
    EXPECT_EQ("camera perf", s.perfLocks[3].request);
    EXPECT_TRUE(s.perfLocks[3].leftHeld());

    std::vector<std::string> kinds;
    for (const qs::Finding& f : qs::leftHeld(s)) kinds.push_back(f.kind + (f.onPurpose ? " (on purpose)" : ""));
    EXPECT_THAT(kinds, ElementsAre("left registered (on purpose)", "left enabled", "perf lock held", "users left",
                                   "dump pending", "cache open"));
    EXPECT_EQ(5, qs::unintended(qs::leftHeld(s)));
    const auto scopes = qs::unpairedScopes(s);
    ASSERT_EQ(1u, scopes.size());
    EXPECT_THAT(scopes[0].what, HasSubstr("\"[enable] +\" of QrnCam/CpuCtrl"));
    const auto problems = qs::problems(s);
    ASSERT_EQ(2u, problems.size());
    EXPECT_EQ("in write at utils/sys/FileCache:91", problems[0].why);
}

// Where a timeout or a duration ends exactly when a call comes, it ended by
// itself; a nanosecond sooner, the call ended it. A call whose handle is not
// known may have withdrawn any scenario, unless the scenario is used after.
TEST(SessionModel, EndsAtTheEdgeAndCallsOfUnknownHandle) {
    for (const qs::Nanos late : {0, -1}) {
        qs::Session s;
        s.end = 10000 * kMs;
        s.processFor(kPid);
        auto power = [&](qs::Nanos ns, qs::PowerOp op, std::vector<int32_t> args, std::optional<int32_t> result,
                         uint32_t unknown = 0) {
            s.powerCalls.push_back({{ns, qs::Evidence::Seen}, kPid, kMain, 0, op, args, result, false, unknown});
        };
        power(0, qs::PowerOp::RegisterScenario, {}, 5);
        power(0, qs::PowerOp::EnableScenario, {5, 1000}, std::nullopt);
        power(1000 * kMs + late, qs::PowerOp::DisableScenario, {5}, std::nullopt);
        power(2000 * kMs, qs::PowerOp::RegisterScenario, {}, 6);
        power(2001 * kMs, qs::PowerOp::UnregisterScenario, {-1}, std::nullopt, 1);  // which one, not known
        power(2002 * kMs, qs::PowerOp::EnableScenario, {5, 0}, std::nullopt);       // 5 was still there
        qs::PerfCall acquire, release;
        acquire.at = {0, qs::Evidence::Seen}, acquire.pid = kPid, acquire.duration = 500, acquire.result = 1;
        release.at = {500 * kMs + late, qs::Evidence::Seen}, release.pid = kPid, release.op = qs::PerfOp::Release;
        release.handle = 1;
        s.perfCalls = {acquire, release};
        qs::derive(s);
        EXPECT_EQ(late ? qs::SpanEnd::Disabled : qs::SpanEnd::TimedOut, s.scenarios[0].enabled[0].endedBy);
        EXPECT_EQ(late ? qs::LockEnd::Released : qs::LockEnd::RanOut, s.perfLocks[0].endedBy);
        EXPECT_TRUE(s.scenarios[0].leftRegistered()) << late;
        ASSERT_TRUE(s.scenarios[1].unregistered.has_value());
        EXPECT_EQ(qs::Evidence::Unknown, s.scenarios[1].unregistered->how);
    }
}

TEST(SessionModel, ErrorSuffixesAreParsedOnlyWhenWhole) {
    for (const auto& [text, function, line] : std::vector<std::tuple<std::string, std::string, int>>{
             {"[f] x (getSystemThermalValue){#81:utils/sys/ThermalInfo}", "getSystemThermalValue", 81},
             {"File name is NULL\n (open){#50:utils/sys/FileCache}", "open", 50},
             {"no suffix", "", 0},
             {"broken (f){#x:path}", "", 0},
             {"spaced (a b){#1:p}", "", 0}}) {
        qs::LogLine l;
        l.text = text;
        EXPECT_EQ(!function.empty(), qs::parseErrorSuffix(l)) << text;
        if (!function.empty()) {
            EXPECT_EQ(std::make_pair(function, line), std::make_pair(l.function, l.line)) << text;
        }
    }
}

TEST(SessionModel, LogcatTextComesFromLiblogsFormatterInEveryFormat) {
    setenv("TZ", "UTC", 1);
    tzset();
    qs::LogLine l;
    l.ns = 1700000000123456789, l.pid = 123456, l.tid = 7, l.uid = 1047, l.level = 'W', l.tag = "Cam3CPUCtrl_util";
    l.text = "[uninit] two\nlines";
    EXPECT_EQ(
        "11-14 22:13:20.123 123456     7 W Cam3CPUCtrl_util: [uninit] two\n"
        "11-14 22:13:20.123 123456     7 W Cam3CPUCtrl_util: lines\n",
        qs::LogcatFormat("threadtime").format(l));
    EXPECT_EQ("2023-11-14 22:13:20.123456  1047 123456     7 W Cam3CPUCtrl_util: [uninit] two\n",
              qs::LogcatFormat("year,usec uid").format(l).substr(0, 79));
    EXPECT_EQ("W/Cam3CPUCtrl_util(123456): [uninit] two\n", qs::LogcatFormat("brief").format(l).substr(0, 41));
    l.sink = qs::Sink::ULog, l.module = 0x00107001;
    EXPECT_THAT(qs::LogcatFormat("time").format(l), HasSubstr("W/ulog/Cam3CPUCtrl_util[00107001](123456): "));
    EXPECT_FALSE(qs::LogcatFormat("threadtime,sparkly").valid());
    EXPECT_TRUE(qs::LogcatFormat("time UTC").valid());  // a time zone, as logcat takes it
    qs::Session s;
    s.log = {l};
    EXPECT_EQ("", qs::renderLogcat(s, qs::LogcatFormat(), false));  // unified-logger lines only when asked
}

// The timeline is reviewed as text, like a transcript.
TEST(SessionModel, TimelineMatchesItsKeptText) {
    const std::string actual = qs::renderTimeline(handMade()) + "--\n" + qs::renderLeftHeld(qs::leftHeld(handMade()));
    const std::string golden = QRNCAM_GOLDEN_DIR "/timeline.txt";
    std::ifstream in(golden);
    std::stringstream want;
    want << in.rdbuf();
    if (want.str() != actual) {
        std::ofstream(QRNCAM_TRANSCRIPT_OUT "/timeline.txt") << actual;
        ADD_FAILURE() << golden << " differs; the actual text is in " QRNCAM_TRANSCRIPT_OUT "/timeline.txt";
    }
}

TEST(SessionModel, TraceGivesViewersMatchedPairsNamedThreadsAndWhatWasLeft) {
    const json trace = json::parse(qs::renderTrace(handMade()));
    std::set<std::pair<int, int>> named, used;
    std::map<std::pair<int, int>, std::vector<json>> open;
    std::map<std::string, std::vector<std::string>> async;
    int counters = 0, flushes = 0, instants = 0;
    for (const json& e : trace.at("traceEvents")) {
        const std::string ph = e.at("ph");
        const std::pair<int, int> thread{e.at("pid"), e.value("tid", 0)};
        if (ph == "M") {
            if (e.at("name") == "thread_name") named.insert(thread);
            continue;
        }
        if (ph != "C") used.insert(thread);  // a counter belongs to its process
        if (ph == "B") open[thread].push_back(e);
        if (ph == "E") {  // an end names its begin, as every viewer needs
            ASSERT_FALSE(open[thread].empty());
            EXPECT_EQ(open[thread].back().at("name"), e.at("name"));
            EXPECT_EQ(open[thread].back().at("cat"), e.at("cat"));
            open[thread].pop_back();
        }
        if (ph == "b") async[e.at("id")].push_back(e.at("name"));
        if (ph == "e") {
            auto& stack = async[e.at("id")];
            ASSERT_FALSE(stack.empty());
            EXPECT_EQ(stack.back(), e.at("name"));
            stack.pop_back();
            if (e.at("name") == "scenario 3") {
                EXPECT_EQ(json({{"left registered", true}, {"on purpose", false}}), e.at("args"));
            }
        }
        counters += ph == "C";
        if (ph == "X") {
            ++flushes;
            EXPECT_EQ(kWorker, e.at("tid"));
            EXPECT_DOUBLE_EQ(8000.0, e.at("dur").get<double>());
        }
        instants += ph == "i";
    }
    for (const auto& [thread, stack] : open) EXPECT_TRUE(stack.empty());
    for (const auto& [id, stack] : async) EXPECT_TRUE(stack.empty()) << id;
    for (const auto& t : used) EXPECT_TRUE(named.count(t)) << t.first << "/" << t.second;
    EXPECT_EQ(3, counters);
    EXPECT_EQ(1, flushes);  // the pending and the open cache have no flush to draw
    // One config, one refused lock, one refused block, nine log lines, one mark.
    EXPECT_EQ(13, instants);
}

TEST(SessionModel, PageDataMarksWhatWasLeftAndEveryProblem) {
    const qs::Session s = handMade();
    const json page = json::parse(qs::pageData(s, "t", {}));
    int leftBars = 0, rows = 0;
    for (const json& r : page.at("rows")) {
        ++rows;
        for (const json& b : r.at("bars")) leftBars += b.at("left").get<bool>();
    }
    EXPECT_EQ(2 + 3 + 3, rows);  // controllers, scenarios, granted locks
    // CpuCtrl #2 with its user, scenarios 2 and 3, the enabled span of 3, the camera lock.
    EXPECT_EQ(5, leftBars);
    std::multiset<std::string> marks;
    for (const json& m : page.at("marks")) marks.insert(m.at("kind"));
    EXPECT_EQ((std::multiset<std::string>{"refused", "refused", "error", "warn", "exit"}), marks);
    EXPECT_EQ(5, page.at("unintended"));
    EXPECT_EQ("6 left held (5 unintended)", page.at("summary")[0]);
    std::vector<std::string> states;
    for (const json& f : page.at("files")) states.push_back(f.at("state"));
    EXPECT_THAT(states, ElementsAre("written", "never written", "cache never dropped"));
    qs::Session evil = s;
    evil.log[0].text = "</script><script>alert(1)</script>";
    const std::string html = qs::renderPage(evil, "t");
    EXPECT_EQ(std::string::npos, html.find("@DATA@"));
    EXPECT_EQ(std::string::npos, html.find("</script><script>alert"));
}

TEST(SessionModel, JsonReadsBackWhatItWrote) {
    const qs::Session s = handMade();
    const std::string text = qs::toJson(s);
    qs::Session back;
    std::string error;
    ASSERT_TRUE(qs::fromJson(text, back, &error)) << error;
    EXPECT_EQ(text, qs::toJson(back));
    EXPECT_EQ("inferred", json::parse(text).at("power_calls")[1].at("at").at("how"));
    for (const std::string& bad : {std::string("{"), std::string("{\"schema\":\"other\"}"),
                                   text.substr(0, text.find("\"power_calls\"")) + "\"power_calls\":[{}]}"}) {
        EXPECT_FALSE(qs::fromJson(bad, back, &error));
        EXPECT_FALSE(error.empty());
    }
}

}  // namespace
