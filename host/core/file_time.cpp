#include "host/core/file_time.h"

#include <cstdio>
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

std::string Format(const struct tm& t) {
  char text[64];
  std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.000Z", t.tm_year + 1900,
                t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec);
  return text;
}

}  // namespace

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
  std::optional<Fields> fields = ParseFields(text);
  if (!fields) return 0;
  // Try the fields as standard and as summer time; keep the readings whose
  // local fields are the text's.
  std::optional<time_t> found;
  for (int isdst : {0, 1}) {
    struct tm t = ToTm(*fields, isdst);
    time_t candidate = mktime(&t);
    struct tm check {};
    if (candidate == static_cast<time_t>(-1) || localtime_r(&candidate, &check) == nullptr ||
        !SameFields(check, *fields)) {
      continue;
    }
    if (!found || candidate < *found) found = candidate;
  }
  return found ? *found : ReadAsStandard(ToTm(*fields, 0));
}

long long PackFileTimeFields(const std::string& text) {
  std::optional<Fields> f = ParseFields(text);
  if (!f) return kNoFields;
  date::sys_days day = date::year{f->year} / f->month / f->day;
  return static_cast<long long>(day.time_since_epoch().count()) * 86400 + f->hour * 3600LL +
         f->minute * 60LL + f->second;
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
