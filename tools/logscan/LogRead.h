// qrnlog: reads what an engineer gets back from a device (adb logcat text in
// any of logcat's formats, the records of `adb logcat -B`, a bug report as
// its .txt or its .zip, rotated logcat -f/-r files) as one stream of log
// entries in time order, with notices of everything the stream cannot show
// (where a buffer begins, gaps between files, unreadable or cut lines, time
// going backwards).
//
// Usage:
//
//     qrnlog::ReaderOptions options;
//     options.tags = qrnlog::sessionTags();       // empty keeps every tag
//     qrnlog::Reader reader(options);
//     reader.addPath("logcat.txt");               // "-" is standard input
//     reader.addPath("bugreport.zip");
//     qrnlog::Item item;
//     while (reader.next(item)) {
//         if (item.kind == qrnlog::ItemKind::Entry) use(item.entry);
//     }
//
// The reader streams: it holds a buffer of about a megabyte for each capture
// (for a rotated set, the file being read) and the few things it reports,
// whatever the size of the inputs. Lines of tags it does not keep are
// skipped once their tag is known, without the rest of their prefix being
// converted. Every string_view of an Item stays valid until the next call of
// next(). A bug report's year, layout and first time are known only once its
// system log is reached, after its InputBegin.
//
// What each input is, is found from its own first bytes: a zip (a bug
// report's), a bug report's text (its "== dumpstate:" header; only its
// SYSTEM LOG section is read), logd's entry records, or logcat text. Text is
// recognised in the formats that print a pid (threadtime, time, brief, long,
// process, thread) with any of the modifiers uid, year, usec, nsec, epoch,
// monotonic, zone, printable and color, and with either line ending.
//
// Inputs given together whose names are NAME and NAME.N (logcat -f NAME -r
// rotates NAME into NAME.1, NAME.1 into NAME.2, ...) are one capture and are
// read one after another, oldest first; separate captures are merged by
// time when they use the same clock, and read one after another otherwise.
#pragma once

#include <android/log.h>
#include <stddef.h>
#include <stdint.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace qrnlog {

// The clock a time was printed in.
enum class Clock : uint8_t {
    None,       // the format prints no time (process, thread)
    Local,      // wall time without a zone, the device's local time: the value counts
                // its seconds since 1970 as if that local time were UTC
    Utc,        // wall time printed with its zone, epoch seconds, logd's records
    Monotonic,  // seconds since the device booted
};

struct Timestamp {
    int64_t sec = 0;
    int32_t nsec = 0;
    Clock clock = Clock::None;
};
// Order by value; the clock is not compared.
inline bool operator<(const Timestamp& a, const Timestamp& b) {
    return a.sec < b.sec || (a.sec == b.sec && a.nsec < b.nsec);
}
inline bool operator==(const Timestamp& a, const Timestamp& b) {
    return a.sec == b.sec && a.nsec == b.nsec;
}

// logcat's format words: the verb, then how the time is printed.
enum class Format : uint8_t { Threadtime, Time, Brief, Long, Process, Thread, Binary };
enum class TimeStyle : uint8_t {
    None,       // process, thread
    Date,       // "11-24 01:18:43.266" (no year: one is assumed, see InputInfo::year)
    YearDate,   // "2024-11-24 01:18:43.266" (-v year)
    Epoch,      // "1732411123.266" (-v epoch; logd's records)
    Monotonic,  // "  5000.266" (-v monotonic)
};

struct Layout {
    Format format = Format::Threadtime;
    TimeStyle time = TimeStyle::Date;
    uint8_t fraction = 3;    // digits after the seconds' point: 3, 6 (-v usec) or 9 (-v nsec)
    bool zone = false;       // -v zone
    bool uid = false;        // -v uid
    bool color = false;      // -v color (the escape sequences are removed)
    bool printable = false;  // -v printable (messages are read back to their bytes)
    bool crlf = false;       // lines end with "\r\n"
};
// The layout as logcat's -v words, e.g. "threadtime,uid,printable".
std::string describe(const Layout& layout);

// The tags the session reconstruction needs: the library's own, logd's
// "chatty" notices and init's service lines.
const std::vector<std::string>& sessionTags();

// One printed line of a text input, or one record of logd's.
struct Entry {
    Timestamp time;
    std::string_view timeText;  // as printed; for records, "seconds.nanoseconds"
    int32_t pid = -1;
    int32_t tid = -1;          // -1 where the format has none (brief, time, process)
    int32_t uid = -1;          // -1 where not printed, or printed as a name
    std::string_view uidName;  // the uid when printed as a name ("root"), else empty
    android_LogPriority priority = ANDROID_LOG_UNKNOWN;
    std::string_view tag;      // empty in the thread format, which prints none
    std::string_view message;  // bytes as logged (non-UTF-8 kept); a record's may hold '\n'
    // Same time, pid, tid, priority and tag as the line just before it in
    // the same input: logcat prints a message holding a newline as several
    // such lines, but two messages logged at once look the same. In the long
    // format, where each message has its own header, this marks exactly the
    // message's later lines.
    bool continuation = false;
    bool truncated = false;  // the input ended inside this line: the message may be cut
};

enum class ItemKind : uint8_t {
    Entry,          // entry holds a log entry
    InputBegin,     // an input starts; time is its first line's
    InputEnd,       // an input ends; time is its last line's, count its lines (or records)
    InputError,     // the input cannot be read; text says why (nothing else comes from it, but for a
                    // bug report found to lack its system log only after InputBegin)
    BufferBegin,    // "--------- beginning of main" (count 0) or "switch to" (count 1): text names the buffer
    Gap,            // the next file of a rotated set starts: before is where the last one ended
    TimeBackwards,  // time steps back: before is the time just before the step, time the new one
    Unreadable,     // count lines (or bytes of records) that could not be read; text is the first, cut
    Truncated,      // the input ends inside a line or record; count bytes of it were there
    Notice,         // anything else worth saying about how the inputs are read; text says it
};

struct Item {
    ItemKind kind = ItemKind::Entry;
    uint32_t input = 0;     // index into Reader::inputs()
    uint64_t position = 0;  // line (text) or record (logd's) number in the input, from 1; 0 for none
    uint64_t offset = 0;    // byte offset of that line or record in the input
    Timestamp time;         // where the item stands in time (for an entry, its time)
    Timestamp before;       // Gap and TimeBackwards: the earlier side
    uint64_t count = 0;
    std::string_view text;
    Entry entry;
};

// Where an input's year came from, for formats that print none.
enum class YearSource : uint8_t { Printed, Option, BugReport, FileTime, Today };

struct Example {
    uint64_t position = 0;
    uint64_t offset = 0;
    std::string text;  // cut at 200 bytes, other than printable ASCII shown as \xHH
};

struct InputInfo {
    std::string name;  // as given; a bug report zip's member is added after ':'
    bool zip = false;  // the bytes came out of a zip
    bool bugReport = false;
    Layout layout;
    std::string error;  // why it could not be read at all, or empty
    int year = 0;       // the year assumed for the first line (Date style only)
    YearSource yearSource = YearSource::Printed;
    int32_t follows = -1;  // the input this one continues in a rotated set, or -1
    uint64_t lines = 0;    // lines (or records) read
    uint64_t entries = 0;  // entries handed out
    uint64_t skipped = 0;  // lines of tags not kept
    uint64_t ignored = 0;  // records of binary buffers (events, stats, security)
    uint64_t unreadable = 0;
    std::vector<Example> examples;  // the first few unreadable lines
    bool truncated = false;
    Timestamp first, last;  // of its first and last readable lines
};

// What the reader does with the "\xHH" escapes of -v printable.
enum class Printable : uint8_t {
    Auto,  // bug reports are printable; other text when its first lines show escapes and no raw control bytes
    Yes,
    No,
};

struct ReaderOptions {
    std::vector<std::string> tags;  // tags to keep; empty keeps every line
    Printable printable = Printable::Auto;
    int year = 0;  // year of the first line of inputs that print none; 0 finds one
    size_t examples = 5;
};

class Reader {
  public:
    explicit Reader(ReaderOptions options = {});
    ~Reader();
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;

    // Inputs are added before the first next(). "-" is standard input.
    void addPath(const std::string& path);
    // An input held in memory (tests, fuzzing); mtime stands for a file's
    // modification time when the year has to be assumed.
    void addBytes(const std::string& name, std::string bytes, int64_t mtime = 0);

    // The next item in time order; false when every input is read.
    bool next(Item& item);

    // One per input, in the order added; an input's is complete once its
    // InputEnd (or InputError) was handed out.
    const std::vector<InputInfo>& inputs() const;

  private:
    struct State;
    std::unique_ptr<State> mState;
};

}  // namespace qrnlog
