// Internals of the free-form date parser, visible to tests and benchmarks.
#pragma once

#include <sys/time.h>

#include <cstdint>
#include <ctime>

namespace ldtime {

// Working broken-down time. The first nine fields mirror struct tm; -1 in
// sec..year means "not known yet". Microseconds travel beside them.
// Only -1 is that marker: a relative date before 1900 has a negative year of
// its own ("151 years" read in 2023 is year -28 since 1900) and keeps it.
struct atm {
  int tm_sec;
  int tm_min;
  int tm_hour;
  int tm_mday;
  int tm_mon;
  int tm_year;
  int tm_wday;
  int tm_yday;
  int tm_isdst;
  int64_t tm_usec;
};

constexpr int kUnknown = -1;
inline bool unknown(int field) {
  return field == kUnknown;
}

tm atm_to_tm(atm const& a);
// A record filled from the C library has no microseconds.
atm atm_from_tm(tm const& t);

struct zone_name {
  char const* name;
  int hours;  // east of UTC
  int dst;    // adds one hour
  int length;
};
struct unit_name {
  char const* name;
  int seconds;
};
using special_handler = void (*)(atm* tm, atm const* now, int* num);
struct special_word {
  char const* name;
  special_handler fn;
};

extern char const* const month_names[12];
extern char const* const weekday_names[7];
extern char const* const number_name[11];
extern zone_name const timezone_names[44];
extern unit_name const typelen[5];
extern special_word const special[8];

// strtoul/strtol of the "C" locale, base 10, without touching errno.
unsigned long read_unsigned(char const* s, char const** end);
long read_signed(char const* s, char const** end);

// How many leading characters of the word at `date` agree with `word`
// (case-insensitively); 0 when the input differs at an alphanumeric byte.
int match_word_prefix(char const* date, char const* word);

// Seconds of a record read as UTC, or -1 when it has no year from 1970 on,
// no valid month or an unknown time of day.
time_t tm_to_time_t(atm const* tm);

// The UTC breakdown of t, the same fields as gmtime_r gives, or null where
// gmtime_r fails (a year outside int).
tm* utc_breakdown(time_t t, tm* out);

// 1 when year/month/day is a plausible reading (and is stored in *tm), 0
// otherwise. now_tm may be null when the current time could not be broken down.
int check_date_candidate(int year, int month, int day, tm const* now_tm, time_t now, atm* tm);

// Characters covered by "a<c>b[<c>d[.frac]]" starting at date (num already
// read, end at the first separator), or 0 when the group is not accepted.
int match_multi_number(unsigned long num, char c, char const* date, char const* end, atm* tm);

// Token handlers of parse_date_basic; each returns the characters consumed
// (0 means "skip one byte").
int match_alpha(char const* date, atm* tm, int* offset);
int match_digit(char const* date, atm* tm, int* offset, int* tm_gmt);
int match_tz(char const* date, int* offset);
// The "@<seconds> +hhmm" form (date points after the "@"); 0 on success.
int match_stamp_form(char const* date, timeval* result, int* offset);

// Relative reading: fills unknown date fields from now, then moves the
// record back by sec seconds; returns the resulting seconds.
time_t fill_and_shift(atm* tm, atm const* now, time_t sec);
void flush_pending_number(atm* tm, int* num);
char const* approx_digit(char const* date, atm* tm, int* num);
char const* approx_alpha(char const* date, atm* tm, atm const* now, int* num, int* touched);

void date_yesterday(atm* tm, atm const* now, int* num);
void date_noon(atm* tm, atm const* now, int* num);
void date_midnight(atm* tm, atm const* now, int* num);
void date_tea(atm* tm, atm const* now, int* num);
void date_pm(atm* tm, atm const* now, int* num);
void date_am(atm* tm, atm const* now, int* num);
void date_never(atm* tm, atm const* now, int* num);
void date_now(atm* tm, atm const* now, int* num);

}  // namespace ldtime
