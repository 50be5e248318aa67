# Install rules: the plug-in, its public headers (everything but *_internal.h),
# a CMake package (find_package(localdisk)) and a pkg-config file.
install(TARGETS localdisk EXPORT localdiskTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

install(DIRECTORY protocol json time util
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/localdisk
  FILES_MATCHING PATTERN "*.h"
  PATTERN "*_internal.h" EXCLUDE
  PATTERN "CMakeFiles" EXCLUDE)

set(LOCALDISK_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/localdisk)
install(EXPORT localdiskTargets NAMESPACE localdisk:: DESTINATION ${LOCALDISK_CMAKE_DIR})
configure_package_config_file(cmake/localdiskConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/localdiskConfig.cmake
  INSTALL_DESTINATION ${LOCALDISK_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/localdiskConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES
  ${CMAKE_CURRENT_BINARY_DIR}/localdiskConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/localdiskConfigVersion.cmake
  DESTINATION ${LOCALDISK_CMAKE_DIR})

# Relocatable: the prefix is found from the .pc file's own place.
file(RELATIVE_PATH LOCALDISK_PC_TO_PREFIX
  ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" LOCALDISK_PC_TO_PREFIX "${LOCALDISK_PC_TO_PREFIX}")
configure_file(cmake/localdisk.pc.in ${CMAKE_CURRENT_BINARY_DIR}/localdisk.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/localdisk.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
