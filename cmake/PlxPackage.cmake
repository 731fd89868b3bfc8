# What an installation holds, and how others find it: headers, libraries, plx, pkg-config files and a CMake package.
#
# The platform's headers go into a folder of their own, so that a switch's headers of the same names are never shadowed
# by the reference ones. An application that wants the reference platform asks for plx-platform (plx::platform).
include(CMakePackageConfigHelpers)

set(PLX_PLATFORM_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/plx-platform)
set(PLX_PACKAGEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/plx)
# The names of the platform's libraries are general: a distribution gives them a folder of their own.
set(PLX_PLATFORM_LIBDIR ${CMAKE_INSTALL_LIBDIR} CACHE STRING "Where the reference platform's libraries are installed")
set(PLX_SYSCONFDIR /etc/plx CACHE STRING "Where installed units look for their configuration")

# plx_way(out FROM TO): the way from one installed folder to another
function(plx_way out from to)
  set(from /prefix/${from})
  cmake_path(RELATIVE_PATH from BASE_DIRECTORY /prefix OUTPUT_VARIABLE below)
  string(REGEX REPLACE "[^/]+" ".." above ${below})
  cmake_path(APPEND above "${to}")
  set(${out} ${above} PARENT_SCOPE)
endfunction()

# A pkg-config file finds the prefix from where it lies, so an installed tree can be staged or moved.
function(plx_install_pc name)
  plx_way(prefix ${CMAKE_INSTALL_LIBDIR}/pkgconfig .)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/${name}.pc.in ${PROJECT_BINARY_DIR}/${name}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${name}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
endfunction()

# plx_install_libraries(COMPONENT FOLDER TARGET...): what of ours they need they find wherever the prefix is.
function(plx_install_libraries component folder)
  set(runpath $ORIGIN)
  if(NOT folder STREQUAL PLX_PLATFORM_LIBDIR)
    plx_way(platform ${folder} ${PLX_PLATFORM_LIBDIR})
    list(APPEND runpath $ORIGIN/${platform})
  endif()
  set_target_properties(${ARGN} PROPERTIES INSTALL_RPATH "${runpath}")
  install(TARGETS ${ARGN} LIBRARY DESTINATION ${folder} COMPONENT ${component} NAMELINK_COMPONENT development)
endfunction()

install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/plx DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development
        FILES_MATCHING PATTERN "*.h")
install(FILES ${PROJECT_BINARY_DIR}/proto/plx/s_policy.pb-c.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/plx COMPONENT development)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/proto/ DESTINATION ${CMAKE_INSTALL_DATADIR}/plx COMPONENT development
        FILES_MATCHING PATTERN "*.proto")
foreach(section IN ITEMS 1 3 5 7)
  file(GLOB pages CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/docs/man/*.${section})
  install(FILES ${pages} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section} COMPONENT documents)
endforeach()
set(page ${PROJECT_BINARY_DIR}/plx-attributes.7)
set(attributes ${PROJECT_SOURCE_DIR}/docs/attributes.md)
set(converter ${PROJECT_SOURCE_DIR}/docs/man/attributes.awk)
add_custom_command(OUTPUT ${page} COMMAND awk -f ${converter} ${attributes} > ${page} DEPENDS ${attributes} ${converter})
add_custom_target(manual ALL DEPENDS ${page})
install(FILES ${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man7 COMPONENT documents)
install(FILES ${PROJECT_SOURCE_DIR}/LICENSE ${PROJECT_SOURCE_DIR}/README.md ${PROJECT_SOURCE_DIR}/CHANGELOG.md
        DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT documents)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/docs ${PROJECT_SOURCE_DIR}/examples DESTINATION ${CMAKE_INSTALL_DOCDIR}
        COMPONENT documents PATTERN man EXCLUDE PATTERN CMakeLists.txt EXCLUDE)
plx_install_libraries(library ${CMAKE_INSTALL_LIBDIR} plx)
plx_install_pc(plx)

if(PLX_PLATFORM STREQUAL "reference")
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/platform/include/ DESTINATION ${PLX_PLATFORM_INCLUDEDIR} COMPONENT development
          FILES_MATCHING PATTERN "*.h")
  plx_install_libraries(platform ${PLX_PLATFORM_LIBDIR} tq_mom_impl tq_time tq_zlog ssat cgstctrl)
  if(NOT PLX_PLATFORM_LIBDIR STREQUAL CMAKE_INSTALL_LIBDIR) # the loader does not look there
    set(search " -Wl,-rpath,\${libdir}")
  endif()
  plx_install_pc(plx-platform)
  if(TARGET plx_program)
    plx_way(libraries ${CMAKE_INSTALL_BINDIR} ${CMAKE_INSTALL_LIBDIR})
    plx_way(platform ${CMAKE_INSTALL_BINDIR} ${PLX_PLATFORM_LIBDIR})
    set(runpath $ORIGIN/${libraries} $ORIGIN/${platform})
    list(REMOVE_DUPLICATES runpath)
    set_target_properties(plx_program PROPERTIES INSTALL_RPATH "${runpath}")
    install(TARGETS plx_program RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tool)
    set(completion ${PROJECT_SOURCE_DIR}/packaging/completion)
    install(FILES ${completion}/plx.bash DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME plx COMPONENT tool)
    install(FILES ${completion}/_plx DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions COMPONENT tool)
    install(FILES ${completion}/plx.fish DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d COMPONENT tool)
    install(DIRECTORY ${PROJECT_SOURCE_DIR}/packaging/schema ${PROJECT_SOURCE_DIR}/packaging/prometheus DESTINATION ${CMAKE_INSTALL_DATADIR}/plx COMPONENT tool)
    # For an operator to adapt and put in place. The prefix may be another than the one configured.
    install(DIRECTORY ${PROJECT_SOURCE_DIR}/packaging/redis DESTINATION ${CMAKE_INSTALL_DATADIR}/plx COMPONENT store)
    install(CODE "set(PLX_SYSCONFDIR ${PLX_SYSCONFDIR})
      cmake_path(APPEND CMAKE_INSTALL_PREFIX ${CMAKE_INSTALL_BINDIR} OUTPUT_VARIABLE bindir)
      foreach(unit IN ITEMS plx-metrics.service plx-node@.service plx-store.service)
        configure_file(${PROJECT_SOURCE_DIR}/packaging/systemd/\${unit}.in ${PROJECT_BINARY_DIR}/units/\${unit} @ONLY)
      endforeach()" COMPONENT tool)
    install(DIRECTORY ${PROJECT_BINARY_DIR}/units/ DESTINATION ${CMAKE_INSTALL_DATADIR}/plx/systemd COMPONENT tool)
  endif()
endif()

configure_package_config_file(
  ${PROJECT_SOURCE_DIR}/cmake/plxConfig.cmake.in ${PROJECT_BINARY_DIR}/plxConfig.cmake
  INSTALL_DESTINATION ${PLX_PACKAGEDIR}
  PATH_VARS CMAKE_INSTALL_INCLUDEDIR CMAKE_INSTALL_LIBDIR PLX_PLATFORM_INCLUDEDIR PLX_PLATFORM_LIBDIR)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/plxConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/plxConfig.cmake ${PROJECT_BINARY_DIR}/plxConfigVersion.cmake
        DESTINATION ${PLX_PACKAGEDIR} COMPONENT development)
