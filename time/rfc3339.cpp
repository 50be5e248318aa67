#include "time/rfc3339.h"

#include <sys/time.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <sstream>

// g++ 12 reports a false "may be used uninitialized" inside the calendar
// library's parser once it is inlined here.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#include <date/date.h>

#include "time/approxidate.h"
#include "time/rfc3339_internal.h"

namespace {

// Text of a bounded snprintf into buf: whatever fitted, never more.
std::string Bounded(char const* buf, int written, size_t size) {
  if (written < 0) return std::string();
  size_t len = static_cast<size_t>(written) < size ? static_cast<size_t>(written) : size - 1;
  return std::string(buf, len);
}

// Years are widened before adding 1900 so that extreme tm_year values cannot
// overflow; snprintf bounds the text, so out-of-range fields only truncate.
std::string FormatFields(tm const& t) {
  char buf[32];
  std::memset(buf, 0, sizeof buf);
  int n =
      std::snprintf(buf, sizeof buf, "%04lld-%02lld-%02dT%02d:%02d:%02d.000Z",
                    static_cast<long long>(t.tm_year) + 1900, static_cast<long long>(t.tm_mon) + 1,
                    t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec);
  return Bounded(buf, n, sizeof buf);
}

// localtime, mktime and gmtime of t: the UTC fields of t, formatted.
std::string FormatUtcOf(time_t t) {
  tm local{};
  localtime_r(&t, &local);
  time_t back = mktime(&local);
  tm utc{};
  gmtime_r(&back, &utc);
  return TMToRFC3339(&utc);
}

}  // namespace

long LocalStandardOffset(time_t reference) {
  tm utc{};
  gmtime_r(&reference, &utc);  // tm_isdst = 0: mktime reads it as standard time
  return static_cast<long>(difftime(reference, mktime(&utc)));
}

std::string TMToRFC3339(tm* t) {
  if (t == nullptr) return std::string();
  return FormatFields(*t);
}

std::string TMToUTCRFC3339(tm* t) {
  if (t == nullptr) return std::string();
  mktime(t);
  tm copy = *t;
  time_t seconds = mktime(&copy);
  tm utc{};
  gmtime_r(&seconds, &utc);
  return TMToRFC3339(&utc);
}

std::string TimeToRFC3339(long t) {
  return FormatUtcOf(static_cast<time_t>(t));
}

std::string TimeToUTCRFC3339(long t) {
  return FormatUtcOf(static_cast<time_t>(t));
}

std::string NoAdjustOffsetForServerTime(long t) {
  return FormatUtcOf(static_cast<time_t>(t));
}

std::string AdjustOffsetForServerTime(long t) {
  tm reference{};
  reference.tm_year = 115;
  reference.tm_mon = 9;
  reference.tm_mday = 3;
  reference.tm_isdst = -1;
  time_t at = mktime(&reference);
  long offset = LocalStandardOffset(at);
  return FormatUtcOf(static_cast<time_t>(t) + offset);
}

std::string AdjustServerTimeOffset(char const* s) {
  if (s == nullptr) s = "";  // a null text reads as an empty one
  tm fields{};
  std::sscanf(s, "%d-%d-%dT%d:%d:%d", &fields.tm_year, &fields.tm_mon, &fields.tm_mday,
              &fields.tm_hour, &fields.tm_min, &fields.tm_sec);
  fields.tm_year -= 1900;
  fields.tm_mon -= 1;
  time_t t = mktime(&fields);
  tm copy = fields;
  copy.tm_isdst = -1;
  time_t at = mktime(&copy);
  // The moment was already read as local time and the offset comes off once
  // more: servers that expect this double shift depend on it.
  long offset = LocalStandardOffset(at);
  return FormatUtcOf(t - offset);
}

std::string NoAdjustServerTimeOffset(char const* s) {
  if (s == nullptr) s = "";  // a null text reads as an empty one
  return std::string(s);
}

time_t RFC3339ToTM(char const* s) {
  if (s == nullptr) s = "";  // a null text reads as an empty one
  tm fields{};
  std::sscanf(s, "%d-%d-%dT%d:%d:%d", &fields.tm_year, &fields.tm_mon, &fields.tm_mday,
              &fields.tm_hour, &fields.tm_min, &fields.tm_sec);
  fields.tm_year -= 1900;
  fields.tm_mon -= 1;
  return mktime(&fields);
}

time_t RFC3339ToLocalTM(char const* s) {
  if (s == nullptr) s = "";  // a null text reads as an empty one
  std::string text(s);
  std::istringstream in(text);
  return parse8601(std::move(in));
}

time_t parse8601(std::istream&& in) {
  std::string word;
  in >> word;
  std::istringstream stream(word);
  date::sys_time<std::chrono::microseconds> tp{};
  date::from_stream(stream, "%FT%TZ", tp, static_cast<std::string*>(nullptr),
                    static_cast<std::chrono::minutes*>(nullptr));
  if (stream.fail() || stream.bad()) {
    stream.clear();
    stream.str(word);
    date::from_stream(stream, "%FT%T%Ez", tp, static_cast<std::string*>(nullptr),
                      static_cast<std::chrono::minutes*>(nullptr));
  }
  return std::chrono::system_clock::to_time_t(tp);
}

std::string GetSystemTimeRfc3339() {
  timeval now{};
  gettimeofday(&now, nullptr);
  time_t seconds = now.tv_sec;
  tm utc{};
  gmtime_r(&seconds, &utc);
  int millis = static_cast<int>(now.tv_usec / 1000);
  char buf[128];
  std::memset(buf, 0, sizeof buf);
  int n = std::snprintf(buf, sizeof buf, "%04lld-%02lld-%02dT%02d:%02d:%02d.%03d",
                        static_cast<long long>(utc.tm_year) + 1900,
                        static_cast<long long>(utc.tm_mon) + 1, utc.tm_mday, utc.tm_hour,
                        utc.tm_min, utc.tm_sec, millis);
  return Bounded(buf, n, sizeof buf);
}

std::string convert_last_modified_to_rfc3339(std::string s) {
  // Zeroed so that a text approxidate cannot read still prints fixed fields.
  tm fields{};
  approxidate(s.c_str(), &fields);
  // 16-bit fields, as servers have always been sent them; the casts give the
  // same value that %hu makes of an int.
  char buf[32];
  std::memset(buf, 0, sizeof buf);
  int n = std::snprintf(buf, sizeof buf, "%04hu-%02hu-%02huT%02hu:%02hu:%02hu.%03huZ",
                        static_cast<unsigned short>(static_cast<unsigned>(fields.tm_year) + 1900u),
                        static_cast<unsigned short>(static_cast<unsigned>(fields.tm_mon) + 1u),
                        static_cast<unsigned short>(fields.tm_mday),
                        static_cast<unsigned short>(fields.tm_hour),
                        static_cast<unsigned short>(fields.tm_min),
                        static_cast<unsigned short>(fields.tm_sec), static_cast<unsigned short>(0));
  return Bounded(buf, n, sizeof buf);
}
