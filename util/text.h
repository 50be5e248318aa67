// Formatting, splitting, tokenizing, joining and trimming of byte and wide
// strings.
#pragma once

#include <functional>
#include <regex>
#include <string>
#include <vector>

#include "protocol/export.h"

LD_EXPORT std::string string_format(std::string format, ...);
LD_EXPORT std::wstring wstring_format(std::wstring format, ...);

// Pieces between matches of `separator`; an empty text gives no pieces.
LD_EXPORT std::vector<std::string> split(std::string const& text, std::regex const& separator);
LD_EXPORT std::vector<std::wstring> split(std::wstring const& text, std::wregex const& separator);

// `delimiters` is a set of characters; runs count as one, no empty tokens.
LD_EXPORT std::vector<std::string> split_delim(std::string const& text,
                                               std::string const& delimiters,
                                               std::function<std::string(std::string&)> transform);
LD_EXPORT std::vector<std::wstring> split_delim(
    std::wstring const& text, std::wstring const& delimiters,
    std::function<std::wstring(std::wstring&)> transform);

// Character delimiter: keeps inner empty tokens, no trailing empty token.
LD_EXPORT std::vector<std::string> tokenize(std::string const& text, char delimiter,
                                            std::function<std::string(std::string&)> transform);
LD_EXPORT std::vector<std::wstring> tokenize(std::wstring const& text, wchar_t delimiter,
                                             std::function<std::wstring(std::wstring&)> transform);
// String delimiter: keeps a trailing empty token; an empty text gives one.
LD_EXPORT std::vector<std::string> tokenize(std::string const& text, std::string delimiter,
                                            std::function<std::string(std::string&)> transform);
LD_EXPORT std::vector<std::wstring> tokenize(std::wstring const& text, std::wstring delimiter,
                                             std::function<std::wstring(std::wstring&)> transform);

// Throws std::out_of_range for an empty vector.
LD_EXPORT std::string join(std::vector<std::string> const& items, std::string separator);

// Advances by the length of `from` after each replacement.
LD_EXPORT void replace_all(std::string& text, std::string const& from, std::string const& to);
LD_EXPORT void replace_all(std::wstring& text, std::wstring const& from, std::wstring const& to);

LD_EXPORT bool ends_with(std::string const& text, std::string const& suffix);
LD_EXPORT bool ends_with(std::wstring const& text, std::wstring const& suffix);

// Removes "C"-locale white space from both ends, in place.
LD_EXPORT std::string& trim(std::string& text);
