// Host-only redirection of the fixed kernel files the library reads and
// writes ("/proc/meminfo", the thermal nodes). On a device those paths are
// used as they are; on a workstation tests and host programs put ordinary
// files behind them. Library code reaches this only through
// QRN_KERNEL_PATH (utils/sys/KernelPath.h), and only in host builds.
#pragma once

#include <string>

namespace qrnhost::kernelfs {

// Name of the environment variable that names a directory standing in for
// the root of the kernel files: with it set to R, "/proc/meminfo" is read
// from "R/proc/meminfo". It is read at every lookup.
inline constexpr const char* kRootEnv = "QRNCAM_KERNEL_ROOT";

// The path to use for the fixed path: an explicit redirection if one was
// made, else the path under kRootEnv if that is set, else the path itself.
std::string resolve(const char* fixedPath);

// Makes the fixed path resolve to replacement (any path, including one that
// does not exist) until it is cleared.
void redirect(const std::string& fixedPath, const std::string& replacement);
void clear(const std::string& fixedPath);
void reset();

}  // namespace qrnhost::kernelfs
