// The one codec between instants and the file-time texts of the protocol.
//
// A record's times are local wall-clock fields followed by ".000Z" (the "Z"
// is a fixed suffix, not UTC). SetFileTime reads its texts back as local
// *standard* time, summer time or not. So the two directions differ:
// FileTimeText writes the fields of the instant in the zone's standard time,
// which SetFileTime reads back as exactly that instant in every season
// (including the hour after the spring change and both occurrences of the
// repeated autumn hour); FileTimeInstant reads a record's wall-clock fields.
#pragma once

#include <ctime>
#include <string>

namespace plughost {

// When TZ is unset, sets it to ":/etc/localtime", the zone the C library
// would use anyway: with TZ unset it checks that file again on every mktime
// and localtime; with TZ set it reads it once. Conversions give the same
// results. Call at start-up, before any thread starts (it changes the
// environment).
void PinTimeZone();

// The text to hand to SetFileTime so that the plug-in sets exactly `instant`.
std::string FileTimeText(time_t instant);

// The instant of a file time in a record (local wall-clock fields). During
// the repeated autumn hour the fields name two instants; the earlier one is
// returned. Fields that name no local time (the spring gap, which a record
// never holds) are read as standard time, as SetFileTime reads them; text
// without the fields gives 0.
time_t FileTimeInstant(const std::string& text);

// The fields of a record's file time packed into one number: the seconds
// the fields would be if they were UTC. Exact for every text, the repeated
// autumn hour included, and turned back into the same text without any
// time-zone lookup; for keeping many times small. kNoFields when the text
// holds no fields.
inline constexpr long long kNoFields = -(1LL << 62);
long long PackFileTimeFields(const std::string& text);
// "YYYY-MM-DDThh:mm:ss.000Z" of packed fields; "" for kNoFields.
std::string UnpackFileTimeFields(long long fields);

}  // namespace plughost
