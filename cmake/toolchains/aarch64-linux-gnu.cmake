# Cross build for 64-bit Arm against Debian's arm64 multiarch packages; tests
# run under qemu-aarch64, which finds the arm64 loader and libraries that
# libc6:arm64 and the :arm64 packages put in the real root.
# QRNCAM_ARM64_SYSROOT names a private root that qemu searches first, for
# arm64 files that apt could only install as their amd64 build (p7zip's
# 7z.so).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)

set(QRNCAM_ARM64_SYSROOT "$ENV{QRNCAM_ARM64_SYSROOT}" CACHE PATH "Private root searched first by qemu")
if(QRNCAM_ARM64_SYSROOT)
  set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64 -L ${QRNCAM_ARM64_SYSROOT})
  # Lets the linker follow libbacktrace's dependency on the arm64 7z.so.
  set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,-rpath-link,${QRNCAM_ARM64_SYSROOT}/usr/lib/p7zip")
  set(CMAKE_SHARED_LINKER_FLAGS_INIT "-Wl,-rpath-link,${QRNCAM_ARM64_SYSROOT}/usr/lib/p7zip")
else()
  set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64)
endif()
