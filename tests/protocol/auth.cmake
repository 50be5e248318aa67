# Token options, SetAuthConfiguration and single refreshes: quick.
ld_add_gtest(protocol_auth_tests SOURCES auth_test.cpp LABELS unit refresh)

# Refresh spacing and the lock-out after ten failures wait out five-second
# gaps between refreshes: kept apart from the quick suite.
ld_add_gtest(protocol_auth_refresh_tests SOURCES auth_refresh_test.cpp
  LABELS slow refresh
  PROPERTIES TIMEOUT 180)
