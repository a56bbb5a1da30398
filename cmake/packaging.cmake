# `cmake --install` for hosts: the public headers, the static library, `wdc` (tools/wdc), a CMake
# package (find_package(webdavconnect CONFIG) gives webdavconnect::webdavconnect) and a
# pkg-config file. The emulator library and the test support are not installed: a host that
# wants a test server runs the installed `wdc emulator`.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(WDC_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/webdavconnect)

# Hosts compile the public headers as C++20 too.
target_compile_features(webdavconnect PUBLIC cxx_std_20)

# The library is static, so its link interface (wdc_deps, exported as webdavconnect::deps) goes
# with it; the package config finds those dependencies again on the host.
install(TARGETS webdavconnect EXPORT webdavconnectTargets
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(TARGETS wdc_deps EXPORT webdavconnectTargets)
install(DIRECTORY include/webdavconnect DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT webdavconnectTargets NAMESPACE webdavconnect::
        DESTINATION ${WDC_INSTALL_CMAKEDIR})

configure_package_config_file(cmake/webdavconnectConfig.cmake.in
                              ${PROJECT_BINARY_DIR}/webdavconnectConfig.cmake
                              INSTALL_DESTINATION ${WDC_INSTALL_CMAKEDIR})
# Before 1.0 a new minor version may change the API.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/webdavconnectConfigVersion.cmake
                                 COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/webdavconnectConfig.cmake
              ${PROJECT_BINARY_DIR}/webdavconnectConfigVersion.cmake
        DESTINATION ${WDC_INSTALL_CMAKEDIR})

# The .pc file finds the prefix from its own place, so `cmake --install --prefix DIR` works
# without reconfiguring.
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  set(WDC_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
  set(WDC_PC_LIBDIR "${CMAKE_INSTALL_LIBDIR}")
else()
  file(RELATIVE_PATH WDC_PC_PREFIX "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/prefix")
  string(REGEX REPLACE "/$" "" WDC_PC_PREFIX "${WDC_PC_PREFIX}")
  set(WDC_PC_PREFIX "\${pcfiledir}/${WDC_PC_PREFIX}")
  set(WDC_PC_LIBDIR "\${prefix}/${CMAKE_INSTALL_LIBDIR}")
endif()
configure_file(cmake/webdavconnect.pc.in ${PROJECT_BINARY_DIR}/webdavconnect.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/webdavconnect.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
