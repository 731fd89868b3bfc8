# What an installation holds, and how others find it: headers, libraries, plx, pkg-config files and a CMake package.
#
# The platform's headers go into a folder of their own, so that a switch's headers of the same names are never shadowed
# by the reference ones. An application that wants the reference platform asks for plx-platform (plx::platform).
include(CMakePackageConfigHelpers)

set(PLX_PLATFORM_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/plx-platform)
set(PLX_PACKAGEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/plx)

# A pkg-config file finds the prefix from where it lies, so an installed tree can be staged or moved.
function(plx_install_pc name)
  set(folder /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig)
  cmake_path(RELATIVE_PATH folder BASE_DIRECTORY /prefix OUTPUT_VARIABLE below)
  string(REGEX REPLACE "[^/]+" ".." above ${below})
  configure_file(${PROJECT_SOURCE_DIR}/cmake/${name}.pc.in ${PROJECT_BINARY_DIR}/${name}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${name}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endfunction()

# Libraries find each other, and plx finds them, wherever the prefix is. A distribution sets CMAKE_SKIP_INSTALL_RPATH.
function(plx_install_libraries)
  set_target_properties(${ARGN} PROPERTIES INSTALL_RPATH "$ORIGIN")
  install(TARGETS ${ARGN} LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
endfunction()

install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/plx DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h")
install(FILES ${PROJECT_BINARY_DIR}/proto/plx/s_policy.pb-c.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/plx)
install(FILES ${PROJECT_SOURCE_DIR}/proto/s_policy.proto DESTINATION ${CMAKE_INSTALL_DATADIR}/plx)
foreach(section IN ITEMS 1 3 5 7)
  file(GLOB pages CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/docs/man/*.${section})
  install(FILES ${pages} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section})
endforeach()
set(page ${PROJECT_BINARY_DIR}/plx-attributes.7)
set(attributes ${PROJECT_SOURCE_DIR}/docs/attributes.md)
set(converter ${PROJECT_SOURCE_DIR}/docs/man/attributes.awk)
add_custom_command(OUTPUT ${page} COMMAND awk -f ${converter} ${attributes} > ${page} DEPENDS ${attributes} ${converter})
add_custom_target(manual ALL DEPENDS ${page})
install(FILES ${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man7)
plx_install_libraries(plx)
plx_install_pc(plx)

if(PLX_PLATFORM STREQUAL "reference")
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/platform/include/ DESTINATION ${PLX_PLATFORM_INCLUDEDIR}
          FILES_MATCHING PATTERN "*.h")
  plx_install_libraries(tq_mom_impl tq_time tq_zlog ssat cgstctrl)
  plx_install_pc(plx-platform)
  if(TARGET plx_program)
    set_target_properties(plx_program PROPERTIES INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
    install(TARGETS plx_program RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
    # For an operator to adapt and put in place.
    install(DIRECTORY ${PROJECT_SOURCE_DIR}/packaging/redis ${PROJECT_SOURCE_DIR}/packaging/systemd
            DESTINATION ${CMAKE_INSTALL_DATADIR}/plx)
  endif()
endif()

configure_package_config_file(
  ${PROJECT_SOURCE_DIR}/cmake/plxConfig.cmake.in ${PROJECT_BINARY_DIR}/plxConfig.cmake
  INSTALL_DESTINATION ${PLX_PACKAGEDIR} PATH_VARS CMAKE_INSTALL_INCLUDEDIR CMAKE_INSTALL_LIBDIR PLX_PLATFORM_INCLUDEDIR)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/plxConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/plxConfig.cmake ${PROJECT_BINARY_DIR}/plxConfigVersion.cmake
        DESTINATION ${PLX_PACKAGEDIR})
