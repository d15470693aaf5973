// Logging, tracing and error reporting of the camera system utilities.
//
// A line can go to two sinks: the Android log and the unified camera logger.
// Which sink gets it, and whether DEBUG and WARN lines are made at all, is
// decided at every call from the unified logger's published controls, so a
// change of them takes effect at the next line. Gates are tested before any
// formatting and nothing here allocates.
//
// A source file defines LOG_TAG and QRN_LOG_MODULE before including this
// header, then logs with QRN_LOGD/QRN_LOGW/QRN_LOGE and wraps larger
// operations in QRN_FUNCTION_SCOPE. The file cache and job queue use the
// simpler FC_LOG* form (Android log only, switched by qrncam_testLog).
//
// Function names are part of the log contract. Controller lines begin with
// "[%s] " filled with __FUNCTION__, the scope lines name the function, and
// ERROR lines end with it: renaming a member function, or moving a line into
// a helper, changes texts that the transcripts under tests/*/golden and
// users' log searches rely on. A helper that logs on behalf of its caller
// takes the caller's name as a parameter (see beginRequestLocked in the
// controllers), and ERROR lines stay in the function they name, since their
// suffix also carries the line.
#pragma once

#include <android/log.h>
#include <cutils/trace.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>

#include <qrncam/utils/TestLog.h>
#include <qrncam/utils/ULog.h>
#include <atomic>

// <cutils/trace.h> declares these only inside its inline helpers, which does
// not make them visible here; the facade calls them itself after its own
// readiness and tag checks.
extern "C" void atrace_begin_body(const char* name);  // NOLINT(readability-redundant-declaration)
extern "C" void atrace_end_body();                    // NOLINT(readability-redundant-declaration)

namespace qrncam {
namespace log {

using ULogger = ::NSCam::Utils::ULog::ULogger;

// Module ids of the unified logger.
constexpr uint32_t kModuleCpuCtrl = 0x40007001;      // "QrnCam/CpuCtrl"
constexpr uint32_t kModuleCam3CPUCtrl = 0x00107001;  // "Cam3CPUCtrl_util"
constexpr uint32_t kModuleThermal = 0x40007001;      // "ThermalInfo"

// Levels as the unified logger numbers them.
constexpr int32_t kULogDebug = 5;
constexpr int32_t kULogWarn = 2;
constexpr int32_t kULogError = 1;

constexpr uint32_t kSinkAndroid = 0x1;
constexpr uint32_t kSinkULog = 0xE;
constexpr uint32_t kDebugChannels = 0x7000;
constexpr size_t kULogLineMax = 1024;

// The group bit of a module: the highest bit of its id.
constexpr uint32_t groupBit(uint32_t module) {
    return module == 0 ? 0 : 1u << (31 - __builtin_clz(module));
}

inline bool debugEnabled(uint32_t module) {
    return ULogger::sDetailsLevel >= 5u && (ULogger::sNormalDetailsMask & groupBit(module)) != 0 &&
           (ULogger::sNormalDetailsMask & kDebugChannels) != 0;
}

inline bool warnEnabled() {
    return ULogger::sDetailsLevel >= 2u;
}

// Formats one line into a 1024-byte stack buffer and hands it to the unified
// logger. The length passed on is the formatter's result, unclamped: for a
// longer text it exceeds what the buffer holds.
__attribute__((format(printf, 4, 5))) inline void ulogPrint(uint32_t module, const char* tag, int32_t level,
                                                            const char* fmt, ...) {
    char buf[kULogLineMax];
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(buf, sizeof buf, fmt, ap);
    va_end(ap);
    buf[kULogLineMax - 1] = '\0';
    ULogger::sULogger->logNormal(module, tag, level, buf, static_cast<int64_t>(n));
}

// The source path for the error suffix, from this library's "utils/" on. A
// device build records paths from the top of the platform tree; a host
// build from the repository (the build maps its prefix away). Other files
// keep the path their build records.
constexpr const char* sourcePath(const char* file) {
    const char* found = file;
    for (const char* p = file; *p != '\0'; ++p) {
        if (p[0] == 'u' && p[1] == 't' && p[2] == 'i' && p[3] == 'l' && p[4] == 's' && p[5] == '/' &&
            (p == file || p[-1] == '/'))
            found = p;
    }
    return found;
}

inline bool cameraTraceEnabled() {
    if (!atrace_is_ready.load(std::memory_order_acquire)) atrace_setup();
    return (atrace_enabled_tags & ATRACE_TAG_CAMERA) != 0;
}

inline void traceBegin(const char* name) {
    if (cameraTraceEnabled()) atrace_begin_body(name);
}

inline void traceEnd() {
    if (cameraTraceEnabled()) atrace_end_body();
}

}  // namespace log
}  // namespace qrncam

// Sends one line to the sinks that sMode selects, the Android log first.
// Arguments are evaluated once per enabled sink and not at all for a sink
// that is off.
#define QRN_LOG_SINKS_(prio, ulevel, module, tag, fmt, ...)                    \
    do {                                                                       \
        if (::qrncam::log::ULogger::sMode & ::qrncam::log::kSinkAndroid)       \
            __android_log_print(prio, tag, fmt, ##__VA_ARGS__);                \
        if (::qrncam::log::ULogger::sMode & ::qrncam::log::kSinkULog)          \
            ::qrncam::log::ulogPrint(module, tag, ulevel, fmt, ##__VA_ARGS__); \
    } while (0)

#define QRN_LOGD_M(module, tag, fmt, ...)                                                                  \
    do {                                                                                                   \
        if (::qrncam::log::debugEnabled(module))                                                           \
            QRN_LOG_SINKS_(ANDROID_LOG_DEBUG, ::qrncam::log::kULogDebug, module, tag, fmt, ##__VA_ARGS__); \
    } while (0)

#define QRN_LOGW_M(module, tag, fmt, ...)                                                                \
    do {                                                                                                 \
        if (::qrncam::log::warnEnabled())                                                                \
            QRN_LOG_SINKS_(ANDROID_LOG_WARN, ::qrncam::log::kULogWarn, module, tag, fmt, ##__VA_ARGS__); \
    } while (0)

// ERROR lines ignore the verbosity. The Android copy carries the suffix
// " (function){#line:path}"; the unified logger's copy does not.
#define QRN_LOGE_M(module, tag, fmt, ...)                                                                           \
    do {                                                                                                            \
        if (::qrncam::log::ULogger::sMode & ::qrncam::log::kSinkAndroid)                                            \
            __android_log_print(ANDROID_LOG_ERROR, tag, fmt " (%s){#%d:%s}", ##__VA_ARGS__, __FUNCTION__, __LINE__, \
                                ::qrncam::log::sourcePath(__FILE__));                                               \
        if (::qrncam::log::ULogger::sMode & ::qrncam::log::kSinkULog)                                               \
            ::qrncam::log::ulogPrint(module, tag, ::qrncam::log::kULogError, fmt, ##__VA_ARGS__);                   \
    } while (0)

#define QRN_LOGD(fmt, ...) QRN_LOGD_M(QRN_LOG_MODULE, LOG_TAG, fmt, ##__VA_ARGS__)
#define QRN_LOGW(fmt, ...) QRN_LOGW_M(QRN_LOG_MODULE, LOG_TAG, fmt, ##__VA_ARGS__)
#define QRN_LOGE(fmt, ...) QRN_LOGE_M(QRN_LOG_MODULE, LOG_TAG, fmt, ##__VA_ARGS__)

namespace qrncam {
namespace log {

// Function-scope trace: begins the platform trace section and writes
// "[%s] +" on entry; writes "[%s] -" at exit() (or at the end of the scope if
// exit() was not called) and ends the section when the scope closes. Code
// that holds a lock calls exit() before unlocking, so the closing line is
// written under the lock and the section ends after it (the controllers'
// OperationLock does that for them).
class ScopedFunctionTrace {
  public:
    ScopedFunctionTrace(const char* section, uint32_t module, const char* tag, const char* function)
        : mModule(module), mTag(tag), mFunction(function) {
        traceBegin(section);
        QRN_LOGD_M(mModule, mTag, "[%s] +", mFunction);
    }
    ScopedFunctionTrace(const ScopedFunctionTrace&) = delete;
    ScopedFunctionTrace& operator=(const ScopedFunctionTrace&) = delete;

    void exit() {
        if (mExited) return;
        mExited = true;
        QRN_LOGD_M(mModule, mTag, "[%s] -", mFunction);
    }

    ~ScopedFunctionTrace() {
        exit();
        traceEnd();
    }

  private:
    const uint32_t mModule;
    const char* const mTag;
    const char* const mFunction;
    bool mExited = false;
};

}  // namespace log
}  // namespace qrncam

// Declares the scope trace `name` of the enclosing function, for example
// QRN_FUNCTION_SCOPE(scope, "CpuCtrl::init"); then scope.exit() writes the
// closing line early.
#define QRN_FUNCTION_SCOPE(name, section) \
    ::qrncam::log::ScopedFunctionTrace name(section, QRN_LOG_MODULE, LOG_TAG, __FUNCTION__)

// The "file_cache" form: Android log only. ERROR lines are switched by
// qrncam_testLog("file_cache", 'E') and carry the error suffix; INFO and
// DEBUG lines need the cache's own flag first, so qrncam_testLog is not asked
// while the flag is zero.
#define FC_LOG_TAG_ "file_cache"

#define FC_LOGE(fmt, ...)                                                                                         \
    do {                                                                                                          \
        if (qrncam_testLog(FC_LOG_TAG_, 'E'))                                                                     \
            __android_log_print(ANDROID_LOG_ERROR, FC_LOG_TAG_, fmt " (%s){#%d:%s}", ##__VA_ARGS__, __FUNCTION__, \
                                __LINE__, ::qrncam::log::sourcePath(__FILE__));                                   \
    } while (0)

#define FC_LOGI(flag, fmt, ...)                                                     \
    do {                                                                            \
        if ((flag) && qrncam_testLog(FC_LOG_TAG_, 'I'))                             \
            __android_log_print(ANDROID_LOG_INFO, FC_LOG_TAG_, fmt, ##__VA_ARGS__); \
    } while (0)

#define FC_LOGD(flag, fmt, ...)                                                      \
    do {                                                                             \
        if ((flag) && qrncam_testLog(FC_LOG_TAG_, 'D'))                              \
            __android_log_print(ANDROID_LOG_DEBUG, FC_LOG_TAG_, fmt, ##__VA_ARGS__); \
    } while (0)

// The job queue's fatal texts: always written, no suffix, no switch.
#define FC_LOG_FATAL(fmt, ...) __android_log_print(ANDROID_LOG_ERROR, FC_LOG_TAG_, fmt, ##__VA_ARGS__)
