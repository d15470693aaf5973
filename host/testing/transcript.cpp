#include <cutils/properties.h>
#include <stdio.h>
#include <stdlib.h>

#include <qrnhost/PerfSim.h>
#include <qrnhost/PowerSim.h>
#include <qrnhost/hidl.h>
#include <qrnhost/transcript.h>
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace qrnhost::testing {

namespace {

using ::android::sp;
using vendor::quarnel::hardware::power::V2_0::IPower;

// One line of a kept transcript file, with its number in the file.
struct KeptLine {
    int number;
    std::string text;
    bool comment;
};

std::string trimEnd(std::string l) {
    while (!l.empty() && (l.back() == ' ' || l.back() == '\r')) l.pop_back();
    return l;
}

std::vector<KeptLine> readKept(const std::string& path, bool* found) {
    std::ifstream in(path);
    *found = in.is_open();
    std::vector<KeptLine> out;
    int number = 0;
    for (std::string l; std::getline(in, l);) {
        l = trimEnd(std::move(l));
        out.push_back({++number, l, !l.empty() && l[0] == '#'});
    }
    // Blank lines at the end are not part of the transcript.
    while (!out.empty() && out.back().text.empty()) out.pop_back();
    return out;
}

// The edit that turns the kept file into the actual transcript, over the
// kept file's lines (comments included, which stay as they are) and the
// actual lines with the kept comments carried over where they fit.
enum class Op { Same, Removed, Added };
struct Edit {
    Op op;
    std::string text;
    int kept = 0;    // line in the kept file (Same, Removed)
    int actual = 0;  // line in the actual transcript (Same, Added)
};

// Pairs of (kept index, actual index) that a longest common subsequence of
// the kept transcript lines (comments left out) and the actual lines
// matches. Long runs that agree at either end are matched at once; a
// middle too large for the table is not matched at all (all of it differs).
std::vector<std::pair<size_t, size_t>> matches(const std::vector<std::string>& a, const std::vector<std::string>& b) {
    std::vector<std::pair<size_t, size_t>> out;
    size_t head = 0;
    while (head < a.size() && head < b.size() && a[head] == b[head]) out.emplace_back(head, head), ++head;
    size_t tail = 0;
    while (tail < a.size() - head && tail < b.size() - head && a[a.size() - 1 - tail] == b[b.size() - 1 - tail]) ++tail;
    const size_t n = a.size() - head - tail, m = b.size() - head - tail;
    constexpr size_t kMaxCells = 16u << 20;
    if (n != 0 && m != 0 && (n + 1) * (m + 1) <= kMaxCells) {
        // lcs[i][j]: the longest common subsequence of a[head+i..] and b[head+j..].
        std::vector<uint32_t> lcs((n + 1) * (m + 1), 0);
        auto at = [&](size_t i, size_t j) -> uint32_t& { return lcs[i * (m + 1) + j]; };
        for (size_t i = n; i-- > 0;)
            for (size_t j = m; j-- > 0;)
                at(i, j) = a[head + i] == b[head + j] ? at(i + 1, j + 1) + 1 : std::max(at(i + 1, j), at(i, j + 1));
        for (size_t i = 0, j = 0; i < n && j < m;) {
            if (a[head + i] == b[head + j])
                out.emplace_back(head + i++, head + j++);
            else if (at(i + 1, j) >= at(i, j + 1))
                ++i;
            else
                ++j;
        }
    }
    for (size_t k = tail; k > 0; --k) out.emplace_back(a.size() - k, b.size() - k);
    return out;
}

std::vector<Edit> edits(const std::vector<KeptLine>& kept, const std::vector<std::string>& actual) {
    std::vector<size_t> lines;  // indices into kept of the transcript lines
    std::vector<std::string> texts;
    for (size_t i = 0; i < kept.size(); ++i)
        if (!kept[i].comment) lines.push_back(i), texts.push_back(kept[i].text);
    std::vector<std::pair<size_t, size_t>> pairs = matches(texts, actual);
    pairs.emplace_back(texts.size(), actual.size());  // the end, matched

    std::vector<Edit> out;
    int actualLine = 0;
    size_t k = 0, j = 0;  // next kept line (file index), next actual line
    for (const auto& [ti, aj] : pairs) {
        const size_t keptEnd = ti < lines.size() ? lines[ti] : kept.size();
        // The comments just before the next matched line belong to it: the
        // added lines go before them.
        size_t attached = keptEnd;
        while (attached > k && kept[attached - 1].comment) --attached;
        for (; k < attached; ++k) {
            if (kept[k].comment)
                out.push_back({Op::Same, kept[k].text, kept[k].number, ++actualLine});
            else
                out.push_back({Op::Removed, kept[k].text, kept[k].number, 0});
        }
        for (; j < aj; ++j) out.push_back({Op::Added, actual[j], 0, ++actualLine});
        for (; k < keptEnd; ++k) out.push_back({Op::Same, kept[k].text, kept[k].number, ++actualLine});
        if (ti < lines.size()) {
            out.push_back({Op::Same, kept[k].text, kept[k].number, ++actualLine});
            ++k, ++j;
        }
    }
    return out;
}

// A unified diff of the edits, with three lines of context, at most
// maxLines lines long.
std::string unifiedDiff(const std::vector<Edit>& e, const std::string& from, const std::string& to, size_t maxLines) {
    constexpr size_t kContext = 3;
    std::ostringstream out;
    out << "--- " << from << "\n+++ " << to << "\n";
    size_t shown = 2;
    for (size_t i = 0; i < e.size();) {
        if (e[i].op == Op::Same) {
            ++i;
            continue;
        }
        // A hunk: from kContext lines before this change to kContext lines
        // after the last change that is no more than 2 * kContext away.
        const size_t begin = i > kContext ? i - kContext : 0;
        size_t end = i, same = 0;
        for (size_t x = i; x < e.size() && same <= 2 * kContext; ++x) {
            same = e[x].op == Op::Same ? same + 1 : 0;
            if (e[x].op != Op::Same) end = x + 1;
        }
        end = std::min(e.size(), end + kContext);
        int keptStart = 0, keptCount = 0, actualStart = 0, actualCount = 0;
        for (size_t x = begin; x < end; ++x) {
            if (e[x].op != Op::Added) keptStart = keptStart != 0 ? keptStart : e[x].kept, ++keptCount;
            if (e[x].op != Op::Removed) actualStart = actualStart != 0 ? actualStart : e[x].actual, ++actualCount;
        }
        // An empty side is shown at the line before it, as diff does.
        if (keptCount == 0) keptStart = begin == 0 ? 0 : e[begin - 1].kept;
        if (actualCount == 0) actualStart = begin == 0 ? 0 : e[begin - 1].actual;
        // As diff writes them: a count of one is left out.
        auto range = [](int start, int count) {
            return std::to_string(start) + (count == 1 ? "" : "," + std::to_string(count));
        };
        out << "@@ -" << range(keptStart, keptCount) << " +" << range(actualStart, actualCount) << " @@\n";
        for (size_t x = begin; x < end; ++x, ++shown) {
            if (shown >= maxLines) {
                out << "... (the rest is in the actual transcript)\n";
                return out.str();
            }
            out << (e[x].op == Op::Same ? ' ' : e[x].op == Op::Removed ? '-' : '+') << e[x].text << "\n";
        }
        i = end;
    }
    return out.str();
}

}  // namespace

Transcript::Transcript(Capture& cap, const android::sp<power::SimPowerService>& sim)
    : mCap(cap), mStart(cap.records().size() + cap.dropped()) {
    if (sim != nullptr) {
        follow(sim);
    } else {
        follow(power::simulatorOf([] {
            sp<hidl::Connection> c = hidl::lookup(IPower::descriptor, "default");
            return c == nullptr ? nullptr : c->service();
        }()));
        mRegistrations = hidl::addRegistrationObserver([this](const sp<hidl::Connection>& c) {
            if (c->descriptor() == IPower::descriptor && c->instance() == "default")
                follow(power::simulatorOf(c->service()));
        });
    }
    perf::setObserver([this](const perf::Call& c) { mCap.note("perf: " + c.toString()); });
}

void Transcript::follow(const android::sp<power::SimPowerService>& sim) {
    if (sim == nullptr) return;
    std::lock_guard<std::mutex> g(mLock);
    if (mSim) mSim->setObserver(nullptr);
    mSim = sim;
    mFollowed = true;
    mSim->setObserver([this](const power::Call& c) { mCap.note("power: " + c.toString()); });
}

void Transcript::replaceSim(const android::sp<power::SimPowerService>& sim) {
    if (sim != nullptr) {
        follow(sim);
        return;
    }
    std::lock_guard<std::mutex> g(mLock);
    if (mSim) mSim->setObserver(nullptr);
    mSim = nullptr;
}

void Transcript::note(const std::string& line) {
    mCap.note(line);
}

Transcript::~Transcript() {
    if (mRegistrations != 0) hidl::removeRegistrationObserver(mRegistrations);
    replaceSim(nullptr);
    perf::setObserver(nullptr);
}

void Transcript::step(const std::string& what) {
    mCap.note("== " + what);
}

void Transcript::restart() {
    mStart = mCap.records().size() + mCap.dropped();
}

void Transcript::files(const std::string& dir) {
    std::vector<std::filesystem::path> paths;
    for (const auto& e : std::filesystem::directory_iterator(dir))
        if (e.is_regular_file()) paths.push_back(e.path());
    std::sort(paths.begin(), paths.end());
    for (const auto& p : paths) {
        const std::string content = readFile(p.string());
        constexpr size_t kShown = 48;
        mCap.note("file " + p.filename().string() + ": " + std::to_string(content.size()) + " bytes \"" +
                  printable(content.substr(0, kShown)) + (content.size() > kShown ? "\"..." : "\""));
    }
}

void Transcript::replace(const std::string& text, const std::string& by) {
    mReplace.emplace_back(text, by);
}

std::vector<std::string> Transcript::lines() const {
    std::vector<std::string> out;
    const std::vector<Record> records = mCap.records();
    // Counted from the Capture's start, as records it let go are gone.
    const size_t dropped = mCap.dropped();
    const size_t first = mStart > dropped ? mStart - dropped : 0;
    for (size_t i = first; i < records.size(); ++i) {
        std::string line = describe(records[i]);
        for (const auto& [text, by] : mReplace)
            for (size_t at; !text.empty() && (at = line.find(text)) != std::string::npos;)
                line.replace(at, text.size(), by);
        out.push_back(trimEnd(std::move(line)));  // as the kept files are read
    }
    return out;
}

std::string Transcript::compare(const std::string& golden, const std::string& actualFile) const {
    bool found = false;
    const std::vector<KeptLine> kept = readKept(golden, &found);
    const std::vector<std::string> got = lines();
    std::vector<std::string> want;
    for (const KeptLine& l : kept)
        if (!l.comment) want.push_back(l.text);
    std::error_code ec;
    if (found && want == got) {
        if (!actualFile.empty()) std::filesystem::remove(actualFile, ec);  // no longer differs
        return "";
    }

    const std::vector<Edit> e = edits(kept, got);
    std::ostringstream msg;
    if (!found) {
        msg << "no transcript " << golden << "\n";
    } else {
        const auto first = std::find_if(e.begin(), e.end(), [](const Edit& x) { return x.op != Op::Same; });
        // An added line stands before the kept line that follows it.
        int line = kept.empty() ? 1 : kept.back().number + 1;
        for (auto x = first; x != e.end(); ++x)
            if (x->op != Op::Added) {
                line = x->kept;
                break;
            }
        msg << golden << ":" << line << ": the transcript differs from here\n";
        constexpr size_t kMaxDiffLines = 120;
        msg << unifiedDiff(e, golden, actualFile.empty() ? "the actual transcript" : actualFile + " (actual)",
                           kMaxDiffLines);
    }
    // Power lines expected of a transcript that could see none: say why.
    const auto power = [](const std::string& l) { return l.rfind("power: ", 0) == 0; };
    bool followed = false;
    {
        std::lock_guard<std::mutex> g(mLock);
        followed = mFollowed;
    }
    if (!followed && std::any_of(want.begin(), want.end(), power))
        msg << "(this transcript followed no power service: none was registered as \"default\" while it was "
               "recording)\n";
    if (!actualFile.empty()) {
        std::filesystem::create_directories(std::filesystem::path(actualFile).parent_path(), ec);
        std::ofstream out(actualFile, std::ios::trunc);
        out << "# " << golden << "\n";
        for (const Edit& x : e)
            if (x.op != Op::Removed) out << x.text << "\n";
        msg << "actual transcript: " << actualFile << (out ? "\n" : " (could not be written)\n");
    }
    return msg.str();
}

std::string Args::text(size_t i) const {
    mUsed = std::max(mUsed, i + 1);
    if (i < mWords.size()) return mWords[i];
    if (mProblem->empty()) *mProblem = "argument " + std::to_string(i + 1) + " is missing";
    return "";
}

long long Args::operator[](size_t i) const {
    const std::string word = text(i);
    char* end = nullptr;
    const long long v = strtoll(word.c_str(), &end, 0);
    if (!word.empty() && *end == '\0') return v;
    if (mProblem->empty()) *mProblem = "argument " + std::to_string(i + 1) + " is not a number";
    return 0;
}

Script::Script(Transcript& t) : mT(t) {
    on("setprop", [](const Args& a) { property_set(a.text(0).c_str(), a.text(1).c_str()); });
}

namespace {

std::string arguments(size_t n) {
    return std::to_string(n) + (n == 1 ? " argument" : " arguments");
}

}  // namespace

std::string Script::run(const std::string& golden, const std::string& actualFile) {
    bool found = false;
    mProblem.clear();
    mT.restart();
    int problemLine = 0;
    for (const KeptLine& line : readKept(golden, &found)) {
        if (line.comment || line.text.rfind("== ", 0) != 0) continue;
        const std::string step = line.text.substr(3);
        std::string name = step;
        std::vector<std::string> words;
        const size_t open = step.find('(');
        if (open != std::string::npos && step.back() == ')') {
            name = step.substr(0, open);
            std::istringstream in(step.substr(open + 1, step.size() - open - 2));
            for (std::string w; std::getline(in, w, ',');) {
                w.erase(0, w.find_first_not_of(' '));
                w.erase(w.find_last_not_of(' ') + 1);
                words.push_back(w);
            }
        }
        mT.step(step);
        const auto action = mActions.find(name);
        if (action == mActions.end()) {
            mProblem = "no action for the step \"" + step + "\"";
        } else if (!action->second.takesArgs && !words.empty()) {
            mProblem = name + " takes no arguments, given " + std::to_string(words.size());
            mProblem = "step \"" + step + "\": " + mProblem;
        } else {
            const Args args(words, &mProblem);
            action->second.run(args);
            if (mProblem.empty() && args.used() < words.size())
                mProblem = name + " takes " + arguments(args.used()) + ", given " + std::to_string(words.size());
            if (!mProblem.empty()) mProblem = "step \"" + step + "\": " + mProblem;
        }
        if (!mProblem.empty()) {
            problemLine = line.number;
            break;
        }
    }
    const std::string diff = mT.compare(golden, actualFile);
    return mProblem.empty() ? diff : golden + ":" + std::to_string(problemLine) + ": " + mProblem + "\n" + diff;
}

}  // namespace qrnhost::testing
