// GetPrivateProfileString and GetPrivateProfileInt over a file written from
// the input: no crash, no write past the caller's buffer, and the two
// functions agreeing on the value found.
#include <fuzzer/FuzzedDataProvider.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "fuzz/fuzz_support.h"
#include "util/profile.h"

namespace {

const std::string& Directory() {
  // Never destroyed: the exit handler below still needs it.
  static const std::string* directory = [] {
    char pattern[] = "/tmp/localdisk-fuzz-profile-XXXXXX";
    if (mkdtemp(pattern) == nullptr) std::abort();
    auto* made = new std::string(pattern);
    std::atexit([] {
      std::remove((Directory() + "/profile.ini").c_str());
      rmdir(Directory().c_str());
    });
    return made;
  }();
  return *directory;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider provider(data, size);
  const std::string section = provider.ConsumeRandomLengthString(64);
  const std::string key = provider.ConsumeRandomLengthString(64);
  std::string fallback = provider.ConsumeRandomLengthString(64);
  // The default is copied as a C string; keep it free of NUL so that its
  // length and the copied text agree.
  for (char& c : fallback)
    if (c == '\0') c = ' ';
  const int capacity = provider.ConsumeIntegralInRange<int>(0, 4200);
  const unsigned int int_fallback = provider.ConsumeIntegral<unsigned int>();
  const std::string content = provider.ConsumeRemainingBytesAsString();

  const std::string file = Directory() + "/profile.ini";
  FILE* out = std::fopen(file.c_str(), "wb");
  if (out == nullptr) std::abort();
  std::fwrite(content.data(), 1, content.size(), out);
  std::fclose(out);

  // An exact-size buffer: a copy longer than `capacity` is caught.
  std::unique_ptr<char[]> buffer(new char[capacity == 0 ? 1 : capacity]);
  std::memset(buffer.get(), 0x7F, capacity == 0 ? 1 : capacity);
  const int copied = GetPrivateProfileString(section, key, fallback, buffer.get(), capacity, file);
  FUZZ_CHECK(copied >= 0);
  if (capacity == 0) {
    FUZZ_CHECK(copied == 0);
  } else {
    FUZZ_CHECK(copied < capacity);
    if (copied > 0) FUZZ_CHECK(std::strlen(buffer.get()) == static_cast<size_t>(copied));
  }

  const unsigned int number = GetPrivateProfileInt(section, key, int_fallback, file);
  // A value found and copied (and not the default) reads as its atoi.
  if (capacity > 0 && copied > 0) {
    const std::string value(buffer.get(), static_cast<size_t>(copied));
    if (value != fallback)
      FUZZ_CHECK(number == static_cast<unsigned int>(std::atoi(value.c_str())));
  }

  // The file missing: the defaults.
  const std::string missing = Directory() + "/missing.ini";
  std::unique_ptr<char[]> other(new char[capacity == 0 ? 1 : capacity]);
  const int fallback_copied =
      GetPrivateProfileString(section, key, fallback, other.get(), capacity, missing);
  if (capacity > 0 && fallback.size() < static_cast<size_t>(capacity)) {
    FUZZ_CHECK(fallback_copied == static_cast<int>(fallback.size()));
    FUZZ_CHECK(std::string(other.get()) == fallback);
  } else {
    FUZZ_CHECK(fallback_copied == 0);
  }
  FUZZ_CHECK(GetPrivateProfileInt(section, key, int_fallback, missing) == int_fallback);
  return 0;
}
