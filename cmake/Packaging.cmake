# cmake --install: the library and the host platform it needs, the public
# headers (with the platform headers they include), a CMake package config
# for find_package(qrncam_sysutils) and a pkg-config file.
include(CMakePackageConfigHelpers)

set(QRNCAM_INSTALL_CMAKEDIR "${CMAKE_INSTALL_LIBDIR}/cmake/qrncam_sysutils")
set(QRNCAM_INSTALL_INCDIR "${CMAKE_INSTALL_INCLUDEDIR}/qrncam_sysutils")

install(TARGETS qrncam_sysutils ${QRNHOST_LIBRARIES}
  EXPORT qrncam_sysutilsTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  INCLUDES DESTINATION ${QRNCAM_INSTALL_INCDIR} ${QRNCAM_INSTALL_INCDIR}/platform)
install(DIRECTORY include/ DESTINATION ${QRNCAM_INSTALL_INCDIR})
foreach(dir host/properties/include host/hidl/include host/camera/include host/trace/include
            host/powersim/include host/power_client/include utils/power)
  install(DIRECTORY ${dir}/ DESTINATION ${QRNCAM_INSTALL_INCDIR}/platform)
endforeach()

install(EXPORT qrncam_sysutilsTargets NAMESPACE qrncam_sysutils:: DESTINATION ${QRNCAM_INSTALL_CMAKEDIR})
configure_package_config_file(cmake/qrncam_sysutilsConfig.cmake.in
  "${CMAKE_BINARY_DIR}/qrncam_sysutilsConfig.cmake" INSTALL_DESTINATION ${QRNCAM_INSTALL_CMAKEDIR})
write_basic_package_version_file("${CMAKE_BINARY_DIR}/qrncam_sysutilsConfigVersion.cmake"
  COMPATIBILITY SameMajorVersion)
install(FILES "${CMAKE_BINARY_DIR}/qrncam_sysutilsConfig.cmake"
  "${CMAKE_BINARY_DIR}/qrncam_sysutilsConfigVersion.cmake" cmake/AndroidHost.cmake
  DESTINATION ${QRNCAM_INSTALL_CMAKEDIR})

configure_file(cmake/qrncam_sysutils.pc.in "${CMAKE_BINARY_DIR}/qrncam_sysutils.pc" @ONLY)
install(FILES "${CMAKE_BINARY_DIR}/qrncam_sysutils.pc" DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
