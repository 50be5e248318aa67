// Both tokenize forms, narrow and wide. The character form keeps inner empty
// tokens and drops one trailing empty token; the string form keeps it and
// turns an empty text into one empty token. Either way joining the tokens
// with the delimiter gives the text back.
#include <fuzzer/FuzzedDataProvider.h>

#include <string>
#include <vector>

#include "fuzz/fuzz_support.h"
#include "util/text.h"

namespace {

template <class String>
String Join(const std::vector<String>& tokens, const String& delimiter) {
  String out;
  for (size_t i = 0; i < tokens.size(); ++i) {
    if (i != 0) out += delimiter;
    out += tokens[i];
  }
  return out;
}

template <class String>
void CheckCharForm(const String& text, typename String::value_type delimiter,
                   const std::vector<String>& tokens) {
  const String d(1, delimiter);
  if (text.empty()) {
    FUZZ_CHECK(tokens.empty());
    return;
  }
  for (const auto& token : tokens)
    FUZZ_CHECK(token.find(delimiter) == String::npos);
  if (text.back() == delimiter)
    FUZZ_CHECK(Join(tokens, d) + d == text);
  else
    FUZZ_CHECK(Join(tokens, d) == text);
}

template <class String>
void CheckStringForm(const String& text, const String& delimiter,
                     const std::vector<String>& tokens) {
  FUZZ_CHECK(!tokens.empty());
  FUZZ_CHECK(Join(tokens, delimiter) == text);
  for (const auto& token : tokens)
    FUZZ_CHECK(token.find(delimiter) == String::npos);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider provider(data, size);
  const char delimiter = provider.ConsumeIntegral<char>();
  // An empty delimiter string makes the string form stand still; callers
  // never pass one.
  std::string delimiter_text = provider.ConsumeRandomLengthString(4);
  if (delimiter_text.empty()) delimiter_text = ";";
  const std::string text = provider.ConsumeRemainingBytesAsString();
  auto identity = [](std::string& token) { return token; };
  auto wide_identity = [](std::wstring& token) { return token; };

  CheckCharForm(text, delimiter, tokenize(text, delimiter, identity));
  CheckStringForm(text, delimiter_text, tokenize(text, delimiter_text, identity));

  const std::wstring wide_text(text.begin(), text.end());
  const wchar_t wide_delimiter = static_cast<wchar_t>(static_cast<unsigned char>(delimiter));
  const std::wstring wide_delimiter_text(delimiter_text.begin(), delimiter_text.end());
  std::wstring wide_text_unsigned;
  for (char c : text)
    wide_text_unsigned += static_cast<wchar_t>(static_cast<unsigned char>(c));
  CheckCharForm(wide_text_unsigned, wide_delimiter,
                tokenize(wide_text_unsigned, wide_delimiter, wide_identity));
  CheckStringForm(wide_text, wide_delimiter_text,
                  tokenize(wide_text, wide_delimiter_text, wide_identity));
  return 0;
}
