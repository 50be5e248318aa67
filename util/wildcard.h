// File-name matching against wildcard expressions with the DOS and Windows
// wildcards: "*" and "?", and "<", ">" and '"' as the DOS forms of star,
// question mark and dot.
#pragma once

#include "protocol/export.h"

// True when the whole `name` matches the whole `expression`. Both are
// NUL-terminated and must not be null. With `ignore_case`, ordinary characters
// are compared after toupper; the narrow form leaves bytes 0x80..0xFF unfolded.
//
// A "<" at name position 0 of a name without any dot matches only the empty
// sequence: "<" matches neither "abc" nor "abc.txt", while "a<" matches "abc".
// A null expression or name matches nothing.
LD_EXPORT bool IsNameInExpression(wchar_t const* expression, wchar_t const* name, bool ignore_case);
LD_EXPORT bool IsNameInExpressionA(char const* expression, char const* name, bool ignore_case);
