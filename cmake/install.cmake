# What `cmake --install` puts in place for hosts: headers, library, vnjs.pc and the CMake package. Both packages find
# their files from where they stand, so an installed tree may be moved. The program is installed by host/.
include(CMakePackageConfigHelpers)
set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/vnjs)
set(pkgconfig_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

install(DIRECTORY include/vnjs DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
install(TARGETS vnjs EXPORT vnjs
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library NAMELINK_COMPONENT development
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(TARGETS vnjs_host EXPORT vnjs
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)

install(EXPORT vnjs NAMESPACE vnjs:: FILE vnjsTargets.cmake DESTINATION ${package_dir} COMPONENT development)
configure_package_config_file(cmake/vnjsConfig.cmake.in ${PROJECT_BINARY_DIR}/vnjsConfig.cmake
  INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/vnjsConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/vnjsConfig.cmake
  ${PROJECT_BINARY_DIR}/vnjsConfigVersion.cmake
  cmake/FindV8.cmake
  DESTINATION ${package_dir} COMPONENT development)

file(RELATIVE_PATH pkgconfig_to_prefix /${pkgconfig_dir} /)
# Where the engine's headers are for those who install, not on the machine that builds.
string(REPLACE "${CMAKE_SYSROOT}" "" engine_headers ${V8_INCLUDE_DIR})
configure_file(cmake/vnjs.pc.in ${PROJECT_BINARY_DIR}/vnjs.pc @ONLY)
configure_file(cmake/vnjs-host.pc.in ${PROJECT_BINARY_DIR}/vnjs-host.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/vnjs.pc ${PROJECT_BINARY_DIR}/vnjs-host.pc DESTINATION ${pkgconfig_dir} COMPONENT development)
