// The conformance suite in a plug-in's own GoogleTest suite, in one line:
//
//   #include "host/conformance/gtest.h"
//   PLUGHOST_CONFORMANCE_TESTS(MemoryPlugin, "/path/to/libmemory.so", "");
//   PLUGHOST_CONFORMANCE_TESTS(LocalDisk, LIB_PATH, "/tmp/scratch-root");
//   PLUGHOST_CONFORMANCE_TESTS(Mine, LIB_PATH, "", {"token", "abc"}, {"pid", "7"});
//
// Each check becomes one test, <suite>.<check> with the dots of the check's
// name turned into underscores (e.g. MemoryPlugin.upload_one_chunk). The
// checks build on each other (the uploads feed the reads), so the first test
// that runs runs the whole suite once and every test reports its own check's
// result; a skipped check is a skipped test.
// Register the executable with add_test (one process for all of them):
// gtest_discover_tests would start one process, and one whole run, per test.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "host/conformance/conformance.h"

namespace plughost::conformance {

namespace gtest_detail {

// One run of the suite, shared by the tests of one registration.
struct SharedRun {
  Options options;
  std::once_flag once;
  std::vector<Result> results;
};

class CheckTest : public testing::Test {
 public:
  CheckTest(std::shared_ptr<SharedRun> run, size_t index) : run_(std::move(run)), index_(index) {}

  void TestBody() override {
    std::call_once(run_->once,
                   [this] { run_->results = ::plughost::conformance::Run(run_->options); });
    ASSERT_LT(index_, run_->results.size());
    const Result& result = run_->results[index_];
    if (result.status == Result::kSkip) GTEST_SKIP() << result.detail;
    EXPECT_NE(result.status, Result::kFail) << result.name << ": " << result.detail;
  }

 private:
  std::shared_ptr<SharedRun> run_;
  size_t index_;
};

}  // namespace gtest_detail

// Registers one test per check under `suite`; returns true (for a static
// initialiser). Call before RUN_ALL_TESTS.
inline bool RegisterGoogleTests(const std::string& suite, Options options) {
  auto run = std::make_shared<gtest_detail::SharedRun>();
  run->options = std::move(options);
  const std::vector<std::string> names = CheckNames();
  for (size_t index = 0; index < names.size(); ++index) {
    std::string test = names[index];
    for (char& c : test) {
      if (c == '.' || c == '-') c = '_';
    }
    testing::RegisterTest(
        suite.c_str(), test.c_str(), nullptr, names[index].c_str(), __FILE__, __LINE__,
        [run, index]() -> testing::Test* { return new gtest_detail::CheckTest(run, index); });
  }
  return true;
}

}  // namespace plughost::conformance

// One line in a test file: PLUGHOST_CONFORMANCE_TESTS(Suite, plugin, root,
// {"key", "value"}...). The options after the root are handed to SetOpt.
#define PLUGHOST_CONFORMANCE_TESTS(suite, plugin_path, root_dir, ...) \
  static const bool plughost_conformance_registered_##suite =         \
      ::plughost::conformance::RegisterGoogleTests(#suite, [] {       \
        ::plughost::conformance::Options options;                     \
        options.plugin = plugin_path;                                 \
        options.root = root_dir;                                      \
        options.opts = {__VA_ARGS__};                                 \
        return options;                                               \
      }())
