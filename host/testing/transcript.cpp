#include <cutils/properties.h>
#include <stdio.h>
#include <stdlib.h>

#include <qrnhost/PerfSim.h>
#include <qrnhost/PowerSim.h>
#include <qrnhost/transcript.h>
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace qrnhost::testing {

namespace {

std::vector<std::string> readLines(const std::string& path, bool* found) {
    std::ifstream in(path);
    *found = in.is_open();
    std::vector<std::string> out;
    for (std::string l; std::getline(in, l);) {
        while (!l.empty() && (l.back() == ' ' || l.back() == '\r')) l.pop_back();
        if (!l.empty() && l[0] == '#') continue;
        out.push_back(l);
    }
    while (!out.empty() && out.back().empty()) out.pop_back();
    return out;
}

}  // namespace

Transcript::Transcript(Capture& cap, const android::sp<power::SimPowerService>& sim) : mCap(cap) {
    replaceSim(sim);
    perf::setObserver([this](const perf::Call& c) { mCap.note("perf: " + c.toString()); });
}

void Transcript::replaceSim(const android::sp<power::SimPowerService>& sim) {
    if (mSim) mSim->setObserver(nullptr);
    mSim = sim;
    if (mSim) mSim->setObserver([this](const power::Call& c) { mCap.note("power: " + c.toString()); });
}

void Transcript::note(const std::string& line) {
    mCap.note(line);
}

Transcript::~Transcript() {
    if (mSim) mSim->setObserver(nullptr);
    perf::setObserver(nullptr);
}

void Transcript::step(const std::string& what) {
    mCap.note("== " + what);
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
    for (const Record& r : mCap.records()) {
        std::string line = describe(r);
        for (const auto& [text, by] : mReplace)
            for (size_t at; !text.empty() && (at = line.find(text)) != std::string::npos;)
                line.replace(at, text.size(), by);
        while (!line.empty() && line.back() == ' ') line.pop_back();  // as the kept files are read
        out.push_back(line);
    }
    return out;
}

std::string Transcript::compare(const std::string& golden, const std::string& actualFile) const {
    bool found = false;
    const std::vector<std::string> want = readLines(golden, &found);
    const std::vector<std::string> got = lines();
    std::error_code ec;
    if (found && want == got) {
        if (!actualFile.empty()) std::filesystem::remove(actualFile, ec);  // no longer differs
        return "";
    }

    std::ostringstream msg;
    if (!found) {
        msg << "no transcript " << golden << "\n";
    } else {
        size_t i = 0;
        while (i < want.size() && i < got.size() && want[i] == got[i]) ++i;
        msg << golden << ": first difference at line " << i + 1 << " (comments not counted)\n";
        for (size_t k = i >= 2 ? i - 2 : 0; k < i; ++k) msg << "    " << want[k] << "\n";
        for (size_t k = i; k < std::min(want.size(), i + 3); ++k) msg << "  - " << want[k] << "\n";
        for (size_t k = i; k < std::min(got.size(), i + 3); ++k) msg << "  + " << got[k] << "\n";
    }
    if (!actualFile.empty()) {
        std::filesystem::create_directories(std::filesystem::path(actualFile).parent_path(), ec);
        std::ofstream out(actualFile, std::ios::trunc);
        out << "# " << golden << "\n";
        for (const std::string& l : got) out << l << "\n";
        msg << "actual transcript: " << actualFile << (out ? "\n" : " (could not be written)\n");
    }
    return msg.str();
}

std::string Args::text(size_t i) const {
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

std::string Script::run(const std::string& golden, const std::string& actualFile) {
    bool found = false;
    mProblem.clear();
    for (const std::string& line : readLines(golden, &found)) {
        if (line.rfind("== ", 0) != 0) continue;
        const std::string step = line.substr(3);
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
        } else {
            action->second(Args(words, &mProblem));
            if (!mProblem.empty()) mProblem = "step \"" + step + "\": " + mProblem;
        }
        if (!mProblem.empty()) break;
    }
    const std::string diff = mT.compare(golden, actualFile);
    return mProblem.empty() ? diff : golden + ": " + mProblem + "\n" + diff;
}

}  // namespace qrnhost::testing
