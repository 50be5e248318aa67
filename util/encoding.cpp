#include "util/encoding.h"

#include <uuid/uuid.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <regex>
#include <stdexcept>
#include <type_traits>

static_assert(sizeof(wchar_t) >= 4, "wide strings are expected to hold UTF-32 code points");

namespace {

constexpr std::uint32_t kMaxCodePoint = 0x10FFFF;

bool IsSurrogate(std::uint32_t cp) {
  return cp >= 0xD800 && cp <= 0xDFFF;
}

[[noreturn]] void BadUtf8() {
  throw std::range_error("invalid UTF-8 sequence");
}
[[noreturn]] void BadWide() {
  throw std::range_error("wide character is not a Unicode scalar");
}

void AppendUtf8(std::string& out, wchar_t w) {
  // Through the unsigned type of the same width, so that a negative wchar_t
  // lands above the maximum and is rejected.
  auto cp = static_cast<std::uint32_t>(static_cast<std::make_unsigned_t<wchar_t>>(w));
  if (cp > kMaxCodePoint || IsSurrogate(cp)) BadWide();
  if (cp < 0x80) {
    out.push_back(static_cast<char>(cp));
  } else if (cp < 0x800) {
    out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else if (cp < 0x10000) {
    out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else {
    out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  }
}

std::string EncodeUtf8(wchar_t const* begin, wchar_t const* end) {
  std::string out;
  out.reserve(static_cast<std::size_t>(end - begin));
  for (wchar_t const* p = begin; p != end; ++p)
    AppendUtf8(out, *p);
  return out;
}

// Owns the last result of base64. Constant-initialised, so it is usable at
// any point of start-up; its destructor releases the buffer when the library
// is unloaded.
struct Base64Buffer {
  char* text = nullptr;
  constexpr Base64Buffer() = default;
  Base64Buffer(Base64Buffer const&) = delete;
  Base64Buffer& operator=(Base64Buffer const&) = delete;
  ~Base64Buffer() {
    std::free(text);
    text = nullptr;
  }
};
Base64Buffer g_base64;

constexpr char kBase64Alphabet[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

}  // namespace

std::wstring s2ws(std::string const& utf8) {
  std::wstring out;
  out.reserve(utf8.size());
  auto const* s = reinterpret_cast<unsigned char const*>(utf8.data());
  std::size_t const n = utf8.size();
  std::size_t i = 0;
  while (i < n) {
    unsigned char const lead = s[i];
    if (lead < 0x80) {
      out.push_back(static_cast<wchar_t>(lead));
      ++i;
      continue;
    }
    std::size_t extra;
    std::uint32_t cp;
    std::uint32_t min;
    if (lead >= 0xC0 && lead <= 0xDF) {
      extra = 1;
      cp = lead & 0x1F;
      min = 0x80;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
      extra = 2;
      cp = lead & 0x0F;
      min = 0x800;
    } else if (lead >= 0xF0 && lead <= 0xF7) {
      extra = 3;
      cp = lead & 0x07;
      min = 0x10000;
    } else {
      BadUtf8();  // a continuation byte or 0xF8..0xFF as lead
    }
    if (n - i - 1 < extra) BadUtf8();  // truncated
    for (std::size_t k = 1; k <= extra; ++k) {
      unsigned char const c = s[i + k];
      if ((c & 0xC0) != 0x80) BadUtf8();
      cp = (cp << 6) | (c & 0x3F);
    }
    if (cp < min || cp > kMaxCodePoint || IsSurrogate(cp)) BadUtf8();
    out.push_back(static_cast<wchar_t>(cp));
    i += extra + 1;
  }
  return out;
}

std::string ws2s(std::wstring const& wide) {
  return EncodeUtf8(wide.data(), wide.data() + wide.size());
}

std::string wchar2utf8(wchar_t const* wide) {
  if (wide == nullptr) return std::string();
  return EncodeUtf8(wide, wide + std::wcslen(wide));
}

char* base64(unsigned char const* data, unsigned long length) {
  std::free(g_base64.text);
  g_base64.text = nullptr;
  if (data == nullptr || length == 0) return nullptr;

  unsigned long const filler = (3 - length % 3) % 3;
  unsigned long const padded = length + filler;
  if (padded < length) return nullptr;  // wrapped
  unsigned char* temp = nullptr;
  unsigned char const* in = data;
  if (filler != 0) {
    temp = static_cast<unsigned char*>(std::malloc(padded));
    if (temp == nullptr) return nullptr;
    std::memcpy(temp, data, length);
    std::memset(temp + length, '=', filler);
    in = temp;
  }

  unsigned long const groups = padded / 3;
  if (groups > (static_cast<unsigned long>(-1) - 1) / 4) {
    std::free(temp);
    return nullptr;
  }
  unsigned long const out_len = groups * 4;
  char* out = static_cast<char*>(std::malloc(out_len + 1));
  if (out == nullptr) {
    std::free(temp);
    return nullptr;
  }
  g_base64.text = out;
  for (unsigned long g = 0; g < groups; ++g) {
    unsigned char const* b = in + g * 3;
    std::uint32_t const v = (std::uint32_t{b[0]} << 16) | (std::uint32_t{b[1]} << 8) | b[2];
    char* o = out + g * 4;
    o[0] = kBase64Alphabet[(v >> 18) & 0x3F];
    o[1] = kBase64Alphabet[(v >> 12) & 0x3F];
    o[2] = kBase64Alphabet[(v >> 6) & 0x3F];
    o[3] = kBase64Alphabet[v & 0x3F];
  }
  out[out_len] = '\0';
  for (unsigned long k = 1; k <= filler; ++k)
    out[out_len - k] = '=';
  std::free(temp);
  return out;
}

std::string URLEncode(char const* text, bool encode_slash) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  if (text == nullptr) return out;
  for (auto const* p = reinterpret_cast<unsigned char const*>(text); *p != 0; ++p) {
    unsigned char const c = *p;
    bool const plain = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
                       c == '-' || c == '.' || c == '_' || c == '~' || (c == '/' && !encode_slash);
    if (plain) {
      out.push_back(static_cast<char>(c));
    } else {
      out.push_back('%');
      out.push_back(kHex[c >> 4]);
      out.push_back(kHex[c & 0x0F]);
    }
  }
  return out;
}

std::string NewUUID() {
  uuid_t id;
  uuid_generate_random(id);
  char text[37] = {0};
  uuid_unparse(id, text);
  return std::string(text);
}

bool is_email_valid(std::string const& address) {
  std::regex const pattern(R"((\w+)(\.|_)?(\w*)@(\w+)(\.(\w+))+)", std::regex::ECMAScript);
  return std::regex_match(address, pattern);
}

int octalToDecimal(int value) {
  int result = 0;
  int i = 0;
  while (value != 0) {
    int const digit = value % 10;  // keeps the sign of value
    value /= 10;
    result = static_cast<int>(result + digit * std::pow(2.0, 3.0 * i));
    ++i;
  }
  return result;
}
