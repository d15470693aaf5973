// Thermal information: two kernel nodes, each opened afresh on every call.
//
// "/proc/qrntz/qrntsAP" is published by the thermal driver. Reading it gives
// the application-processor temperature as a decimal integer in the driver's
// own unit, usually followed by a newline; some driver versions put blanks
// before it or further words after it, so only the first
// whitespace-delimited token is taken. The value is handed on unchanged: no
// scaling, no range check, no averaging. Callers compare it with limits in
// the same unit.
//
// "/proc/driver/cl_apu_status" is the status node of the processing-unit
// cooler driver. Writing "0" or "1" (no newline) selects its thermal mode;
// the meaning of the modes is the driver's. The node is opened for writing,
// which truncates it, before the mode is looked at: a caller passing an
// invalid mode on a device that has the node still opens it, and on a
// device without it gets -2 rather than -22.
//
// Failures are reported as negative results: -2 when a node cannot be
// opened (with an ERROR line), -22 for an invalid mode (without one). A
// temperature node that holds no number is a broken driver; the conversion
// exception is left to the caller, who knows whether to retry or give up.
//
// Nothing is cached and the two functions share no state, so any thread may
// call them. Two concurrent mode writes race at the node like any two
// writers of a file.

#define LOG_TAG "ThermalInfo"
#define QRN_LOG_MODULE ::qrncam::log::kModuleThermal

#include <SysLog.h>
#include <ThermalInfo.h>
#include <string.h>

#include <fstream>
#include <ios>
#include <string>

#include "KernelPath.h"

namespace NSCam {
namespace NSThermalInfo {
namespace {

constexpr char kThermalValueNode[] = "/proc/qrntz/qrntsAP";
constexpr char kThermalModeNode[] = "/proc/driver/cl_apu_status";

// Each call works on its own copy of the node's path, in a fixed buffer of
// these sizes: the copy is what is opened and what the ERROR line names.
// The sizes leave room for the longer node names of other driver versions.
constexpr size_t kThermalValuePathSize = 30;
constexpr size_t kThermalModePathSize = 50;

// Copies a path literal into a path buffer. The size check is made by the
// compiler, so a node name too long for its buffer cannot be built.
template <size_t N, size_t M>
void copyPath(char (&dst)[N], const char (&src)[M]) {
    static_assert(M <= N, "node path does not fit its buffer");
    memcpy(dst, src, M);
}

}  // namespace

// Reads the application-processor temperature. Binary mode: the node's
// bytes are taken as they are, with no newline translation. The stream's
// string extraction skips leading blanks and stops at the first blank after
// the token, which is what makes "  -5 more words" read as -5.
int getSystemThermalValue() {
    char path[kThermalValuePathSize];
    copyPath(path, kThermalValueNode);

    // Opened afresh on every call: the driver generates the text when the
    // node is read from its start, so a stream kept open would need a rewind
    // to see a new reading, and the node may come and go with the driver.
    std::ifstream node(QRN_KERNEL_PATH(path), std::ios::in | std::ios::binary);
    if (!node.is_open()) {
        QRN_LOGE("[%s] Open File Node Error", __FUNCTION__);
        return -2;
    }

    std::string token;
    node >> token;
    // An empty node, or one without a leading number, throws
    // std::invalid_argument here; a number beyond the int range throws
    // std::out_of_range. Both reach the caller.
    int value = std::stoi(token, nullptr, 10);
    node.close();
    return value;
}

// Selects the cooler's thermal mode. The open comes first on purpose (see
// the top of this file): it is what tells the caller whether the device has
// the cooler at all, whatever mode was asked for.
int setThermalMode(int mode) {
    char path[kThermalModePathSize];
    copyPath(path, kThermalModeNode);

    std::ofstream node(QRN_KERNEL_PATH(path), std::ios::out | std::ios::binary);
    if (!node.is_open()) {
        QRN_LOGE("[%s] Open File Node(%s) Error", __FUNCTION__, path);
        return -2;
    }

    // Taken as unsigned, so every negative mode is rejected too. Nothing is
    // written: the node is left truncated, as the open made it.
    if (static_cast<unsigned>(mode) > 1) {
        node.close();
        return -22;
    }

    node << mode;
    // A failed flush or close is not reported: the driver accepts the
    // write or not, and the caller has nothing to undo either way.
    node.close();
    return 0;
}

}  // namespace NSThermalInfo
}  // namespace NSCam
