// base64: the length and alphabet of the text, a standard decoder reading the
// input back (all of it for 3k and 3k+2 bytes; for 3k+1 the last byte too,
// since the "=" filler only touches bits that the decoder drops), and the
// previous call's buffer released (the leak checker would see it otherwise).
#include <cstring>
#include <memory>
#include <string>

#include "fuzz/fuzz_support.h"
#include "util/encoding.h"

namespace {

int Value(char c) {
  static const char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  const char* at = std::strchr(alphabet, c);
  return c != '\0' && at != nullptr ? static_cast<int>(at - alphabet) : -1;
}

std::string Decode(const std::string& text) {
  std::string out;
  for (size_t i = 0; i + 4 <= text.size(); i += 4) {
    int v[4];
    int pad = 0;
    for (int k = 0; k < 4; ++k) {
      if (text[i + k] == '=') {
        FUZZ_CHECK(i + 4 == text.size() && k >= 2);
        v[k] = 0;
        ++pad;
      } else {
        FUZZ_CHECK(pad == 0);
        v[k] = Value(text[i + k]);
        FUZZ_CHECK(v[k] >= 0);
      }
    }
    const unsigned group = (v[0] << 18) | (v[1] << 12) | (v[2] << 6) | v[3];
    out += static_cast<char>(group >> 16);
    if (pad < 2) out += static_cast<char>((group >> 8) & 0xFF);
    if (pad < 1) out += static_cast<char>(group & 0xFF);
  }
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // An exact-size copy: a read past `size` is caught.
  std::unique_ptr<unsigned char[]> input(new unsigned char[size == 0 ? 1 : size]);
  if (size != 0) std::memcpy(input.get(), data, size);
  char* text = base64(size == 0 ? nullptr : input.get(), size);
  if (size == 0) {
    FUZZ_CHECK(text == nullptr);
    FUZZ_CHECK(base64(input.get(), 0) == nullptr);
    return 0;
  }
  FUZZ_CHECK(text != nullptr);
  const std::string encoded = text;
  FUZZ_CHECK(encoded.size() == (size + 2) / 3 * 4);
  const std::string decoded = Decode(encoded);
  const std::string original(reinterpret_cast<const char*>(data), size);
  FUZZ_CHECK(decoded == original);
  if (size % 3 == 1) FUZZ_CHECK(encoded.compare(encoded.size() - 2, 2, "==") == 0);
  if (size % 3 == 2) FUZZ_CHECK(encoded.back() == '=' && encoded[encoded.size() - 2] != '=');
  // Encoding again gives the same text in a fresh buffer.
  const char* again = base64(input.get(), size);
  FUZZ_CHECK(again != nullptr && encoded == again);
  return 0;
}
