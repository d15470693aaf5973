# Debian's Android host libraries (android-libutils-dev, android-liblog-dev).
# They ship no pkg-config or CMake files, so they are found by hand and
# wrapped in imported targets. The tree links android::utils and
# android::log; those are aliases of targets named in the package's
# namespace, so that the installed package can recreate them under the same
# names without adding anything global to its users' projects.
#
# The headers live under <include>/android and are used as a system include
# directory: a plain -I makes gcc warn (and, with -Werror, fail) on the
# unknown pragmas of log/log_read.h.

find_path(ANDROID_HOST_INCLUDE_DIR utils/RefBase.h PATH_SUFFIXES android REQUIRED)
find_library(ANDROID_LIBLOG log PATH_SUFFIXES android NO_CMAKE_SYSTEM_PATH
             PATHS /usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}/android REQUIRED)
if(QRNCAM_LIBUTILS_DIR)
  find_library(ANDROID_LIBUTILS utils PATHS "${QRNCAM_LIBUTILS_DIR}" NO_DEFAULT_PATH REQUIRED)
else()
  find_library(ANDROID_LIBUTILS utils PATH_SUFFIXES android NO_CMAKE_SYSTEM_PATH
               PATHS /usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}/android REQUIRED)
endif()
get_filename_component(ANDROID_HOST_LIBDIR "${ANDROID_LIBLOG}" DIRECTORY)
if(QRNCAM_LIBUTILS_DIR)
  set(ANDROID_HOST_LIBDIR "${QRNCAM_LIBUTILS_DIR};${ANDROID_HOST_LIBDIR}")
endif()

foreach(lib IN ITEMS log utils)
  string(TOUPPER "${lib}" up)
  add_library(qrncam_sysutils::android_${lib} SHARED IMPORTED)
  set_target_properties(qrncam_sysutils::android_${lib} PROPERTIES
    IMPORTED_LOCATION "${ANDROID_LIB${up}}"
    INTERFACE_SYSTEM_INCLUDE_DIRECTORIES "${ANDROID_HOST_INCLUDE_DIR}"
    INTERFACE_INCLUDE_DIRECTORIES "${ANDROID_HOST_INCLUDE_DIR}")
  add_library(android::${lib} ALIAS qrncam_sysutils::android_${lib})
endforeach()
set_property(TARGET qrncam_sysutils::android_utils APPEND PROPERTY INTERFACE_LINK_LIBRARIES
  qrncam_sysutils::android_log)
