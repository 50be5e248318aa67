// parse_date_basic on any text: no crash, the same answer with or without an
// offset pointer and on a second call, and approxidate agreeing with it whenever it succeeds.
#include <sys/time.h>

#include <cstring>
#include <ctime>
#include <string>

#include "fuzz/fuzz_support.h"
#include "time/approxidate.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text = fuzz::CText(data, size);
  timeval first{-7, -7};
  int offset = -12345;
  const int result = parse_date_basic(text.c_str(), &first, &offset);
  FUZZ_CHECK(result == 0 || result == -1);

  timeval second{-7, -7};
  FUZZ_CHECK(parse_date_basic(text.c_str(), &second, nullptr) == result);
  if (result == 0) {
    FUZZ_CHECK(first.tv_sec == second.tv_sec);
    FUZZ_CHECK(first.tv_usec == second.tv_usec);
    int second_offset = -12345;
    timeval third{-7, -7};
    FUZZ_CHECK(parse_date_basic(text.c_str(), &third, &second_offset) == 0);
    FUZZ_CHECK(second_offset == offset);

    // approxidate takes the same point when it can break it down.
    tm broken;
    std::memset(&broken, 0x5A, sizeof broken);
    const int approx = approxidate(text.c_str(), &broken);
    tm expected;
    const time_t seconds = first.tv_sec;
    if (gmtime_r(&seconds, &expected) != nullptr) {
      FUZZ_CHECK(approx == 0);
      FUZZ_CHECK(broken.tm_year == expected.tm_year);
      FUZZ_CHECK(broken.tm_mon == expected.tm_mon);
      FUZZ_CHECK(broken.tm_mday == expected.tm_mday);
      FUZZ_CHECK(broken.tm_hour == expected.tm_hour);
      FUZZ_CHECK(broken.tm_min == expected.tm_min);
      FUZZ_CHECK(broken.tm_sec == expected.tm_sec);
    }
  }
  return 0;
}
