// Helpers of the RFC 3339 converters, visible to tests only.
#pragma once

#include <ctime>

// The local zone's standard offset in seconds east of UTC, measured at
// `reference` by going through gmtime and back with mktime. gmtime yields
// tm_isdst = 0, so summer time never enters the result.
long LocalStandardOffset(time_t reference);
