// UTF-8 and wide-string conversion, Base64, URL percent-encoding, random
// UUIDs, e-mail address checks and octal digit reading.
#pragma once

#include <string>

#include "protocol/export.h"

// Strict UTF-8 to wide text. Malformed input (overlong forms, surrogates,
// code points above 0x10FFFF, truncated sequences, stray continuation bytes)
// raises std::range_error.
LD_EXPORT std::wstring s2ws(std::string const& utf8);
// Wide text to UTF-8. A character above 0x10FFFF or in the surrogate range
// raises std::range_error.
LD_EXPORT std::string ws2s(std::wstring const& wide);
// NUL-terminated wide text to UTF-8, with the rules of ws2s. A null pointer
// gives the empty text.
LD_EXPORT std::string wchar2utf8(wchar_t const* wide);

// Base64 of `length` bytes with '=' padding and no line breaks. The input is
// padded with '=' bytes (not zeros) to a multiple of three, so "a" gives
// "YT==". Returns null for null or empty input and on allocation failure.
// The result belongs to the function and stays valid until the next call;
// never free it. Not safe to call from two threads at once.
LD_EXPORT char* base64(unsigned char const* data, unsigned long length);

// Percent-encodes every byte except A-Z, a-z, 0-9, "-", ".", "_", "~" (and
// "/" unless `encode_slash`), as "%XX" with upper-case hex digits.
LD_EXPORT std::string URLEncode(char const* text, bool encode_slash);

// A random UUID in its 36-character 8-4-4-4-12 text form.
LD_EXPORT std::string NewUUID();

// Whole-string match of (\w+)(\.|_)?(\w*)@(\w+)(\.(\w+))+ .
LD_EXPORT bool is_email_valid(std::string const& address);

// Reads the decimal digits of `value` as octal digits (19 gives 17, -10 gives
// -8); digits 8 and 9 are not rejected.
LD_EXPORT int octalToDecimal(int value);
