// The session program's options: parsed once from the command line, and
// handed to the session's own process as JSON, so that nothing is parsed
// twice.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

namespace session {

struct Options {
    std::string outDir;  // empty: a fresh temporary directory
    bool keep = false;
    std::vector<std::string> props;  // KEY=VALUE
    uint32_t mode = 1;
    uint32_t level = 5;
    uint32_t mask = 0x40107000;
    int frames = 60;
    uint64_t frameSize = 12ull << 20;
    int framesPerFile = 10;
    int fps = 60;  // per capture thread
    int64_t budget = 200ll << 20;
    std::string traceFile;
    std::string reportFile;
    std::string jsonFile;
    std::string logFormat = "threadtime";
    bool quietLog = false;
    // What the controllers do (kScenarios): the typical use, or one that
    // puts the log readers to the test.
    std::string scenario = "default";

    std::string toJson() const;
    bool fromJson(const std::string& text, std::string* error);
};

// The controller scenarios a session can run.
inline constexpr const char* kScenarios[] = {"default", "two-of-each", "service-death", "refused-locks"};

// Parses the command line into o. Returns -1 to go on, or the status to exit
// with (0 after --help, 2 for a bad option, with a message on stderr).
int parseOptions(int argc, char** argv, Options* o);

// Strict number readers: the whole text, in range. Sizes take K, M, G.
bool parseSize(const char* s, uint64_t* out);
bool parseU32(const char* s, uint32_t* out);

}  // namespace session
