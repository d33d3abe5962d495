# 64-bit ARM.
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(debian_architecture arm64)
set(debian_triplet aarch64-linux-gnu)
set(emulator qemu-aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/debian_cross.cmake)
