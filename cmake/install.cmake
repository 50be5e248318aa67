# Install rules: the plug-in, its public headers (everything but *_internal.h),
# the static archives for plug-in authors (below), a CMake package
# (find_package(localdisk)) and a pkg-config file.
install(TARGETS localdisk EXPORT localdiskTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

install(DIRECTORY protocol json time util
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/localdisk
  FILES_MATCHING PATTERN "*.h"
  PATTERN "*_internal.h" EXCLUDE
  PATTERN "CMakeFiles" EXCLUDE)

# For plug-in authors and hosts, static archives with their headers under
# the same relative paths: the shared layer (localdisk::support, what a
# plug-in derives from), the host core (localdisk::plughost_core) and the
# conformance suite (localdisk::conformance; host/conformance/gtest.h runs it
# in a GoogleTest suite, which links GTest itself).
set(localdisk_installed_archives localdisk_support)
set_target_properties(localdisk_support PROPERTIES EXPORT_NAME support)
if(TARGET plughost_core AND TARGET plughost_conformance)
  list(APPEND localdisk_installed_archives plughost_core plughost_conformance)
  set_target_properties(plughost_core PROPERTIES EXPORT_NAME plughost_core)
  set_target_properties(plughost_conformance PROPERTIES EXPORT_NAME conformance)
  install(DIRECTORY host/core host/conformance
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/localdisk/host
    FILES_MATCHING PATTERN "*.h")
endif()
foreach(archive ${localdisk_installed_archives})
  target_include_directories(${archive} INTERFACE
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/localdisk>)
endforeach()
install(TARGETS ${localdisk_installed_archives} EXPORT localdiskTargets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})

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
