# Debian's 32-bit ARM: hard float, Thumb-2, 32-bit time_t.
set(CMAKE_SYSTEM_PROCESSOR arm)
set(plx_triplet arm-linux-gnueabihf)
set(plx_emulator qemu-arm)
# GCC tells where it passes arguments otherwise than GCC 6 did, for every inlined container of std::pair<uint64_t, ...>.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)
include(${CMAKE_CURRENT_LIST_DIR}/debian.cmake)
