// split_delim, narrow and wide: no empty token, no token holding a
// delimiter, and the tokens in order are the text with its delimiters taken
// out; the transform sees every token.
#include <fuzzer/FuzzedDataProvider.h>

#include <string>
#include <vector>

#include "fuzz/fuzz_support.h"
#include "util/text.h"

namespace {

template <class String>
void Check(const String& text, const String& delimiters, const std::vector<String>& tokens) {
  String joined;
  for (const auto& token : tokens) {
    FUZZ_CHECK(!token.empty());
    FUZZ_CHECK(token.find_first_of(delimiters) == String::npos || delimiters.empty());
    joined += token;
  }
  String kept;
  for (auto c : text)
    if (delimiters.find(c) == String::npos) kept += c;
  FUZZ_CHECK(joined == kept);
  if (delimiters.empty()) FUZZ_CHECK(tokens.size() == (text.empty() ? 0u : 1u));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider provider(data, size);
  const std::string delimiters = provider.ConsumeRandomLengthString(8);
  const std::string text = provider.ConsumeRemainingBytesAsString();

  size_t calls = 0;
  auto tokens = split_delim(text, delimiters, [&calls](std::string& token) {
    ++calls;
    return token;
  });
  FUZZ_CHECK(calls == tokens.size());
  Check(text, delimiters, tokens);

  // The wide form over the same characters.
  std::wstring wide_text(text.begin(), text.end());
  std::wstring wide_delimiters(delimiters.begin(), delimiters.end());
  auto wide = split_delim(wide_text, wide_delimiters, [](std::wstring& token) { return token; });
  Check(wide_text, wide_delimiters, wide);
  FUZZ_CHECK(wide.size() == tokens.size());

  // A transform's result is what is stored.
  auto upper = split_delim(text, delimiters, [](std::string& token) { return token + "!"; });
  FUZZ_CHECK(upper.size() == tokens.size());
  for (size_t i = 0; i < upper.size(); ++i)
    FUZZ_CHECK(upper[i] == tokens[i] + "!");
  return 0;
}
