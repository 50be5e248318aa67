#include "util/text.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <memory>
#include <sstream>

namespace {

// White space of the classic "C" locale; bytes with the high bit set never are.
bool IsCSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

template <typename String, typename Transform>
std::vector<String> SplitDelim(String const& text, String const& delimiters,
                               Transform const& transform) {
  std::vector<String> tokens;
  auto start = text.find_first_not_of(delimiters);
  while (start != String::npos) {
    const auto end = text.find_first_of(delimiters, start);
    if (end == String::npos) {
      String token = text.substr(start);
      tokens.push_back(transform(token));
      break;
    }
    String token = text.substr(start, end - start);
    tokens.push_back(transform(token));
    start = text.find_first_not_of(delimiters, end);
  }
  return tokens;
}

template <typename Stream, typename String, typename Char, typename Transform>
std::vector<String> TokenizeByChar(String const& text, Char delimiter, Transform const& transform) {
  std::vector<String> tokens;
  Stream stream(text);
  String token;
  while (std::getline(stream, token, delimiter))
    tokens.push_back(transform(token));
  return tokens;
}

template <typename String, typename Transform>
std::vector<String> TokenizeByString(String const& text, String const& delimiter,
                                     Transform const& transform) {
  std::vector<String> tokens;
  typename String::size_type start = 0;
  // An empty delimiter would match everywhere without moving on: take the
  // whole text as the one token instead.
  if (!delimiter.empty()) {
    auto pos = text.find(delimiter, start);
    while (pos != String::npos) {
      String token = text.substr(start, pos - start);
      tokens.push_back(transform(token));
      start = pos + delimiter.size();
      pos = text.find(delimiter, start);
    }
  }
  String rest = text.substr(start);
  tokens.push_back(transform(rest));
  return tokens;
}

template <typename String>
void ReplaceAll(String& text, String const& from, String const& to) {
  if (from.empty()) return;
  // The scan resumes `from.size()` after a replacement, which may land inside
  // the inserted text. When `to` holds another `from` there, that would repeat
  // forever; step over the inserted text in that one case.
  const auto step = to.find(from, from.size()) == String::npos ? from.size() : to.size();
  typename String::size_type pos = 0;
  while ((pos = text.find(from, pos)) != String::npos) {
    text.replace(pos, from.size(), to);
    pos += step;
  }
}

template <typename String>
bool EndsWith(String const& text, String const& suffix) {
  if (suffix.size() > text.size()) return false;
  auto t = text.rbegin();
  for (auto s = suffix.rbegin(); s != suffix.rend(); ++s, ++t) {
    if (*s != *t) return false;
  }
  return true;
}

template <typename Char, typename Iterator>
std::vector<std::basic_string<Char>> SplitRegex(std::basic_string<Char> const& text,
                                                std::basic_regex<Char> const& separator) {
  std::vector<std::basic_string<Char>> pieces;
  // The token iterator reports an empty text as one empty piece.
  if (text.empty()) return pieces;
  Iterator it(text.begin(), text.end(), separator, -1);
  for (Iterator end; it != end; ++it)
    pieces.push_back(it->str());
  return pieces;
}

}  // namespace

std::string string_format(std::string format, ...) {
  va_list args;
  va_start(args, format);
  va_list measure;
  va_copy(measure, args);
  const int length = std::vsnprintf(nullptr, 0, format.c_str(), measure);
  va_end(measure);
  if (length < 0) {
    va_end(args);
    return std::string();
  }
  const auto size = static_cast<std::size_t>(length) + 1;
  std::unique_ptr<char[]> buffer(new char[size]);
  buffer[0] = '\0';
  std::vsnprintf(buffer.get(), size, format.c_str(), args);
  va_end(args);
  return std::string(buffer.get());
}

std::wstring wstring_format(std::wstring format, ...) {
  va_list args;
  va_start(args, format);
  // vswprintf cannot measure into a null buffer, so the first pass writes to
  // a wide memory stream, which counts wide characters without converting
  // them to the locale's multibyte encoding.
  int length = -1;
  wchar_t* scratch = nullptr;
  std::size_t scratch_size = 0;
  if (FILE* counter = open_wmemstream(&scratch, &scratch_size)) {
    va_list measure;
    va_copy(measure, args);
    length = std::vfwprintf(counter, format.c_str(), measure);
    va_end(measure);
    std::fclose(counter);
  }
  std::free(scratch);
  if (length < 0) {
    va_end(args);
    return std::wstring();
  }
  const auto size = static_cast<std::size_t>(length) + 1;
  std::unique_ptr<wchar_t[]> buffer(new wchar_t[size]);
  buffer[0] = L'\0';
  if (std::vswprintf(buffer.get(), size, format.c_str(), args) < 0) buffer[0] = L'\0';
  va_end(args);
  return std::wstring(buffer.get());
}

std::vector<std::string> split(std::string const& text, std::regex const& separator) {
  return SplitRegex<char, std::sregex_token_iterator>(text, separator);
}

std::vector<std::wstring> split(std::wstring const& text, std::wregex const& separator) {
  return SplitRegex<wchar_t, std::wsregex_token_iterator>(text, separator);
}

std::vector<std::string> split_delim(std::string const& text, std::string const& delimiters,
                                     std::function<std::string(std::string&)> transform) {
  return SplitDelim(text, delimiters, transform);
}

std::vector<std::wstring> split_delim(std::wstring const& text, std::wstring const& delimiters,
                                      std::function<std::wstring(std::wstring&)> transform) {
  return SplitDelim(text, delimiters, transform);
}

std::vector<std::string> tokenize(std::string const& text, char delimiter,
                                  std::function<std::string(std::string&)> transform) {
  return TokenizeByChar<std::istringstream>(text, delimiter, transform);
}

std::vector<std::wstring> tokenize(std::wstring const& text, wchar_t delimiter,
                                   std::function<std::wstring(std::wstring&)> transform) {
  return TokenizeByChar<std::wistringstream>(text, delimiter, transform);
}

std::vector<std::string> tokenize(std::string const& text, std::string delimiter,
                                  std::function<std::string(std::string&)> transform) {
  return TokenizeByString(text, delimiter, transform);
}

std::vector<std::wstring> tokenize(std::wstring const& text, std::wstring delimiter,
                                   std::function<std::wstring(std::wstring&)> transform) {
  return TokenizeByString(text, delimiter, transform);
}

std::string join(std::vector<std::string> const& items, std::string separator) {
  std::ostringstream out;
  // For an empty vector `last` wraps around and at(0) throws out_of_range.
  const std::size_t last = items.size() - 1;
  for (std::size_t i = 0; i < last; ++i)
    out << items.at(i) << separator;
  out << items[last];
  return out.str();
}

void replace_all(std::string& text, std::string const& from, std::string const& to) {
  ReplaceAll(text, from, to);
}

void replace_all(std::wstring& text, std::wstring const& from, std::wstring const& to) {
  ReplaceAll(text, from, to);
}

bool ends_with(std::string const& text, std::string const& suffix) {
  return EndsWith(text, suffix);
}

bool ends_with(std::wstring const& text, std::wstring const& suffix) {
  return EndsWith(text, suffix);
}

std::string& trim(std::string& text) {
  std::size_t end = text.size();
  while (end > 0 && IsCSpace(text[end - 1]))
    --end;
  text.erase(end);
  std::size_t begin = 0;
  while (begin < text.size() && IsCSpace(text[begin]))
    ++begin;
  text.erase(0, begin);
  return text;
}
