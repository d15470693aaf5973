// One printed line of logcat, in each of its formats. What logcat prints
// (system/core's logprint formatter):
//
//   threadtime  TIME UID? PID TID P TAG     : MSG   tag padded to 8
//   time        TIME P/TAG     (UID: PID): MSG
//   brief       P/TAG     (UID: PID): MSG
//   process     P(UID: PID) MSG  (TAG)
//   thread      P(UID: PID: TID) MSG
//   long        [ TIME UID: PID: TID P/TAG ]     then the message's lines and a blank line
//
// TIME is "MM-DD HH:MM:SS.mmm" with "YYYY-" before it (year), 6 or 9
// fraction digits (usec, nsec) and " +HHMM" after it (zone); or seconds,
// right-aligned in 19 columns (epoch) or 6 (monotonic). Numbers are
// right-aligned in 5 columns and grow past them. UID is a number or a name
// of up to five letters, "UID:" in the bracketed forms, blank when unknown.
// A message holding newlines is printed as one line per part, each with the
// whole prefix (in long, under one header).
#include "TextLine.h"

#include <algorithm>

namespace qrnlog {

namespace {

inline bool isDigit(char c) {
    return c >= '0' && c <= '9';
}
inline bool isIdChar(char c) {
    return isDigit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
}
inline bool isPriority(char c) {
    switch (c) {
        case 'V':
        case 'D':
        case 'I':
        case 'W':
        case 'E':
        case 'F':
        case 'S':
        case '?': return true;
        default: return false;
    }
}

bool twoDigits(const char* p, int& v) {
    if (!isDigit(p[0]) || !isDigit(p[1])) return false;
    v = (p[0] - '0') * 10 + (p[1] - '0');
    return true;
}

std::string_view rtrim(std::string_view s) {
    while (!s.empty() && s.back() == ' ') s.remove_suffix(1);
    return s;
}

// "MM-DD HH:MM:SS" at p (14 bytes available).
bool readDate(const char* p, PrintedTime& t) {
    if (p[2] != '-' || p[5] != ' ' || p[8] != ':' || p[11] != ':') return false;
    if (!twoDigits(p, t.month) || !twoDigits(p + 3, t.day) || !twoDigits(p + 6, t.hour) ||
        !twoDigits(p + 9, t.minute) || !twoDigits(p + 12, t.second)) {
        return false;
    }
    return t.month >= 1 && t.month <= 12 && t.day >= 1 && t.day <= 31 && t.hour <= 23 && t.minute <= 59 &&
           t.second <= 60;
}

// The time field at the start of s; returns its length with padding, or 0.
size_t readTime(std::string_view s, PrintedTime& t, std::string_view& text) {
    size_t i = 0;
    const size_t n = s.size();
    if (n >= 5 && isDigit(s[0]) && isDigit(s[1]) && isDigit(s[2]) && isDigit(s[3]) && s[4] == '-') {
        t.style = TimeStyle::YearDate;
        t.year = (s[0] - '0') * 1000 + (s[1] - '0') * 100 + (s[2] - '0') * 10 + (s[3] - '0');
        i = 5;
    }
    size_t start = 0;
    if (n >= i + 14 && (t.style == TimeStyle::YearDate || (isDigit(s[0]) && s[2] == '-'))) {
        if (!readDate(s.data() + i, t)) return 0;
        if (t.style != TimeStyle::YearDate) t.style = TimeStyle::Date;
        i += 14;
    } else {
        if (t.style == TimeStyle::YearDate) return 0;
        while (i < n && s[i] == ' ') ++i;
        start = i;
        int64_t v = 0;
        while (i < n && isDigit(s[i]) && i - start < 18) v = v * 10 + (s[i++] - '0');  // within int64_t
        if (i == start) return 0;
        t.seconds = v;
        // logcat right-aligns epoch seconds in 19 columns, monotonic ones in 6.
        t.style = i == 19 ? TimeStyle::Epoch : TimeStyle::Monotonic;
    }
    if (i >= n || s[i] != '.') return 0;
    ++i;
    const size_t f = i;
    int32_t ns = 0;
    while (i < n && isDigit(s[i]) && i - f < 9) ns = ns * 10 + (s[i++] - '0');
    if (i == f) return 0;
    t.fraction = static_cast<uint8_t>(i - f);
    for (size_t k = t.fraction; k < 9; ++k) ns *= 10;
    t.nsec = ns;
    if (t.style == TimeStyle::Date || t.style == TimeStyle::YearDate) {
        int hh = 0, mm = 0;
        if (i + 6 <= n && s[i] == ' ' && (s[i + 1] == '+' || s[i + 1] == '-') && twoDigits(s.data() + i + 2, hh) &&
            twoDigits(s.data() + i + 4, mm) && (i + 6 == n || s[i + 6] == ' ')) {
            t.zone = true;
            t.zoneSeconds = (hh * 3600 + mm * 60) * (s[i + 1] == '-' ? -1 : 1);
            i += 6;
        }
    }
    text = s.substr(start, i - start);
    return i;
}

// "UID: PID: TID" as the bracketed forms print it: up to three tokens joined
// by ':' and padded with spaces. Leaves i after the last token.
size_t readIds(std::string_view s, size_t& i, std::string_view* tok) {
    size_t n = 0;
    for (;;) {
        while (i < s.size() && s[i] == ' ') ++i;
        const size_t b = i;
        while (i < s.size() && isIdChar(s[i])) ++i;
        if (b == i) return 0;
        tok[n++] = s.substr(b, i - b);
        if (n == 3 || i >= s.size() || s[i] != ':') return n;
        ++i;
    }
}

// Fills pid, tid and uid from the n tokens of a prefix; withTid says whether
// the last one is a thread id.
bool assignIds(const std::string_view* tok, size_t n, bool withTid, LineFields& out) {
    const size_t ids = withTid ? 2 : 1;
    if (n < ids || n > ids + 1) return false;
    if (withTid && !parseInt32(tok[n - 1], out.tid)) return false;
    if (!parseInt32(tok[n - ids], out.pid)) return false;
    out.uid = n > ids ? tok[0] : std::string_view();
    return true;
}

LineKind finish(LineFields& out, const TagSet* keep, LineKind kept = LineKind::Entry) {
    return keep != nullptr && !keep->contains(out.tag) ? LineKind::Skipped : kept;
}

LineKind parseThreadtime(std::string_view s, LineFields& out, const TagSet* keep) {
    size_t i = readTime(s, out.printed, out.time);
    if (i == 0 || i >= s.size() || s[i] != ' ') return LineKind::Unreadable;
    std::string_view tok[3];
    size_t n = 0;
    for (;;) {
        while (i < s.size() && s[i] == ' ') ++i;
        const size_t b = i;
        while (i < s.size() && isIdChar(s[i])) ++i;
        if (b == i || n == 3) return LineKind::Unreadable;
        tok[n++] = s.substr(b, i - b);
        if (i + 2 >= s.size() || s[i] != ' ') return LineKind::Unreadable;
        if (n >= 2 && isPriority(s[i + 1]) && s[i + 2] == ' ') break;
    }
    out.priority = s[i + 1];
    const size_t ts = i + 3;
    // The tag is padded to eight columns, then ": ".
    if (s.size() >= ts + 10 && s[ts + 8] == ':' && s[ts + 9] == ' ') {
        out.tag = rtrim(s.substr(ts, 8));
        out.message = s.substr(ts + 10);
    } else {
        const size_t c = s.find(": ", ts);
        if (c != std::string_view::npos) {
            out.tag = rtrim(s.substr(ts, c - ts));
            out.message = s.substr(c + 2);
        } else if (s.back() == ':' && s.size() > ts) {  // an empty message whose trailing blank was cut
            out.tag = rtrim(s.substr(ts, s.size() - 1 - ts));
            out.message = std::string_view();
        } else {
            return LineKind::Unreadable;
        }
    }
    if (keep != nullptr && !keep->contains(out.tag)) return LineKind::Skipped;
    return assignIds(tok, n, true, out) ? LineKind::Entry : LineKind::Unreadable;
}

// "P/TAG(UID: PID): MSG" from s[i].
LineKind parseBrief(std::string_view s, size_t i, LineFields& out, const TagSet* keep) {
    if (s.size() < i + 2 || !isPriority(s[i]) || s[i + 1] != '/') return LineKind::Unreadable;
    out.priority = s[i];
    const size_t ts = i + 2;
    for (size_t p = s.find('(', ts); p != std::string_view::npos; p = s.find('(', p + 1)) {
        size_t j = p + 1;
        std::string_view tok[3];
        const size_t n = readIds(s, j, tok);
        if (n == 0 || j + 1 >= s.size() || s[j] != ')' || s[j + 1] != ':') continue;
        if (j + 2 < s.size() && s[j + 2] != ' ') continue;
        out.tag = rtrim(s.substr(ts, p - ts));
        out.message = j + 3 <= s.size() ? s.substr(j + 3) : std::string_view();
        if (keep != nullptr && !keep->contains(out.tag)) return LineKind::Skipped;
        return assignIds(tok, n, false, out) ? LineKind::Entry : LineKind::Unreadable;
    }
    return LineKind::Unreadable;
}

// "P(UID: PID) MSG  (TAG)" and "P(UID: PID: TID) MSG".
LineKind parseBracketed(std::string_view s, bool process, LineFields& out, const TagSet* keep) {
    if (s.size() < 4 || !isPriority(s[0]) || s[1] != '(') return LineKind::Unreadable;
    out.priority = s[0];
    size_t j = 2;
    std::string_view tok[3];
    const size_t n = readIds(s, j, tok);
    if (n == 0 || j >= s.size() || s[j] != ')' || (j + 1 < s.size() && s[j + 1] != ' ')) return LineKind::Unreadable;
    std::string_view rest = j + 2 <= s.size() ? s.substr(j + 2) : std::string_view();
    if (!assignIds(tok, n, !process, out)) return LineKind::Unreadable;
    if (!process) {
        out.message = rest;
        return LineKind::Entry;
    }
    const size_t p = rest.rfind("  (");
    if (p == std::string_view::npos || rest.back() != ')' || p + 3 > rest.size() - 1) return LineKind::Unreadable;
    out.tag = rest.substr(p + 3, rest.size() - 1 - (p + 3));
    std::string_view msg = rest.substr(0, p);
    if (msg.size() >= 4 && msg.substr(msg.size() - 4) == "\x1b[0m") msg.remove_suffix(4);  // color ends before the tag
    out.message = msg;
    return finish(out, keep);
}

// "[ TIME UID: PID: TID P/TAG ]"
LineKind parseLongHeader(std::string_view s, LineFields& out, const TagSet* keep) {
    if (s.size() < 6 || s[0] != '[' || s[1] != ' ' || s[s.size() - 2] != ' ' || s.back() != ']') {
        return LineKind::Unreadable;
    }
    const std::string_view body = s.substr(2, s.size() - 4);
    size_t i = readTime(body, out.printed, out.time);
    if (i == 0 || i >= body.size() || body[i] != ' ') return LineKind::Unreadable;
    std::string_view tok[3];
    const size_t n = readIds(body, i, tok);
    if (i + 2 >= body.size() || body[i] != ' ' || !isPriority(body[i + 1]) || body[i + 2] != '/') {
        return LineKind::Unreadable;
    }
    if (!assignIds(tok, n, true, out)) return LineKind::Unreadable;
    out.priority = body[i + 1];
    out.tag = rtrim(body.substr(i + 3));
    return finish(out, keep, LineKind::LongHeader);
}

}  // namespace

TagSet::TagSet(const std::vector<std::string>& tags) : mAll(tags.empty()), mTags(tags) {
    for (const std::string& t : mTags) {
        mLengths |= uint64_t{1} << std::min<size_t>(t.size(), 63);
        if (!t.empty()) {
            const auto c = static_cast<unsigned char>(t[0]);
            mFirst[c >> 6] |= uint64_t{1} << (c & 63);
        }
    }
}

bool TagSet::contains(std::string_view tag) const {
    if (mAll) return true;
    if (!(mLengths >> std::min<size_t>(tag.size(), 63) & 1)) return false;
    if (!tag.empty()) {
        const auto c = static_cast<unsigned char>(tag[0]);
        if (!(mFirst[c >> 6] >> (c & 63) & 1)) return false;
    }
    return std::find(mTags.begin(), mTags.end(), tag) != mTags.end();
}

std::string_view stripColor(std::string_view line, bool trailing) {
    if (line.size() >= 3 && line[0] == '\x1b' && line[1] == '[') {
        const size_t m = line.find('m', 2);
        if (m < 16) {  // npos is larger
            line.remove_prefix(m + 1);
            trailing = true;
        }
    }
    if (trailing && line.size() >= 4 && line.substr(line.size() - 4) == "\x1b[0m") line.remove_suffix(4);
    return line;
}

LineKind parseLine(Format format, std::string_view line, LineFields& out, const TagSet* keep) {
    if (line.empty()) return LineKind::Blank;
    if (line[0] == '-' && line.size() > 10 && line.substr(0, 10) == "--------- ") {
        for (std::string_view lead : {"beginning of ", "switch to "}) {
            if (line.substr(10, lead.size()) == lead) {
                out.message = line.substr(10 + lead.size());
                out.tag = lead;
                return LineKind::Divider;
            }
        }
    }
    const std::string_view s = stripColor(line, false);
    switch (format) {
        case Format::Threadtime: return parseThreadtime(s, out, keep);
        case Format::Time: {
            const size_t i = readTime(s, out.printed, out.time);
            if (i == 0 || i >= s.size() || s[i] != ' ') return LineKind::Unreadable;
            return parseBrief(s, i + 1, out, keep);
        }
        case Format::Brief: return parseBrief(s, 0, out, keep);
        case Format::Process: return parseBracketed(s, true, out, keep);
        case Format::Thread: return parseBracketed(s, false, out, keep);
        case Format::Long: return parseLongHeader(s, out, keep);
        case Format::Binary: break;
    }
    return LineKind::Unreadable;
}

bool sniffLine(std::string_view line, Layout& out) {
    for (Format f : {Format::Long, Format::Threadtime, Format::Time, Format::Brief, Format::Process, Format::Thread}) {
        LineFields fields;
        const LineKind k = parseLine(f, line, fields, nullptr);
        if (k != LineKind::Entry && k != LineKind::LongHeader) continue;
        out = Layout();
        out.format = f;
        out.time = fields.printed.style;
        out.fraction = fields.printed.fraction;
        out.zone = fields.printed.zone;
        out.uid = !fields.uid.empty();
        out.color = line[0] == '\x1b';
        return true;
    }
    return false;
}

std::string_view unescapePrintable(std::string_view in, std::string& scratch) {
    if (in.find('\\') == std::string_view::npos) return in;
    scratch.clear();
    auto hex = [](char c) -> int {
        if (isDigit(c)) return c - '0';
        if (c >= 'A' && c <= 'F') return c - 'A' + 10;
        if (c >= 'a' && c <= 'f') return c - 'a' + 10;
        return -1;
    };
    for (size_t i = 0; i < in.size(); ++i) {
        const char c = in[i];
        if (c != '\\' || i + 1 >= in.size()) {
            scratch.push_back(c);
            continue;
        }
        const char e = in[i + 1];
        char byte = 0;
        switch (e) {
            case '\\': byte = '\\'; break;
            case 'a': byte = '\a'; break;
            case 'b': byte = '\b'; break;
            case 'v': byte = '\v'; break;
            case 'f': byte = '\f'; break;
            case 'r': byte = '\r'; break;
            default: break;
        }
        if (byte != 0) {
            scratch.push_back(byte);
            ++i;
        } else if (e == 'x' && i + 3 < in.size() && hex(in[i + 2]) >= 0 && hex(in[i + 3]) >= 0) {
            scratch.push_back(static_cast<char>(hex(in[i + 2]) * 16 + hex(in[i + 3])));
            i += 3;
        } else {
            scratch.push_back(c);
        }
    }
    return scratch;
}

int printableEvidence(std::string_view message) {
    int evidence = 0;
    for (size_t i = 0; i < message.size(); ++i) {
        const auto c = static_cast<unsigned char>(message[i]);
        if (c < 0x20 && c != '\t') return -1;  // printable escapes every control byte but tab
        if (c != '\\') continue;
        const char e = i + 1 < message.size() ? message[i + 1] : '\0';
        if (e == '\\' || e == 'r' || e == 'a' || e == 'b' || e == 'v' || e == 'f' || e == 'x') {
            evidence = 1;
            ++i;
        } else {
            return -1;  // printable doubles every backslash
        }
    }
    return evidence;
}

bool parseInt32(std::string_view s, int32_t& v) {
    if (s.empty() || s.size() > 10) return false;
    int64_t x = 0;
    for (char c : s) {
        if (!isDigit(c)) return false;
        x = x * 10 + (c - '0');
    }
    if (x > INT32_MAX) return false;
    v = static_cast<int32_t>(x);
    return true;
}

android_LogPriority priorityFromChar(char c) {
    switch (c) {
        case 'V': return ANDROID_LOG_VERBOSE;
        case 'D': return ANDROID_LOG_DEBUG;
        case 'I': return ANDROID_LOG_INFO;
        case 'W': return ANDROID_LOG_WARN;
        case 'E': return ANDROID_LOG_ERROR;
        case 'F': return ANDROID_LOG_FATAL;
        case 'S': return ANDROID_LOG_SILENT;
        default: return ANDROID_LOG_UNKNOWN;
    }
}

int64_t daysFromCivil(int year, int month, int day) {
    const int64_t y = static_cast<int64_t>(year) - (month <= 2 ? 1 : 0);
    const int64_t era = (y >= 0 ? y : y - 399) / 400;
    const int64_t yoe = y - era * 400;
    const int64_t doy = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
    const int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + doe - 719468;
}

std::string describe(const Layout& layout) {
    static const char* const kFormats[] = {"threadtime", "time", "brief", "long", "process", "thread", "binary"};
    std::string s = kFormats[static_cast<int>(layout.format)];
    if (layout.uid) s += ",uid";
    if (layout.time == TimeStyle::YearDate) s += ",year";
    if (layout.time == TimeStyle::Epoch && layout.format != Format::Binary) s += ",epoch";
    if (layout.time == TimeStyle::Monotonic) s += ",monotonic";
    if (layout.format != Format::Binary && layout.fraction == 6) s += ",usec";
    if (layout.format != Format::Binary && layout.fraction == 9) s += ",nsec";
    if (layout.zone) s += ",zone";
    if (layout.printable) s += ",printable";
    if (layout.color) s += ",color";
    if (layout.crlf) s += ",crlf";
    return s;
}

}  // namespace qrnlog
