// The log reader against what liblog's own formatter prints for every
// format and modifier, logd's records in each header version, bug reports
// as text and zip, rotated files, and inputs that are damaged or no log.
#include <gtest/gtest.h>
#include <log/log_read.h>
#include <log/logprint.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <qrnhost/capture.h>
#include <algorithm>
#include <string>
#include <vector>

#include "LogRead.h"

using namespace qrnlog;
using qrnhost::testing::readFile;
using qrnhost::testing::TempDir;
using qrnhost::testing::writeFile;

namespace {

const std::string kData = QRNCAM_LOGSCAN_DATA;

// An item with copies of its texts, which the reader's outlive one call.
struct Seen {
    ItemKind kind = ItemKind::Entry;
    uint32_t input = 0;
    uint64_t position = 0, count = 0;
    Timestamp time, before;
    std::string text;
    Entry entry;
    std::string timeText, uidName, tag, message;
};

std::vector<Seen> readAll(Reader& reader) {
    std::vector<Seen> all;
    Item it;
    while (reader.next(it)) {
        Seen s;
        s.kind = it.kind;
        s.input = it.input;
        s.position = it.position;
        s.count = it.count;
        s.time = it.time;
        s.before = it.before;
        s.text = it.text;
        s.entry = it.entry;
        s.timeText = it.entry.timeText;
        s.uidName = it.entry.uidName;
        s.tag = it.entry.tag;
        s.message = it.entry.message;
        all.push_back(s);
    }
    return all;
}

std::vector<Seen> entries(const std::vector<Seen>& all) {
    std::vector<Seen> out;
    for (const Seen& s : all) {
        if (s.kind == ItemKind::Entry) out.push_back(s);
    }
    return out;
}

std::vector<Seen> readBytes(const std::string& bytes, ReaderOptions options = {}) {
    Reader reader(options);
    reader.addBytes("log", bytes);
    return readAll(reader);
}

// Seconds since 1970 of a time of day read as UTC.
int64_t civil(int year, int month, int day, int hour = 0, int minute = 0, int second = 0) {
    struct tm tm {};
    tm.tm_year = year - 1900;
    tm.tm_mon = month - 1;
    tm.tm_mday = day;
    tm.tm_hour = hour;
    tm.tm_min = minute;
    tm.tm_sec = second;
    return timegm(&tm);
}

std::vector<ItemKind> kinds(const std::vector<Seen>& all) {
    std::vector<ItemKind> out;
    for (const Seen& s : all) out.push_back(s.kind);
    return out;
}

// What a process logged.
struct Logged {
    int64_t sec;
    long nsec;
    android_LogPriority priority;
    int32_t uid, pid, tid;
    std::string tag, message;
};

// 2024-12-31 23:59:59 in the zone the tests print in (UTC+05:30); the year
// turns between the fourth and the fifth line.
constexpr int64_t kEve = 1735669799;
constexpr int64_t kZone = 19800;

const std::vector<Logged> kLogged = {
    {kEve, 266123456, ANDROID_LOG_DEBUG, 1047, 3182, 3190, "Cam3CPUCtrl_util", "[init] +"},
    {kEve, 266123456, ANDROID_LOG_DEBUG, 1047, 3182, 3190, "Cam3CPUCtrl_util", "[init] +"},
    {kEve, 500000000, ANDROID_LOG_INFO, -1, 1234567, 12345678, "a.rather.long.tag.name", "wide ids"},
    {kEve, 999999999, ANDROID_LOG_WARN, 0, 42, 42, "T", "first\nsecond\n\nfourth C:\\dir"},
    {kEve + 1, 7000, ANDROID_LOG_ERROR, 1000, 500, 501, "my: tag", "caf\xc3\xa9 \xff\xfe C:\\x41 \x01 \"q\"\ttab  (x)"},
    {kEve + 1, 250000000, ANDROID_LOG_FATAL, 1000, 1, 1, "QrnCam/CpuCtrl", ""},
    {kEve + 2, 0, ANDROID_LOG_VERBOSE, 2000, 7, 8, "ThermalInfo", "ends with a newline\n"},
};

AndroidLogEntry logEntry(const Logged& l) {
    AndroidLogEntry e{};
    e.tv_sec = static_cast<time_t>(l.sec);
    e.tv_nsec = l.nsec;
    e.priority = l.priority;
    e.uid = l.uid;
    e.pid = l.pid;
    e.tid = l.tid;
    e.tag = l.tag.c_str();
    e.tagLen = l.tag.size();
    e.message = l.message.c_str();
    e.messageLen = l.message.size();
    return e;
}

// What logcat prints for these entries with these -v words.
std::string logcat(const std::vector<std::string>& words, const std::vector<Logged>& logged) {
    AndroidLogFormat* format = android_log_format_new();
    for (const std::string& w : words) android_log_setPrintFormat(format, android_log_formatFromString(w.c_str()));
    std::string text;
    for (const Logged& l : logged) {
        const AndroidLogEntry e = logEntry(l);
        char buf[512];
        size_t n = 0;
        char* line = android_log_formatLogLine(format, buf, sizeof buf, &e, &n);
        text.append(line, n);
        if (line != buf) free(line);
    }
    android_log_format_free(format);
    return text;
}

class TimeZone {
  public:
    explicit TimeZone(const char* tz) {
        const char* old = getenv("TZ");
        if (old != nullptr) mOld = old;
        mHad = old != nullptr;
        setenv("TZ", tz, 1);
        tzset();
    }
    ~TimeZone() {
        if (mHad) {
            setenv("TZ", mOld.c_str(), 1);
        } else {
            unsetenv("TZ");
        }
        tzset();
    }

  private:
    std::string mOld;
    bool mHad = false;
};

struct Combo {
    std::string verb;
    int time;      // 0 month-day, 1 year, 2 epoch, 3 monotonic
    int fraction;  // 3, 6, 9
    bool uid, zone, printable, color;

    std::vector<std::string> words() const {
        std::vector<std::string> w = {verb};
        if (uid) w.push_back("uid");
        if (time > 0) w.push_back(time == 1 ? "year" : time == 2 ? "epoch" : "monotonic");
        if (fraction != 3) w.push_back(fraction == 6 ? "usec" : "nsec");
        if (zone) w.push_back("zone");
        if (printable) w.push_back("printable");
        if (color) w.push_back("color");
        return w;
    }
    bool timed() const { return verb == "threadtime" || verb == "time" || verb == "long"; }
    // The layout the reader should find: logcat ignores what a format cannot show.
    std::string layout() const {
        std::string s = verb + (uid ? ",uid" : "");
        if (timed()) {
            if (time > 0) s += time == 1 ? ",year" : time == 2 ? ",epoch" : ",monotonic";
            if (fraction != 3) s += fraction == 6 ? ",usec" : ",nsec";
            if (zone && time < 2) s += ",zone";
        }
        return s + (printable ? ",printable" : "") + (color ? ",color" : "");
    }
};

// The lines logcat prints a message as. The long format prints the message
// as it is, the others a line per part, where a final newline starts none.
std::vector<std::string> printedLines(const std::string& message, bool longFormat, bool whole) {
    std::vector<std::string> lines;
    size_t pos = 0;
    for (;;) {
        const size_t nl = whole ? std::string::npos : message.find('\n', pos);
        lines.push_back(message.substr(pos, nl == std::string::npos ? std::string::npos : nl - pos));
        if (nl == std::string::npos) break;
        pos = nl + 1;
        if (pos == message.size() && !longFormat) break;
    }
    return lines;
}

std::vector<Seen> expectedEntries(const Combo& c) {
    std::vector<Seen> out;
    const long scale = c.fraction == 3 ? 1000000 : c.fraction == 6 ? 1000 : 1;
    for (const Logged& l : kLogged) {
        Seen e;
        if (c.timed()) {
            e.entry.time.nsec = static_cast<int32_t>(l.nsec / scale * scale);
            e.entry.time.sec = l.sec;
            if (c.time == 2 || (c.zone && c.time < 2)) {
                e.entry.time.clock = Clock::Utc;
            } else if (c.time == 3) {
                e.entry.time.clock = Clock::Monotonic;
            } else {
                e.entry.time.clock = Clock::Local;
                e.entry.time.sec += kZone;
            }
        }
        e.entry.pid = l.pid;
        const bool hasTid = c.verb == "threadtime" || c.verb == "thread" || c.verb == "long";
        e.entry.tid = hasTid ? l.tid : -1;
        e.entry.uid = c.uid && l.uid >= 0 ? l.uid : -1;
        e.entry.priority = l.priority;
        e.tag = c.verb == "thread" ? "" : l.tag;
        const bool whole = c.verb == "long" && c.printable;  // the newline stays escaped
        bool first = true;
        for (const std::string& line : printedLines(l.message, c.verb == "long", whole)) {
            e.message = line;
            if (c.verb == "long") {
                e.entry.continuation = !first;
            } else {
                const Seen* prev = out.empty() ? nullptr : &out.back();
                e.entry.continuation = prev != nullptr && prev->entry.time == e.entry.time &&
                                       prev->entry.pid == e.entry.pid && prev->entry.tid == e.entry.tid &&
                                       prev->entry.priority == e.entry.priority && prev->tag == e.tag;
            }
            out.push_back(e);
            first = false;
        }
    }
    return out;
}

std::string show(const Seen& s) {
    char head[200];
    snprintf(head, sizeof head, "%lld.%09d/%d pid %d tid %d uid %d pri %d%s ", static_cast<long long>(s.entry.time.sec),
             s.entry.time.nsec, static_cast<int>(s.entry.time.clock), s.entry.pid, s.entry.tid, s.entry.uid,
             s.entry.priority, s.entry.continuation ? " cont" : "");
    return head + s.tag + ": " + qrnhost::testing::printable(s.message);
}

std::string record(uint16_t header, uint32_t lid, const Logged& l) {
    std::string payload(1, static_cast<char>(l.priority));
    payload += l.tag;
    payload += '\0';
    payload += l.message;
    payload += '\0';
    std::string r(header, '\0');
    const auto len = static_cast<uint16_t>(payload.size());
    const uint16_t size = header == 20 ? 0 : header;
    const auto sec = static_cast<uint32_t>(l.sec), nsec = static_cast<uint32_t>(l.nsec);
    memcpy(&r[0], &len, 2);
    memcpy(&r[2], &size, 2);
    memcpy(&r[4], &l.pid, 4);
    memcpy(&r[8], &l.tid, 4);
    memcpy(&r[12], &sec, 4);
    memcpy(&r[16], &nsec, 4);
    if (header >= 24) memcpy(&r[20], &lid, 4);
    if (header >= 28) memcpy(&r[24], &l.uid, 4);
    return r + payload;
}

}  // namespace

// Every format logcat prints a pid in, with every combination of the
// modifiers, as liblog's formatter writes it, read back to what was logged,
// whole and keeping two tags (the thread format prints none: all of it).
TEST(LogReadFormats, EveryFormatAndModifierReadsBack) {
    const TimeZone zone("IST-5:30");
    ReaderOptions options;
    options.year = 2024;
    int combos = 0;
    for (const char* verb : {"threadtime", "time", "brief", "long", "process", "thread"}) {
        for (int time = 0; time < 4; ++time) {
            for (int fraction : {3, 6, 9}) {
                for (int flags = 0; flags < 16; ++flags) {
                    const Combo c{
                        verb, time, fraction, (flags & 1) != 0, (flags & 2) != 0, (flags & 4) != 0, (flags & 8) != 0};
                    std::string words;
                    for (const std::string& w : c.words()) words += (words.empty() ? "" : ",") + w;
                    SCOPED_TRACE("-v " + words);
                    Reader reader(options);
                    reader.addBytes("log", logcat(c.words(), kLogged));
                    const std::vector<Seen> got = entries(readAll(reader));
                    const std::vector<Seen> want = expectedEntries(c);
                    const InputInfo& info = reader.inputs()[0];
                    EXPECT_EQ(c.layout(), describe(info.layout));
                    EXPECT_EQ(0u, info.unreadable);
                    ASSERT_EQ(want.size(), got.size());
                    for (size_t i = 0; i < want.size(); ++i) {
                        ASSERT_EQ(show(want[i]), show(got[i])) << "line " << i;
                    }
                    ReaderOptions two = options;
                    two.tags = {"Cam3CPUCtrl_util", "my: tag"};
                    Reader kept(two);
                    kept.addBytes("log", logcat(c.words(), kLogged));
                    const std::vector<Seen> gotKept = entries(readAll(kept));
                    std::vector<std::string> wantKept;
                    for (const Seen& e : want) {
                        if (c.verb == "thread" || e.tag == two.tags[0] || e.tag == two.tags[1])
                            wantKept.push_back(show(e));
                    }
                    ASSERT_EQ(wantKept.size(), gotKept.size());
                    for (size_t i = 0; i < wantKept.size(); ++i) EXPECT_EQ(wantKept[i], show(gotKept[i]));
                    ++combos;
                }
            }
        }
    }
    EXPECT_EQ(6 * 4 * 3 * 16, combos);
}

// logd's records with each header size it has written, records of binary
// buffers and other tags among them, bytes that are no record, and a last
// record cut short.
TEST(LogReadRecords, EveryHeaderVersionDamageAndTruncation) {
    Logged other = kLogged[0];
    other.tag = "ActivityManager";
    const std::string events = record(28, LOG_ID_EVENTS, kLogged[0]);
    const std::string stream = record(28, LOG_ID_MAIN, kLogged[0]) + record(24, LOG_ID_SYSTEM, kLogged[2]) +
                               record(20, 0, kLogged[3]) + events + record(28, LOG_ID_SECURITY, kLogged[2]) +
                               record(28, LOG_ID_MAIN, other) + std::string(37, '\xff') +
                               record(28, LOG_ID_CRASH, kLogged[5]) + record(28, LOG_ID_MAIN, kLogged[6]).substr(0, 10);
    ReaderOptions options;
    options.tags = {"Cam3CPUCtrl_util", "a.rather.long.tag.name", "T", "QrnCam/CpuCtrl"};
    Reader reader(options);
    reader.addBytes("logcat.bin", stream);
    const std::vector<Seen> all = readAll(reader);
    using K = ItemKind;
    EXPECT_EQ((std::vector<K>{K::InputBegin, K::BufferBegin, K::Entry, K::BufferBegin, K::Entry, K::BufferBegin,
                              K::Entry, K::Unreadable, K::BufferBegin, K::Entry, K::Truncated, K::InputEnd}),
              kinds(all));
    const std::vector<Seen> got = entries(all);
    ASSERT_EQ(4u, got.size());
    const int32_t uids[] = {1047, -1, -1, 1000};  // only the newest header carries the uid
    const size_t logged[] = {0, 2, 3, 5};
    for (size_t i = 0; i < got.size(); ++i) {
        const Logged& l = kLogged[logged[i]];
        EXPECT_EQ(l.sec, got[i].entry.time.sec);
        EXPECT_EQ(l.nsec, got[i].entry.time.nsec);
        EXPECT_EQ(Clock::Utc, got[i].entry.time.clock);
        EXPECT_EQ(l.pid, got[i].entry.pid);
        EXPECT_EQ(l.tid, got[i].entry.tid);
        EXPECT_EQ(uids[i], got[i].entry.uid);
        EXPECT_EQ(l.priority, got[i].entry.priority);
        EXPECT_EQ(l.tag, got[i].tag);
        EXPECT_EQ(l.message, got[i].message);  // one entry, newlines and all
    }
    EXPECT_EQ("1735669799.266123456", got[0].timeText);
    EXPECT_EQ("main", all[1].text);
    EXPECT_EQ(0u, all[1].count);
    EXPECT_EQ("system", all[3].text);
    EXPECT_EQ("main", all[5].text);  // the first header has no log id: main, again
    EXPECT_EQ(1u, all[5].count);
    EXPECT_EQ(37u, all[7].count);
    EXPECT_EQ("crash", all[8].text);
    EXPECT_EQ(10u, all[10].count);
    const InputInfo& info = reader.inputs()[0];
    EXPECT_EQ("binary", describe(info.layout));
    EXPECT_EQ(2u, info.ignored);
    EXPECT_EQ(1u, info.skipped);
    EXPECT_EQ(1u, info.unreadable);
    EXPECT_TRUE(info.truncated);
    EXPECT_EQ(7u, info.lines);
}

// A bug report's system log: the year from its header, turning at New
// Year; uids printed as names; printable undone; the sections around it
// left alone. Its zip holds the same, found through main_entry.txt, from a
// file or from standard input.
TEST(LogReadBugReport, SystemLogOfTextAndZip) {
    ReaderOptions options;
    options.tags = sessionTags();
    Reader text(options);
    text.addPath(kData + "/bugreport.txt");
    const std::vector<Seen> all = readAll(text);
    const std::vector<Seen> got = entries(all);
    ASSERT_EQ(5u, got.size());
    EXPECT_EQ("init", got[0].tag);
    EXPECT_EQ("root", got[0].uidName);
    EXPECT_EQ(-1, got[0].entry.uid);
    EXPECT_EQ(1, got[0].entry.pid);
    EXPECT_EQ(civil(2024, 12, 31, 23, 59, 59), got[1].entry.time.sec);
    EXPECT_EQ(Clock::Local, got[1].entry.time.clock);
    EXPECT_EQ(1047, got[1].entry.uid);
    EXPECT_EQ("<\\data\\dump\xC3\xA9.raw> opened\r", got[2].message);
    EXPECT_EQ(civil(2025, 1, 1), got[3].entry.time.sec);
    EXPECT_EQ(500000000, got[3].entry.time.nsec);
    EXPECT_EQ(ANDROID_LOG_ERROR, got[3].entry.priority);
    EXPECT_EQ("chatty", got[4].tag);
    EXPECT_EQ("logd", got[4].uidName);
    const InputInfo& info = text.inputs()[0];
    EXPECT_TRUE(info.bugReport);
    EXPECT_EQ("threadtime,uid,printable", describe(info.layout));
    EXPECT_EQ(2024, info.year);
    EXPECT_EQ(YearSource::BugReport, info.yearSource);
    EXPECT_EQ(2u, info.skipped);  // libc, ActivityManager

    Reader zip(options);
    zip.addPath(kData + "/bugreport.zip");
    zip.addBytes("-", readFile(kData + "/bugreport.zip"));
    const std::vector<Seen> zipped = readAll(zip);
    ASSERT_EQ(10u, entries(zipped).size());
    for (size_t i = 0; i < got.size(); ++i) {
        EXPECT_EQ(show(got[i]), show(entries(zipped)[2 * i]));
        EXPECT_EQ(show(got[i]), show(entries(zipped)[2 * i + 1]));
    }
    EXPECT_EQ(kData + "/bugreport.zip:bugreport-board-QP1A.190711.020-2025-01-02-09-15-31.txt", zip.inputs()[0].name);
    EXPECT_TRUE(zip.inputs()[1].zip);
}

// Rotated files given in any order are read oldest first, with a gap item
// at each junction, and time set back across one of them reported.
TEST(LogReadFiles, RotatedSetsChainAndCapturesMerge) {
    Reader rotated;
    for (const char* name : {"logcat", "logcat.2", "logcat.1"}) rotated.addPath(kData + "/rotated/" + name);
    const std::vector<Seen> all = readAll(rotated);
    std::vector<std::string> messages;
    for (const Seen& e : entries(all)) messages.push_back(e.message);
    EXPECT_EQ((std::vector<std::string>{"[init] +", "[init] -", "one", "two", "after the clock was set back", "last"}),
              messages);
    using K = ItemKind;
    std::vector<K> junctions;
    for (const Seen& s : all) {
        if (s.kind == K::Gap || s.kind == K::TimeBackwards || s.kind == K::InputBegin) junctions.push_back(s.kind);
    }
    EXPECT_EQ((std::vector<K>{K::InputBegin, K::Gap, K::InputBegin, K::Gap, K::TimeBackwards, K::InputBegin}),
              junctions);
    const auto back = std::find_if(all.begin(), all.end(), [](const Seen& s) { return s.kind == K::TimeBackwards; });
    ASSERT_NE(all.end(), back);
    EXPECT_EQ(1, back->before.sec - back->time.sec);
    EXPECT_EQ(2, rotated.inputs()[0].follows);
    EXPECT_EQ(-1, rotated.inputs()[1].follows);
    EXPECT_EQ(1, rotated.inputs()[2].follows);

    // Two captures of one device (one through a terminal, with "\r\n")
    // interleave by time; a capture in another clock is not interleaved
    // with them, and the reader says so.
    const std::string a = "11-24 10:00:00.000  100  100 I A: a1\n11-24 10:00:02.000  100  100 I A: a2\n";
    const std::string b = "11-24 10:00:01.000  200  200 I B: b1\r\n11-24 10:00:03.000  200  200 I B: b2\r\n";
    Reader merged;
    merged.addBytes("a", a);
    merged.addBytes("b", b);
    messages.clear();
    for (const Seen& e : entries(readAll(merged))) messages.push_back(e.message);
    EXPECT_EQ((std::vector<std::string>{"a1", "b1", "a2", "b2"}), messages);

    Reader clocks;
    clocks.addBytes("a", a);
    clocks.addBytes("boot", "  5000.000   300   300 I C: c1\n");
    const std::vector<Seen> mixed = readAll(clocks);
    ASSERT_FALSE(mixed.empty());
    EXPECT_EQ(K::Notice, mixed[0].kind);
    messages.clear();
    for (const Seen& e : entries(mixed)) messages.push_back(e.message);
    EXPECT_EQ((std::vector<std::string>{"a1", "a2", "c1"}), messages);
}

// Without a printed year, the first line's comes from the file's time (the
// end of the log) and turns at New Year; tags not kept are skipped but
// still break a run of continuation lines.
TEST(LogReadFiles, YearFromFileTimeAndTagFilter) {
    const std::string log =
        "12-31 23:59:59.000  1047  3182  3190 D Cam3CPUCtrl_util: [init] +\n"
        "12-31 23:59:59.000  1047  3182  3190 D Cam3CPUCtrl_util: second line\n"
        "12-31 23:59:59.000  1000   900   901 I ActivityManager: another process\n"
        "12-31 23:59:59.000  1047  3182  3190 D Cam3CPUCtrl_util: second line\n"
        "01-01 00:00:01.000  1047  3182  3190 I file_cache: next year\n"
        "01-01 00:00:01.001  1047  3182  3190 I file_cache: a message of its own\n"
        "02-28 12:00:00.000  1047  3182  3190 I file_cache: February\n";
    ReaderOptions options;
    options.tags = sessionTags();
    Reader reader(options);
    reader.addBytes("log", log, civil(2025, 3, 2, 12));
    const std::vector<Seen> got = entries(readAll(reader));
    ASSERT_EQ(6u, got.size());
    EXPECT_EQ(civil(2024, 12, 31, 23, 59, 59), got[0].entry.time.sec);
    EXPECT_FALSE(got[0].entry.continuation);
    EXPECT_TRUE(got[1].entry.continuation);
    EXPECT_FALSE(got[2].entry.continuation);
    EXPECT_EQ(civil(2025, 1, 1, 0, 0, 1), got[3].entry.time.sec);
    EXPECT_FALSE(got[4].entry.continuation);
    EXPECT_EQ(civil(2025, 2, 28, 12), got[5].entry.time.sec);
    const InputInfo& info = reader.inputs()[0];
    EXPECT_EQ(2024, info.year);
    EXPECT_EQ(YearSource::FileTime, info.yearSource);
    EXPECT_EQ(1u, info.skipped);
    EXPECT_EQ(7u, info.lines);
}

// Whether text was written with -v printable shows in its messages: the
// escapes it writes, against raw control bytes and lone backslashes that
// it never leaves.
TEST(LogReadFiles, PrintableToldFromTheMessages) {
    const std::string prefix = "11-24 10:00:00.000   100   101 I A: ";
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"C:\\\\dir \\x41", "C:\\dir A"},    // printable's doubled backslash
        {"C:\\dir \\x41", "C:\\dir \\x41"},  // a lone one
        {"C:\\x41 \x01", "C:\\x41 \x01"},    // a raw control byte
    };
    for (const auto& [printed, logged] : cases) {
        const std::vector<Seen> got = entries(readBytes(prefix + printed + "\n"));
        ASSERT_EQ(1u, got.size());
        EXPECT_EQ(logged, got[0].message);
    }
}

// What is no log, or no longer one, gets one clear item and nothing else.
TEST(LogReadBadInput, NoLogAtAll) {
    const TempDir dir;
    writeFile(dir.file("empty"), "");
    std::string elf =
        "\x7f"
        "ELF\x02\x01\x01";
    for (int i = 0; i < 4096; ++i) elf.push_back(static_cast<char>((i * 7919) >> 3));
    writeFile(dir.file("binary"), elf);
    writeFile(dir.file("prose"), "Dear reader,\nthis is no log.\n\nRegards\n");
    writeFile(dir.file("photos.zip"), "PK\x03\x04" + std::string(60, '\0'));
    std::string damaged = readFile(kData + "/bugreport.zip");
    damaged.replace(500, 10, 10, '\xff');  // inside the bug report's deflated bytes
    writeFile(dir.file("damaged.zip"), damaged);
    const std::string noSystemLog = "========\n== dumpstate: 2025-01-02 09:15:31\n========\n------ UPTIME ------\n";
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"missing", "cannot open: No such file or directory"},
        {"empty", "an empty file"},
        {"binary", "binary data, neither logcat -B records nor a bug report"},
        {"prose", "no line of logcat text in any format"},
        {"photos.zip", "a damaged zip"},
        {"damaged.zip", "the zip member is damaged"},
    };
    for (const auto& [name, why] : cases) {
        SCOPED_TRACE(name);
        Reader reader;
        reader.addPath(dir.file(name));
        const std::vector<Seen> all = readAll(reader);
        ASSERT_EQ(1u, all.size());
        EXPECT_EQ(ItemKind::InputError, all[0].kind);
        EXPECT_EQ(0u, all[0].text.find(why)) << all[0].text;
        EXPECT_EQ(all[0].text, reader.inputs()[0].error);
    }
    const std::vector<Seen> report = readBytes(noSystemLog);
    EXPECT_EQ((std::vector<ItemKind>{ItemKind::InputBegin, ItemKind::InputError, ItemKind::InputEnd}), kinds(report));
    EXPECT_EQ("a bug report without its SYSTEM LOG section", report[1].text);
}

// Damage inside a log: runs of unreadable lines (a NUL, binary noise, a
// line far too long) reported once per run with examples, other processes'
// bytes kept as they were, and the last line cut off mid-message.
TEST(LogReadBadInput, DamagedTextKeepsWhatItCan) {
    std::string log = "11-24 10:00:00.000   100   101 I A: before\n";
    log += std::string("garbage\0with a NUL\n", 19);
    log += "\x13\x99\xfe\n";
    log += "11-24 10:00:01.000   100   101 I A: bytes \xff\xc3(\n";
    log += std::string(300 << 10, 'x') + "\n";
    log += "11-24 10:00:02.000   100   101 I A: cut in the mid";
    ReaderOptions options;
    options.examples = 2;
    Reader reader(options);
    reader.addBytes("log", log);
    const std::vector<Seen> all = readAll(reader);
    using K = ItemKind;
    EXPECT_EQ((std::vector<K>{K::InputBegin, K::Entry, K::Unreadable, K::Entry, K::Unreadable, K::Truncated, K::Entry,
                              K::InputEnd}),
              kinds(all));
    EXPECT_EQ(2u, all[2].count);
    EXPECT_EQ(2u, all[2].position);
    EXPECT_EQ("garbage\\x00with a NUL", all[2].text);
    EXPECT_EQ("bytes \xff\xc3(", all[3].message);
    EXPECT_EQ(1u, all[4].count);
    EXPECT_EQ(5u, all[4].position);
    EXPECT_TRUE(all[6].entry.truncated);
    EXPECT_EQ("cut in the mid", all[6].message);
    const InputInfo& info = reader.inputs()[0];
    EXPECT_EQ(3u, info.unreadable);
    ASSERT_EQ(2u, info.examples.size());
    EXPECT_EQ(3u, info.examples[1].position);
    EXPECT_EQ("\\x13\\x99\\xFE", info.examples[1].text);
    EXPECT_TRUE(info.truncated);
}
