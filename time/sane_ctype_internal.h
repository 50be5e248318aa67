// Locale-independent byte classes for the date parser. Bytes 0x80..0xFF
// carry no class at all, so non-ASCII text is never a letter or a digit.
#pragma once

namespace ldtime {

enum : unsigned char {
  kCtypeSpace = 0x01,    // blank, \t, \n, \v, \f, \r
  kCtypeDigit = 0x02,    // 0-9
  kCtypeAlpha = 0x04,    // A-Z, a-z
  kCtypeGlob = 0x08,     // * ? [ \ (shell wildcard specials)
  kCtypeRegex = 0x10,    // $ ( ) + . ^ { | (regular expression specials besides glob ones)
  kCtypeControl = 0x20,  // 0x00-0x1F and 0x7F
};

extern unsigned char const sane_ctype[256];

inline bool sane_isdigit(unsigned char c) {
  return (sane_ctype[c] & kCtypeDigit) != 0;
}
inline bool sane_isalpha(unsigned char c) {
  return (sane_ctype[c] & kCtypeAlpha) != 0;
}
inline bool sane_isalnum(unsigned char c) {
  return (sane_ctype[c] & (kCtypeAlpha | kCtypeDigit)) != 0;
}
inline bool sane_isspace(unsigned char c) {
  return (sane_ctype[c] & kCtypeSpace) != 0;
}
// Clears the case bit of letters only; every other byte is left alone.
inline unsigned char sane_toupper(unsigned char c) {
  return sane_isalpha(c) ? static_cast<unsigned char>(c & ~0x20) : c;
}

}  // namespace ldtime
