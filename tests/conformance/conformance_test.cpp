// The conformance suite against the two plug-ins of the project, and against
// broken variants of the memory plug-in that each must fail a given check.
#include "host/conformance/conformance.h"

#include <stdlib.h>
#include <time.h>

#include <gtest/gtest.h>
#include <json/json.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/files.h"

namespace {

using plughost::conformance::Options;
using plughost::conformance::Result;

struct Counts {
  int passed = 0;
  int failed = 0;
  int skipped = 0;
};

Counts Count(const std::vector<Result>& results) {
  Counts counts;
  for (const Result& result : results) {
    if (result.status == Result::kPass) ++counts.passed;
    if (result.status == Result::kFail) ++counts.failed;
    if (result.status == Result::kSkip) ++counts.skipped;
  }
  return counts;
}

std::string Failures(const std::vector<Result>& results) {
  std::string out;
  for (const Result& result : results) {
    if (result.status == Result::kFail) out += result.name + ": " + result.detail + "\n";
  }
  return out;
}

const Result* Find(const std::vector<Result>& results, const std::string& name) {
  for (const Result& result : results) {
    if (result.name == name) return &result;
  }
  return nullptr;
}

std::vector<std::string> Entries(const std::string& directory) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(directory))
    names.push_back(entry.path().filename().string());
  std::sort(names.begin(), names.end());
  return names;
}

TEST(Conformance, HasAtLeastFortyChecksWithUniqueNames) {
  std::vector<std::string> names = plughost::conformance::CheckNames();
  EXPECT_GE(names.size(), 40u);
  std::sort(names.begin(), names.end());
  EXPECT_EQ(std::adjacent_find(names.begin(), names.end()), names.end());
}

TEST(Conformance, MemoryPluginPasses) {
  Options options;
  options.plugin = MEMORY_PLUGIN;
  std::vector<Result> results = plughost::conformance::Run(options);
  Counts counts = Count(results);
  EXPECT_EQ(counts.failed, 0) << Failures(results);
  EXPECT_GE(counts.passed, 40);
  EXPECT_EQ(results.size(), plughost::conformance::CheckNames().size());
}

TEST(Conformance, LocalDiskPassesAndTouchesNothingElse) {
  test_support::TempDir root("conformance");
  test_support::WriteFile(root / "keep.txt", "kept");
  std::filesystem::create_directory(root / "keep-dir");
  Options options;
  options.plugin = LOCALDISK_PLUGIN;
  options.root = root.path();
  std::vector<Result> results = plughost::conformance::Run(options);
  Counts counts = Count(results);
  EXPECT_EQ(counts.failed, 0) << Failures(results);
  EXPECT_GE(counts.passed, 40);
  // The scratch directory is gone; what was there before is as it was.
  EXPECT_EQ(Entries(root.path()), (std::vector<std::string>{"keep-dir", "keep.txt"}));
  EXPECT_EQ(test_support::ReadFile(root / "keep.txt"), "kept");
}

TEST(Conformance, LocalDiskThroughRootPathOption) {
  test_support::TempDir root("conformance");
  Options options;
  options.plugin = LOCALDISK_PLUGIN;
  options.opts = {{"root_path", root.path()}};
  options.dir = "named-scratch";
  std::vector<Result> results = plughost::conformance::Run(options);
  EXPECT_EQ(Count(results).failed, 0) << Failures(results);
  EXPECT_TRUE(Entries(root.path()).empty());
}

// Sets TZ for the scope of a test and restores it.
class ZoneScope {
 public:
  explicit ZoneScope(const char* zone) {
    const char* old = std::getenv("TZ");
    had_ = old != nullptr;
    if (had_) old_ = old;
    setenv("TZ", zone, 1);
    tzset();
  }
  ~ZoneScope() {
    if (had_) {
      setenv("TZ", old_.c_str(), 1);
    } else {
      unsetenv("TZ");
    }
    tzset();
  }
  ZoneScope(const ZoneScope&) = delete;
  ZoneScope& operator=(const ZoneScope&) = delete;

 private:
  bool had_ = false;
  std::string old_;
};

// File times travel as local standard-time fields; the time round trip must
// hold in zones with summer time, northern and southern.
TEST(Conformance, BothPluginsPassInSummerTimeZones) {
  for (const char* zone : {"Europe/Berlin", "Australia/Sydney", "America/St_Johns"}) {
    ZoneScope scope(zone);
    test_support::TempDir root("conformance");
    for (const char* plugin : {MEMORY_PLUGIN, LOCALDISK_PLUGIN}) {
      Options options;
      options.plugin = plugin;
      options.root = root.path();
      std::vector<Result> results = plughost::conformance::Run(options);
      EXPECT_EQ(Count(results).failed, 0) << zone << " " << plugin << "\n" << Failures(results);
    }
  }
}

TEST(Conformance, ExistingScratchDirectoryIsRefusedAndKept) {
  test_support::TempDir root("conformance");
  std::filesystem::create_directory(root / "taken");
  test_support::WriteFile(root / "taken/file", "mine");
  Options options;
  options.plugin = LOCALDISK_PLUGIN;
  options.root = root.path();
  options.dir = "taken";
  std::vector<Result> results = plughost::conformance::Run(options);
  const Result* scratch = Find(results, "mkdir.scratch");
  ASSERT_NE(scratch, nullptr);
  EXPECT_EQ(scratch->status, Result::kFail);
  EXPECT_NE(scratch->detail.find("already exists"), std::string::npos) << scratch->detail;
  EXPECT_EQ(Find(results, "upload.one_chunk")->status, Result::kSkip);
  EXPECT_EQ(test_support::ReadFile(root / "taken/file"), "mine");
  EXPECT_EQ(Entries(root / "taken"), std::vector<std::string>{"file"});
}

TEST(Conformance, MissingPluginFailsToLoadAndSkipsTheRest) {
  Options options;
  options.plugin = "/nonexistent/libnothing.so";
  std::vector<Result> results = plughost::conformance::Run(options);
  ASSERT_FALSE(results.empty());
  EXPECT_EQ(results.front().name, "load.entry_points");
  EXPECT_EQ(results.front().status, Result::kFail);
  Counts counts = Count(results);
  EXPECT_EQ(counts.failed, 1);
  EXPECT_EQ(counts.skipped, static_cast<int>(results.size()) - 1);
  std::ostringstream out;
  EXPECT_EQ(plughost::conformance::RunAndReport(options, out), 1);
}

TEST(Conformance, ReportEndsWithTheCounts) {
  Options options;
  options.plugin = MEMORY_PLUGIN;
  std::ostringstream out;
  EXPECT_EQ(plughost::conformance::RunAndReport(options, out), 0);
  std::vector<std::string> lines;
  std::istringstream in(out.str());
  for (std::string line; std::getline(in, line);)
    lines.push_back(line);
  const size_t checks = plughost::conformance::CheckNames().size();
  ASSERT_EQ(lines.size(), checks + 1) << out.str();
  EXPECT_EQ(lines.front(), "ok   load.entry_points");
  EXPECT_EQ(lines.back(), std::to_string(checks) + " passed, 0 failed, 0 skipped");
}

TEST(Conformance, JsonReport) {
  Options options;
  options.plugin = MEMORY_PLUGIN;
  options.json = true;
  std::ostringstream out;
  EXPECT_EQ(plughost::conformance::RunAndReport(options, out), 0);
  Json::Value document;
  std::istringstream in(out.str());
  Json::CharReaderBuilder builder;
  std::string errors;
  ASSERT_TRUE(Json::parseFromStream(builder, in, &document, &errors)) << errors;
  const Json::Value& checks = document["checks"];
  ASSERT_TRUE(checks.isArray());
  EXPECT_EQ(checks.size(), plughost::conformance::CheckNames().size());
  EXPECT_EQ(checks[0]["name"].asString(), "load.entry_points");
  EXPECT_EQ(checks[0]["status"].asString(), "ok");
  EXPECT_EQ(document["failed"].asInt(), 0);
  EXPECT_EQ(document["passed"].asInt(), static_cast<int>(checks.size()));
}

// A broken plug-in and the check that must catch it.
struct Fault {
  const char* plugin;
  const char* check;
};

class BrokenPlugin : public testing::TestWithParam<Fault> {};

TEST_P(BrokenPlugin, FailsItsCheck) {
  Options options;
  options.plugin = GetParam().plugin;
  std::vector<Result> results = plughost::conformance::Run(options);
  const Result* result = Find(results, GetParam().check);
  ASSERT_NE(result, nullptr) << GetParam().check;
  EXPECT_EQ(result->status, Result::kFail) << GetParam().check << ": " << result->detail;
  std::ostringstream out;
  EXPECT_EQ(plughost::conformance::RunAndReport(options, out), 1);
  // Nothing else fails because of a wrong setup: the fault is what is caught.
  EXPECT_FALSE(Find(results, "mkdir.scratch")->status == Result::kFail) << Failures(results);
}

INSTANTIATE_TEST_SUITE_P(
    Conformance, BrokenPlugin,
    testing::Values(Fault{BROKEN_DROP_ENTRY, "list.entries_once"},
                    Fault{BROKEN_CORRUPT_READ, "upload.one_chunk"},
                    Fault{BROKEN_MOVE_NOOP, "move.into_directory"},
                    Fault{BROKEN_ROOTID_OVERFLOW, "rootid.buffer_rules"},
                    Fault{BROKEN_PROGRESS_SHORT, "progress.upload_reaches_total"},
                    Fault{BROKEN_IGNORE_CANCEL, "cancel.read_before_start"},
                    Fault{BROKEN_FAILED_UPLOAD_LEAVES_FILE,
                          "upload.source_fails_later_leaves_no_file"},
                    Fault{BROKEN_INFO_TOUCHES_RECORD, "info.missing_leaves_record"},
                    Fault{BROKEN_SETTIME_IGNORED, "settime.modify_round_trip"},
                    Fault{BROKEN_DELETE_PARTIAL, "delete.non_empty_directory"}),
    [](const testing::TestParamInfo<Fault>& info) {
      std::string name = info.param.check;
      std::replace(name.begin(), name.end(), '.', '_');
      return name;
    });

}  // namespace
