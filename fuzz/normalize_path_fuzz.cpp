// normalize_path on a buffer that is not NUL-terminated (an exact-size heap
// copy, so a read past `length` is caught), then LocalDisk::GetPath and
// JoinPath, with the invariants of the normal form.
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "fuzz/fuzz_support.h"
#include "localdisk/local_disk.h"
#include "localdisk/path_internal.h"

namespace {

// No "//", no "." or ".." segment, no trailing "/" except the root itself.
void CheckNormalForm(std::string_view out, bool absolute) {
  FUZZ_CHECK(out.find("//") == std::string_view::npos);
  if (absolute) {
    FUZZ_CHECK(!out.empty() && out[0] == '/');
  } else {
    FUZZ_CHECK(out.empty() || out[0] != '/');
  }
  if (out.size() > 1) FUZZ_CHECK(out.back() != '/');
  size_t start = out.empty() || out[0] != '/' ? 0 : 1;
  while (start <= out.size()) {
    size_t slash = out.find('/', start);
    if (slash == std::string_view::npos) slash = out.size();
    std::string_view segment = out.substr(start, slash - start);
    FUZZ_CHECK(segment != "." && segment != "..");
    if (slash == out.size()) break;
    start = slash + 1;
  }
}

std::string Normalize(std::string_view text) {
  std::unique_ptr<char, void (*)(void*)> out(normalize_path(text.data(), text.size()), std::free);
  FUZZ_CHECK(out != nullptr);
  return out.get();
}

LocalDisk* Disk() {
  static LocalDisk* disk = new LocalDisk(nullptr);
  return disk;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) {
    std::unique_ptr<char, void (*)(void*)> out(normalize_path(nullptr, 0), std::free);
    FUZZ_CHECK(out.get()[0] == '\0');
    return 0;
  }
  // The first byte picks a prefix length; the rest is the path.
  const size_t whole = size - 1;
  const size_t length = data[0] == 0xFF ? whole : (whole == 0 ? 0 : data[0] % (whole + 1));
  std::unique_ptr<char[]> exact(new char[whole == 0 ? 1 : whole]);
  std::memcpy(exact.get(), data + 1, whole);
  std::unique_ptr<char, void (*)(void*)> raw(normalize_path(exact.get(), length), std::free);
  FUZZ_CHECK(raw != nullptr);
  const std::string_view input(exact.get(), length);
  const std::string out = raw.get();
  // Segments are judged by their bytes; an embedded NUL cuts the C view of
  // the result, so only NUL-free inputs are held to the textual form.
  if (input.find('\0') == std::string_view::npos) {
    const bool absolute = !input.empty() && input[0] == '/';
    CheckNormalForm(out, absolute);
    FUZZ_CHECK(out.size() <= input.size());
    // Idempotent.
    FUZZ_CHECK(Normalize(out) == out);

    // GetPath: the normal form, with "." appended to the root only.
    const std::string mapped = Disk()->GetPath(std::string(input).c_str());
    if (out == "/")
      FUZZ_CHECK(mapped == "/.");
    else
      FUZZ_CHECK(mapped == out);
  }

  // JoinPath of the two halves around the first NUL.
  auto [directory, name] = fuzz::SplitAtNul(data + 1, whole);
  const std::string joined = Disk()->JoinPath(directory, name);
  FUZZ_CHECK(joined.size() >= name.size() + 1);
  FUZZ_CHECK(joined.compare(joined.size() - name.size(), name.size(), name) == 0);
  if (!directory.empty() && directory.back() == '/')
    FUZZ_CHECK(joined == directory + name);
  else
    FUZZ_CHECK(joined == directory + "/" + name);
  return 0;
}
