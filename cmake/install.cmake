include(CMakePackageConfigHelpers)

# The engine calls these by their absolute paths, whatever the prefix.
set(TOLM_PRIVATE_SBIN /usr/tolm/sbin)
set(TOLM_SHARE /usr/share/data_update)

set(exported_targets tolmdbud tolmoperation tolm_platform_headers)
if(TOLM_PLATFORM STREQUAL "linux")
  list(APPEND exported_targets tolmplatform)
endif()
install(TARGETS ${exported_targets} EXPORT tolmdbudTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY include/dataupdate include/operation platform/include/tolm DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(TARGETS tolmdbud_tool tolmdbpub RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(TARGETS tolmdbudvcdiff RUNTIME DESTINATION ${TOLM_PRIVATE_SBIN})
install(TARGETS tolmdbud-replay RUNTIME DESTINATION ${TOLM_LIBEXEC})
install(FILES packaging/wgetrc packaging/wgetrc.empty DESTINATION ${TOLM_SHARE})

install(EXPORT tolmdbudTargets NAMESPACE tolmdbud:: FILE tolmdbudTargets.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tolmdbud)
configure_package_config_file(cmake/tolmdbudConfig.cmake.in
  ${CMAKE_BINARY_DIR}/tolmdbudConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tolmdbud)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/tolmdbudConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_BINARY_DIR}/tolmdbudConfig.cmake
  ${CMAKE_BINARY_DIR}/tolmdbudConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tolmdbud)

foreach(library tolmdbud tolmoperation)
  configure_file(cmake/${library}.pc.in ${CMAKE_BINARY_DIR}/${library}.pc @ONLY)
endforeach()
install(FILES ${CMAKE_BINARY_DIR}/tolmdbud.pc ${CMAKE_BINARY_DIR}/tolmoperation.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
