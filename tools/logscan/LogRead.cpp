// The reader: inputs opened and recognised, each read by a source of its
// kind (logcat text, a bug report's system log, logd's records), the files
// of a rotated set chained oldest first, and the chains merged by time.
#include "LogRead.h"

#include <errno.h>
#include <fcntl.h>
#include <minizip/unzip.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <deque>
#include <map>

#include "Records.h"
#include "TextLine.h"

namespace qrnlog {

const std::vector<std::string>& sessionTags() {
    static const std::vector<std::string> kTags = {"QrnCam/CpuCtrl", "Cam3CPUCtrl_util", "file_cache",
                                                   "ThermalInfo",    "chatty",           "init"};
    return kTags;
}

namespace {

constexpr size_t kBufferSize = size_t{1} << 20;
constexpr size_t kMaxLine = size_t{256} << 10;  // longer "lines" are no logcat lines
constexpr size_t kWindow = size_t{64} << 10;    // what recognising an input looks at
constexpr size_t kExampleBytes = 200;

// ---------------------------------------------------------------- bytes

class ByteSource {
  public:
    virtual ~ByteSource() = default;
    // Up to n bytes; 0 at the end, -1 on an error (then error says which).
    virtual ssize_t read(char* buf, size_t n) = 0;
    std::string error;
};

class FdSource : public ByteSource {
  public:
    FdSource(int fd, bool own) : mFd(fd), mOwn(own) {}
    ~FdSource() override {
        if (mOwn) close(mFd);
    }
    ssize_t read(char* buf, size_t n) override {
        for (;;) {
            const ssize_t r = ::read(mFd, buf, n);
            if (r >= 0 || errno != EINTR) {
                if (r < 0) error = strerror(errno);
                return r;
            }
        }
    }

  private:
    int mFd;
    bool mOwn;
};

class MemorySource : public ByteSource {
  public:
    explicit MemorySource(std::string bytes) : mBytes(std::move(bytes)) {}
    ssize_t read(char* buf, size_t n) override {
        n = std::min(n, mBytes.size() - mPos);
        memcpy(buf, mBytes.data() + mPos, n);
        mPos += n;
        return static_cast<ssize_t>(n);
    }

  private:
    std::string mBytes;
    size_t mPos = 0;
};

// One member of a zip, inflated as it is read.
class ZipSource : public ByteSource {
  public:
    explicit ZipSource(unzFile zip) : mZip(zip) {}
    ~ZipSource() override {
        unzCloseCurrentFile(mZip);
        unzClose(mZip);
    }
    ssize_t read(char* buf, size_t n) override {
        const int r = unzReadCurrentFile(mZip, buf, static_cast<unsigned>(std::min<size_t>(n, INT_MAX)));
        if (r < 0) error = "the zip member is damaged (inflating failed with " + std::to_string(r) + ")";
        return r;
    }

  private:
    unzFile mZip;
};

// A window onto an input: bytes read ahead, consumed from the front.
class Buffer {
  public:
    explicit Buffer(std::unique_ptr<ByteSource> source) : mSource(std::move(source)), mData(new char[kBufferSize]) {}
    const char* data() const { return mData.get() + mBegin; }
    size_t size() const { return mEnd - mBegin; }
    uint64_t offset() const { return mOffset; }
    bool ended() const { return mEnded; }
    const std::string& error() const { return mSource->error; }
    void consume(size_t n) {
        mBegin += n;
        mOffset += n;
    }
    // Reads until want bytes (at most the buffer's size) are there or the
    // input ends; true when they are.
    bool fill(size_t want) {
        while (size() < want && !mEnded) {
            if (mBegin + want > kBufferSize || mEnd == kBufferSize) {
                memmove(mData.get(), data(), size());
                mEnd -= mBegin;
                mBegin = 0;
            }
            const ssize_t r = mSource->read(mData.get() + mEnd, kBufferSize - mEnd);
            if (r <= 0) {
                mEnded = true;
                break;
            }
            mEnd += static_cast<size_t>(r);
        }
        return size() >= want;
    }
    ByteSource& source() { return *mSource; }

  private:
    std::unique_ptr<ByteSource> mSource;
    std::unique_ptr<char[]> mData;
    size_t mBegin = 0, mEnd = 0;
    uint64_t mOffset = 0;
    bool mEnded = false;
};

// Lines of a buffer. A line stays valid until the next call.
class LineReader {
  public:
    explicit LineReader(Buffer& buffer) : mBuf(buffer) {}

    struct Line {
        std::string_view text;
        uint64_t offset = 0;
        bool newline = true;    // false: the input ended inside it
        bool overlong = false;  // cut at kMaxLine; the rest up to its newline is dropped
    };

    bool next(Line& line) {
        mBuf.consume(mConsume);
        mConsume = 0;
        for (;;) {
            const char* d = mBuf.data();
            const size_t n = mBuf.size();
            if (mDiscard) {
                const void* p = memchr(d, '\n', n);
                mBuf.consume(p != nullptr ? static_cast<const char*>(p) - d + 1 : n);
                mDiscard = p == nullptr;
                if (mDiscard && !mBuf.fill(1)) return false;
                continue;
            }
            const void* p = n > mScan ? memchr(d + mScan, '\n', n - mScan) : nullptr;
            if (p != nullptr) {
                const size_t len = static_cast<const char*>(p) - d;
                line = {{d, len}, mBuf.offset(), true, false};
                mConsume = len + 1;
                mScan = 0;
                return true;
            }
            mScan = n;
            if (n >= kMaxLine) {
                line = {{d, kMaxLine}, mBuf.offset(), true, true};
                mConsume = kMaxLine;
                mDiscard = true;
                mScan = 0;
                return true;
            }
            if (!mBuf.fill(n + 1)) {
                if (mBuf.size() == 0) return false;
                line = {{mBuf.data(), mBuf.size()}, mBuf.offset(), false, false};
                mConsume = mBuf.size();
                mScan = 0;
                return true;
            }
        }
    }

    // What lies ahead of the current line, up to kWindow bytes.
    std::string_view window() {
        mBuf.consume(mConsume);
        mConsume = 0;
        mScan = 0;
        mBuf.fill(kWindow);
        return {mBuf.data(), mBuf.size()};
    }

  private:
    Buffer& mBuf;
    size_t mConsume = 0;
    size_t mScan = 0;
    bool mDiscard = false;
};

// ---------------------------------------------------------------- time

Clock clockOf(const Layout& layout) {
    switch (layout.time) {
        case TimeStyle::None: return Clock::None;
        case TimeStyle::Date:
        case TimeStyle::YearDate: return layout.zone ? Clock::Utc : Clock::Local;
        case TimeStyle::Epoch: return Clock::Utc;
        case TimeStyle::Monotonic: return Clock::Monotonic;
    }
    return Clock::None;
}

// The year of lines that print none: the first line's from a reference
// (the time the bug report was taken, the file was last written, or now),
// then one more at each turn from December to January.
class YearTracker {
  public:
    void reference(int year, int month, int day, YearSource source) {
        mYear = year;
        mRefMonthDay = month * 100 + day;
        mSource = source;
    }
    int yearFor(int month, int day) {
        if (mLastMonth == 0) {
            // The reference is when the log ended: a first line later in the year is from the year before.
            if (mSource != YearSource::Option && month * 100 + day > mRefMonthDay) --mYear;
            mFirstYear = mYear;
        } else if (month + 6 < mLastMonth) {
            ++mYear;
        } else if (month > mLastMonth + 6) {
            --mYear;
        }
        mLastMonth = month;
        return mYear;
    }
    void printed(int year, int month) {
        mYear = year;
        mLastMonth = month;
    }
    int firstYear() const { return mFirstYear; }
    YearSource source() const { return mSource; }

  private:
    int mYear = 1970;
    int mRefMonthDay = 1231;
    int mLastMonth = 0;
    int mFirstYear = 0;
    YearSource mSource = YearSource::Today;
};

Timestamp toTimestamp(const PrintedTime& p, YearTracker& years) {
    Timestamp t;
    t.nsec = p.nsec;
    switch (p.style) {
        case TimeStyle::None: return t;
        case TimeStyle::Epoch:
            t.sec = p.seconds;
            t.clock = Clock::Utc;
            return t;
        case TimeStyle::Monotonic:
            t.sec = p.seconds;
            t.clock = Clock::Monotonic;
            return t;
        case TimeStyle::Date:
        case TimeStyle::YearDate: break;
    }
    int year = p.year;
    if (p.style == TimeStyle::Date) {
        year = years.yearFor(p.month, p.day);
    } else {
        years.printed(p.year, p.month);
    }
    t.sec = daysFromCivil(year, p.month, p.day) * 86400 + p.hour * 3600 + p.minute * 60 + p.second - p.zoneSeconds;
    t.clock = p.zone ? Clock::Utc : Clock::Local;
    return t;
}

std::string showBytes(std::string_view s) {
    std::string out;
    for (char c : s.substr(0, kExampleBytes)) {
        const auto u = static_cast<unsigned char>(c);
        if (u >= 0x20 && u < 0x7f && u != '\\') {
            out.push_back(c);
        } else {
            char esc[8];
            snprintf(esc, sizeof esc, "\\x%02X", u);
            out += esc;
        }
    }
    if (s.size() > kExampleBytes) out += "...";
    return out;
}

// ---------------------------------------------------------------- recognising

bool isZip(std::string_view w) {
    return w.size() >= 4 && w.substr(0, 4) == std::string_view("PK\x03\x04", 4);
}

bool looksBinary(std::string_view w) {
    size_t odd = 0;
    for (char c : w) {
        const auto u = static_cast<unsigned char>(c);
        if (u == 0) return true;
        if (u < 0x20 && u != '\n' && u != '\r' && u != '\t' && u != 0x1b) ++odd;
    }
    return odd * 20 > w.size();
}

bool isBugReport(std::string_view w) {
    const size_t head = w.substr(0, 512).find("\n== dumpstate: ");
    return head != std::string_view::npos;
}

// Records from the start of w: the first plausible and either alone or
// followed by another.
bool looksLikeRecords(std::string_view w, bool whole) {
    const auto* p = reinterpret_cast<const unsigned char*>(w.data());
    RecordHeader h;
    if (w.size() < 28 || !readRecordHeader(p, w.size(), h) || w.size() < h.total() || !plausibleRecord(p, h)) {
        return false;
    }
    if (w.size() == h.total()) return whole;
    RecordHeader next;
    const size_t rest = w.size() - h.total();
    if (rest < 4 || !readRecordHeader(p + h.total(), rest, next)) return false;
    return rest < next.total() || plausibleRecord(p + h.total(), next);
}

// The lines of a window, the last only when the window ends the input.
template <typename F>
void forLines(std::string_view w, bool whole, size_t max, F f) {
    size_t pos = 0;
    for (size_t n = 0; n < max && pos < w.size(); ++n) {
        const size_t nl = w.find('\n', pos);
        if (nl == std::string_view::npos && !whole) break;
        const size_t end = nl == std::string_view::npos ? w.size() : nl;
        f(w.substr(pos, end - pos));
        pos = end + 1;
    }
}

// The layout of logcat text from its first lines: the format most of them
// are written in. False when too few of them are log lines.
bool detectText(std::string_view w, bool whole, Printable printable, Layout& layout) {
    size_t considered = 0, crlf = 0;
    size_t votes[7] = {};
    Layout first[7];
    forLines(w, whole, 400, [&](std::string_view line) {
        if (!line.empty() && line.back() == '\r') {
            line.remove_suffix(1);
            ++crlf;
        }
        LineFields fields;
        const LineKind k = parseLine(Format::Thread, line, fields, nullptr);  // blank or divider whatever the format
        if (k == LineKind::Blank || k == LineKind::Divider) return;
        ++considered;
        Layout l;
        if (!sniffLine(line, l)) return;
        const auto f = static_cast<size_t>(l.format);
        if (votes[f]++ == 0) first[f] = l;
    });
    const size_t best = std::max_element(votes, votes + 7) - votes;
    // In the long format every message line is a line of free text.
    const bool enough = best == static_cast<size_t>(Format::Long) ? votes[best] > 0 : votes[best] * 4 >= considered;
    if (votes[best] == 0 || !enough) return false;
    layout = first[best];
    layout.crlf = crlf * 2 > considered;
    if (printable != Printable::Auto) {
        layout.printable = printable == Printable::Yes;
        return true;
    }
    int evidence = 0;  // -1 once a message rules it out
    forLines(w, whole, 400, [&](std::string_view line) {
        if (evidence < 0) return;
        if (layout.crlf && !line.empty() && line.back() == '\r') line.remove_suffix(1);
        LineFields fields;
        const LineKind k = parseLine(layout.format, line, fields, nullptr);
        int e = 0;
        if (k == LineKind::Entry) {
            e = printableEvidence(fields.message);
        } else if (layout.format == Format::Long && k == LineKind::Unreadable) {
            e = printableEvidence(stripColor(line, true));  // a message line
        }
        evidence = e < 0 ? -1 : std::max(evidence, e);
    });
    layout.printable = evidence > 0;
    return true;
}

// ---------------------------------------------------------------- sources

struct Context {
    const ReaderOptions& options;
    const TagSet& keep;
};

class Source {
  public:
    Source(InputInfo& info, uint32_t index) : mInfo(info), mIndex(index) {}
    virtual ~Source() = default;
    bool next(Item& item) {
        while (mPending.empty() && step()) {
        }
        if (mPending.empty()) return false;
        item = mPending.front();
        mPending.pop_front();
        return true;
    }
    Timestamp firstTime() const { return mInfo.first; }

  protected:
    // Reads on until it has pended an item or the input ends; false at the end.
    virtual bool step() = 0;

    Item notice(ItemKind kind, uint64_t position, uint64_t offset) const {
        Item it;
        it.kind = kind;
        it.input = mIndex;
        it.position = position;
        it.offset = offset;
        it.time = mNow;
        return it;
    }
    // What stopped the input, said once in its info and once in the stream.
    void stopped(ItemKind kind, std::string why, uint64_t position, uint64_t offset) {
        mInfo.error = std::move(why);
        Item it = notice(kind, position, offset);
        it.text = mInfo.error;
        mPending.push_back(it);
    }
    void example(uint64_t position, uint64_t offset, std::string_view text, size_t max) {
        if (mInfo.examples.size() < max) mInfo.examples.push_back({position, offset, showBytes(text)});
    }

    InputInfo& mInfo;
    const uint32_t mIndex;
    Timestamp mNow;  // the latest time seen, where notices stand
    std::deque<Item> mPending;
};

class TextSource : public Source {
  public:
    TextSource(InputInfo& info, uint32_t index, std::unique_ptr<Buffer> buffer, const Context& ctx,
               const YearTracker& years)
        : Source(info, index), mBuffer(std::move(buffer)), mLines(*mBuffer), mCtx(ctx), mYears(years) {
        mKeep = mCtx.keep.all() ? nullptr : &mCtx.keep;
        mSection = mInfo.bugReport ? Section::Before : Section::In;
        if (!mInfo.bugReport) mInfo.first = firstLineTime(mLines.window());
    }

  private:
    enum class Section { Before, In, After };

    Timestamp firstLineTime(std::string_view w) {
        Timestamp t;
        bool found = false;
        forLines(w, mBuffer->ended(), 400, [&](std::string_view line) {
            LineFields f;
            if (found) return;
            if (mInfo.layout.crlf && !line.empty() && line.back() == '\r') line.remove_suffix(1);
            const LineKind k = parseLine(mInfo.layout.format, line, f, nullptr);
            if (k != LineKind::Entry && k != LineKind::LongHeader) return;
            found = true;
            t = toTimestamp(f.printed, mYears);
        });
        mNow = t;
        mInfo.year = mYears.firstYear();
        mInfo.yearSource = mYears.source();
        if (mInfo.layout.time != TimeStyle::Date) mInfo.yearSource = YearSource::Printed;
        return t;
    }

    bool step() override {
        LineReader::Line line;
        const bool held = mHeld;
        if (held) {
            line = mHeldLine;
            mHeld = false;
        } else if (!mLines.next(line)) {
            return finish();
        } else {
            ++mLineNo;
        }
        std::string_view text = line.text;
        if (mInfo.layout.crlf && !text.empty() && text.back() == '\r') text.remove_suffix(1);
        if (mSection != Section::In) return bugReportLine(text);
        if (mInfo.bugReport && text.substr(0, 7) == "------ ") {
            mSection = Section::After;  // the system log ends where the next section begins
            return finish();
        }
        if (held) return longLine(text, line);
        ++mInfo.lines;
        if (!line.newline) {
            // Reported after what the lines before it close, before the entry it may be.
            mInfo.truncated = true;
            mCut = notice(ItemKind::Truncated, mLineNo, line.offset);
            mCut.count = text.size();
        }
        if (line.overlong) {
            unreadable(text, line);
            return true;
        }
        if (mInfo.layout.format == Format::Long) return longLine(text, line);
        LineFields f;
        const LineKind kind = parseLine(mInfo.layout.format, text, f, mKeep);
        if (kind == LineKind::Unreadable) {
            unreadable(text, line);
            return true;
        }
        endRun();
        if (kind == LineKind::Entry) {
            entry(f, f.message, line, false);
            return true;
        }
        mPrevKept = false;
        if (kind == LineKind::Skipped) {
            ++mInfo.skipped;
            mLastPrinted = f.printed;
        } else if (kind == LineKind::Divider) {
            divider(f, line);
        }
        return true;
    }

    // Long: a header, then the message's lines, then a blank line. A
    // message may hold blank lines of its own, so a blank line is only
    // known to be the separator when a header follows it.
    bool longLine(std::string_view text, const LineReader::Line& line) {
        LineFields f;
        const LineKind kind = parseLine(Format::Long, text, f, mKeep);
        if (kind == LineKind::Blank && mRecord != Record::None) {
            ++mBlanks;
            return true;
        }
        const bool ends = kind == LineKind::LongHeader || kind == LineKind::Skipped || kind == LineKind::Divider;
        if (mBlanks > 0) {
            // Blank lines before a header: all but the separator belong to the message.
            mBlankDebt = mRecord == Record::Kept ? mBlanks - (ends ? 1 : 0) : 0;
            mBlankPosition = mLineNo - mBlanks;
            mBlanks = 0;
        }
        if (mBlankDebt > 0) {
            --mBlankDebt;
            mHeld = true;
            mHeldLine = line;
            LineReader::Line blank;
            blank.offset = line.offset;  // near enough: blank lines are not kept
            entry(mHeader, std::string_view(), blank, !mFirstLine, mBlankPosition++);
            mFirstLine = false;
            return true;
        }
        if (ends) endRun();
        if (kind == LineKind::LongHeader) {
            mRecord = Record::Kept;
            mHeaderTime = f.time;
            mHeaderTag = f.tag;
            mHeaderUid = f.uid;
            mHeader = f;
            mHeader.time = mHeaderTime;
            mHeader.tag = mHeaderTag;
            mHeader.uid = mHeaderUid;
            mFirstLine = true;
            mLastPrinted = f.printed;
            return true;
        }
        if (kind == LineKind::Skipped) {
            mRecord = Record::Skipped;
            mLastPrinted = f.printed;
            ++mInfo.skipped;
            return true;
        }
        if (kind == LineKind::Divider) {
            mRecord = Record::None;
            divider(f, line);
            return true;
        }
        switch (mRecord) {
            case Record::None:
                if (kind != LineKind::Blank) unreadable(text, line);
                return true;
            case Record::Skipped: return true;
            case Record::Kept:
                entry(mHeader, stripColor(text, mInfo.layout.color), line, !mFirstLine);
                mFirstLine = false;
                return true;
        }
        return true;
    }

    void entry(const LineFields& f, std::string_view message, const LineReader::Line& line, bool continuation,
               uint64_t position = 0) {
        endRun();
        Item it = notice(ItemKind::Entry, position != 0 ? position : mLineNo, line.offset);
        Entry& e = it.entry;
        e.time = toTimestamp(f.printed, mYears);
        e.timeText = f.time;
        e.pid = f.pid;
        e.tid = f.tid;
        if (!parseInt32(f.uid, e.uid)) e.uidName = f.uid;
        e.priority = priorityFromChar(f.priority);
        e.tag = f.tag;
        e.message = mInfo.layout.printable ? unescapePrintable(message, mScratch) : message;
        e.truncated = !line.newline;
        if (mInfo.layout.format == Format::Long) {
            e.continuation = continuation;
        } else {
            e.continuation = mPrevKept && f.pid == mPrev.pid && f.tid == mPrev.tid && f.priority == mPrev.priority &&
                             f.time == mPrevTime && f.tag == mPrevTag;
            mPrev = f;
            mPrevTime.assign(f.time);
            mPrevTag.assign(f.tag);
            mPrevKept = true;
        }
        it.time = e.time;
        if (mHaveKept && e.time < mLastKept) {
            Item back = notice(ItemKind::TimeBackwards, it.position, it.offset);
            back.before = mLastKept;
            back.time = e.time;
            mPending.push_back(back);
        }
        mHaveKept = true;
        mLastKept = e.time;
        mNow = e.time;
        mLastPrinted = f.printed;
        ++mInfo.entries;
        mPending.push_back(it);
    }

    void divider(const LineFields& f, const LineReader::Line& line) {
        Item it = notice(ItemKind::BufferBegin, mLineNo, line.offset);
        mDividerText.assign(f.message);
        it.text = mDividerText;
        it.count = f.tag.substr(0, 6) == "switch" ? 1 : 0;
        mPending.push_back(it);
    }

    void unreadable(std::string_view text, const LineReader::Line& line) {
        mPrevKept = false;
        ++mInfo.unreadable;
        example(mLineNo, line.offset, text, mCtx.options.examples);
        if (mRun.count++ == 0) {
            mRun = notice(ItemKind::Unreadable, mLineNo, line.offset);
            mRun.count = 1;
            mRunText = showBytes(text);
        }
    }

    void endRun() {
        if (mRun.count != 0) {
            mRun.text = mRunText;
            mPending.push_back(mRun);
            mRun.count = 0;
        }
        if (mCut.kind == ItemKind::Truncated) {
            mPending.push_back(mCut);
            mCut.kind = ItemKind::Entry;
        }
    }

    // Outside the system log of a bug report: its header gives the year,
    // its section title the modifiers, its first lines the format.
    bool bugReportLine(std::string_view text) {
        if (mSection == Section::After) return finish();
        int y = 0, mo = 0, d = 0;
        if (text.substr(0, 14) == "== dumpstate: " && mCtx.options.year == 0 &&
            sscanf(std::string(text.substr(14, 10)).c_str(), "%4d-%2d-%2d", &y, &mo, &d) == 3) {
            mYears.reference(y, mo, d, YearSource::BugReport);
        }
        if (text.substr(0, 18) != "------ SYSTEM LOG ") return true;
        mSection = Section::In;
        const std::string_view window = mLines.window();
        Printable printable = mCtx.options.printable;
        if (printable == Printable::Auto)
            printable = text.find("-v printable") != npos ? Printable::Yes : Printable::No;
        if (!detectText(window, mBuffer->ended(), printable, mInfo.layout)) {
            mInfo.layout = Layout();
            mInfo.layout.uid = true;
            mInfo.layout.printable = printable == Printable::Yes;
        }
        mInfo.first = firstLineTime(window);
        return true;
    }

    bool finish() {
        if (mDone) return false;
        mDone = true;
        endRun();
        if (mRecord == Record::Kept) {
            // The separator after the last message is its last blank line.
            LineReader::Line end;
            for (size_t k = 1; k < mBlanks; ++k) entry(mHeader, std::string_view(), end, true, mLineNo - mBlanks + k);
        }
        if (mInfo.bugReport && mSection == Section::Before) {
            stopped(ItemKind::InputError, "a bug report without its SYSTEM LOG section", 0, 0);
        }
        if (!mBuffer->error().empty()) {
            stopped(ItemKind::Notice, "reading stopped: " + mBuffer->error(), mLineNo, mBuffer->offset());
        }
        if (mLastPrinted.style != TimeStyle::None) mInfo.last = toTimestamp(mLastPrinted, mYears);
        if (mInfo.year == 0 && mInfo.layout.time == TimeStyle::Date) mInfo.year = mYears.firstYear();
        return !mPending.empty();
    }

    static constexpr size_t npos = std::string_view::npos;
    enum class Record { None, Kept, Skipped };

    std::unique_ptr<Buffer> mBuffer;
    LineReader mLines;
    const Context& mCtx;
    const TagSet* mKeep;
    YearTracker mYears;
    Section mSection;
    uint64_t mLineNo = 0;
    bool mDone = false;
    PrintedTime mLastPrinted;
    // Held back while blank lines of a long message are handed out.
    bool mHeld = false;
    LineReader::Line mHeldLine;
    // Unreadable lines in a row, handed out as one item when the run ends.
    Item mRun;
    std::string mRunText;
    Item mCut;  // the last line, cut short
    // The line before, for continuation marks.
    bool mPrevKept = false;
    LineFields mPrev;
    std::string mPrevTime, mPrevTag;
    // Time going backwards.
    bool mHaveKept = false;
    Timestamp mLastKept;
    // The long format's current record.
    Record mRecord = Record::None;
    LineFields mHeader;
    std::string mHeaderTime, mHeaderTag, mHeaderUid;
    bool mFirstLine = false;
    size_t mBlanks = 0;     // blank lines since the last line of the message
    size_t mBlankDebt = 0;  // of them, still to hand out as empty lines of the message
    uint64_t mBlankPosition = 0;
    std::string mScratch, mDividerText;
};

class RecordSource : public Source {
  public:
    RecordSource(InputInfo& info, uint32_t index, std::unique_ptr<Buffer> buffer, const Context& ctx)
        : Source(info, index), mBuffer(std::move(buffer)), mCtx(ctx), mScratch(new log_msg) {
        RecordHeader h;
        readRecordHeader(reinterpret_cast<const unsigned char*>(mBuffer->data()), mBuffer->size(), h);
        mInfo.first = {static_cast<int64_t>(h.sec), static_cast<int32_t>(h.nsec), Clock::Utc};
        mNow = mInfo.first;
    }

  private:
    const unsigned char* bytes() const { return reinterpret_cast<const unsigned char*>(mBuffer->data()); }

    bool step() override {
        if (!mBuffer->fill(4)) return finish();
        RecordHeader h;
        if (!readRecordHeader(bytes(), mBuffer->size(), h)) return resync();
        if (!mBuffer->fill(h.total())) return finish();
        if (!readRecordHeader(bytes(), mBuffer->size(), h)) return resync();
        const uint64_t offset = mBuffer->offset();
        ++mRecordNo;
        ++mInfo.lines;
        mInfo.last = {static_cast<int64_t>(h.sec), static_cast<int32_t>(h.nsec), Clock::Utc};
        if (binaryBuffer(h.lid)) {
            ++mInfo.ignored;
            mBuffer->consume(h.total());
            return true;
        }
        if (h.lid != mLid) {
            static const char* const kNames[] = {"main",  "radio", "events",   "system",
                                                 "crash", "stats", "security", "kernel"};
            Item b = notice(ItemKind::BufferBegin, mRecordNo, offset);
            b.text = kNames[h.lid];
            b.count = mSeen >> h.lid & 1;
            mSeen |= 1u << h.lid;
            mLid = h.lid;
            mPending.push_back(b);
        }
        if (!mCtx.keep.contains(recordTag(bytes(), h))) {
            ++mInfo.skipped;
            mBuffer->consume(h.total());
            return true;
        }
        AndroidLogEntry le;
        if (!decodeRecord(bytes(), h, *mScratch, le)) {
            unreadable(offset, h.total());
            mBuffer->consume(h.total());
            return true;
        }
        mBuffer->consume(h.total());
        const std::string_view tag(le.tag, strnlen(le.tag, le.tagLen));  // this liblog counts the terminator
        if (!mCtx.keep.contains(tag)) {
            ++mInfo.skipped;  // liblog cut the tag of a record without its terminators
            return true;
        }
        Item it = notice(ItemKind::Entry, mRecordNo, offset);
        Entry& e = it.entry;
        e.time = mInfo.last;
        snprintf(mTimeText, sizeof mTimeText, "%u.%09u", h.sec, h.nsec);
        e.timeText = mTimeText;
        e.pid = le.pid;
        e.tid = le.tid;
        e.uid = le.uid;
        // A priority byte outside liblog's enumeration is read as unknown,
        // not through the entry's enumeration-typed field.
        const unsigned char priority = mScratch->buf[sizeof(logger_entry)];
        e.priority = priority <= ANDROID_LOG_SILENT ? static_cast<android_LogPriority>(priority) : ANDROID_LOG_UNKNOWN;
        e.tag = tag;
        e.message = {le.message, le.messageLen};
        it.time = e.time;
        if (mHaveKept && e.time < mNow) {
            Item back = notice(ItemKind::TimeBackwards, mRecordNo, offset);
            back.before = mNow;
            back.time = e.time;
            mPending.push_back(back);
        }
        mHaveKept = true;
        mNow = e.time;
        ++mInfo.entries;
        mPending.push_back(it);
        return true;
    }

    // Bytes that begin no record: skip to where two plausible records (or
    // one that ends the input) follow each other again.
    bool resync() {
        const uint64_t start = mBuffer->offset();
        uint64_t skipped = 0;
        for (;;) {
            mBuffer->consume(1);
            ++skipped;
            RecordHeader h;
            if (!mBuffer->fill(4)) break;
            if (!readRecordHeader(bytes(), mBuffer->size(), h) || !mBuffer->fill(h.total())) continue;
            if (!readRecordHeader(bytes(), mBuffer->size(), h) || !plausibleRecord(bytes(), h)) continue;
            if (!mBuffer->fill(h.total() + 4)) break;  // the last record, maybe with a cut one after it
            RecordHeader next;
            if (!readRecordHeader(bytes() + h.total(), mBuffer->size() - h.total(), next)) continue;
            if (!mBuffer->fill(h.total() + next.total())) break;
            readRecordHeader(bytes() + h.total(), mBuffer->size() - h.total(), next);
            if (plausibleRecord(bytes() + h.total(), next)) break;
        }
        if (mBuffer->size() < 4) skipped += mBuffer->size();
        unreadable(start, skipped);
        if (mBuffer->size() < 4) mBuffer->consume(mBuffer->size());
        return true;
    }

    void unreadable(uint64_t offset, uint64_t bytes) {
        ++mInfo.unreadable;
        Item it = notice(ItemKind::Unreadable, mRecordNo + 1, offset);
        it.count = bytes;
        it.text = "bytes that are no logd record";
        if (mInfo.examples.size() < mCtx.options.examples) {
            mInfo.examples.push_back({mRecordNo + 1, offset, std::to_string(bytes) + " bytes"});
        }
        mPending.push_back(it);
    }

    bool finish() {
        if (mDone) return false;
        mDone = true;
        if (mBuffer->size() > 0) {
            mInfo.truncated = true;
            Item it = notice(ItemKind::Truncated, mRecordNo + 1, mBuffer->offset());
            it.count = mBuffer->size();
            mPending.push_back(it);
        }
        if (!mBuffer->error().empty()) {
            stopped(ItemKind::Notice, "reading stopped: " + mBuffer->error(), mRecordNo, mBuffer->offset());
        }
        return !mPending.empty();
    }

    std::unique_ptr<Buffer> mBuffer;
    const Context& mCtx;
    std::unique_ptr<log_msg> mScratch;
    uint64_t mRecordNo = 0;
    uint32_t mLid = UINT32_MAX;
    uint32_t mSeen = 0;
    bool mHaveKept = false;
    bool mDone = false;
    char mTimeText[32] = {};
};

// ---------------------------------------------------------------- opening

// The bug report inside a zip: the member main_entry.txt names, else the
// largest bugreport*.txt.
std::unique_ptr<ByteSource> openZipMember(const char* path, std::string& member, std::string& error) {
    unzFile zip = unzOpen64(path);
    if (zip == nullptr) {
        error = "a damaged zip (its directory cannot be read)";
        return nullptr;
    }
    member.clear();
    if (unzLocateFile(zip, "main_entry.txt", 0) == UNZ_OK && unzOpenCurrentFile(zip) == UNZ_OK) {
        char name[512];
        const int n = unzReadCurrentFile(zip, name, sizeof name - 1);
        unzCloseCurrentFile(zip);
        if (n > 0) member.assign(name, static_cast<size_t>(n));
        while (!member.empty() && (member.back() == '\n' || member.back() == '\r' || member.back() == ' ')) {
            member.pop_back();
        }
    }
    if (member.empty() || unzLocateFile(zip, member.c_str(), 0) != UNZ_OK) {
        member.clear();
        uint64_t largest = 0;
        for (int r = unzGoToFirstFile(zip); r == UNZ_OK; r = unzGoToNextFile(zip)) {
            unz_file_info64 fi;
            char name[512];
            if (unzGetCurrentFileInfo64(zip, &fi, name, sizeof name, nullptr, 0, nullptr, 0) != UNZ_OK) continue;
            const std::string_view n(name);
            const std::string_view base = n.substr(n.rfind('/') + 1);
            if (base.substr(0, 9) == "bugreport" && n.size() > 4 && n.substr(n.size() - 4) == ".txt" &&
                (member.empty() || fi.uncompressed_size > largest)) {
                member = name;
                largest = fi.uncompressed_size;
            }
        }
        if (member.empty()) {
            unzClose(zip);
            error = "a zip without a bug report (no main_entry.txt, no bugreport*.txt)";
            return nullptr;
        }
        unzLocateFile(zip, member.c_str(), 0);
    }
    if (unzOpenCurrentFile(zip) != UNZ_OK) {
        unzClose(zip);
        error = "the bug report " + member + " in the zip cannot be opened";
        return nullptr;
    }
    return std::make_unique<ZipSource>(zip);
}

// A zip on standard input is written to a temporary file first: its
// directory is at its end.
std::unique_ptr<ByteSource> spoolZip(Buffer& buffer, std::string& member, std::string& error) {
    const char* dir = getenv("TMPDIR");
    std::string path = std::string(dir != nullptr && *dir != '\0' ? dir : "/tmp") + "/qrnlog-zip-XXXXXX";
    const int fd = mkstemp(path.data());
    if (fd < 0) {
        error = "a zip on standard input, and no temporary file to hold it: " + std::string(strerror(errno));
        return nullptr;
    }
    bool ok = true;
    do {
        const char* p = buffer.data();
        size_t n = buffer.size();
        while (ok && n > 0) {
            const ssize_t w = write(fd, p, n);
            ok = w > 0;
            p += ok ? w : 0;
            n -= ok ? static_cast<size_t>(w) : n;
        }
        buffer.consume(buffer.size());
    } while (ok && buffer.fill(1));
    close(fd);
    std::unique_ptr<ByteSource> source;
    if (!ok) {
        error = "a zip on standard input, and writing it to a temporary file failed";
    } else {
        source = openZipMember(path.c_str(), member, error);
    }
    unlink(path.c_str());
    return source;
}

}  // namespace

// ---------------------------------------------------------------- merging

struct Reader::State {
    ReaderOptions options;
    TagSet keep;
    Context ctx{options, keep};
    struct Input {
        std::string path;
        std::string bytes;
        int64_t mtime = 0;
        bool memory = false;
        bool opened = false;
        std::unique_ptr<Source> source;  // while it is read
    };
    std::vector<Input> inputs;
    std::vector<InputInfo> infos;

    // The inputs of one capture, read one after another.
    struct Chain {
        std::vector<uint32_t> inputs;
        size_t current = 0;
        bool begun = false;
        bool hasHead = false;
        Item head;
        Timestamp key;
        int32_t lastReadable = -1;
        std::deque<Item> queue;
    };
    std::vector<Chain> chains;
    std::deque<Item> notices;
    Chain* returned = nullptr;  // advanced on the next call: the item handed out points into it
    bool opened = false;
    bool interleave = true;
    std::string clockNotice;

    explicit State(ReaderOptions o) : options(std::move(o)), keep(options.tags) {}

    void open();
    void openInput(uint32_t index);
    bool advance(Chain& chain);
};

void Reader::State::openInput(uint32_t index) {
    Input& in = inputs[index];
    in.opened = true;
    InputInfo& info = infos[index];
    std::unique_ptr<ByteSource> bytes;
    int64_t mtime = in.mtime;
    const bool stdinput = !in.memory && in.path == "-";
    if (in.memory) {
        bytes = std::make_unique<MemorySource>(std::move(in.bytes));
    } else if (stdinput) {
        bytes = std::make_unique<FdSource>(0, false);
        mtime = 0;
    } else {
        const int fd = ::open(in.path.c_str(), O_RDONLY | O_CLOEXEC);
        struct stat st;
        if (fd < 0 || fstat(fd, &st) != 0) {
            info.error = "cannot open: " + std::string(strerror(errno));
            if (fd >= 0) close(fd);
            return;
        }
        if (S_ISDIR(st.st_mode)) {
            close(fd);
            info.error = "a directory, not a log";
            return;
        }
        posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
        mtime = st.st_mtime;
        bytes = std::make_unique<FdSource>(fd, true);
    }
    auto buffer = std::make_unique<Buffer>(std::move(bytes));
    buffer->fill(kWindow);
    std::string_view window(buffer->data(), buffer->size());
    if (!buffer->error().empty() && window.empty()) {
        info.error = "cannot read: " + buffer->error();
        return;
    }
    if (window.empty()) {
        info.error = stdinput ? "standard input is empty" : "an empty file";
        return;
    }
    if (isZip(window)) {
        std::string member;
        std::unique_ptr<ByteSource> zipped;
        if (in.memory || stdinput) {
            zipped = spoolZip(*buffer, member, info.error);
        } else {
            zipped = openZipMember(in.path.c_str(), member, info.error);
        }
        if (zipped == nullptr) return;
        info.zip = true;
        info.name += ":" + member;
        buffer = std::make_unique<Buffer>(std::move(zipped));
        buffer->fill(kWindow);
        window = std::string_view(buffer->data(), buffer->size());
        if (window.empty()) {
            info.error = buffer->error().empty() ? "the bug report in the zip is empty" : buffer->error();
            return;
        }
    }
    // The year of lines that print none.
    YearTracker years;
    struct tm tm {};
    const time_t ref = mtime != 0 ? static_cast<time_t>(mtime) : time(nullptr);
    localtime_r(&ref, &tm);
    if (options.year != 0) {
        years.reference(options.year, 1, 1, YearSource::Option);
    } else {
        years.reference(tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday,
                        mtime != 0 ? YearSource::FileTime : YearSource::Today);
    }
    if (isBugReport(window)) {
        info.bugReport = true;
        in.source = std::make_unique<TextSource>(info, index, std::move(buffer), ctx, years);
        return;
    }
    if (looksLikeRecords(window, buffer->ended())) {
        info.layout = Layout();
        info.layout.format = Format::Binary;
        info.layout.time = TimeStyle::Epoch;
        info.layout.fraction = 9;
        in.source = std::make_unique<RecordSource>(info, index, std::move(buffer), ctx);
        return;
    }
    if (!detectText(window, buffer->ended(), options.printable, info.layout)) {
        info.error = looksBinary(window)
                         ? "binary data, neither logcat -B records nor a bug report"
                         : "no line of logcat text in any format (threadtime, time, brief, long, process, thread) "
                           "among its first lines";
        return;
    }
    in.source = std::make_unique<TextSource>(info, index, std::move(buffer), ctx, years);
}

void Reader::State::open() {
    opened = true;
    // NAME.N continues into NAME.N-1, and NAME.1 into NAME.
    std::map<std::string, size_t> byBase;
    std::vector<std::pair<std::string, long>> keys;
    for (uint32_t i = 0; i < inputs.size(); ++i) {
        const std::string& p = inputs[i].path;
        const size_t dot = p.rfind('.');
        long n = 0;
        std::string base = p;
        if (!inputs[i].memory && p != "-" && dot != std::string::npos && dot + 1 < p.size() &&
            p.find_first_not_of("0123456789", dot + 1) == std::string::npos && dot + 10 > p.size()) {
            base = p.substr(0, dot);
            n = strtol(p.c_str() + dot + 1, nullptr, 10);
        }
        if (inputs[i].memory || p == "-") base = "\n" + std::to_string(i);
        keys.emplace_back(base, n);
        const auto [it, added] = byBase.emplace(base, chains.size());
        if (added) chains.emplace_back();
        chains[it->second].inputs.push_back(i);
    }
    for (Chain& c : chains) {
        std::stable_sort(c.inputs.begin(), c.inputs.end(),
                         [&](uint32_t a, uint32_t b) { return keys[a].second > keys[b].second; });
        for (size_t k = 1; k < c.inputs.size(); ++k) infos[c.inputs[k]].follows = static_cast<int32_t>(c.inputs[k - 1]);
    }
    // Captures are merged by time only when they tell the same clock. The
    // later files of a rotated set are opened when their turn comes, so that
    // only one buffer per capture is held.
    Clock seen = Clock::None;
    bool first = true;
    for (const Chain& c : chains) {
        for (uint32_t i : c.inputs) {
            openInput(i);
            if (inputs[i].source == nullptr) continue;
            const Clock clock = infos[i].bugReport ? Clock::Local : clockOf(infos[i].layout);
            if (!first && clock != seen) interleave = false;
            seen = clock;
            first = false;
            break;
        }
    }
    if (!interleave) {
        Item it;
        it.kind = ItemKind::Notice;
        clockNotice =
            "the inputs print different clocks (local time, UTC, time since boot): they are read "
            "one after another, not merged by time";
        it.text = clockNotice;
        notices.push_back(it);
    }
}

// The chain's next item into its head; false when it has none left.
bool Reader::State::advance(Chain& chain) {
    chain.hasHead = false;
    while (chain.queue.empty()) {
        if (chain.current >= chain.inputs.size()) return false;
        const uint32_t i = chain.inputs[chain.current];
        InputInfo& info = infos[i];
        if (!inputs[i].opened) openInput(i);
        Source* source = inputs[i].source.get();
        Item it;
        it.input = i;
        if (source == nullptr) {
            it.kind = ItemKind::InputError;
            it.text = info.error;
            it.time = chain.key;
            chain.queue.push_back(it);
            ++chain.current;
            break;
        }
        if (!chain.begun) {
            chain.begun = true;
            it.time = source->firstTime();
            if (chain.lastReadable >= 0) {
                const InputInfo& prev = infos[static_cast<uint32_t>(chain.lastReadable)];
                Item gap = it;
                gap.kind = ItemKind::Gap;
                gap.before = prev.last;
                chain.queue.push_back(gap);
                if (it.time.clock != Clock::None && it.time < prev.last) {
                    gap.kind = ItemKind::TimeBackwards;
                    chain.queue.push_back(gap);
                }
            }
            it.kind = ItemKind::InputBegin;
            chain.queue.push_back(it);
            break;
        }
        if (source->next(it)) {
            chain.queue.push_back(it);
            break;
        }
        it = Item();
        it.kind = ItemKind::InputEnd;
        it.input = i;
        it.time = info.last;
        it.count = info.lines;
        chain.queue.push_back(it);
        inputs[i].source.reset();  // nothing handed out points into it any more
        chain.lastReadable = static_cast<int32_t>(i);
        chain.begun = false;
        ++chain.current;
    }
    chain.head = chain.queue.front();
    chain.queue.pop_front();
    if (chain.head.time.clock != Clock::None) chain.key = chain.head.time;
    chain.hasHead = true;
    return true;
}

Reader::Reader(ReaderOptions options) : mState(std::make_unique<State>(std::move(options))) {}
Reader::~Reader() = default;

void Reader::addPath(const std::string& path) {
    mState->inputs.push_back({path, {}, 0, false, false, nullptr});
    InputInfo info;
    info.name = path;
    mState->infos.push_back(info);
}

void Reader::addBytes(const std::string& name, std::string bytes, int64_t mtime) {
    mState->inputs.push_back({name, std::move(bytes), mtime, true, false, nullptr});
    InputInfo info;
    info.name = name;
    mState->infos.push_back(info);
}

bool Reader::next(Item& item) {
    State& s = *mState;
    if (!s.opened) {
        s.open();
        for (State::Chain& c : s.chains) s.advance(c);
    }
    if (s.returned != nullptr) {
        s.advance(*s.returned);
        s.returned = nullptr;
    }
    if (!s.notices.empty()) {
        item = s.notices.front();
        s.notices.pop_front();
        return true;
    }
    State::Chain* best = nullptr;
    for (State::Chain& c : s.chains) {
        if (!c.hasHead) continue;
        if (best == nullptr) {
            best = &c;
            if (!s.interleave) break;
            continue;
        }
        if (c.key < best->key) best = &c;
    }
    if (best == nullptr) return false;
    item = best->head;
    s.returned = best;
    return true;
}

const std::vector<InputInfo>& Reader::inputs() const {
    return mState->infos;
}

}  // namespace qrnlog
