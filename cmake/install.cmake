# Installs the library, both header trees, a pkg-config file and a CMake package.
include(CMakePackageConfigHelpers)

install(TARGETS ksutils EXPORT ksutilsTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/ ${PROJECT_SOURCE_DIR}/include_cpp/
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/ksutils)

install(EXPORT ksutilsTargets NAMESPACE ksutils::
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/ksutils)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/ksutilsConfig.cmake.in
  ${PROJECT_BINARY_DIR}/ksutilsConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/ksutils)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/ksutilsConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/ksutilsConfig.cmake ${PROJECT_BINARY_DIR}/ksutilsConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/ksutils)

# The .pc file locates the prefix from its own place, so an installed tree can be moved.
file(RELATIVE_PATH KS_PC_TO_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" KS_PC_TO_PREFIX "${KS_PC_TO_PREFIX}")
configure_file(${PROJECT_SOURCE_DIR}/cmake/ksutils.pc.in ${PROJECT_BINARY_DIR}/ksutils.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/ksutils.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
