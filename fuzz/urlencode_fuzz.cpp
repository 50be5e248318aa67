// URLEncode: only unreserved bytes and "%XX" escapes come out, and decoding
// gives the input back; the slash flag changes nothing but "/".
#include <cstring>
#include <memory>
#include <string>

#include "fuzz/fuzz_support.h"
#include "util/encoding.h"

namespace {

bool Unreserved(unsigned char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' ||
         c == '.' || c == '_' || c == '~';
}

int Hex(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;  // lower-case digits are not produced
}

std::string Decode(const std::string& encoded, bool slash_encoded) {
  std::string out;
  for (size_t i = 0; i < encoded.size(); ++i) {
    const unsigned char c = static_cast<unsigned char>(encoded[i]);
    if (c == '%') {
      FUZZ_CHECK(i + 2 < encoded.size());
      const int high = Hex(encoded[i + 1]);
      const int low = Hex(encoded[i + 2]);
      FUZZ_CHECK(high >= 0 && low >= 0);
      const unsigned char byte = static_cast<unsigned char>(high * 16 + low);
      FUZZ_CHECK(!Unreserved(byte));
      if (!slash_encoded) FUZZ_CHECK(byte != '/');
      out += static_cast<char>(byte);
      i += 2;
    } else {
      FUZZ_CHECK(Unreserved(c) || (c == '/' && !slash_encoded));
      out += static_cast<char>(c);
    }
  }
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text = fuzz::CText(data, size);
  std::unique_ptr<char[]> exact(new char[text.size() + 1]);
  std::memcpy(exact.get(), text.c_str(), text.size() + 1);
  const std::string plain = URLEncode(exact.get(), false);
  const std::string strict = URLEncode(exact.get(), true);
  FUZZ_CHECK(Decode(plain, false) == text);
  FUZZ_CHECK(Decode(strict, true) == text);
  size_t slashes = 0;
  for (char c : text)
    slashes += c == '/';
  FUZZ_CHECK(strict.size() == plain.size() + 2 * slashes);
  return 0;
}
