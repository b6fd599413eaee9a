include(CMakePackageConfigHelpers)
install(EXPORT nimiobTargets NAMESPACE nimiob:: FILE nimiobTargets.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/nimiob)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/nimiobConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/nimiobConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/nimiob)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/nimiobConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/nimiobConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/nimiobConfigVersion.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/nimiob)
