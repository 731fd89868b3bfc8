# What every target of the project is built with, and the shapes that targets come in.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 99)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
# Files of a target are compiled several at a time: most of the time of each goes into headers that all of them include. No two
# that are together may have the same name for a thing of their own. With OFF, which the second compiler's build has, each stands alone.
option(CMAKE_UNITY_BUILD "Compile the files of a target several at a time" ON)
# A program is not linked again for another shared library of the same interface: they bind all of it at their start.
set(CMAKE_LINK_DEPENDS_NO_SHARED ON)
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/lib)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/bin)
# What is installed does not tell where it was built: libraries find each other relative to themselves from the start, and
# names of files, in messages and for debuggers, begin at the project's root. The generator names sources by their way from
# the build's folder, or in full.
set(CMAKE_BUILD_RPATH_USE_ORIGIN ON)
cmake_path(RELATIVE_PATH PROJECT_SOURCE_DIR BASE_DIRECTORY ${PROJECT_BINARY_DIR} OUTPUT_VARIABLE way_to_sources)
foreach(root IN ITEMS ${PROJECT_SOURCE_DIR} ${way_to_sources} ${PROJECT_BINARY_DIR})
  add_compile_options(-fdebug-prefix-map=${root}=. -fmacro-prefix-map=${root}=.)
endforeach()
if(NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE RelWithDebInfo CACHE STRING "" FORCE)
endif()

find_package(PkgConfig REQUIRED)
pkg_check_modules(PROTOBUF_C REQUIRED IMPORTED_TARGET libprotobuf-c)

add_library(plx_options INTERFACE)
# On 32-bit targets files may be large, and file systems number their files with 64 bits. time_t stays the platform's own:
# struct timeval is part of the interface.
target_compile_definitions(plx_options INTERFACE _FILE_OFFSET_BITS=64)
target_compile_options(plx_options INTERFACE -Wall -Wextra -Wconversion -Wshadow)
if(PLX_SANITIZE)
  target_compile_definitions(plx_options INTERFACE PLX_UNDER_SANITIZER)
  target_compile_options(plx_options INTERFACE -fsanitize=${PLX_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  target_link_options(plx_options INTERFACE -fsanitize=${PLX_SANITIZE})
  if(CMAKE_C_COMPILER_ID STREQUAL "Clang") # a program in C has libraries in C++
    target_link_options(plx_options INTERFACE -fsanitize-link-c++-runtime)
    target_link_libraries(plx_options INTERFACE stdc++)
  endif()
else()
  target_compile_options(plx_options INTERFACE -fstack-protector-strong $<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE>
                                               $<$<NOT:$<CONFIG:Debug>>:-D_FORTIFY_SOURCE=2>)
  target_link_options(plx_options INTERFACE -Wl,-z,relro,-z,now,-z,noexecstack,-z,defs)
endif()

# A shared library with SONAME lib<name>.so.1. With MAP it exports what that file lists, otherwise what its sources mark.
function(plx_shared_library name)
  cmake_parse_arguments(ARG "" "MAP" "SOURCES" ${ARGN})
  add_library(${name} SHARED ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE plx_options)
  set_target_properties(${name} PROPERTIES SOVERSION 1 VERSION ${PROJECT_VERSION})
  if(ARG_MAP)
    target_link_options(${name} PRIVATE -Wl,--version-script=${ARG_MAP})
    set_property(TARGET ${name} APPEND PROPERTY LINK_DEPENDS ${ARG_MAP})
  endif()
endfunction()
