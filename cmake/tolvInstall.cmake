# Headers, libraries, the CMake package and tolv.pc, all of which may be moved
# together after installation.
option(TOLV_INSTALL "Install tolv with this project" ${PROJECT_IS_TOP_LEVEL})
if(NOT TOLV_INSTALL)
  return()
endif()

include(CMakePackageConfigHelpers)

set(l_targets tolv tolv_static)
set(l_package "${CMAKE_INSTALL_LIBDIR}/cmake/tolv")
set(l_pkgconfig "${CMAKE_INSTALL_LIBDIR}/pkgconfig")

# TOLV_PC_PLATFORM: how tolv.pc links the platform.
if(NOT TOLV_PLATFORM_LIBRARY)
  list(APPEND l_targets tolvplatform tolvplatform_static)
  set(TOLV_PC_PLATFORM "-ltolvplatform")
  # The library finds its platform beside itself, wherever both are put.
  set_target_properties(tolv PROPERTIES INSTALL_RPATH "$ORIGIN")
else()
  if(TOLV_PLATFORM_LIBRARY MATCHES "^-|/")
    set(TOLV_PC_PLATFORM "${TOLV_PLATFORM_LIBRARY}")
  else()
    set(TOLV_PC_PLATFORM "-l${TOLV_PLATFORM_LIBRARY}")
  endif()
  # The services are declared here, whoever implements them.
  install(DIRECTORY src/tolv/platform
    DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/tolv"
    FILES_MATCHING PATTERN "*.hpp" PATTERN host EXCLUDE)
endif()

# TOLV_PC_PREFIX: the way from the folder of tolv.pc to the prefix.
cmake_path(ABSOLUTE_PATH l_pkgconfig BASE_DIRECTORY "${CMAKE_INSTALL_PREFIX}"
  OUTPUT_VARIABLE l_from)
cmake_path(RELATIVE_PATH CMAKE_INSTALL_PREFIX BASE_DIRECTORY "${l_from}"
  OUTPUT_VARIABLE TOLV_PC_PREFIX)

install(TARGETS ${l_targets} EXPORT tolvTargets FILE_SET HEADERS)
install(EXPORT tolvTargets NAMESPACE tolv:: DESTINATION "${l_package}")

configure_package_config_file(cmake/tolvConfig.cmake.in tolvConfig.cmake
  INSTALL_DESTINATION "${l_package}")
write_basic_package_version_file(tolvConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
configure_file(cmake/tolv.pc.in tolv.pc @ONLY)

install(FILES
  "${CMAKE_CURRENT_BINARY_DIR}/tolvConfig.cmake"
  "${CMAKE_CURRENT_BINARY_DIR}/tolvConfigVersion.cmake"
  DESTINATION "${l_package}")
install(FILES "${CMAKE_CURRENT_BINARY_DIR}/tolv.pc"
  DESTINATION "${l_pkgconfig}")
