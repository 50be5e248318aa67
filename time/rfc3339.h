// RFC 3339 text to and from seconds and broken-down times, and the server
// clock offset adjustment. File times in this plug-in are local wall-clock
// fields written with a fixed ".000Z" suffix; the "Z" is not a UTC statement.
#pragma once

#include <ctime>
#include <istream>
#include <string>

#include "protocol/export.h"

// The text readers take a null text as an empty one; the formatters of a
// null record give an empty text.
//
// "%04d-%02d-%02dT%02d:%02d:%02d.000Z" of the fields as they stand.
LD_EXPORT std::string TMToRFC3339(tm* t);
// Treats *t as local time (normalising it in place with mktime) and formats UTC.
LD_EXPORT std::string TMToUTCRFC3339(tm* t);
// The UTC fields of t.
LD_EXPORT std::string TimeToRFC3339(long t);
LD_EXPORT std::string TimeToUTCRFC3339(long t);
LD_EXPORT std::string NoAdjustOffsetForServerTime(long t);
// UTC formatting of t plus the local standard offset (measured on 2015-10-03).
LD_EXPORT std::string AdjustOffsetForServerTime(long t);
// Reads s as local standard time and formats that moment minus the offset.
LD_EXPORT std::string AdjustServerTimeOffset(char const* s);
// A copy of s.
LD_EXPORT std::string NoAdjustServerTimeOffset(char const* s);
// Seconds (not a struct) of the fields of s read as local standard time;
// anything after the seconds is ignored.
LD_EXPORT time_t RFC3339ToTM(char const* s);
// Seconds of s read as real RFC 3339 ("Z" or a numeric offset); 0 otherwise.
LD_EXPORT time_t RFC3339ToLocalTM(char const* s);
LD_EXPORT time_t parse8601(std::istream&& in);
// Current UTC time with milliseconds and no zone suffix (23 characters).
LD_EXPORT std::string GetSystemTimeRfc3339();
// approxidate of s, formatted with ".000Z".
LD_EXPORT std::string convert_last_modified_to_rfc3339(std::string s);
