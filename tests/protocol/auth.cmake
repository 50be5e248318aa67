# Token options, SetAuthConfiguration and single refreshes: quick.
ld_add_gtest(protocol_auth_tests SOURCES auth_test.cpp)

# Refresh spacing and the lock-out after ten failures wait out five-second
# gaps between refreshes: kept apart from the quick suite under the labels
# "slow" and "refresh".
ld_add_gtest(protocol_auth_refresh_tests SOURCES auth_refresh_test.cpp
  LABELS slow
  PROPERTIES TIMEOUT 180)
# Test discovery flattens a list of labels into separate arguments, so the
# second label is added by a script that ctest runs after the discovered
# tests are defined.
set(auth_labels_script ${CMAKE_CURRENT_BINARY_DIR}/protocol_auth_refresh_labels.cmake)
file(WRITE ${auth_labels_script} [=[
foreach(test_name IN LISTS protocol_auth_refresh_tests_TESTS)
  set_tests_properties("${test_name}" PROPERTIES LABELS "slow;refresh")
endforeach()
]=])
set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES ${auth_labels_script})
