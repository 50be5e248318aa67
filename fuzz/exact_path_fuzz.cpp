// ToExactPath: the canonical form (empty, or "/" plus pieces with no empty,
// "." or ".." piece, no backslash, no trailing "/"), idempotent.
#include <string>
#include <string_view>

#include "fuzz/fuzz_support.h"
#include "util/paths.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text = fuzz::CText(data, size);
  const std::string exact = ToExactPath(text.c_str());
  FUZZ_CHECK(exact.find('\\') == std::string::npos);
  if (!exact.empty()) {
    FUZZ_CHECK(exact[0] == '/');
    FUZZ_CHECK(exact.back() != '/');
    FUZZ_CHECK(exact.find("//") == std::string::npos);
    std::string_view rest(exact);
    rest.remove_prefix(1);
    while (true) {
      const size_t slash = rest.find('/');
      const std::string_view piece = rest.substr(0, slash);
      FUZZ_CHECK(!piece.empty() && piece != "." && piece != "..");
      if (slash == std::string_view::npos) break;
      rest.remove_prefix(slash + 1);
    }
  }
  FUZZ_CHECK(exact.size() <= text.size() + 1);
  FUZZ_CHECK(ToExactPath(exact.c_str()) == exact);
  return 0;
}
