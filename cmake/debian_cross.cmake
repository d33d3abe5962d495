# What the toolchain files of other architectures have in common: Debian's cross compiler, the libraries
# that scripts/cross-sysroot unpacks, and qemu for whatever the build and the tests run.
#
# Set before: debian_architecture, debian_triplet, emulator, and CMAKE_SYSTEM_PROCESSOR.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_LIBRARY_ARCHITECTURE ${debian_triplet})
set(CMAKE_C_COMPILER ${debian_triplet}-gcc)
set(CMAKE_CXX_COMPILER ${debian_triplet}-g++)

get_filename_component(CMAKE_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/../build/sysroot/${debian_architecture} ABSOLUTE)
if(NOT EXISTS ${CMAKE_SYSROOT}/.complete)
  message(FATAL_ERROR "${CMAKE_SYSROOT} is not there; run scripts/cross-sysroot ${debian_architecture}")
endif()
# Libraries and headers of the device, programs (protoc, python3) of this machine.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${CMAKE_SYSROOT})
set(ENV{PKG_CONFIG_LIBDIR} ${CMAKE_SYSROOT}/usr/lib/${debian_triplet}/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig)

set(CMAKE_CROSSCOMPILING_EMULATOR ${emulator} -L ${CMAKE_SYSROOT})
