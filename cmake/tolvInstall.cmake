# Headers, libraries, the CMake package and tolv.pc.
include(CMakePackageConfigHelpers)

set(l_targets tolv tolv_static)
set(TOLV_PC_PLATFORM "")
if(NOT TOLV_PLATFORM_LIBRARY)
  list(APPEND l_targets tolvplatform tolvplatform_static)
  set(TOLV_PC_PLATFORM "-ltolvplatform")
endif()
set(l_package "${CMAKE_INSTALL_LIBDIR}/cmake/tolv")

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
  DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
