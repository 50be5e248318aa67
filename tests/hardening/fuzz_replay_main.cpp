// Runs a fuzz target's entry point over files, outside libFuzzer: every
// argument is a file or a directory of files (a seed corpus, or the saved
// inputs that once crashed the target). Lets the ordinary and sanitizer
// builds check those inputs with the compiler at hand.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

namespace {

int RunFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    std::fprintf(stderr, "cannot read %s\n", path.c_str());
    return 1;
  }
  std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  // A heap copy of exactly the input's size, as libFuzzer hands it over.
  std::vector<uint8_t> exact(bytes.begin(), bytes.end());
  LLVMFuzzerTestOneInput(exact.empty() ? nullptr : exact.data(), exact.size());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (LLVMFuzzerInitialize != nullptr) LLVMFuzzerInitialize(&argc, &argv);
  int files = 0;
  for (int i = 1; i < argc; ++i) {
    const std::filesystem::path path(argv[i]);
    if (std::filesystem::is_directory(path)) {
      std::vector<std::filesystem::path> entries;
      for (const auto& entry : std::filesystem::directory_iterator(path))
        if (entry.is_regular_file()) entries.push_back(entry.path());
      std::sort(entries.begin(), entries.end());
      for (const auto& entry : entries) {
        if (RunFile(entry) != 0) return 1;
        ++files;
      }
    } else if (std::filesystem::exists(path)) {
      if (RunFile(path) != 0) return 1;
      ++files;
    }
  }
  std::printf("%d input(s) ran clean\n", files);
  return 0;
}
