# Builds for 32-bit ARM with Debian's cross compiler, against a folder with Debian's armhf packages:
#   cmake --toolchain cmake/armhf.cmake -DVNJS_SYSROOT=FOLDER ...
# What the build itself runs, and ctest, go through the emulator qemu-arm.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)

set(VNJS_SYSROOT "" CACHE PATH "Folder with the armhf packages of Debian")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES VNJS_SYSROOT)
set(CMAKE_SYSROOT ${VNJS_SYSROOT})

set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
# Names of files in messages must not tell where somebody keeps the packages.
set(CMAKE_CXX_FLAGS_INIT "-ffile-prefix-map=${VNJS_SYSROOT}=")
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
set(CMAKE_INSTALL_LIBDIR lib/arm-linux-gnueabihf CACHE PATH "Where Debian has libraries of this architecture")
set(VNJS_DEBIAN_ARCHITECTURE armhf)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L ${VNJS_SYSROOT})

set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
