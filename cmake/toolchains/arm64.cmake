# Debian's 64-bit ARM.
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(plx_triplet aarch64-linux-gnu)
set(plx_emulator qemu-aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/debian.cmake)
