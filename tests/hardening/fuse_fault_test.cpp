// Faults that only a file system of its own can produce, served by a small
// FUSE file system inside the test process: a write error that surfaces
// only when the file is closed (as network and FUSE storages report deferred
// write errors), and a read that fails after good chunks. Skipped with a
// reason when /dev/fuse or mounting is not available.
#define FUSE_USE_VERSION 31
#include <fuse.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <thread>

#include "hardening_support.h"
#include "localdisk/local_disk.h"

namespace {

using namespace hardening;

// The files of the test file system, by path. Names starting with
// "/flushfail" refuse their close; "/readfail" fails every read from the
// second chunk on.
struct Store {
  std::mutex lock;
  std::map<std::string, std::string> files;
  int unlinks = 0;
};
Store* store = nullptr;

bool StartsWith(const char* path, const char* prefix) {
  return std::strncmp(path, prefix, std::strlen(prefix)) == 0;
}

int FsGetattr(const char* path, struct stat* st, fuse_file_info*) {
  std::memset(st, 0, sizeof *st);
  if (std::strcmp(path, "/") == 0) {
    st->st_mode = S_IFDIR | 0755;
    st->st_nlink = 2;
    return 0;
  }
  std::lock_guard<std::mutex> guard(store->lock);
  auto it = store->files.find(path);
  if (it == store->files.end()) return -ENOENT;
  st->st_mode = S_IFREG | 0644;
  st->st_nlink = 1;
  st->st_size = static_cast<off_t>(it->second.size());
  return 0;
}

int FsCreate(const char* path, mode_t, fuse_file_info* fi) {
  std::lock_guard<std::mutex> guard(store->lock);
  store->files[path].clear();
  fi->direct_io = 1;
  return 0;
}

int FsOpen(const char* path, fuse_file_info* fi) {
  std::lock_guard<std::mutex> guard(store->lock);
  if (store->files.count(path) == 0) return -ENOENT;
  if ((fi->flags & O_TRUNC) != 0) store->files[path].clear();
  // Every read and write reaches us with the caller's own offsets.
  fi->direct_io = 1;
  return 0;
}

int FsTruncate(const char* path, off_t size, fuse_file_info*) {
  std::lock_guard<std::mutex> guard(store->lock);
  auto it = store->files.find(path);
  if (it == store->files.end()) return -ENOENT;
  it->second.resize(static_cast<size_t>(size));
  return 0;
}

int FsWrite(const char* path, const char* data, size_t size, off_t offset, fuse_file_info*) {
  std::lock_guard<std::mutex> guard(store->lock);
  std::string& content = store->files[path];
  if (content.size() < static_cast<size_t>(offset) + size)
    content.resize(static_cast<size_t>(offset) + size);
  std::memcpy(&content[static_cast<size_t>(offset)], data, size);
  return static_cast<int>(size);
}

int FsRead(const char* path, char* out, size_t size, off_t offset, fuse_file_info*) {
  if (StartsWith(path, "/readfail") && offset >= kChunk) return -EIO;
  std::lock_guard<std::mutex> guard(store->lock);
  auto it = store->files.find(path);
  if (it == store->files.end()) return -ENOENT;
  if (static_cast<size_t>(offset) >= it->second.size()) return 0;
  const size_t n = std::min(size, it->second.size() - static_cast<size_t>(offset));
  std::memcpy(out, it->second.data() + offset, n);
  return static_cast<int>(n);
}

int FsFlush(const char* path, fuse_file_info*) {
  return StartsWith(path, "/flushfail") ? -EIO : 0;
}

int FsUnlink(const char* path) {
  std::lock_guard<std::mutex> guard(store->lock);
  ++store->unlinks;
  return store->files.erase(path) != 0 ? 0 : -ENOENT;
}

int FsUtimens(const char*, const timespec*, fuse_file_info*) {
  return 0;
}

class FaultyFuse {
 public:
  explicit FaultyFuse(const std::string& parent) : path_(parent + "/fuse") {
    store = &store_;
    if (geteuid() != 0) {
      reason_ =
          "mounting a FUSE file system in the test needs root; uid " + std::to_string(geteuid());
      return;
    }
    if (access("/dev/fuse", R_OK | W_OK) != 0) {
      reason_ = std::string("/dev/fuse is not usable: ") + std::strerror(errno);
      return;
    }
    if (mkdir(path_.c_str(), 0755) != 0) {
      reason_ = std::string("mkdir failed: ") + std::strerror(errno);
      return;
    }
    // A mount namespace of our own where possible: a test that dies leaves
    // no mount behind in the host's table.
    if (unshare(CLONE_NEWNS) == 0) mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr);
    fuse_operations ops{};
    ops.getattr = FsGetattr;
    ops.create = FsCreate;
    ops.open = FsOpen;
    ops.truncate = FsTruncate;
    ops.write = FsWrite;
    ops.read = FsRead;
    ops.flush = FsFlush;
    ops.unlink = FsUnlink;
    ops.utimens = FsUtimens;
    char program[] = "hardening-fuse";
    char* argv[] = {program, nullptr};
    fuse_args args = FUSE_ARGS_INIT(1, argv);
    fuse_ = fuse_new(&args, &ops, sizeof ops, nullptr);
    fuse_opt_free_args(&args);  // fuse_new may have added arguments of its own
    if (fuse_ == nullptr) {
      reason_ = "fuse_new failed";
      return;
    }
    if (fuse_mount(fuse_, path_.c_str()) != 0) {
      reason_ = "fuse_mount failed";
      fuse_destroy(fuse_);
      fuse_ = nullptr;
      return;
    }
    loop_ = std::thread([this] { fuse_loop(fuse_); });
    mounted_ = true;
  }
  ~FaultyFuse() {
    if (mounted_) {
      // Unmounting ends the connection, so the loop's read returns and the
      // loop ends; only then may the session's descriptor be closed.
      fuse_exit(fuse_);
      if (umount2(path_.c_str(), 0) != 0) umount2(path_.c_str(), MNT_DETACH);
      loop_.join();
      fuse_unmount(fuse_);
      fuse_destroy(fuse_);
    }
    rmdir(path_.c_str());
    store = nullptr;
  }
  FaultyFuse(const FaultyFuse&) = delete;
  FaultyFuse& operator=(const FaultyFuse&) = delete;

  bool mounted() const { return mounted_; }
  const std::string& reason() const { return reason_; }
  const std::string& path() const { return path_; }
  Store& files() { return store_; }

 private:
  std::string path_;
  std::string reason_;
  Store store_;
  fuse* fuse_ = nullptr;
  std::thread loop_;
  bool mounted_ = false;
};

class FuseFault : public ::testing::Test {
 protected:
  void SetUp() override {
    fs_ = std::make_unique<FaultyFuse>(dir_.path());
    if (!fs_->mounted()) GTEST_SKIP() << "no FUSE file system for this test: " << fs_->reason();
  }
  void TearDown() override { fs_.reset(); }

  TempDir dir_;
  std::unique_ptr<FaultyFuse> fs_;
  LocalDisk disk_{nullptr};
};

TEST_F(FuseFault, WriteErrorReportedOnlyAtCloseFailsTheUpload) {
  const std::string content = Pattern(kChunk + 1234);
  MemoryCache cache(content);
  _FS_FILE_V2 record;
  record.name = "flushfail.bin";
  record.size = static_cast<long long>(content.size());
  record.id = "untouched";
  EXPECT_EQ(disk_.Upload(fs_->path().c_str(), std::make_shared<_FS_HANDLE>(), &cache, &record,
                         UPLOAD_FLAG{}, nullptr),
            FAILED);
  EXPECT_EQ(record.id, "untouched");
  std::lock_guard<std::mutex> guard(fs_->files().lock);
  EXPECT_EQ(fs_->files().files.count("/flushfail.bin"), 0u) << "the refused file was left behind";
}

TEST_F(FuseFault, UploadThatClosesCleanlySucceeds) {
  const std::string content = Pattern(kChunk + 1234, 2);
  MemoryCache cache(content);
  _FS_FILE_V2 record;
  record.name = "fine.bin";
  record.size = static_cast<long long>(content.size());
  ASSERT_EQ(disk_.Upload(fs_->path().c_str(), std::make_shared<_FS_HANDLE>(), &cache, &record,
                         UPLOAD_FLAG{}, nullptr),
            SUCCESS);
  EXPECT_EQ(record.size, static_cast<long long>(content.size()));
  std::lock_guard<std::mutex> guard(fs_->files().lock);
  EXPECT_TRUE(fs_->files().files["/fine.bin"] == content);
}

TEST_F(FuseFault, ReadFailingAfterTheFirstChunkEndsWithReadFailed) {
  const std::string content = Pattern(3 * kChunk, 4);
  {
    std::lock_guard<std::mutex> guard(fs_->files().lock);
    fs_->files().files["/readfail.bin"] = content;
  }
  auto handle = std::make_shared<_FS_HANDLE>();
  CollectingSink sink;
  EXPECT_EQ(
      disk_.Read((fs_->path() + "/readfail.bin").c_str(), 0, 3 * kChunk, handle, &sink, nullptr),
      FILE_READ_FAILED);
  ASSERT_EQ(sink.chunks.size(), 1u);
  EXPECT_EQ(sink.chunks[0].length, kChunk);
  EXPECT_TRUE(sink.data == content.substr(0, kChunk));
}

}  // namespace
