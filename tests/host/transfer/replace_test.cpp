// ReplaceFile over the real localdisk plug-in: the final name only ever
// holds the complete old or the complete new content, whatever stops the
// transfer (a cancel at several moments, a source failing at several chunks,
// a full file system, a concurrent writer), and nothing temporary remains.
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <thread>

#include "tests/host/transfer/transfer_test_support.h"

namespace {

using namespace transfer_test;
using plughost::ReplaceFile;
using plughost::ReplaceRequest;
using plughost::ReplaceResult;
using plughost::TransferStatus;
using ::testing::HasSubstr;

class Replace : public LocalDiskTest {
 protected:
  ReplaceResult Put(const std::string& name, ICacheIO* source, long long size,
                    std::shared_ptr<_FS_HANDLE> handle = nullptr, const std::string& root = {}) {
    ReplaceRequest request;
    request.parent = root_id_;
    request.name = name;
    request.source = source;
    request.size = size;
    request.handle = std::move(handle);
    request.local_root = root;
    return ReplaceFile(*client_, request);
  }
  ReplaceResult Put(const std::string& name, const std::string& content) {
    Source source(content);
    return Put(name, &source, static_cast<long long>(content.size()));
  }
};

TEST_F(Replace, CreatesANewFileAndReturnsTheMovedRecord) {
  const std::string content = Pattern(2 * kChunk + 5);
  ReplaceResult result = Put("new.bin", content);
  ASSERT_TRUE(result.ok()) << result.Describe();
  EXPECT_FALSE(result.existed);
  EXPECT_EQ(result.file.id, root_id_ + "/new.bin");
  EXPECT_EQ(result.file.name, "new.bin");
  EXPECT_EQ(result.file.size, 2 * kChunk + 5);
  EXPECT_EQ(result.file.type, 1);
  EXPECT_EQ(result.Describe(), "created");
  EXPECT_TRUE(ReadFile(Local("new.bin")) == content);
  EXPECT_THAT(Names(root_), ::testing::ElementsAre("new.bin"));
}

TEST_F(Replace, ReplacesAnExistingFileWhole) {
  WriteFile(Local("a.txt"), Pattern(3 * kChunk, 1));
  const std::string content = Pattern(100, 2);
  ReplaceResult result = Put("a.txt", content);
  ASSERT_TRUE(result.ok()) << result.Describe();
  EXPECT_TRUE(result.existed);
  EXPECT_EQ(result.Describe(), "replaced");
  EXPECT_TRUE(ReadFile(Local("a.txt")) == content);
  EXPECT_THAT(Names(root_), ::testing::ElementsAre("a.txt"));
}

mode_t Mode(const std::string& path) {
  struct stat st {};
  stat(path.c_str(), &st);
  return st.st_mode & 07777;
}

// With the local root known, a replaced file keeps its permission bits, a
// private one stays private, a read-only one is replaced and stays read-only.
TEST_F(Replace, AReplacedFileKeepsItsMode) {
  for (mode_t mode : {0600, 0640, 0444, 0755}) {
    WriteFile(Local("a.txt"), "old");
    chmod(Local("a.txt").c_str(), mode);
    Source source("new");
    ReplaceResult result = Put("a.txt", &source, 3, nullptr, root_);
    ASSERT_TRUE(result.ok()) << result.Describe();
    EXPECT_EQ(ReadFile(Local("a.txt")), "new");
    EXPECT_EQ(Mode(Local("a.txt")), mode) << std::oct << mode;
    chmod(Local("a.txt").c_str(), 0644);
  }
  EXPECT_THAT(Names(root_), ::testing::ElementsAre("a.txt"));
}

TEST_F(Replace, APreparedTemporaryIsRemovedOnFailure) {
  WriteFile(Local("a.txt"), "old");
  chmod(Local("a.txt").c_str(), 0600);
  Source source(Pattern(kChunk + 1), nullptr, Source::kFailAt, kChunk);
  ReplaceResult result = Put("a.txt", &source, kChunk + 1, nullptr, root_);
  EXPECT_EQ(result.status, TransferStatus::kFailed);
  EXPECT_EQ(ReadFile(Local("a.txt")), "old");
  EXPECT_EQ(Mode(Local("a.txt")), 0600u);
  EXPECT_THAT(Names(root_), ::testing::ElementsAre("a.txt"));
}

// As rsync does: the link at the name is replaced, the file it led to kept.
TEST_F(Replace, ASymbolicLinkAtTheNameIsReplacedAndItsTargetKept) {
  WriteFile(Local("target.txt"), "target");
  ASSERT_EQ(symlink("target.txt", Local("link.txt").c_str()), 0);
  ASSERT_TRUE(Put("link.txt", "new").ok());
  struct stat st {};
  ASSERT_EQ(lstat(Local("link.txt").c_str(), &st), 0);
  EXPECT_TRUE(S_ISREG(st.st_mode));
  EXPECT_EQ(ReadFile(Local("link.txt")), "new");
  EXPECT_EQ(ReadFile(Local("target.txt")), "target");
}

TEST_F(Replace, SyncedWhereTheStorageIsLocal) {
  WriteFile(Local("a.txt"), "old");
  Source source(Pattern(kChunk + 7));
  ReplaceRequest request;
  request.parent = root_id_;
  request.name = "a.txt";
  request.source = &source;
  request.size = kChunk + 7;
  request.local_root = root_;
  request.sync = true;
  ReplaceResult result = ReplaceFile(*client_, request);
  ASSERT_TRUE(result.ok()) << result.Describe();
  EXPECT_TRUE(ReadFile(Local("a.txt")) == Pattern(kChunk + 7));
  EXPECT_EQ(result.warning, "");
  EXPECT_THAT(Names(root_), ::testing::ElementsAre("a.txt"));
}

TEST_F(Replace, EmptyContent) {
  WriteFile(Local("a.txt"), "old");
  ASSERT_TRUE(Put("a.txt", "").ok());
  EXPECT_EQ(ReadFile(Local("a.txt")), "");
  EXPECT_TRUE(Temporaries().empty());
}

// The names the root directory saw created or moved in while `action` ran.
template <typename Action>
std::vector<std::string> NamesMadeDuring(const std::string& directory, Action action) {
  int watch = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  EXPECT_GE(watch, 0);
  EXPECT_GE(inotify_add_watch(watch, directory.c_str(), IN_CREATE | IN_MOVED_TO), 0);
  action();
  std::vector<std::string> names;
  alignas(inotify_event) char buffer[8192];
  for (;;) {
    ssize_t n = read(watch, buffer, sizeof buffer);
    if (n <= 0) break;
    for (ssize_t at = 0; at < n;) {
      const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
      names.emplace_back(event->len > 0 ? event->name : "");
      at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
    }
  }
  close(watch);
  return names;
}

// An empty file has no partial state to hide: a new one is made under its
// own name, with no temporary name and no move.
TEST_F(Replace, ANewEmptyFileIsMadeInPlace) {
  ReplaceResult result;
  std::vector<std::string> made = NamesMadeDuring(root_, [&] { result = Put("empty", ""); });
  ASSERT_TRUE(result.ok()) << result.Describe();
  EXPECT_FALSE(result.existed);
  EXPECT_EQ(result.file.id, root_id_ + "/empty");
  EXPECT_EQ(result.file.size, 0);
  EXPECT_EQ(result.Describe(), "created");
  EXPECT_THAT(made, ::testing::ElementsAre("empty"));
  EXPECT_EQ(ReadFile(Local("empty")), "");
}

// Over an existing file the empty content still goes through a temporary
// name: the old file's mode and owner carry over as for any other content.
TEST_F(Replace, AnEmptyReplacementGoesThroughATemporaryName) {
  WriteFile(Local("a.txt"), "old");
  chmod(Local("a.txt").c_str(), 0640);
  ReplaceResult result;
  Source source("");
  std::vector<std::string> made =
      NamesMadeDuring(root_, [&] { result = Put("a.txt", &source, 0, nullptr, root_); });
  ASSERT_TRUE(result.ok()) << result.Describe();
  EXPECT_TRUE(result.existed);
  ASSERT_EQ(made.size(), 2u);
  EXPECT_THAT(made[0], ::testing::MatchesRegex("\\.a\\.txt\\.plughost-.{6}\\.partial"));
  EXPECT_EQ(made[1], "a.txt");
  struct stat st {};
  ASSERT_EQ(stat(Local("a.txt").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0640u);
}

TEST_F(Replace, ANewEmptyFileInAMissingDirectoryFailsAndMakesNothing) {
  ReplaceResult result = PutInto(root_id_ + "/missing", "x", "");
  EXPECT_EQ(result.status, TransferStatus::kFailed);
  EXPECT_EQ(result.code, FILE_NOT_FOUND);
  EXPECT_EQ(result.step, "upload");
  EXPECT_THAT(result.Describe(), HasSubstr("AERROR::FILE_NOT_FOUND"));
  EXPECT_TRUE(Names(root_).empty());
}

TEST_F(Replace, ANewEmptyFileCancelledBeforeTheStartMakesNothing) {
  auto handle = std::make_shared<_FS_HANDLE>();
  handle->state.store(FS_HANDLE_STOP);
  Source source("");
  ReplaceResult result = Put("x", &source, 0, handle);
  EXPECT_EQ(result.status, TransferStatus::kCancelled);
  EXPECT_TRUE(Names(root_).empty());
}

TEST_F(Replace, IntoASubdirectory) {
  mkdir(Local("docs").c_str(), 0755);
  ReplaceResult result = PutInto(root_id_ + "/docs", "x.txt", "sub");
  ASSERT_TRUE(result.ok()) << result.Describe();
  EXPECT_EQ(result.file.id, root_id_ + "/docs/x.txt");
  EXPECT_EQ(ReadFile(Local("docs/x.txt")), "sub");
}

TEST_F(Replace, CancelledBeforeTheStartChangesNothing) {
  WriteFile(Local("a.txt"), "old content");
  auto handle = std::make_shared<_FS_HANDLE>();
  handle->state.store(FS_HANDLE_STOP);
  Source source(Pattern(kChunk));
  ReplaceResult result = Put("a.txt", &source, kChunk, handle);
  EXPECT_EQ(result.status, TransferStatus::kCancelled);
  EXPECT_EQ(result.code, UPLOAD_CANCELED);
  EXPECT_TRUE(result.kept_existing);
  EXPECT_EQ(result.Describe(), "cancelled; the existing file was kept");
  EXPECT_EQ(source.requests, 0);
  EXPECT_EQ(ReadFile(Local("a.txt")), "old content");
  EXPECT_THAT(Names(root_), ::testing::ElementsAre("a.txt"));
}

class ReplaceCancelledAtChunk : public Replace, public ::testing::WithParamInterface<int> {};

TEST_P(ReplaceCancelledAtChunk, KeepsTheOldFileAndLeavesNoTemporary) {
  const std::string old = Pattern(2 * kChunk + 3, 9);
  WriteFile(Local("a.bin"), old);
  const long long size = 4 * kChunk + 11;
  auto handle = std::make_shared<_FS_HANDLE>();
  Source source(Pattern(static_cast<size_t>(size)), handle, Source::kCancelAt, GetParam() * kChunk);
  ReplaceResult result = Put("a.bin", &source, size, handle);
  EXPECT_EQ(result.status, TransferStatus::kCancelled);
  EXPECT_TRUE(result.kept_existing);
  EXPECT_TRUE(result.leftover.empty());
  EXPECT_TRUE(ReadFile(Local("a.bin")) == old);
  EXPECT_THAT(Names(root_), ::testing::ElementsAre("a.bin"));
}

// Chunk 4 is the last one: the upload completes, the stop comes before the move.
INSTANTIATE_TEST_SUITE_P(Chunks, ReplaceCancelledAtChunk, ::testing::Values(0, 1, 2, 4));

TEST_F(Replace, CancelledNewFileLeavesNothing) {
  auto handle = std::make_shared<_FS_HANDLE>();
  Source source(Pattern(3 * kChunk), handle, Source::kCancelAt, kChunk);
  ReplaceResult result = Put("new.bin", &source, 3 * kChunk, handle);
  EXPECT_EQ(result.status, TransferStatus::kCancelled);
  EXPECT_FALSE(result.existed);
  EXPECT_EQ(result.Describe(), "cancelled");
  EXPECT_TRUE(Names(root_).empty());
}

class ReplaceSourceFailsAtChunk : public Replace, public ::testing::WithParamInterface<int> {};

TEST_P(ReplaceSourceFailsAtChunk, KeepsTheOldFileAndSaysSo) {
  WriteFile(Local("a.bin"), "the old file");
  const long long size = 3 * kChunk + 1;
  Source source(Pattern(static_cast<size_t>(size)), nullptr, Source::kFailAt, GetParam() * kChunk);
  ReplaceResult result = Put("a.bin", &source, size);
  EXPECT_EQ(result.status, TransferStatus::kFailed);
  EXPECT_EQ(result.step, "upload");
  EXPECT_TRUE(result.source_failed);
  EXPECT_TRUE(result.kept_existing);
  EXPECT_EQ(result.Describe(), "failed: reading the source failed; the existing file was kept");
  EXPECT_EQ(ReadFile(Local("a.bin")), "the old file");
  EXPECT_THAT(Names(root_), ::testing::ElementsAre("a.bin"));
}

INSTANTIATE_TEST_SUITE_P(Chunks, ReplaceSourceFailsAtChunk, ::testing::Values(0, 1, 3));

TEST_F(Replace, ADirectoryOfThatNameIsRefused) {
  mkdir(Local("d").c_str(), 0755);
  Source source("x");
  ReplaceResult result = Put("d", &source, 1);
  EXPECT_EQ(result.status, TransferStatus::kFailed);
  EXPECT_TRUE(result.is_directory);
  EXPECT_EQ(source.requests, 0);
  EXPECT_THAT(result.Describe(), HasSubstr("is a directory"));
  EXPECT_THAT(Names(root_), ::testing::ElementsAre("d"));
}

TEST_F(Replace, MissingDirectoryFails) {
  ReplaceResult result = PutInto(root_id_ + "/missing", "x", "x");
  EXPECT_EQ(result.status, TransferStatus::kFailed);
  EXPECT_EQ(result.code, FILE_NOT_FOUND);
  EXPECT_FALSE(result.kept_existing);
  EXPECT_THAT(result.Describe(), HasSubstr("AERROR::FILE_NOT_FOUND"));
}

TEST_F(Replace, ProgressIsReportedThroughTheHandle) {
  auto handle = std::make_shared<_FS_HANDLE>();
  static std::vector<long long> seen;
  seen.clear();
  handle->progress = [](long long, long long done, std::uint64_t, double) { seen.push_back(done); };
  Source source(Pattern(kChunk + 1));
  ASSERT_TRUE(Put("p.bin", &source, kChunk + 1, handle).ok());
  EXPECT_THAT(seen, ::testing::ElementsAre(kChunk, kChunk + 1));
}

// --- a full file system --------------------------------------------------------------

TEST(TmpfsProbe, MountsWhenRootAndExplainsOtherwise) {
  TempDir dir;
  Tmpfs tmpfs(dir.path(), 1 << 20);
  if (geteuid() != 0) {
    EXPECT_FALSE(tmpfs.mounted());
    EXPECT_THAT(tmpfs.reason(), HasSubstr("needs root"));
    return;
  }
  if (!tmpfs.mounted()) GTEST_SKIP() << "no tmpfs here: " << tmpfs.reason();
  struct statvfs vfs {};
  ASSERT_EQ(statvfs(tmpfs.path().c_str(), &vfs), 0);
  EXPECT_EQ(vfs.f_blocks * vfs.f_frsize, 1u << 20);
  // The probe as an unprivileged user: not mounted, and it says why.
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    if (setgid(65534) != 0 || setuid(65534) != 0) _exit(3);
    TempDir other;
    Tmpfs refused(other.path(), 1 << 20);
    _exit(!refused.mounted() && refused.reason().find("needs root") != std::string::npos ? 0 : 1);
  }
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

class ReplaceOnFullFs : public Replace {
 protected:
  void SetUp() override {
    tmpfs_ = std::make_unique<Tmpfs>(dir_.path(), 8 * kChunk);
    if (!tmpfs_->mounted()) GTEST_SKIP() << "no tmpfs for this test: " << tmpfs_->reason();
    Open(tmpfs_->path() + "/root");
  }
  void TearDown() override {
    Replace::TearDown();
    tmpfs_.reset();
  }
  std::unique_ptr<Tmpfs> tmpfs_;
};

TEST_F(ReplaceOnFullFs, KeepsTheOldFileAndSaysSpaceRanOut) {
  const std::string old = Pattern(2 * kChunk, 3);
  WriteFile(Local("big.bin"), old);
  const long long size = 7 * kChunk;  // fits only if the old file went first
  Source source(Pattern(static_cast<size_t>(size), 4));
  ReplaceResult result = Put("big.bin", &source, size, nullptr, root_);
  EXPECT_EQ(result.status, TransferStatus::kFailed);
  EXPECT_TRUE(result.out_of_space);
  EXPECT_TRUE(result.kept_existing);
  EXPECT_EQ(result.Describe(),
            "failed for lack of space on the storage; the existing file was kept");
  EXPECT_TRUE(ReadFile(Local("big.bin")) == old);
  EXPECT_THAT(Names(root_), ::testing::ElementsAre("big.bin"));
}

TEST_F(ReplaceOnFullFs, SmallFileFailingOnlyAtTheFinalFlush) {
  WriteFile(Local("small.txt"), "old");
  FillUp(Local("filler"));
  const std::string content = Pattern(100);
  Source source(content);
  ReplaceResult result = Put("small.txt", &source, 100, nullptr, root_);
  EXPECT_EQ(result.status, TransferStatus::kFailed);
  EXPECT_TRUE(result.out_of_space);
  EXPECT_EQ(ReadFile(Local("small.txt")), "old");
  EXPECT_TRUE(Temporaries().empty());
}

TEST_F(ReplaceOnFullFs, WithoutTheLocalRootItSaysWhatWasKept) {
  WriteFile(Local("big.bin"), "old");
  Source source(Pattern(9 * kChunk));
  ReplaceResult result = Put("big.bin", &source, 9 * kChunk);
  EXPECT_EQ(result.status, TransferStatus::kFailed);
  EXPECT_FALSE(result.out_of_space);
  EXPECT_EQ(result.Describe(),
            "failed: operation failed (AERROR::FAILED); the existing file was kept");
  EXPECT_EQ(ReadFile(Local("big.bin")), "old");
  EXPECT_TRUE(Temporaries().empty());
}

TEST_F(ReplaceOnFullFs, AFailureWithRoomLeftIsNotPutDownToSpace) {
  WriteFile(Local("a.bin"), "old");
  Source source(Pattern(kChunk), nullptr, Source::kFailAt, 0);
  ReplaceResult result = Put("a.bin", &source, kChunk, nullptr, root_);
  EXPECT_FALSE(result.out_of_space);
  EXPECT_TRUE(result.source_failed);
}

// --- concurrent writers -----------------------------------------------------------------

// Versions of different sizes, so that a mix would show in the size too.
std::string Version(int writer, int round) {
  return Pattern(static_cast<size_t>(kChunk / 2 + (writer * 7 + round) % 5 * kChunk / 3),
                 static_cast<unsigned>(writer * 1000 + round));
}

TEST_F(Replace, ConcurrentWritersFromThreadsNeverLeaveAMix) {
  constexpr int kWriters = 4;
  constexpr int kRounds = 12;
  std::set<std::string> versions;
  for (int w = 0; w < kWriters; ++w)
    for (int r = 0; r < kRounds; ++r)
      versions.insert(Version(w, r));
  WriteFile(Local("shared.bin"), Version(0, 0));
  std::atomic<bool> writing{true};
  std::atomic<int> failures{0};
  std::atomic<int> mixed{0};
  std::vector<std::thread> threads;
  for (int w = 0; w < kWriters; ++w) {
    threads.emplace_back([&, w] {
      for (int r = 0; r < kRounds; ++r) {
        const std::string content = Version(w, r);
        Source source(content);
        if (!Put("shared.bin", &source, static_cast<long long>(content.size())).ok()) ++failures;
      }
    });
  }
  std::thread reader([&] {
    while (writing.load()) {
      std::string seen = ReadFile(Local("shared.bin"));
      if (versions.count(seen) == 0) ++mixed;
    }
  });
  for (std::thread& thread : threads)
    thread.join();
  writing.store(false);
  reader.join();
  EXPECT_EQ(failures.load(), 0);
  EXPECT_EQ(mixed.load(), 0);
  EXPECT_EQ(versions.count(ReadFile(Local("shared.bin"))), 1u);
  EXPECT_THAT(Names(root_), ::testing::ElementsAre("shared.bin"));
}

// Empty puts, made in place when the name is free, racing full puts of new
// names: every name ends up empty or with one complete version, and nothing
// temporary is left.
TEST_F(Replace, EmptyAndFullPutsOfNewNamesRacingLeaveOneCompleteVersion) {
  constexpr int kWriters = 4;
  constexpr int kNames = 40;
  std::set<std::string> versions = {""};
  for (int w = 0; w < kWriters; ++w)
    for (int n = 0; n < kNames; ++n)
      versions.insert(Version(w, n));
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int w = 0; w < kWriters; ++w) {
    threads.emplace_back([&, w] {
      for (int n = 0; n < kNames; ++n) {
        // Half the writers of each name send nothing, the other half a version.
        const std::string content = (w + n) % 2 == 0 ? std::string() : Version(w, n);
        Source source(content);
        const std::string name = "n" + std::to_string(n);
        if (!Put(name, &source, static_cast<long long>(content.size())).ok()) ++failures;
      }
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(failures.load(), 0);
  for (int n = 0; n < kNames; ++n) {
    const std::string name = "n" + std::to_string(n);
    EXPECT_EQ(versions.count(ReadFile(Local(name))), 1u) << name << " holds a mix";
  }
  EXPECT_TRUE(Temporaries().empty());
  EXPECT_EQ(Names(root_).size(), static_cast<size_t>(kNames));
}

TEST_F(Replace, ConcurrentWritersFromProcessesNeverLeaveAMix) {
  constexpr int kWriters = 3;
  constexpr int kRounds = 10;
  std::set<std::string> versions;
  for (int w = 0; w < kWriters; ++w)
    for (int r = 0; r < kRounds; ++r)
      versions.insert(Version(w, r));
  WriteFile(Local("shared.bin"), Version(0, 0));
  std::vector<pid_t> children;
  for (int w = 0; w < kWriters; ++w) {
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      // A process of its own: its own plug-in object.
      plughost::MemoryConfiguration config;
      plughost::Plugin plugin = plughost::Plugin::Load(LOCALDISK_PLUGIN);
      plughost::Client client(plugin, plugin.CreateProtocol(&config));
      client.SetOpt("root_path", root_);
      int failed = 0;
      for (int r = 0; r < kRounds; ++r) {
        const std::string content = Version(w, r);
        Source source(content);
        ReplaceRequest request;
        request.parent = root_id_;
        request.name = "shared.bin";
        request.source = &source;
        request.size = static_cast<long long>(content.size());
        if (!ReplaceFile(client, request).ok()) ++failed;
      }
      _exit(failed);
    }
    children.push_back(child);
  }
  // Read the name while they write; reap each child as it ends.
  int mixed = 0;
  std::vector<int> statuses(children.size(), -1);
  for (size_t left = children.size(); left > 0;) {
    if (versions.count(ReadFile(Local("shared.bin"))) == 0) ++mixed;
    for (size_t i = 0; i < children.size(); ++i) {
      int status = 0;
      if (statuses[i] == -1 && waitpid(children[i], &status, WNOHANG) == children[i]) {
        statuses[i] = status;
        --left;
      }
    }
  }
  for (int status : statuses)
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_EQ(mixed, 0);
  EXPECT_EQ(versions.count(ReadFile(Local("shared.bin"))), 1u);
  EXPECT_THAT(Names(root_), ::testing::ElementsAre("shared.bin"));
}

}  // namespace
