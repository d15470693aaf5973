// Per-tag log switch of the camera standard-utilities library
// (libqrncam_stdutils).
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

// Nonzero when lines of the level letter 'D', 'I' or 'E' are enabled for tag.
int qrncam_testLog(const char* tag, int level);

#ifdef __cplusplus
}

namespace qrncam::stdutils {
// Host only: replaces the decision (null restores the default, which lets
// every level of every tag through). The hook may be called from any thread.
using TestLogHook = int (*)(const char* tag, int level);
void setTestLogHook(TestLogHook hook);
}  // namespace qrncam::stdutils
#endif
