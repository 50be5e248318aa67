#include "host/core/file_time.h"

#include <cstdio>
#include <cstdlib>
#include <optional>

#include <date/date.h>

namespace plughost {

namespace {

struct Fields {
  int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
};

// The fields as SetFileTime reads them: "%d-%d-%dT%d:%d:%d", the rest ignored.
std::optional<Fields> ParseFields(const std::string& text) {
  Fields f;
  if (std::sscanf(text.c_str(), "%d-%d-%dT%d:%d:%d", &f.year, &f.month, &f.day, &f.hour, &f.minute,
                  &f.second) != 6) {
    return std::nullopt;
  }
  return f;
}

struct tm ToTm(const Fields& f, int isdst) {
  struct tm t {};
  t.tm_year = f.year - 1900;
  t.tm_mon = f.month - 1;
  t.tm_mday = f.day;
  t.tm_hour = f.hour;
  t.tm_min = f.minute;
  t.tm_sec = f.second;
  t.tm_isdst = isdst;
  return t;
}

bool SameFields(const struct tm& t, const Fields& f) {
  return t.tm_year == f.year - 1900 && t.tm_mon == f.month - 1 && t.tm_mday == f.day &&
         t.tm_hour == f.hour && t.tm_min == f.minute && t.tm_sec == f.second;
}

// What SetFileTime makes of the fields: local standard time.
time_t ReadAsStandard(struct tm fields) {
  fields.tm_isdst = 0;
  return mktime(&fields);
}

// Seconds of the fields read as UTC.
long long Pack(const Fields& f) {
  date::sys_days day = date::year{f.year} / f.month / f.day;
  return static_cast<long long>(day.time_since_epoch().count()) * 86400 + f.hour * 3600LL +
         f.minute * 60LL + f.second;
}

std::string Format(const struct tm& t) {
  char text[64];
  std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.000Z", t.tm_year + 1900,
                t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec);
  return text;
}

}  // namespace

void PinTimeZone() {
  if (std::getenv("TZ") == nullptr) {
    setenv("TZ", ":/etc/localtime", 1);
    tzset();
  }
}

std::string FileTimeText(time_t instant) {
  // Start from the UTC fields and move them by the difference the reader
  // shows; a second round covers a zone whose standard offset changed
  // between the guess and the answer.
  time_t guess = instant;
  struct tm fields {};
  for (int round = 0; round < 3; ++round) {
    gmtime_r(&guess, &fields);
    time_t read_back = ReadAsStandard(fields);
    if (read_back == instant || read_back == static_cast<time_t>(-1)) break;
    guess += instant - read_back;
  }
  return Format(fields);
}

time_t FileTimeInstant(const std::string& text) {
  std::optional<Fields> parsed = ParseFields(text);
  if (!parsed) return 0;
  long long fields = Pack(*parsed);
  // The instant is the fields minus the zone's offset then. The offsets in
  // use a day before and a day after cover any clock change near it; each
  // reading counts when its local fields are the text's. (mktime would
  // search far and wide for a reading of a given summer-time flag.)
  std::optional<time_t> found;
  for (long long side : {-86400LL, 86400LL}) {
    time_t probe = static_cast<time_t>(fields + side);
    struct tm near {};
    if (localtime_r(&probe, &near) == nullptr) continue;
    time_t candidate = static_cast<time_t>(fields - near.tm_gmtoff);
    struct tm check {};
    if (localtime_r(&candidate, &check) == nullptr || !SameFields(check, *parsed)) {
      continue;
    }
    if (!found || candidate < *found) found = candidate;
  }
  if (found) return *found;
  return ReadAsStandard(ToTm(*parsed, 0));
}

long long PackFileTimeFields(const std::string& text) {
  std::optional<Fields> f = ParseFields(text);
  return f ? Pack(*f) : kNoFields;
}

std::string UnpackFileTimeFields(long long fields) {
  if (fields == kNoFields) return {};
  long long days = fields >= 0 ? fields / 86400 : -((-fields + 86399) / 86400);
  long long seconds = fields - days * 86400;
  date::year_month_day ymd{date::sys_days{date::days{days}}};
  struct tm t {};
  t.tm_year = static_cast<int>(ymd.year()) - 1900;
  t.tm_mon = static_cast<int>(static_cast<unsigned>(ymd.month())) - 1;
  t.tm_mday = static_cast<int>(static_cast<unsigned>(ymd.day()));
  t.tm_hour = static_cast<int>(seconds / 3600);
  t.tm_min = static_cast<int>(seconds / 60 % 60);
  t.tm_sec = static_cast<int>(seconds % 60);
  return Format(t);
}

}  // namespace plughost
