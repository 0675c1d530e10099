# Install rules of the module SDK (component "sdk"): the contract header, the CMake package
# VigildModule with the imported target Vigild::module, and vigild-module.pc.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(VIGILD_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/VigildModule)
set_target_properties(vigild_module_api PROPERTIES EXPORT_NAME module)
install(TARGETS vigild_module_api EXPORT VigildModuleTargets COMPONENT sdk)
install(FILES ${CMAKE_SOURCE_DIR}/include/vigild/module.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/vigild COMPONENT sdk)
install(EXPORT VigildModuleTargets NAMESPACE Vigild:: DESTINATION ${VIGILD_CMAKE_DIR}
  COMPONENT sdk)

configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/VigildModuleConfig.cmake.in
  ${CMAKE_BINARY_DIR}/sdk/VigildModuleConfig.cmake INSTALL_DESTINATION ${VIGILD_CMAKE_DIR})
# A library built for 14.0.x loads in any 14.0 daemon: the base version is "14.0.".
write_basic_package_version_file(${CMAKE_BINARY_DIR}/sdk/VigildModuleConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_BINARY_DIR}/sdk/VigildModuleConfig.cmake
  ${CMAKE_BINARY_DIR}/sdk/VigildModuleConfigVersion.cmake
  DESTINATION ${VIGILD_CMAKE_DIR} COMPONENT sdk)

# The prefix is written at install time, so `cmake --install --prefix` gets a correct file.
set(VIGILD_PC_PREFIX "%%PREFIX%%")
configure_file(${CMAKE_CURRENT_LIST_DIR}/vigild-module.pc.in
  ${CMAKE_BINARY_DIR}/sdk/vigild-module.pc.in.configured @ONLY)
install(CODE "
  file(READ \"${CMAKE_BINARY_DIR}/sdk/vigild-module.pc.in.configured\" pc)
  string(REPLACE \"%%PREFIX%%\" \"\${CMAKE_INSTALL_PREFIX}\" pc \"\${pc}\")
  file(WRITE \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/pkgconfig/vigild-module.pc\" \"\${pc}\")
  message(STATUS \"Installing: \$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/pkgconfig/vigild-module.pc\")
  " COMPONENT sdk)
