// IsNameInExpressionA and IsNameInExpression: no crash and no read past the
// terminator, the same answer from the narrow and the wide form for ASCII
// input, and a few laws of the wildcards.
#include <cstring>
#include <memory>
#include <string>

#include "fuzz/fuzz_support.h"
#include "util/wildcard.h"

namespace {

// Exact-size NUL-terminated heap copies, so a read past the end is caught.
std::unique_ptr<char[]> Narrow(const std::string& text) {
  std::unique_ptr<char[]> copy(new char[text.size() + 1]);
  std::memcpy(copy.get(), text.c_str(), text.size() + 1);
  return copy;
}

std::unique_ptr<wchar_t[]> Wide(const std::string& text) {
  std::unique_ptr<wchar_t[]> copy(new wchar_t[text.size() + 1]);
  for (size_t i = 0; i < text.size(); ++i)
    copy[i] = static_cast<wchar_t>(static_cast<unsigned char>(text[i]));
  copy[text.size()] = L'\0';
  return copy;
}

bool HasWildcard(const std::string& text) {
  return text.find_first_of("*?<>\"") != std::string::npos;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const bool ignore_case = (data[0] & 1) != 0;
  auto [expression, name] = fuzz::SplitAtNul(data + 1, size - 1);
  // Each star or DOS star multiplies the work by the name length; the cost is
  // polynomial by design, so keep the degree small enough for the fuzzer.
  size_t stars = 0;
  for (char c : expression)
    stars += (c == '*' || c == '<');
  if (stars > 4 || expression.size() > 256 || name.size() > 256) return 0;

  auto e = Narrow(expression);
  auto n = Narrow(name);
  const bool narrow = IsNameInExpressionA(e.get(), n.get(), ignore_case);

  bool ascii = true;
  for (char c : expression + name)
    ascii = ascii && static_cast<unsigned char>(c) < 0x80;
  auto we = Wide(expression);
  auto wn = Wide(name);
  const bool wide = IsNameInExpression(we.get(), wn.get(), ignore_case);
  if (ascii) FUZZ_CHECK(narrow == wide);

  // Laws: "*" takes everything; a plain expression matches itself; matching
  // with case folding accepts whatever matches without it.
  FUZZ_CHECK(IsNameInExpressionA("*", n.get(), ignore_case));
  if (!HasWildcard(expression)) FUZZ_CHECK(IsNameInExpressionA(e.get(), e.get(), false));
  if (narrow && !ignore_case) FUZZ_CHECK(IsNameInExpressionA(e.get(), n.get(), true));
  return 0;
}
