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

# The documents the installed README points to travel with it.
install(FILES ${PROJECT_SOURCE_DIR}/README.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(FILES ${PROJECT_SOURCE_DIR}/platform/README.md DESTINATION ${CMAKE_INSTALL_DOCDIR}/platform)
install(FILES ${PROJECT_SOURCE_DIR}/sim/README.md DESTINATION ${CMAKE_INSTALL_DOCDIR}/sim)
