// The line level of logcat's text formats: what one printed line holds, the
// layout an input was written in, and printable's escapes undone.
#pragma once

#include <stdint.h>

#include <string>
#include <string_view>
#include <vector>

#include "LogRead.h"

namespace qrnlog {

// The set of tags to keep, tested on every line: a first-byte and length
// mask rejects most tags before any comparison.
class TagSet {
  public:
    explicit TagSet(const std::vector<std::string>& tags);
    bool all() const { return mAll; }
    bool contains(std::string_view tag) const;

  private:
    bool mAll = true;
    uint64_t mFirst[4] = {};
    uint64_t mLengths = 0;  // bit n: some tag is n bytes long (n < 64)
    std::vector<std::string> mTags;
};

// A time field as printed, not yet placed in a year or a clock.
struct PrintedTime {
    TimeStyle style = TimeStyle::None;
    int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
    int64_t seconds = 0;  // Epoch and Monotonic
    int32_t nsec = 0;
    uint8_t fraction = 0;
    bool zone = false;
    int32_t zoneSeconds = 0;  // east of UTC
};

struct LineFields {
    std::string_view time;  // as printed, padding removed
    PrintedTime printed;
    std::string_view uid;  // as printed; empty when absent or blank
    int32_t pid = -1, tid = -1;
    char priority = 0;
    std::string_view tag, message;
};

enum class LineKind : uint8_t {
    Entry,       // a log line whose tag is kept
    Skipped,     // a log line (or a long header) of a tag not kept
    LongHeader,  // "[ time pid:tid P/tag ]" of a kept tag (Format::Long)
    Divider,     // "--------- beginning of main": message holds the buffer's name, tag the words before it
    Blank,
    Unreadable,
};

// Reads one line (without its line ending) of an input written in format.
// keep may be null (every tag). Lines of the thread format, which prints no
// tag, are always kept.
LineKind parseLine(Format format, std::string_view line, LineFields& out, const TagSet* keep);

// Which layout one line is written in, for detection; false when it is no
// log line of any format.
bool sniffLine(std::string_view line, Layout& out);

// Removes the color modifier's escape sequences: a leading "\x1b[...m", and
// a trailing "\x1b[0m" when there was a leading one or trailing is set.
std::string_view stripColor(std::string_view line, bool trailing);

// Undoes -v printable: "\\", "\a", "\b", "\v", "\f", "\r" and "\xHH" back to
// their bytes; anything else is kept. Returns in (unchanged) when it holds
// no backslash, else the bytes in scratch.
std::string_view unescapePrintable(std::string_view in, std::string& scratch);

// Whether a message shows signs of -v printable (+1), of its absence (-1:
// raw control bytes, a lone backslash), or neither (0).
int printableEvidence(std::string_view message);

android_LogPriority priorityFromChar(char c);

// Decimal digits only, within int32_t.
bool parseInt32(std::string_view s, int32_t& v);

// Days since 1970-01-01 of a date of the proleptic Gregorian calendar.
int64_t daysFromCivil(int year, int month, int day);

}  // namespace qrnlog
