# What `cmake --install` puts under a prefix: the header, both libraries, a pkg-config file and the
# CMake package `psp` with the targets psp::psp and psp::static. The tree may be moved as a whole.
include(CMakePackageConfigHelpers)

if(PROJECT_IS_TOP_LEVEL AND NOT DEFINED CMAKE_INSTALL_LIBDIR)
  # The same place on every system; who packages names another.
  set(CMAKE_INSTALL_LIBDIR lib CACHE STRING "Folder of the libraries under the prefix")
endif()
include(GNUInstallDirs)
set(psp_package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/psp)

install(TARGETS psp_shared psp_static EXPORT psp-targets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES ${PROJECT_SOURCE_DIR}/include/psp.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

install(EXPORT psp-targets NAMESPACE psp:: DESTINATION ${psp_package_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/psp-config-version.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_SOURCE_DIR}/cmake/psp-config.cmake
              ${PROJECT_BINARY_DIR}/psp-config-version.cmake
  DESTINATION ${psp_package_dir})

file(RELATIVE_PATH psp_prefix_from_pc
  /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
configure_file(${PROJECT_SOURCE_DIR}/cmake/psp.pc.in ${PROJECT_BINARY_DIR}/psp.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/psp.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# Last, so that it describes everything that was installed.
set(psp_spdx_file ${CMAKE_INSTALL_DOCDIR}/psp.spdx.json)
install(CODE "
  get_filename_component(psp_prefix \"\${CMAKE_INSTALL_PREFIX}\" ABSOLUTE)
  set(PSP_SPDX_ROOT \"\$ENV{DESTDIR}\${psp_prefix}\")
  set(PSP_SPDX_NAME psp)
  set(PSP_SPDX_FILE ${psp_spdx_file})
  set(PSP_SPDX_FILES \"\")
  foreach(psp_file IN LISTS CMAKE_INSTALL_MANIFEST_FILES)
    file(RELATIVE_PATH psp_file \"\${psp_prefix}\" \"\${psp_file}\")
    if(psp_file MATCHES \"/(lib)?psp[-./]\")  # nothing of a project around it
      list(APPEND PSP_SPDX_FILES \"\${psp_file}\")
    endif()
  endforeach()
  include(\"${PROJECT_SOURCE_DIR}/cmake/spdx.cmake\")
  list(APPEND CMAKE_INSTALL_MANIFEST_FILES \"\${psp_prefix}/${psp_spdx_file}\")
  message(STATUS \"Installing: \${PSP_SPDX_ROOT}/${psp_spdx_file}\")
")
