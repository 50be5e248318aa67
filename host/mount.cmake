# plughost mount: the FUSE bridge, as a library that plughost links.
# Included from host/CMakeLists.txt.
pkg_check_modules(FUSE3 REQUIRED IMPORTED_TARGET fuse3)

add_library(plughost_mount STATIC
  ${CMAKE_CURRENT_LIST_DIR}/mount.cpp
  ${CMAKE_CURRENT_LIST_DIR}/mount_fs.cpp
  ${CMAKE_CURRENT_LIST_DIR}/mount_support.cpp)
target_include_directories(plughost_mount PUBLIC ${PROJECT_SOURCE_DIR})
target_compile_definitions(plughost_mount PRIVATE _FILE_OFFSET_BITS=64)
# The protocol object is loaded by path through plughost_core; the plug-in
# library is linked only for its exported time utilities and ConvertAERROR.
target_link_libraries(plughost_mount
  PUBLIC plughost_core localdisk CLI11::CLI11 Threads::Threads
  PRIVATE PkgConfig::FUSE3)

if(TARGET plughost)
  target_link_libraries(plughost PRIVATE plughost_mount)
endif()
