// Free-form date parsing: strict-but-forgiving absolute dates and relative
// English phrases. Plain byte processing: no locale, no allocation.
#pragma once

#include <sys/time.h>

#include <ctime>

#include "protocol/export.h"

// 0 on success with seconds and microseconds in *result and the zone offset
// (minutes east of UTC) in *offset, which may be null; -1 on failure.
LD_EXPORT int parse_date_basic(char const* date, timeval* result, int* offset);
// 0 on success with the UTC breakdown of the point found in *result; -1 on
// failure (*result untouched). Null text or result pointers fail.
LD_EXPORT int approxidate(char const* date, tm* result);
