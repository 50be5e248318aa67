#include "time/sane_ctype_internal.h"

#include <array>

namespace ldtime {
namespace {

constexpr std::array<unsigned char, 256> MakeTable() {
  std::array<unsigned char, 256> t{};
  for (int c = 0; c < 0x20; ++c)
    t[c] |= kCtypeControl;
  t[0x7F] |= kCtypeControl;
  for (char c : {' ', '\t', '\n', '\v', '\f', '\r'})
    t[static_cast<unsigned char>(c)] |= kCtypeSpace;
  for (int c = '0'; c <= '9'; ++c)
    t[c] |= kCtypeDigit;
  for (int c = 'A'; c <= 'Z'; ++c)
    t[c] |= kCtypeAlpha;
  for (int c = 'a'; c <= 'z'; ++c)
    t[c] |= kCtypeAlpha;
  for (char c : {'*', '?', '[', '\\'})
    t[static_cast<unsigned char>(c)] |= kCtypeGlob;
  for (char c : {'$', '(', ')', '+', '.', '^', '{', '|'})
    t[static_cast<unsigned char>(c)] |= kCtypeRegex;
  return t;
}

constexpr std::array<unsigned char, 256> kTable = MakeTable();

}  // namespace

unsigned char const sane_ctype[256] = {
#define LD_ROW(r)                                                                                 \
  kTable[r + 0], kTable[r + 1], kTable[r + 2], kTable[r + 3], kTable[r + 4], kTable[r + 5],       \
      kTable[r + 6], kTable[r + 7], kTable[r + 8], kTable[r + 9], kTable[r + 10], kTable[r + 11], \
      kTable[r + 12], kTable[r + 13], kTable[r + 14], kTable[r + 15]
    LD_ROW(0x00), LD_ROW(0x10), LD_ROW(0x20), LD_ROW(0x30), LD_ROW(0x40), LD_ROW(0x50),
    LD_ROW(0x60), LD_ROW(0x70), LD_ROW(0x80), LD_ROW(0x90), LD_ROW(0xA0), LD_ROW(0xB0),
    LD_ROW(0xC0), LD_ROW(0xD0), LD_ROW(0xE0), LD_ROW(0xF0),
#undef LD_ROW
};

}  // namespace ldtime
