// approxidate on any text (relative phrases read against the current time):
// no crash or hang; on failure the result is untouched, on success it is a
// valid UTC breakdown.
#include <cstring>
#include <ctime>
#include <string>

#include "fuzz/fuzz_support.h"
#include "time/approxidate.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text = fuzz::CText(data, size);
  tm result;
  std::memset(&result, 0x5A, sizeof result);
  tm untouched;
  std::memcpy(&untouched, &result, sizeof result);
  const int status = approxidate(text.c_str(), &result);
  FUZZ_CHECK(status == 0 || status == -1);
  if (status == -1) {
    FUZZ_CHECK(std::memcmp(&result, &untouched, sizeof result) == 0);
    return 0;
  }
  if (std::memcmp(&result, &untouched, sizeof result) == 0) return 0;  // no breakdown possible
  FUZZ_CHECK(result.tm_sec >= 0 && result.tm_sec <= 60);
  FUZZ_CHECK(result.tm_min >= 0 && result.tm_min <= 59);
  FUZZ_CHECK(result.tm_hour >= 0 && result.tm_hour <= 23);
  FUZZ_CHECK(result.tm_mday >= 1 && result.tm_mday <= 31);
  FUZZ_CHECK(result.tm_mon >= 0 && result.tm_mon <= 11);
  FUZZ_CHECK(result.tm_wday >= 0 && result.tm_wday <= 6);
  FUZZ_CHECK(result.tm_isdst == 0);
  return 0;
}
