# Debian packages, by `cpack` in a build folder with the prefix /usr: ./dev package makes one.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_VENDOR "vnjs developers")
set(CPACK_PACKAGE_CONTACT "vnjs developers <vnjs@example.org>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL library development program)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/engine)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
if(CMAKE_CROSSCOMPILING)
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${VNJS_DEBIAN_ARCHITECTURE})
  # dpkg-shlibdeps knows only what is installed on this machine.
  set(CPACK_PROJECT_CONFIG_FILE ${PROJECT_BINARY_DIR}/cross_packages.cmake)
  file(GENERATE OUTPUT ${CPACK_PROJECT_CONFIG_FILE}
    CONTENT "set(SHLIBDEPS_EXECUTABLE ${PROJECT_BINARY_DIR}/cross-shlibdeps)\n")
  file(GENERATE OUTPUT ${PROJECT_BINARY_DIR}/cross-shlibdeps
    CONTENT "#!/bin/sh\nexec dpkg-shlibdeps -L${CMAKE_SYSROOT}/.shlibs -l${CMAKE_SYSROOT}/usr/lib/${CMAKE_LIBRARY_ARCHITECTURE} \"$@\"\n"
    FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE)
endif()

set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME libvnjs${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/triggers)
set(CPACK_COMPONENT_LIBRARY_DESCRIPTION "JavaScript automation engine for home-automation controllers
Runs automations in environments of their own inside the host's process, with
timers, persistent objects, files, shell commands under a policy, and XML.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libvnjs-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
  "${CPACK_DEBIAN_LIBRARY_PACKAGE_NAME} (= ${PROJECT_VERSION}), libnode-dev")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "JavaScript automation engine, files for hosts
Headers of libvnjs, with what pkg-config and CMake need to build a host.")

set(CPACK_DEBIAN_PROGRAM_PACKAGE_NAME vnjs)
set(CPACK_DEBIAN_PROGRAM_PACKAGE_SECTION interpreters)
set(CPACK_DEBIAN_PROGRAM_PACKAGE_DEPENDS "${CPACK_DEBIAN_LIBRARY_PACKAGE_NAME} (= ${PROJECT_VERSION})")
set(CPACK_COMPONENT_PROGRAM_DESCRIPTION "program that runs home automations in JavaScript
Runs script files and their timers, or prints what code gives, and lets
debuggers attach.")

# What Debian wants to see in each package.
string(TIMESTAMP package_date "%a, %d %b %Y %H:%M:%S +0000" UTC)
foreach(component library development program)
  string(TOUPPER ${component} key)
  set(package ${CPACK_DEBIAN_${key}_PACKAGE_NAME})
  set(folder ${PROJECT_BINARY_DIR}/packages/${package})
  configure_file(packaging/changelog.in ${folder}/changelog @ONLY)
  execute_process(COMMAND gzip -9nf ${folder}/changelog)
  install(FILES packaging/copyright ${folder}/changelog.gz
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package} COMPONENT ${component})
endforeach()
include(CPack)
