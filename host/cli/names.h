// Names from the storage are bytes: they may hold control characters and
// sequences that are not UTF-8. Text output escapes them the way
// `ls --quoting-style=escape` does in a UTF-8 locale, so that a name can
// neither move the cursor nor pass for another name.
#pragma once

#include <string>
#include <string_view>

namespace plughost {

// Length of the valid UTF-8 sequence (shortest form, no surrogates, at most
// U+10FFFF) at text[i], or 0 where there is none.
size_t Utf8SequenceLength(std::string_view text, size_t i);
bool IsValidUtf8(std::string_view text);

// Valid UTF-8 with every invalid byte replaced by U+FFFD.
std::string ReplaceInvalidUtf8(std::string_view text);

// The escape quoting: \a \b \t \n \v \f \r, "\\" for a backslash, "\ " for a
// blank, \ooo (three octal digits) for any other control character (C0, DEL,
// C1) and for each byte that is not part of valid UTF-8; printable UTF-8 as is.
std::string EscapeName(std::string_view name);

}  // namespace plughost
