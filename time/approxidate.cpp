#include "time/approxidate.h"

#include <climits>
#include <cstring>

#include "time/approxidate_internal.h"
#include "time/sane_ctype_internal.h"

namespace ldtime {

// ---- tables ---------------------------------------------------------------

char const* const month_names[12] = {"January",   "February", "March",    "April",
                                     "May",       "June",     "July",     "August",
                                     "September", "October",  "November", "December"};

// The trailing "s" lets "fridays" match in full while "fri" and "friday"
// still match as prefixes.
char const* const weekday_names[7] = {"Sundays",   "Mondays", "Tuesdays", "Wednesdays",
                                      "Thursdays", "Fridays", "Saturdays"};

char const* const number_name[11] = {"zero", "one",   "two",   "three", "four", "five",
                                     "six",  "seven", "eight", "nine",  "ten"};

// Hours east of UTC; the dst flag simply adds an hour. Kept exactly as
// servers in the field have been read for years, odd rows included.
zone_name const timezone_names[44] = {
    {"IDLW", -12, 0, 4}, {"NT", -11, 0, 2},  {"CAT", -10, 0, 3}, {"HST", -10, 0, 3},
    {"HDT", -10, 1, 3},  {"YST", -9, 0, 3},  {"YDT", -9, 1, 3},  {"PST", -8, 0, 3},
    {"PDT", -8, 1, 3},   {"MST", -7, 0, 3},  {"MDT", -7, 1, 3},  {"CST", -6, 0, 3},
    {"CDT", -6, 1, 3},   {"EST", -5, 0, 3},  {"EDT", -5, 1, 3},  {"AST", -3, 0, 3},
    {"ADT", -3, 1, 3},   {"WAT", -1, 0, 3},  {"GMT", 0, 0, 3},   {"UTC", 0, 0, 3},
    {"Z", 0, 0, 1},      {"WET", 0, 0, 3},   {"BST", 0, 1, 3},   {"CET", 1, 0, 3},
    {"MET", 1, 0, 3},    {"MEWT", 1, 0, 4},  {"MEST", 1, 1, 4},  {"CEST", 1, 1, 4},
    {"MESZ", 1, 1, 4},   {"FWT", 1, 0, 3},   {"FST", 1, 1, 3},   {"EET", 2, 0, 3},
    {"EEST", 2, 1, 4},   {"WAST", 7, 0, 4},  {"WADT", 7, 1, 4},  {"CCT", 8, 0, 3},
    {"JST", 9, 0, 3},    {"EAST", 10, 0, 4}, {"EADT", 10, 1, 4}, {"GST", 10, 0, 3},
    {"NZT", 12, 0, 3},   {"NZST", 12, 0, 4}, {"NZDT", 12, 1, 4}, {"IDLE", 12, 0, 4},
};

unit_name const typelen[5] = {
    {"seconds", 1},
    {"minutes", 60},
    {"hours", 60 * 60},
    {"days", 24 * 60 * 60},
    {"weeks", 7 * 24 * 60 * 60},
};

special_word const special[8] = {
    {"yesterday", date_yesterday},
    {"noon", date_noon},
    {"midnight", date_midnight},
    {"tea", date_tea},
    {"PM", date_pm},
    {"AM", date_am},
    {"never", date_never},
    {"now", date_now},
};

// ---- conversions ------------------------------------------------------------

tm atm_to_tm(atm const& a) {
  tm t{};
  t.tm_sec = a.tm_sec;
  t.tm_min = a.tm_min;
  t.tm_hour = a.tm_hour;
  t.tm_mday = a.tm_mday;
  t.tm_mon = a.tm_mon;
  t.tm_year = a.tm_year;
  t.tm_wday = a.tm_wday;
  t.tm_yday = a.tm_yday;
  t.tm_isdst = a.tm_isdst;
  return t;
}

atm atm_from_tm(tm const& t) {
  atm a{};
  a.tm_sec = t.tm_sec;
  a.tm_min = t.tm_min;
  a.tm_hour = t.tm_hour;
  a.tm_mday = t.tm_mday;
  a.tm_mon = t.tm_mon;
  a.tm_year = t.tm_year;
  a.tm_wday = t.tm_wday;
  a.tm_yday = t.tm_yday;
  a.tm_isdst = t.tm_isdst;
  a.tm_usec = 0;
  return a;
}

// ---- number readers -----------------------------------------------------------

namespace {

// Shared body of the two readers: blanks, an optional sign, decimal digits.
// Returns false when no digit was found (*end is then s).
bool ReadDecimal(char const* s, char const** end, bool* negative, unsigned long* magnitude,
                 bool* overflow, unsigned long limit) {
  char const* p = s;
  while (sane_isspace(static_cast<unsigned char>(*p)))
    ++p;
  *negative = false;
  if (*p == '+' || *p == '-') {
    *negative = *p == '-';
    ++p;
  }
  if (!sane_isdigit(static_cast<unsigned char>(*p))) {
    *end = s;
    *magnitude = 0;
    *overflow = false;
    return false;
  }
  unsigned long value = 0;
  bool over = false;
  unsigned long const max_tens = limit / 10;
  unsigned const max_last = static_cast<unsigned>(limit % 10);
  for (; sane_isdigit(static_cast<unsigned char>(*p)); ++p) {
    unsigned digit = static_cast<unsigned>(*p - '0');
    if (over || value > max_tens || (value == max_tens && digit > max_last)) {
      over = true;
      continue;
    }
    value = value * 10 + digit;
  }
  *end = p;
  *magnitude = value;
  *overflow = over;
  return true;
}

// The common case: a plain run of at most 18 digits, which cannot overflow
// either type. Returns false (nothing consumed) for anything else.
inline bool ReadShortDigits(char const* s, char const** end, unsigned long* value) {
  char const* p = s;
  unsigned long v = 0;
  while (sane_isdigit(static_cast<unsigned char>(*p))) {
    if (p - s == 18) return false;
    v = v * 10 + static_cast<unsigned>(*p - '0');
    ++p;
  }
  if (p == s) return false;
  *end = p;
  *value = v;
  return true;
}

}  // namespace

unsigned long read_unsigned(char const* s, char const** end) {
  unsigned long fast = 0;
  if (ReadShortDigits(s, end, &fast)) return fast;
  bool negative = false;
  bool overflow = false;
  unsigned long value = 0;
  if (!ReadDecimal(s, end, &negative, &value, &overflow, ULONG_MAX)) return 0;
  if (overflow) return ULONG_MAX;
  return negative ? 0UL - value : value;
}

long read_signed(char const* s, char const** end) {
  unsigned long fast = 0;
  if (ReadShortDigits(s, end, &fast)) return static_cast<long>(fast);
  bool negative = false;
  bool overflow = false;
  unsigned long value = 0;
  // The negative range holds one more value than the positive one.
  unsigned long const pos_limit = static_cast<unsigned long>(LONG_MAX);
  if (!ReadDecimal(s, end, &negative, &value, &overflow, pos_limit + 1)) return 0;
  if (negative) {
    if (overflow) return LONG_MIN;
    return value == pos_limit + 1 ? LONG_MIN : -static_cast<long>(value);
  }
  if (overflow || value > pos_limit) return LONG_MAX;
  return static_cast<long>(value);
}

// ---- word matching ------------------------------------------------------------

int match_word_prefix(char const* date, char const* word) {
  // Fast path for the common miss: a letter or digit that differs at once.
  unsigned char first = static_cast<unsigned char>(date[0]);
  if (sane_isalnum(first) &&
      sane_toupper(first) != sane_toupper(static_cast<unsigned char>(word[0])))
    return 0;
  int i = 0;
  for (; date[i]; ++i) {
    unsigned char a = static_cast<unsigned char>(date[i]);
    unsigned char b = static_cast<unsigned char>(word[i]);
    if (a == b) continue;
    if (sane_toupper(a) == sane_toupper(b)) continue;
    if (sane_isalnum(a)) return 0;
    break;
  }
  return i;
}

// ---- calendar -----------------------------------------------------------------

time_t tm_to_time_t(atm const* tm) {
  static int const mdays[] = {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334};
  int year = tm->tm_year - 70;
  int month = tm->tm_mon;
  int day = tm->tm_mday;

  if (year < 0 || month < 0 || month > 11) return -1;
  if (month < 2 || (year + 2) % 4) day--;
  if (tm->tm_hour < 0 || tm->tm_min < 0 || tm->tm_sec < 0) return -1;
  // Minutes are counted in 32 bits (wrapping, as the format always has) and
  // only then widened; there is deliberately no upper bound on the year.
  uint32_t days = static_cast<uint32_t>(year) * 365u + static_cast<uint32_t>((year + 1) / 4) +
                  static_cast<uint32_t>(mdays[month]) + static_cast<uint32_t>(day);
  uint32_t minutes = days * 24u * 60u + static_cast<uint32_t>(tm->tm_hour) * 60u +
                     static_cast<uint32_t>(tm->tm_min);
  return static_cast<time_t>(static_cast<int32_t>(minutes)) * 60 + tm->tm_sec;
}

struct tm* utc_breakdown(time_t t, struct tm* out) {
  // Civil date of a day count (proleptic Gregorian), as gmtime_r gives it,
  // but without the C library's time-zone lock: this runs once per date read.
  int64_t days = t / 86400;
  int64_t secs = t % 86400;
  if (secs < 0) {
    secs += 86400;
    days -= 1;
  }
  int64_t const z = days + 719468;
  int64_t const era = (z >= 0 ? z : z - 146096) / 146097;
  int64_t const doe = z - era * 146097;
  int64_t const yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  int64_t const doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  int64_t const mp = (5 * doy + 2) / 153;
  int64_t const mday = doy - (153 * mp + 2) / 5 + 1;
  int64_t const mon = mp < 10 ? mp + 3 : mp - 9;
  int64_t const year = yoe + era * 400 + (mon <= 2);
  if (year - 1900 > INT_MAX || year - 1900 < INT_MIN) return nullptr;  // as gmtime_r fails
  bool const leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
  static int const before[] = {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334};

  *out = tm{};
  out->tm_year = static_cast<int>(year - 1900);
  out->tm_mon = static_cast<int>(mon - 1);
  out->tm_mday = static_cast<int>(mday);
  out->tm_yday = before[mon - 1] + static_cast<int>(mday) - 1 + (leap && mon > 2 ? 1 : 0);
  int64_t wday = (days + 4) % 7;  // 1970-01-01 was a Thursday
  out->tm_wday = static_cast<int>(wday < 0 ? wday + 7 : wday);
  out->tm_hour = static_cast<int>(secs / 3600);
  out->tm_min = static_cast<int>(secs / 60 % 60);
  out->tm_sec = static_cast<int>(secs % 60);
  out->tm_isdst = 0;
  out->tm_zone = "GMT";
  return out;
}

int check_date_candidate(int year, int month, int day, tm const* now_tm, time_t now, atm* tm) {
  if (month < 1 || month > 12 || day < 1 || day > 31) return 0;

  atm check_copy;
  atm* r = tm;
  if (now_tm) {
    check_copy = *tm;
    r = &check_copy;
  }
  r->tm_mon = month - 1;
  r->tm_mday = day;

  if (year == -1) {
    if (!now_tm) return 1;
    r->tm_year = now_tm->tm_year;
  } else if (year >= 1970 && year < 2100) {
    r->tm_year = year - 1900;
  } else if (year > 70 && year < 100) {
    r->tm_year = year;
  } else if (year < 38) {
    r->tm_year = year + 100;
  } else {
    return 0;
  }
  if (!now_tm) return 1;

  // A date far in the future is more likely a misread field order.
  time_t specified = tm_to_time_t(r);
  if (specified != -1 && now + 10 * 24 * 3600 < specified) return 0;

  tm->tm_mon = r->tm_mon;
  tm->tm_mday = r->tm_mday;
  if (year != -1) tm->tm_year = r->tm_year;
  return 1;
}

int match_multi_number(unsigned long num, char c, char const* date, char const* end, atm* tm) {
  char const* p = end;
  long num2 = read_signed(end + 1, &p);
  long num3 = -1;
  int64_t fraction = 0;
  if (*p == c && sane_isdigit(static_cast<unsigned char>(p[1]))) {
    num3 = read_signed(p + 1, &p);
    if (*p == '.') {
      char const* start = p + 1;
      long value = read_signed(start, &p);
      long digits = p - start;
      if (digits < 6) {
        static double const scale[] = {1e6, 1e5, 1e4, 1e3, 1e2, 1e1};
        fraction = static_cast<int64_t>(static_cast<double>(value) * scale[digits]);
      } else {
        // Kept as read, even past a second's worth of microseconds.
        fraction = value;
      }
    }
  }

  switch (c) {
    case ':':
      if (num3 == -1) num3 = 0;  // absent
      if (num <= 24 && num2 >= 0 && num2 <= 59 && num3 <= 60) {
        tm->tm_hour = static_cast<int>(num);
        tm->tm_min = static_cast<int>(num2);
        tm->tm_sec = static_cast<int>(num3);
        tm->tm_usec = fraction;
        break;
      }
      return 0;

    case '-':
    case '/':
    case '.': {
      time_t now = time(nullptr);
      struct tm now_buf {};
      struct tm const* now_tm = utc_breakdown(now, &now_buf);
      int const n1 = static_cast<int>(num);
      int const n2 = static_cast<int>(num2);
      int const n3 = static_cast<int>(num3);
      if (num >= 71) {
        if (check_date_candidate(n1, n2, n3, now_tm, now, tm)) break;
        if (check_date_candidate(n1, n3, n2, now_tm, now, tm)) break;
      }
      if (c != '.' && check_date_candidate(n3, n1, n2, now_tm, now, tm)) break;
      // Day first for ".", as European dates are written.
      if (check_date_candidate(n3, n2, n1, now_tm, now, tm)) break;
      if (c == '.' && check_date_candidate(n3, n1, n2, now_tm, now, tm)) break;
      return 0;
    }

    default:
      return 0;
  }
  return static_cast<int>(p - date);
}

// ---- parse_date_basic tokens --------------------------------------------------------

namespace {

// For each letter, the rows of each table whose word starts with it, as bit
// masks in table order. A row whose first letter differs can never match, so
// visiting only these rows, lowest bit first, gives the same first match.
struct LetterRows {
  uint16_t months[26];
  uint8_t weekdays[26];
  uint64_t zones[26];
};

int LetterIndex(char c) {
  return sane_toupper(static_cast<unsigned char>(c)) - 'A';
}

LetterRows MakeLetterRows() {
  LetterRows rows{};
  for (int i = 0; i < 12; ++i)
    rows.months[LetterIndex(month_names[i][0])] |= uint16_t(1u << i);
  for (int i = 0; i < 7; ++i)
    rows.weekdays[LetterIndex(weekday_names[i][0])] |= uint8_t(1u << i);
  for (int i = 0; i < 44; ++i)
    rows.zones[LetterIndex(timezone_names[i].name[0])] |= 1ull << i;
  return rows;
}

LetterRows const kLetterRows = MakeLetterRows();

}  // namespace

int match_alpha(char const* date, atm* tm, int* offset) {
  int const letter = LetterIndex(date[0]);  // date[0] is a letter here
  for (unsigned m = kLetterRows.months[letter]; m; m &= m - 1) {
    int i = __builtin_ctz(m);
    int match = match_word_prefix(date, month_names[i]);
    if (match >= 3) {
      tm->tm_mon = i;
      return match;
    }
  }
  for (unsigned m = kLetterRows.weekdays[letter]; m; m &= m - 1) {
    int i = __builtin_ctz(m);
    int match = match_word_prefix(date, weekday_names[i]);
    if (match >= 3) {
      tm->tm_wday = i;
      return match;
    }
  }
  for (uint64_t m = kLetterRows.zones[letter]; m; m &= m - 1) {
    zone_name const& zone = timezone_names[__builtin_ctzll(m)];
    int match = match_word_prefix(date, zone.name);
    if (match >= 3 || match == zone.length) {
      // A numeric offset seen earlier is better than a zone name.
      if (*offset == -1) *offset = 60 * (zone.hours + zone.dst);
      return match;
    }
  }
  if (match_word_prefix(date, "PM") == 2) {
    // With no hour yet this gives 11 (-1 % 12 + 12); left so on purpose.
    tm->tm_hour = (tm->tm_hour % 12) + 12;
    return 2;
  }
  if (match_word_prefix(date, "AM") == 2) {
    tm->tm_hour = tm->tm_hour % 12;
    return 2;
  }
  int i = 0;
  while (sane_isalpha(static_cast<unsigned char>(date[++i]))) {
  }
  return i;
}

namespace {

bool NoDateYet(atm const* tm) {
  return unknown(tm->tm_year) && unknown(tm->tm_mon) && unknown(tm->tm_mday) &&
         unknown(tm->tm_hour) && unknown(tm->tm_min) && unknown(tm->tm_sec);
}

bool IsMultiSeparator(char c) {
  return c == ':' || c == '-' || c == '.' || c == '/';
}

}  // namespace

int match_digit(char const* date, atm* tm, int* offset, int* tm_gmt) {
  char const* end = date;
  unsigned long num = read_unsigned(date, &end);

  // Nine digits or more with nothing else known: seconds since the epoch.
  if (num >= 100000000 && NoDateYet(tm)) {
    time_t seconds = static_cast<time_t>(num);
    struct tm utc {};
    if (gmtime_r(&seconds, &utc)) {
      *tm = atm_from_tm(utc);
      *tm_gmt = 1;
      return static_cast<int>(end - date);
    }
  }

  if (IsMultiSeparator(*end) && sane_isdigit(static_cast<unsigned char>(end[1]))) {
    int match = match_multi_number(num, *end, date, end, tm);
    if (match) return match;
  }

  int n = 0;
  do {
    ++n;
  } while (sane_isdigit(static_cast<unsigned char>(date[n])));

  // Four digits: a year, or hhmm of a zone for small values.
  if (n == 4) {
    if (num <= 1400 && *offset == -1) {
      unsigned minutes = static_cast<unsigned>(num % 100);
      unsigned hours = static_cast<unsigned>(num / 100);
      *offset = static_cast<int>(hours * 60 + minutes);
    } else if (num > 1900 && num < 2100) {
      tm->tm_year = static_cast<int>(num) - 1900;
    }
    return n;
  }

  if (n < 3) {
    if (num > 0 && num < 32 && unknown(tm->tm_mday)) {
      tm->tm_mday = static_cast<int>(num);
      return n;
    }
    if (n == 2 && unknown(tm->tm_year)) {
      if (num < 10 && !unknown(tm->tm_mday)) {
        tm->tm_year = static_cast<int>(num) + 100;
        return n;
      }
      if (num >= 70) {
        tm->tm_year = static_cast<int>(num);
        return n;
      }
    }
    if (num > 0 && num < 13 && unknown(tm->tm_mon)) tm->tm_mon = static_cast<int>(num) - 1;
  }
  return n;
}

int match_tz(char const* date, int* offset) {
  char const* end = date + 1;
  int hour = static_cast<int>(read_unsigned(date + 1, &end));
  long n = end - (date + 1);
  int min = 0;

  if (n == 4) {
    min = hour % 100;
    hour = hour / 100;
  } else if (n != 2) {
    min = 99;  // not a zone
  } else if (*end == ':') {
    min = static_cast<int>(read_unsigned(end + 1, &end));
    if (end - (date + 1) != 5) min = 99;  // only hh:mm counts
  }

  if (min < 60 && hour < 24) {
    int value = hour * 60 + min;
    if (*date == '-') value = -value;
    *offset = value;
  }
  return static_cast<int>(end - date);
}

int match_stamp_form(char const* date, timeval* result, int* offset) {
  if (!sane_isdigit(static_cast<unsigned char>(*date))) return -1;
  char const* end = date;
  unsigned long stamp = read_unsigned(date, &end);
  if (*end != ' ' || stamp == ULONG_MAX || (end[1] != '+' && end[1] != '-')) return -1;
  char const* zone = end + 2;
  long value = read_signed(zone, &end);
  if ((*end != '\0' && *end != '\n') || end != zone + 4) return -1;
  int ofs = static_cast<int>((value / 100) * 60 + (value % 100));
  if (zone[-1] == '-') ofs = -ofs;
  result->tv_sec = static_cast<time_t>(stamp);
  *offset = ofs;
  return 0;
}

// ---- relative dates -----------------------------------------------------------

time_t fill_and_shift(atm* tm, atm const* now, time_t sec) {
  if (unknown(tm->tm_mday)) tm->tm_mday = now->tm_mday;
  if (unknown(tm->tm_mon)) tm->tm_mon = now->tm_mon;
  if (unknown(tm->tm_year)) {
    tm->tm_year = now->tm_year;
    // A month later than the current one means last year's.
    if (tm->tm_mon > now->tm_mon) tm->tm_year--;
  }
  struct tm c = atm_to_tm(*tm);
  time_t n = mktime(&c) - sec;
  struct tm local {};
  if (localtime_r(&n, &local)) *tm = atm_from_tm(local);
  return n;
}

void flush_pending_number(atm* tm, int* num) {
  int number = *num;
  if (!number) return;
  *num = 0;
  if (unknown(tm->tm_mday) && number < 32) {
    tm->tm_mday = number;
  } else if (unknown(tm->tm_mon) && number < 13) {
    tm->tm_mon = number - 1;
  } else if (unknown(tm->tm_year)) {
    if (number > 1969 && number < 2100)
      tm->tm_year = number - 1900;
    else if (number > 69 && number < 100)
      tm->tm_year = number;
    else if (number < 38)
      tm->tm_year = 100 + number;
  }
}

namespace {

void DateTime(atm* tm, atm const* now, int hour) {
  if (tm->tm_hour < hour) fill_and_shift(tm, now, 24 * 60 * 60);
  tm->tm_hour = hour;
  tm->tm_min = 0;
  tm->tm_sec = 0;
}

}  // namespace

void date_yesterday(atm* tm, atm const* now, int*) {
  fill_and_shift(tm, now, 24 * 60 * 60);
}
void date_noon(atm* tm, atm const* now, int*) {
  DateTime(tm, now, 12);
}
void date_midnight(atm* tm, atm const* now, int*) {
  DateTime(tm, now, 0);
}
void date_tea(atm* tm, atm const* now, int*) {
  DateTime(tm, now, 17);
}

void date_pm(atm* tm, atm const*, int* num) {
  int n = *num;
  *num = 0;
  int hour = tm->tm_hour;
  if (n) {
    hour = n;
    tm->tm_min = 0;
    tm->tm_sec = 0;
  }
  tm->tm_hour = (hour % 12) + 12;
}

void date_am(atm* tm, atm const*, int* num) {
  int n = *num;
  *num = 0;
  int hour = tm->tm_hour;
  if (n) {
    hour = n;
    tm->tm_min = 0;
    tm->tm_sec = 0;
  }
  tm->tm_hour = hour % 12;
}

// The pending number is left as it is, on purpose.
void date_never(atm* tm, atm const*, int*) {
  time_t zero = 0;
  struct tm local {};
  if (localtime_r(&zero, &local)) *tm = atm_from_tm(local);
}

void date_now(atm* tm, atm const* now, int*) {
  fill_and_shift(tm, now, 0);
}

char const* approx_digit(char const* date, atm* tm, int* num) {
  char const* end = date;
  unsigned long number = read_unsigned(date, &end);
  if (IsMultiSeparator(*end) && sane_isdigit(static_cast<unsigned char>(end[1]))) {
    int match = match_multi_number(number, *end, date, end, tm);
    if (match) return date + match;
  }
  // Zero padding counts only for small numbers ("Dec 02", never "0002").
  if (date[0] != '0' || end - date <= 2) *num = static_cast<int>(number);
  return end;
}

char const* approx_alpha(char const* date, atm* tm, atm const* now, int* num, int* touched) {
  char const* end = date;
  while (sane_isalpha(static_cast<unsigned char>(*++end))) {
  }

  for (int i = 0; i < 12; ++i) {
    if (match_word_prefix(date, month_names[i]) >= 3) {
      tm->tm_mon = i;
      *touched = 1;
      return end;
    }
  }

  for (special_word const& s : special) {
    if (match_word_prefix(date, s.name) == static_cast<int>(std::strlen(s.name))) {
      s.fn(tm, now, num);
      *touched = 1;
      return end;
    }
  }

  if (!*num) {
    for (int i = 1; i < 11; ++i) {
      if (match_word_prefix(date, number_name[i]) ==
          static_cast<int>(std::strlen(number_name[i]))) {
        *num = i;
        *touched = 1;
        return end;
      }
    }
    if (match_word_prefix(date, "last") == 4) {
      *num = 1;
      *touched = 1;
    }
    return end;
  }

  for (unit_name const& unit : typelen) {
    int len = static_cast<int>(std::strlen(unit.name));
    if (match_word_prefix(date, unit.name) >= len - 1) {
      fill_and_shift(tm, now, static_cast<time_t>(unit.seconds) * *num);
      *num = 0;
      *touched = 1;
      return end;
    }
  }

  for (int i = 0; i < 7; ++i) {
    if (match_word_prefix(date, weekday_names[i]) >= 3) {
      int64_t n = static_cast<int64_t>(*num) - 1;
      *num = 0;
      int64_t diff = tm->tm_wday - i;
      if (diff <= 0) n++;
      diff += 7 * n;
      fill_and_shift(tm, now, static_cast<time_t>(diff * 24 * 60 * 60));
      *touched = 1;
      return end;
    }
  }

  if (match_word_prefix(date, "months") >= 5) {
    fill_and_shift(tm, now, 0);
    int64_t n = static_cast<int64_t>(tm->tm_mon) - *num;
    *num = 0;
    if (n < 0) {
      // As many borrows of twelve months as needed, in one step.
      int64_t borrow = (-n + 11) / 12;
      n += 12 * borrow;
      tm->tm_year = static_cast<int>(tm->tm_year - borrow);
    }
    tm->tm_mon = static_cast<int>(n);
    *touched = 1;
    return end;
  }

  if (match_word_prefix(date, "years") >= 4) {
    fill_and_shift(tm, now, 0);
    tm->tm_year = static_cast<int>(static_cast<int64_t>(tm->tm_year) - *num);
    *num = 0;
    *touched = 1;
    return end;
  }

  return end;
}

}  // namespace ldtime

using namespace ldtime;

int parse_date_basic(char const* date, timeval* result, int* offset) {
  // Null pointers are refused rather than followed; a null offset is allowed.
  if (date == nullptr || result == nullptr) return -1;
  int local_offset;
  if (!offset) offset = &local_offset;

  atm tm{};
  tm.tm_year = -1;
  tm.tm_mon = -1;
  tm.tm_mday = -1;
  tm.tm_hour = -1;
  tm.tm_min = -1;
  tm.tm_sec = -1;
  tm.tm_isdst = -1;
  tm.tm_usec = 0;
  *offset = -1;
  int tm_gmt = 0;

  if (*date == '@' && match_stamp_form(date + 1, result, offset) == 0) return 0;

  for (;;) {
    unsigned char c = static_cast<unsigned char>(*date);
    if (!c || c == '\n') break;
    int match = 0;
    if (sane_isalpha(c))
      match = match_alpha(date, &tm, offset);
    else if (sane_isdigit(c))
      match = match_digit(date, &tm, offset, &tm_gmt);
    else if ((c == '-' || c == '+') && sane_isdigit(static_cast<unsigned char>(date[1])))
      match = match_tz(date, offset);
    if (!match) match = 1;  // unknown byte
    date += match;
  }

  result->tv_usec = static_cast<suseconds_t>(tm.tm_usec);
  time_t t = tm_to_time_t(&tm);
  result->tv_sec = t;
  if (*offset == -1) {
    // No zone given: the local zone's offset at that time.
    struct tm c = atm_to_tm(tm);
    time_t local = mktime(&c);
    *offset = static_cast<int>((t - local) / 60);
    if (t == -1) return -1;
  } else if (t == -1) {
    return -1;
  }
  if (!tm_gmt) result->tv_sec -= static_cast<time_t>(*offset) * 60;
  return 0;
}

int approxidate(char const* date, tm* result) {
  if (date == nullptr || result == nullptr) return -1;
  timeval tv{};
  int offset = 0;
  if (parse_date_basic(date, &tv, &offset) == 0) {
    time_t seconds = tv.tv_sec;
    struct tm utc {};
    if (gmtime_r(&seconds, &utc)) *result = utc;
    return 0;
  }

  timeval now_tv{};
  gettimeofday(&now_tv, nullptr);
  time_t now_sec = now_tv.tv_sec;
  struct tm local {};
  localtime_r(&now_sec, &local);
  atm tm = atm_from_tm(local);
  atm const now = tm;
  tm.tm_year = -1;
  tm.tm_mon = -1;
  tm.tm_mday = -1;

  if (!*date) return -1;

  int number = 0;
  int touched = 0;
  for (;;) {
    unsigned char c = static_cast<unsigned char>(*date);
    if (!c) break;
    if (sane_isdigit(c)) {
      flush_pending_number(&tm, &number);
      date = approx_digit(date, &tm, &number);
      touched = 1;
      continue;
    }
    if (sane_isalpha(c)) {
      date = approx_alpha(date, &tm, &now, &number, &touched);
      continue;
    }
    ++date;
  }
  flush_pending_number(&tm, &number);
  if (!touched) return -1;

  time_t seconds = fill_and_shift(&tm, &now, 0);
  struct tm utc {};
  if (gmtime_r(&seconds, &utc)) *result = utc;
  return 0;
}
