# What `cmake --install` puts in place for hosts: headers, library, vnjs.pc and the CMake package. Both packages find
# their files from where they stand, so an installed tree may be moved. The program is installed by host/.
include(CMakePackageConfigHelpers)
set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/vnjs)
set(pkgconfig_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

install(DIRECTORY include/vnjs DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(TARGETS vnjs EXPORT vnjs
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

install(EXPORT vnjs NAMESPACE vnjs:: FILE vnjsTargets.cmake DESTINATION ${package_dir})
configure_package_config_file(cmake/vnjsConfig.cmake.in ${PROJECT_BINARY_DIR}/vnjsConfig.cmake
  INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/vnjsConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/vnjsConfig.cmake
  ${PROJECT_BINARY_DIR}/vnjsConfigVersion.cmake
  cmake/FindV8.cmake
  DESTINATION ${package_dir})

file(RELATIVE_PATH pkgconfig_to_prefix /${pkgconfig_dir} /)
configure_file(cmake/vnjs.pc.in ${PROJECT_BINARY_DIR}/vnjs.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/vnjs.pc DESTINATION ${pkgconfig_dir})
