# Install tree: headers under include/orv/, the library, orv.pc and a CMake
# package giving orv::orv.
include(CMakePackageConfigHelpers)

install(TARGETS orv EXPORT orvTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} ${CMAKE_INSTALL_INCLUDEDIR}/orv)

install(DIRECTORY ${PROJECT_SOURCE_DIR}/core/
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/orv/core
  FILES_MATCHING PATTERN "*.h"
  PATTERN "*_internal.h" EXCLUDE
  PATTERN "tests" EXCLUDE)
install(FILES ${PROJECT_SOURCE_DIR}/include/orv/orv.h ${PROJECT_BINARY_DIR}/include/orv/version.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/orv)

install(EXPORT orvTargets NAMESPACE orv:: FILE orvTargets.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/orv)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/orvConfig.cmake.in
  ${PROJECT_BINARY_DIR}/orvConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/orv)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/orvConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/orvConfig.cmake ${PROJECT_BINARY_DIR}/orvConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/orv)

# The .pc file finds its prefix from its own place, so the tree can be
# installed anywhere (cmake --install --prefix ...).
file(RELATIVE_PATH ORV_PC_TO_PREFIX "/p/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/p")
string(REGEX REPLACE "/$" "" ORV_PC_TO_PREFIX "${ORV_PC_TO_PREFIX}")
configure_file(${PROJECT_SOURCE_DIR}/cmake/orv.pc.in ${PROJECT_BINARY_DIR}/orv.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/orv.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
