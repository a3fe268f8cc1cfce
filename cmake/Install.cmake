# What `cmake --install` puts in place: the library and its header, a CMake package
# (find_package(vexshmrm) gives vexshmrm::vexshmrm), a pkg-config file, and shmrmctl with the
# example install directory its demo copies.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(VEX_CMAKE_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/vexshmrm)

install(TARGETS vexshmrm EXPORT vexshmrmTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES ${PROJECT_SOURCE_DIR}/library/shmrm/include/vexshmrm.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT vexshmrmTargets NAMESPACE vexshmrm:: DESTINATION ${VEX_CMAKE_PACKAGE_DIR})

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/vexshmrmConfig.cmake.in
  ${PROJECT_BINARY_DIR}/vexshmrmConfig.cmake INSTALL_DESTINATION ${VEX_CMAKE_PACKAGE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/vexshmrmConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/vexshmrmConfig.cmake
              ${PROJECT_BINARY_DIR}/vexshmrmConfigVersion.cmake
  DESTINATION ${VEX_CMAKE_PACKAGE_DIR})

configure_file(${PROJECT_SOURCE_DIR}/cmake/vexshmrm.pc.in ${PROJECT_BINARY_DIR}/vexshmrm.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/vexshmrm.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

if(TARGET shmrmctl)
  set_target_properties(shmrmctl PROPERTIES INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
  install(TARGETS shmrmctl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/examples/install/
    DESTINATION ${CMAKE_INSTALL_DATADIR}/vexshmrm/examples/install)
endif()
