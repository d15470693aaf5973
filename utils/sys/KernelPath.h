// Kernel files are opened at fixed paths. A host build (which defines
// QRNCAM_HOST_KERNEL_PATHS) may put other files behind them; a device build
// uses the literal path and nothing else.
#pragma once

#if defined(QRNCAM_HOST_KERNEL_PATHS)
#include <qrnhost/kernelfs.h>
// The temporary string lives until the end of the full expression, which
// covers the open call the macro is written in.
#define QRN_KERNEL_PATH(path) (::qrnhost::kernelfs::resolve(path).c_str())
#else
#define QRN_KERNEL_PATH(path) (path)
#endif
