// Shared helpers of the fuzz targets: invariant checks that abort with a
// message (so libFuzzer records the input), and input slicing.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#define FUZZ_CHECK(condition)                                                                \
  do {                                                                                       \
    if (!(condition)) {                                                                      \
      std::fprintf(stderr, "%s:%d: invariant failed: %s\n", __FILE__, __LINE__, #condition); \
      std::abort();                                                                          \
    }                                                                                        \
  } while (0)

namespace fuzz {

inline std::string_view Bytes(const uint8_t* data, size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

// The input up to its first NUL: what a C-string interface sees.
inline std::string CText(const uint8_t* data, size_t size) {
  std::string_view all = Bytes(data, size);
  return std::string(all.substr(0, all.find('\0')));
}

// Splits the input at its first NUL byte into two texts (the second empty
// when there is none).
inline std::pair<std::string, std::string> SplitAtNul(const uint8_t* data, size_t size) {
  std::string_view all = Bytes(data, size);
  size_t cut = all.find('\0');
  if (cut == std::string_view::npos) return {std::string(all), std::string()};
  return {std::string(all.substr(0, cut)), std::string(all.substr(cut + 1))};
}

// True when `text` is well-formed UTF-8 (no overlong forms, no surrogates,
// nothing above U+10FFFF).
inline bool IsValidUtf8(std::string_view text) {
  size_t i = 0;
  while (i < text.size()) {
    const unsigned char b = static_cast<unsigned char>(text[i]);
    size_t n;
    uint32_t cp;
    if (b < 0x80) {
      ++i;
      continue;
    } else if (b >= 0xC2 && b <= 0xDF) {
      n = 1;
      cp = b & 0x1F;
    } else if (b >= 0xE0 && b <= 0xEF) {
      n = 2;
      cp = b & 0x0F;
    } else if (b >= 0xF0 && b <= 0xF4) {
      n = 3;
      cp = b & 0x07;
    } else {
      return false;
    }
    if (i + n >= text.size()) return false;  // truncated sequence
    for (size_t k = 1; k <= n; ++k) {
      const unsigned char c = static_cast<unsigned char>(text[i + k]);
      if ((c & 0xC0) != 0x80) return false;
      cp = (cp << 6) | (c & 0x3F);
    }
    if ((n == 2 && cp < 0x800) || (n == 3 && cp < 0x10000)) return false;
    if (cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return false;
    i += n + 1;
  }
  return true;
}

}  // namespace fuzz
