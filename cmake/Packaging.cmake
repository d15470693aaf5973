# cmake --install: the library and the host platform it needs (with the test
# harness of qrnhost/testing.h), the public headers (with the platform headers
# they include), a CMake package config for find_package(qrncam_sysutils)
# and a pkg-config file.
include(CMakePackageConfigHelpers)

set(QRNCAM_INSTALL_CMAKEDIR "${CMAKE_INSTALL_LIBDIR}/cmake/qrncam_sysutils")
set(QRNCAM_INSTALL_INCDIR "${CMAKE_INSTALL_INCLUDEDIR}/qrncam_sysutils")
set(QRNCAM_INSTALL_PERFDIR "${CMAKE_INSTALL_LIBDIR}/perf")

# cmake --install right after a configure, or after a build of part of the
# tree (tools/run.sh builds the main program only), would find libraries
# missing: it builds them first, and says what to run if that fails. Files
# already there are installed as they are, as cmake --install does.
set(installed qrncam_sysutils ${QRNHOST_LIBRARIES} qrnhost_perfsim)
set(installed_files)
foreach(target IN LISTS installed)
  list(APPEND installed_files "$<TARGET_FILE:${target}>")
endforeach()
install(CODE "
  set(missing)
  foreach(file IN ITEMS ${installed_files})
    if(NOT EXISTS \"\${file}\")
      list(APPEND missing \"\${file}\")
    endif()
  endforeach()
  if(missing)
    list(LENGTH missing count)
    list(GET missing 0 first)
    message(STATUS \"\${count} of the files to install are not built yet (\${first}, ...): building them first\")
    execute_process(COMMAND \"${CMAKE_COMMAND}\" --build \"${CMAKE_BINARY_DIR}\" --target ${installed}
                    RESULT_VARIABLE failed)
    if(failed)
      message(FATAL_ERROR \"The build failed: run cmake --build ${CMAKE_BINARY_DIR}, then install again.\")
    endif()
  endif()
")

install(TARGETS qrncam_sysutils ${QRNHOST_LIBRARIES}
  EXPORT qrncam_sysutilsTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  INCLUDES DESTINATION ${QRNCAM_INSTALL_INCDIR} ${QRNCAM_INSTALL_INCDIR}/platform)
# The simulated perf-lock library keeps a directory of its own, as in the
# build tree: the library opens it by name through its RUNPATH, and the
# harness links it to read its journal.
install(TARGETS qrnhost_perfsim
  EXPORT qrncam_sysutilsTargets
  LIBRARY DESTINATION ${QRNCAM_INSTALL_PERFDIR}
  INCLUDES DESTINATION ${QRNCAM_INSTALL_INCDIR}/platform)
set_property(TARGET qrncam_sysutils qrnhost_testing APPEND PROPERTY INSTALL_RPATH "$ORIGIN/perf")

# An example project of camera code tested with the harness, to start from.
install(DIRECTORY host/testing/example/ DESTINATION ${CMAKE_INSTALL_DATADIR}/qrncam_sysutils/example)
foreach(dir IN LISTS QRNCAM_PUBLIC_HEADER_DIRS)
  if(dir STREQUAL "include")
    install(DIRECTORY include/ DESTINATION ${QRNCAM_INSTALL_INCDIR})
  else()
    install(DIRECTORY ${dir}/ DESTINATION ${QRNCAM_INSTALL_INCDIR}/platform)
  endif()
endforeach()

# Threads::Threads stays a dependency of the build tree only: on this C
# library it stands for nothing (CMAKE_THREAD_LIBS_INIT is empty), and naming
# it in the exported interfaces would make every user's project look for
# Threads. Where the threads do need a flag, the installed interface gets it.
foreach(target qrncam_sysutils ${QRNHOST_LIBRARIES} qrnhost_perfsim)
  get_target_property(libs ${target} INTERFACE_LINK_LIBRARIES)
  if(libs)
    list(TRANSFORM libs REPLACE "^Threads::Threads$"
         "$<BUILD_INTERFACE:Threads::Threads>$<INSTALL_INTERFACE:${CMAKE_THREAD_LIBS_INIT}>")
    set_property(TARGET ${target} PROPERTY INTERFACE_LINK_LIBRARIES "${libs}")
  endif()
endforeach()

install(EXPORT qrncam_sysutilsTargets NAMESPACE qrncam_sysutils:: DESTINATION ${QRNCAM_INSTALL_CMAKEDIR})
configure_package_config_file(cmake/qrncam_sysutilsConfig.cmake.in
  "${CMAKE_BINARY_DIR}/qrncam_sysutilsConfig.cmake" INSTALL_DESTINATION ${QRNCAM_INSTALL_CMAKEDIR})
write_basic_package_version_file("${CMAKE_BINARY_DIR}/qrncam_sysutilsConfigVersion.cmake"
  COMPATIBILITY SameMajorVersion)
install(FILES "${CMAKE_BINARY_DIR}/qrncam_sysutilsConfig.cmake"
  "${CMAKE_BINARY_DIR}/qrncam_sysutilsConfigVersion.cmake"
  DESTINATION ${QRNCAM_INSTALL_CMAKEDIR})

set(pcfiles qrncam_sysutils)
if(TARGET qrnhost_testing_main)
  list(APPEND pcfiles qrncam_sysutils-testing qrncam_sysutils-testing_main)
endif()
foreach(pc IN LISTS pcfiles)
  configure_file(cmake/${pc}.pc.in "${CMAKE_BINARY_DIR}/${pc}.pc" @ONLY)
  install(FILES "${CMAKE_BINARY_DIR}/${pc}.pc" DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()

# The command that shows how actual transcripts differ from the kept ones.
install(PROGRAMS tools/transcripts.sh DESTINATION ${CMAKE_INSTALL_BINDIR} RENAME qrncam-transcripts)
