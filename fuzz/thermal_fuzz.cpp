// Feeds arbitrary bytes as the temperature node. A node without a number is
// reported by std::stoi's exceptions, which the library lets through to its
// caller by design; anything else escaping, or a sanitizer report, is a
// fault. The outcome is checked against a plain reading of the bytes: the
// first blank-delimited token, as strtol takes it. The first bytes also choose a mode for the mode node, whose content
// must then be exactly that mode, or empty for an invalid one.
#include <ThermalInfo.h>
#include <ctype.h>
#include <errno.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>

#include <qrncam/utils/ULog.h>
#include <stdexcept>
#include <string>

#include "FuzzFile.h"

using namespace NSCam::NSThermalInfo;

namespace {

enum class Outcome { Value, Invalid, OutOfRange };

Outcome expected(const uint8_t* data, size_t size, int* value) {
    size_t i = 0;
    while (i < size && isspace(data[i])) ++i;
    size_t start = i;
    while (i < size && !isspace(data[i])) ++i;
    std::string token(reinterpret_cast<const char*>(data) + start, i - start);
    const char* s = token.c_str();
    char* end = nullptr;
    errno = 0;
    long v = strtol(s, &end, 10);
    if (end == s) return Outcome::Invalid;
    if (errno == ERANGE || v < INT_MIN || v > INT_MAX) return Outcome::OutOfRange;
    *value = static_cast<int>(v);
    return Outcome::Value;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    NSCam::Utils::ULog::ULogger::sMode = 0;  // no log lines expected; keep the output quiet anyway
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const qrnfuzz::FuzzFile value("/proc/qrntz/qrntsAP", "qrntsAP");
    static const qrnfuzz::FuzzFile mode("/proc/driver/cl_apu_status", "cl_apu_status");
    value.write(data, size);

    int want = 0;
    Outcome outcome = expected(data, size, &want);
    try {
        int got = getSystemThermalValue();
        if (outcome != Outcome::Value || got != want) abort();
    } catch (const std::invalid_argument&) {
        if (outcome != Outcome::Invalid) abort();
    } catch (const std::out_of_range&) {
        if (outcome != Outcome::OutOfRange) abort();
    }

    int m = 0;
    memcpy(&m, data, size < sizeof m ? size : sizeof m);
    int rc = setThermalMode(m);
    std::string written = mode.read();
    if (m == 0 || m == 1) {
        if (rc != 0 || written != std::to_string(m)) abort();
    } else if (rc != -22 || !written.empty()) {
        abort();
    }
    return 0;
}
