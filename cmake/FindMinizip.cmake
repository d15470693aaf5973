# zlib's minizip (Debian's libminizip-dev), which reads the zip a bug report
# comes in. It ships a pkg-config file but no CMake package; found by hand as
# the Android libraries are, so that cross builds find their architecture's.
find_path(MINIZIP_INCLUDE_DIR minizip/unzip.h)
find_library(MINIZIP_LIBRARY minizip)
include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(Minizip REQUIRED_VARS MINIZIP_LIBRARY MINIZIP_INCLUDE_DIR)
if(Minizip_FOUND AND NOT TARGET Minizip::minizip)
  add_library(Minizip::minizip UNKNOWN IMPORTED)
  set_target_properties(Minizip::minizip PROPERTIES
    IMPORTED_LOCATION "${MINIZIP_LIBRARY}"
    INTERFACE_INCLUDE_DIRECTORIES "${MINIZIP_INCLUDE_DIR}")
endif()
