// The session program's pieces on their own: its options handed to the
// session's process, the record read back into a session, and the dump
// check.
#include <gmock/gmock.h>

#include <qrnhost/capture.h>
#include <fstream>
#include <vector>

#include "Options.h"
#include "Record.h"
#include "Report.h"
#include "Run.h"

namespace {

namespace qs = qrnsession;
namespace qt = qrnhost::testing;

TEST(SessionParts, OptionsReachTheSessionProcessAsTheyWereParsed) {
    std::vector<std::string> words = {
        "qrncam_session", "--frames", "7",   "--frame-size", "3M",     "--budget",     "1G",        "--prop",
        "a.b=c d",        "--mode",   "0x3", "--trace",      "t.json", "--log-format", "long,usec", "--scenario",
        "service-death"};
    std::vector<char*> argv;
    for (auto& w : words) argv.push_back(w.data());
    session::Options o;
    ASSERT_EQ(-1, session::parseOptions(static_cast<int>(argv.size()), argv.data(), &o));
    session::Options back;
    std::string error;
    ASSERT_TRUE(back.fromJson(o.toJson(), &error)) << error;
    EXPECT_EQ(o.toJson(), back.toJson());
    EXPECT_EQ(7, back.frames);
    EXPECT_EQ(3ull << 20, back.frameSize);
    EXPECT_EQ(1ll << 30, back.budget);
    EXPECT_EQ(3u, back.mode);
    EXPECT_EQ(std::vector<std::string>{"a.b=c d"}, back.props);
    EXPECT_EQ("service-death", back.scenario);
    EXPECT_FALSE(back.fromJson("{\"frames\": 1}", &error));
    uint64_t size = 0;
    EXPECT_FALSE(session::parseSize("-1", &size));
    EXPECT_FALSE(session::parseSize("5T", &size));
    EXPECT_FALSE(session::parseSize("99999999999999999999", &size));
}

// A record written by hand: two caches of one name (told apart by the drop
// that names each flush), a section inside another, calls of a controller,
// and the budget from every charge and credit.
TEST(SessionParts, TheRecordBuildsTheSession) {
    qt::TempDir dir;
    const std::string path = dir.file("record.jsonl");
    const std::string lines =
        R"({"k":"thread","pid":9,"tid":9,"name":"session","ns":1000}
{"k":"section-begin","pid":9,"tid":9,"name":"outer","ns":1100}
{"k":"section-begin","pid":9,"tid":9,"name":"inner","ns":1200}
{"k":"section-end","pid":9,"tid":9,"ns":1300}
{"k":"section-end","pid":9,"tid":9,"ns":1400}
{"k":"ctrl","pid":9,"tid":9,"id":2,"kind":"CpuCtrl","what":"create","users":0,"ns":1450}
{"k":"power","pid":9,"tid":9,"op":"registerScenario","args":[],"result":5,"failed":false,"ctrl":2,"ns":1500}
{"k":"power","pid":9,"tid":9,"op":"registerScenario","args":[],"result":0,"failed":true,"ctrl":2,"ns":1550}
{"k":"fc","pid":9,"tid":9,"event":"open","cache":1,"flush":0,"name":"/f","bytes":0,"charged":0,"limit":0,"ok":true,"ns":2000}
{"k":"fc","pid":9,"tid":9,"event":"open","cache":2,"flush":0,"name":"/f","bytes":0,"charged":0,"limit":0,"ok":true,"ns":2001}
{"k":"fc","pid":9,"tid":9,"event":"write","cache":2,"flush":0,"name":"/f","bytes":10,"charged":10,"limit":15,"ok":true,"ns":2002}
{"k":"fc","pid":9,"tid":9,"event":"refuse","cache":1,"flush":0,"name":"/f","bytes":9,"charged":10,"limit":15,"ok":false,"ns":2003}
{"k":"fc","pid":9,"tid":9,"event":"drop","cache":2,"flush":77,"name":"/f","bytes":0,"charged":0,"limit":0,"ok":true,"ns":2004}
{"k":"dump","pid":9,"tid":9,"path":"/f","frames":[4],"ns":2005}
{"k":"fc","pid":9,"tid":9,"event":"queue","cache":0,"flush":77,"name":"/f","bytes":10,"charged":0,"limit":0,"ok":true,"ns":2006}
{"k":"mark","pid":9,"tid":9,"what":"service died","detail":"","ns":2007}
{"k":"done","pid":9,"tid":9,"ns":2008}
{"k":"fc","pid":9,"tid":12,"event":"begin","cache":0,"flush":77,"name":"/f","bytes":0,"charged":0,"limit":0,"ok":true,"ns":2100}
{"k":"fc","pid":9,"tid":12,"event":"credit","cache":0,"flush":77,"name":"","bytes":10,"charged":0,"limit":0,"ok":true,"ns":2101}
{"k":"fc","pid":9,"tid":12,"event":"end","cache":0,"flush":77,"name":"/f","bytes":0,"charged":0,"limit":0,"ok":true,"ns":2102}
)";
    qt::writeFile(path, lines);
    qs::Session s;
    std::vector<std::string> facts;
    std::string error;
    ASSERT_TRUE(session::readRecord(path, s, &facts, &error)) << error;
    qs::derive(s);
    ASSERT_EQ(2u, s.sections.size());
    EXPECT_EQ(1400, s.sections[0].end);
    EXPECT_EQ(1300, s.sections[1].end);
    ASSERT_EQ(1u, s.scenarios.size());  // the failed call registered nothing
    EXPECT_EQ(2, s.scenarios[0].controller);
    ASSERT_EQ(2u, s.caches.size());
    EXPECT_FALSE(s.caches[0].dropped.has_value());
    EXPECT_EQ(1u, s.caches[0].refused.size());
    const qs::FileCache& second = s.caches[1];
    EXPECT_EQ(std::vector<int>{4}, second.frames);
    ASSERT_TRUE(second.flush.end.has_value());
    EXPECT_EQ(2102, second.flush.end->ns);
    EXPECT_EQ(12, second.flush.tid);
    EXPECT_EQ("FileCache worker", s.threadName(9, 12));
    EXPECT_EQ(15, s.budgetLimit);
    ASSERT_EQ(2u, s.budget.size());
    EXPECT_EQ(0u, s.budget[1].bytes);
    EXPECT_EQ(2102, s.end);
    // The death comes after both calls made before it, whatever their times.
    ASSERT_EQ(1u, s.marks.size());
    EXPECT_EQ(2, s.marks[0].callsBefore);

    // Cut short: the last line unfinished, or the session's last word missing.
    qt::writeFile(path, lines.substr(0, lines.size() - 5));
    EXPECT_FALSE(session::readRecord(path, s, &facts, &error));
    EXPECT_THAT(error, ::testing::HasSubstr(":20: the last line is cut short"));
    std::string noDone = lines;
    noDone.erase(noDone.find("{\"k\":\"done\""),
                 noDone.find('\n', noDone.find("{\"k\":\"done\"")) - noDone.find("{\"k\":\"done\"") + 1);
    qt::writeFile(path, noDone);
    EXPECT_FALSE(session::readRecord(path, s, &facts, &error));
    EXPECT_THAT(error, ::testing::HasSubstr("lacks the session's last word"));
}

TEST(SessionParts, DumpsAreCheckedByteForByte) {
    qt::TempDir dir;
    const uint64_t size = 24;
    std::string file;
    for (int frame : {3, 4}) {
        std::vector<uint64_t> words(size / 8 + 1);
        session::fillFrame(words, static_cast<uint64_t>(frame));
        file.append(reinterpret_cast<const char*>(words.data()), size);
    }
    const std::string path = dir.file("d.raw");
    qt::writeFile(path, file);
    EXPECT_EQ("", session::verifyDump(path, {3, 4}, size));
    EXPECT_EQ("content differs in frame 4", session::verifyDump(path, {4, 3}, size));
    EXPECT_EQ("longer than its frames", session::verifyDump(path, {3}, size));
    EXPECT_EQ("short at frame 5", session::verifyDump(path, {3, 4, 5}, size));
    EXPECT_EQ("missing", session::verifyDump(dir.file("none"), {3}, size));
}

}  // namespace
