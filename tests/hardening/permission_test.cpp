// Paths the caller may not use, tried by an unprivileged user (a child
// process that drops to uid 65534 when the tests run as root): nothing
// crashes, each operation gives its documented code and nothing changes.
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <string>

#include "hardening_support.h"
#include "localdisk/local_disk.h"

namespace {

using namespace hardening;

class Discard : public IFileList {
 public:
  int count = 0;
  AERROR OnFile(_FS_FILE_V2*) override {
    ++count;
    return SUCCESS;
  }
};

class PermissionDenied : public ::testing::Test {
 protected:
  void SetUp() override {
    // Reachable by everyone...
    ASSERT_EQ(chmod(dir.path().c_str(), 0755), 0);
    // ...but a locked directory, a file nobody may read, and a directory
    // and a file that nobody may change.
    ASSERT_EQ(mkdir((dir / "locked").c_str(), 0700), 0);
    WriteFile(dir / "locked/inside", "inside");
    ASSERT_EQ(chmod((dir / "locked").c_str(), 0000), 0);
    WriteFile(dir / "secret", "secret");
    ASSERT_EQ(chmod((dir / "secret").c_str(), 0000), 0);
    ASSERT_EQ(mkdir((dir / "readonly").c_str(), 0755), 0);
    WriteFile(dir / "readonly/f", "original");
    ASSERT_EQ(chmod((dir / "readonly/f").c_str(), 0444), 0);
    ASSERT_EQ(chmod((dir / "readonly").c_str(), 0555), 0);
    ASSERT_EQ(mkdir((dir / "open").c_str(), 0777), 0);
    ASSERT_EQ(chmod((dir / "open").c_str(), 0777), 0);
    if (lstat((dir / "readonly/f").c_str(), &before) != 0) FAIL();
  }

  // The results of every operation, as "label code" lines from the child.
  std::map<std::string, std::string> Run() {
    const std::string base = dir.path();
    std::string error;
    std::string text = RunUnprivileged(
        [base] {
          LocalDisk disk(nullptr);
          std::string out;
          auto put = [&out](const char* label, AERROR code) {
            out += std::string(label) + " " + std::to_string(static_cast<int>(code)) + "\n";
          };
          Discard discard;
          put("list-locked", disk.GetFileList((base + "/locked").c_str(), &discard, nullptr));
          put("list-readonly", disk.GetFileList((base + "/readonly").c_str(), &discard, nullptr));
          _FS_FILE_V2 info;
          put("info-inside", disk.GetFileInfo((base + "/locked/inside").c_str(), &info, nullptr));
          struct Sink : IFetchCallback {
            AERROR OnFetch(long long, const char*, long long, long long*) override {
              return SUCCESS;
            }
          } sink;
          put("read-secret", disk.Read((base + "/secret").c_str(), 0, 3,
                                       std::make_shared<_FS_HANDLE>(), &sink, nullptr));
          put("read-inside", disk.Read((base + "/locked/inside").c_str(), 0, 3,
                                       std::make_shared<_FS_HANDLE>(), &sink, nullptr));
          MemoryCache cache("new content");
          _FS_FILE_V2 upload;
          upload.name = "new";
          upload.size = 11;
          put("upload-new",
              disk.Upload((base + "/readonly").c_str(), std::make_shared<_FS_HANDLE>(), &cache,
                          &upload, UPLOAD_FLAG{}, nullptr));
          _FS_FILE_V2 overwrite;
          overwrite.name = "f";
          overwrite.size = 11;
          put("upload-over",
              disk.Upload((base + "/readonly").c_str(), std::make_shared<_FS_HANDLE>(), &cache,
                          &overwrite, UPLOAD_FLAG{}, nullptr));
          _FS_FILE_V2 directory;
          directory.name = "sub";
          put("mkdir", disk.CreateDirectory((base + "/readonly").c_str(), &directory, nullptr));
          _FS_FILE_V2 victim;
          victim.id = base + "/readonly/f";
          victim.name = "f";
          put("delete", disk.Delete(&victim, nullptr));
          _FS_FILE_V2 moved;
          moved.name = "moved";
          put("move",
              disk.Move((base + "/readonly/f").c_str(), (base + "/open").c_str(), &moved, nullptr));
          _FS_FILE_V2 times;
          put("settime", disk.SetFileTime((base + "/readonly/f").c_str(),
                                          "2001-02-03T04:05:06.000Z", "2001-02-03T04:05:06.000Z",
                                          "2001-02-03T04:05:06.000Z", &times, nullptr));
          out += "uid " + std::to_string(geteuid()) + "\n";
          return out;
        },
        &error);
    EXPECT_EQ(error, "");
    return ParseResults(text);
  }

  static std::string Code(AERROR code) { return std::to_string(static_cast<int>(code)); }

  TempDir dir;
  struct stat before;
};

TEST_F(PermissionDenied, EveryOperationGivesItsCodeAndChangesNothing) {
  if (geteuid() != 0 && access((dir / "secret").c_str(), R_OK) == 0)
    GTEST_SKIP() << "this user reads files of mode 0000 (it has CAP_DAC_OVERRIDE) but is not "
                    "root, so it cannot drop to an unprivileged user";
  auto results = Run();
  ASSERT_FALSE(results.empty());
  EXPECT_NE(results["uid"], "0");
  EXPECT_EQ(results["list-locked"], Code(FILE_NOT_FOUND));
  EXPECT_EQ(results["list-readonly"], Code(SUCCESS));
  EXPECT_EQ(results["info-inside"], Code(FILE_NOT_FOUND));
  EXPECT_EQ(results["read-secret"], Code(FILE_NOT_FOUND));
  EXPECT_EQ(results["read-inside"], Code(FILE_NOT_FOUND));
  EXPECT_EQ(results["upload-new"], Code(FILE_NOT_FOUND));
  EXPECT_EQ(results["upload-over"], Code(FILE_NOT_FOUND));
  EXPECT_EQ(results["mkdir"], Code(ACCESS_DENIED));
  EXPECT_EQ(results["delete"], Code(ACCESS_DENIED));
  EXPECT_EQ(results["move"], Code(ACCESS_DENIED));
  // Only the owner may set explicit times; as root the child is not it.
  if (geteuid() == 0) {
    EXPECT_EQ(results["settime"], Code(ACCESS_DENIED));
  }

  // Nothing changed on disk.
  EXPECT_FALSE(Exists(dir / "readonly/new"));
  EXPECT_FALSE(Exists(dir / "readonly/sub"));
  EXPECT_FALSE(Exists(dir / "open/moved"));
  EXPECT_EQ(ReadFile(dir / "readonly/f"), "original");
  struct stat after;
  ASSERT_EQ(lstat((dir / "readonly/f").c_str(), &after), 0);
  if (geteuid() == 0) {
    EXPECT_EQ(after.st_mtim.tv_sec, before.st_mtim.tv_sec);
  }
}

}  // namespace
