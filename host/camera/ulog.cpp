#include <inttypes.h>
#include <stdio.h>
#include <string.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <qrncam/utils/ULog.h>

namespace NSCam {
namespace Utils {
namespace ULog {

uint32_t ULogger::sMode = 1;
uint32_t ULogger::sDetailsLevel = 2;
uint32_t ULogger::sNormalDetailsMask = 0;
ULogger* ULogger::sULogger = defaultLogger();

ULogger::~ULogger() = default;

void ULogger::logEnter(uint32_t, const char*, uint32_t) {}
void ULogger::logExit(uint32_t, const char*, uint32_t) {}
void ULogger::logDiscrete(uint32_t, const char*, uint32_t) {}

void ULogger::logNormal(uint32_t moduleId, const char* tag, int32_t level, const char* text, int64_t length) {
    // Level numbers of the unified logger: 1 error, 2 warn, 5 debug.
    char letter = level <= 1 ? 'E' : level <= 2 ? 'W' : level <= 4 ? 'I' : 'D';
    size_t held = text ? strlen(text) : 0;
    size_t shown = length >= 0 && static_cast<uint64_t>(length) < held ? static_cast<size_t>(length) : held;
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    struct tm tm;
    localtime_r(&ts.tv_sec, &tm);
    fprintf(stderr, "%02d-%02d %02d:%02d:%02d.%03ld %5d %5d %c ulog/%s[0x%08" PRIx32 "]: %.*s%s\n", tm.tm_mon + 1,
            tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, ts.tv_nsec / 1000000, static_cast<int>(getpid()),
            static_cast<int>(syscall(SYS_gettid)), letter, tag ? tag : "", moduleId, static_cast<int>(shown),
            text ? text : "", length > static_cast<int64_t>(held) ? " [cut]" : "");
}

ULogger* defaultLogger() {
    static ULogger* logger = new ULogger;  // used by exit handlers too
    return logger;
}

}  // namespace ULog
}  // namespace Utils
}  // namespace NSCam
