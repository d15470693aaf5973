// The unified camera logger of the camera logging library (libqrncam_ulog).
// This system only reads the four statics and calls logNormal.
#pragma once

#include <stdint.h>

namespace NSCam {
namespace Utils {
namespace ULog {

class ULogger {
  public:
    // Output selection: bit 0 is the Android log, bits 1 to 3 the unified logger.
    static uint32_t sMode;
    // Verbosity: DEBUG lines need 5 or more, WARN lines 2 or more.
    static uint32_t sDetailsLevel;
    // Modules allowed to write DEBUG lines: a module's group bit together
    // with one of bits 12 to 14.
    static uint32_t sNormalDetailsMask;
    // Receiver of unified-logger lines.
    static ULogger* sULogger;

    virtual void logEnter(uint32_t moduleId, const char* tag, uint32_t requestNo);
    virtual void logExit(uint32_t moduleId, const char* tag, uint32_t requestNo);
    virtual void logDiscrete(uint32_t moduleId, const char* tag, uint32_t requestNo);
    // One finished text line. length is what the formatter returned: it may
    // exceed the text held in the buffer (which is always terminated).
    virtual void logNormal(uint32_t moduleId, const char* tag, int32_t level, const char* text, int64_t length);

    virtual ~ULogger();
};

// The logger that sULogger points at from the start: writes lines a person
// can read to standard error.
ULogger* defaultLogger();

}  // namespace ULog
}  // namespace Utils
}  // namespace NSCam
