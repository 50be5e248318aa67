#include "host/cli/names.h"

#include <cstdio>

namespace plughost {

size_t Utf8SequenceLength(std::string_view text, size_t i) {
  auto byte = [&](size_t k) { return static_cast<unsigned char>(text[k]); };
  unsigned char c = byte(i);
  if (c < 0x80) return 1;
  size_t n;
  unsigned lowest;  // smallest code point of that length (no overlong forms)
  unsigned code;
  if ((c & 0xE0) == 0xC0) {
    n = 2, lowest = 0x80, code = c & 0x1F;
  } else if ((c & 0xF0) == 0xE0) {
    n = 3, lowest = 0x800, code = c & 0x0F;
  } else if ((c & 0xF8) == 0xF0) {
    n = 4, lowest = 0x10000, code = c & 0x07;
  } else {
    return 0;
  }
  if (i + n > text.size()) return 0;
  for (size_t k = 1; k < n; ++k) {
    if ((byte(i + k) & 0xC0) != 0x80) return 0;
    code = code << 6 | (byte(i + k) & 0x3F);
  }
  if (code < lowest || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return 0;
  return n;
}

bool IsValidUtf8(std::string_view text) {
  for (size_t i = 0; i < text.size();) {
    size_t n = Utf8SequenceLength(text, i);
    if (n == 0) return false;
    i += n;
  }
  return true;
}

std::string ReplaceInvalidUtf8(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size();) {
    size_t n = Utf8SequenceLength(text, i);
    if (n == 0) {
      out += "\xEF\xBF\xBD";
      i += 1;
    } else {
      out.append(text, i, n);
      i += n;
    }
  }
  return out;
}

namespace {

void AppendOctal(std::string& out, unsigned char c) {
  char escaped[8];
  std::snprintf(escaped, sizeof escaped, "\\%03o", c);
  out += escaped;
}

// The C escape of a control character, or 0 when it has none.
char Letter(unsigned char c) {
  switch (c) {
    case '\a':
      return 'a';
    case '\b':
      return 'b';
    case '\t':
      return 't';
    case '\n':
      return 'n';
    case '\v':
      return 'v';
    case '\f':
      return 'f';
    case '\r':
      return 'r';
    default:
      return 0;
  }
}

}  // namespace

std::string EscapeName(std::string_view name) {
  std::string out;
  out.reserve(name.size());
  for (size_t i = 0; i < name.size();) {
    unsigned char c = static_cast<unsigned char>(name[i]);
    size_t n = Utf8SequenceLength(name, i);
    if (n > 1) {
      // C1 controls, U+0080 to U+009F, are two bytes starting with 0xC2.
      bool control = c == 0xC2 && static_cast<unsigned char>(name[i + 1]) < 0xA0;
      if (control) {
        AppendOctal(out, c);
        AppendOctal(out, static_cast<unsigned char>(name[i + 1]));
      } else {
        out.append(name, i, n);
      }
      i += n;
      continue;
    }
    if (c == '\\') {
      out += "\\\\";
    } else if (c == ' ') {
      out += "\\ ";
    } else if (char letter = Letter(c)) {
      out += '\\';
      out += letter;
    } else if (n == 0 || c < 0x20 || c == 0x7F) {
      AppendOctal(out, c);
    } else {
      out += static_cast<char>(c);
    }
    i += 1;
  }
  return out;
}

}  // namespace plughost
