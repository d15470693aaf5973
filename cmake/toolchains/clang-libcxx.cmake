# Host build with clang and LLVM's libc++, the C++ library the device uses,
# instead of libstdc++. Everything of the tree is built with it; GoogleTest
# comes from Debian's sources (QRNCAM_GTEST_SOURCE_DIR), since the prebuilt
# one is built against libstdc++ and cannot be mixed into a libc++ program.
# Without RTTI, as the device builds every C++ module that does not ask for
# it: code that needs the library's type information fails here as there.
set(CMAKE_C_COMPILER clang)
set(CMAKE_CXX_COMPILER clang++)
set(CMAKE_CXX_FLAGS_INIT "-stdlib=libc++ -fno-rtti")
set(CMAKE_EXE_LINKER_FLAGS_INIT "-stdlib=libc++")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-stdlib=libc++")
set(QRNCAM_GTEST_SOURCE_DIR "/usr/src/googletest" CACHE PATH "GoogleTest sources to build with the tree")
