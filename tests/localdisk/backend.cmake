# Tests of the local-disk file operations (path mapping, metadata, namespace
# changes, transfers, account), on real temporary directories.
ld_add_gtest(localdisk_backend_tests
  SOURCES
    ${CMAKE_CURRENT_LIST_DIR}/path_test.cpp
    ${CMAKE_CURRENT_LIST_DIR}/metadata_test.cpp
    ${CMAKE_CURRENT_LIST_DIR}/namespace_test.cpp
    ${CMAKE_CURRENT_LIST_DIR}/transfer_test.cpp
    ${CMAKE_CURRENT_LIST_DIR}/account_test.cpp
    ${CMAKE_CURRENT_LIST_DIR}/confinement_test.cpp)

# Eight threads on one object for a few seconds; run it under the tsan and
# asan builds as well.
ld_add_gtest(localdisk_concurrency_tests
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/concurrency_test.cpp
  LABELS concurrency
  PROPERTIES TIMEOUT 300)
