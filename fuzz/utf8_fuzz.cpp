// s2ws, ws2s and wchar2utf8: well-formed UTF-8 survives a round trip, and
// ill-formed UTF-8 is refused with std::range_error (never accepted, never a
// crash); wide text from the input round-trips when every character is a
// scalar value and is refused otherwise.
#include <cstring>
#include <stdexcept>
#include <string>

#include "fuzz/fuzz_support.h"
#include "util/encoding.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  const bool valid = fuzz::IsValidUtf8(bytes);
  try {
    const std::wstring wide = s2ws(bytes);
    FUZZ_CHECK(valid);
    FUZZ_CHECK(wide.size() <= bytes.size());
    FUZZ_CHECK(ws2s(wide) == bytes);
    if (wide.find(L'\0') == std::wstring::npos) FUZZ_CHECK(wchar2utf8(wide.c_str()) == bytes);
  } catch (const std::range_error&) {
    FUZZ_CHECK(!valid);
  }

  // The same bytes taken as 32-bit characters.
  std::wstring wide(size / sizeof(wchar_t), L'\0');
  if (!wide.empty()) std::memcpy(wide.data(), data, wide.size() * sizeof(wchar_t));
  bool scalar = true;
  for (wchar_t c : wide) {
    const auto u = static_cast<uint32_t>(c);
    scalar = scalar && u <= 0x10FFFF && !(u >= 0xD800 && u <= 0xDFFF);
  }
  try {
    const std::string utf8 = ws2s(wide);
    FUZZ_CHECK(scalar);
    FUZZ_CHECK(fuzz::IsValidUtf8(utf8));
    FUZZ_CHECK(s2ws(utf8) == wide);
  } catch (const std::range_error&) {
    FUZZ_CHECK(!scalar);
  }
  return 0;
}
