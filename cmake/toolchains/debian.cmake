# What the toolchain files of Debian's architectures share; scripts/cross.sh configures with them.
#
# The compiler brings the C and C++ libraries. All others are looked for in PLX_TARGET_ROOT, where scripts/cross/root
# unpacks them, and nowhere else; programs that the build runs (protoc-c, pkg-config) are the host's. What was built runs
# under qemu, with the target's libraries from the same directory.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${plx_triplet}-gcc)
set(CMAKE_CXX_COMPILER ${plx_triplet}-g++)

set(PLX_TARGET_ROOT "" CACHE PATH "Directory with the unpacked packages of the target architecture")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES PLX_TARGET_ROOT)
if(NOT IS_DIRECTORY "${PLX_TARGET_ROOT}/usr/lib/${plx_triplet}")
  message(FATAL_ERROR "PLX_TARGET_ROOT names no root of ${plx_triplet}: run scripts/cross.sh, or scripts/cross/root")
endif()

set(CMAKE_FIND_ROOT_PATH ${PLX_TARGET_ROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
# Behind all others: what differs between architectures, where a library keeps that apart.
set(CMAKE_C_STANDARD_INCLUDE_DIRECTORIES ${PLX_TARGET_ROOT}/usr/include/${plx_triplet})
set(CMAKE_CXX_STANDARD_INCLUDE_DIRECTORIES ${CMAKE_C_STANDARD_INCLUDE_DIRECTORIES})
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${PLX_TARGET_ROOT})
set(ENV{PKG_CONFIG_LIBDIR} ${PLX_TARGET_ROOT}/usr/lib/${plx_triplet}/pkgconfig:${PLX_TARGET_ROOT}/usr/share/pkgconfig)

# Where the linker finds what a library needs that was not named to it.
set(plx_needed_by_others
    "-Wl,-rpath-link,${PLX_TARGET_ROOT}/usr/lib/${plx_triplet}:${PLX_TARGET_ROOT}/lib/${plx_triplet}")
set(CMAKE_EXE_LINKER_FLAGS_INIT ${plx_needed_by_others})
set(CMAKE_SHARED_LINKER_FLAGS_INIT ${plx_needed_by_others})

set(CMAKE_CROSSCOMPILING_EMULATOR ${plx_emulator};-L;${PLX_TARGET_ROOT})
