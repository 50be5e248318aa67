// ReplaceFile with a plug-in whose Move refuses an existing target: the old
// file is moved aside, the new one moved in, the old one deleted; when the
// second move fails the old file goes back. The plug-in here is the real
// localdisk object behind a forwarding object that refuses such moves.
#include <sys/stat.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/host/transfer/transfer_test_support.h"

namespace {

using namespace transfer_test;
using plughost::ReplaceFile;
using plughost::ReplaceRequest;
using plughost::ReplaceResult;
using plughost::TransferStatus;

// Forwards every slot to the real object, except that Move refuses an
// existing target (and, when asked, any move of a ".partial" file).
class NoReplaceMove final : public IProtocol_V2 {
 public:
  explicit NoReplaceMove(plughost::ProtocolHandle inner) : inner_(std::move(inner)) {}
  bool refuse_partial = false;
  int moves = 0;

  void Release() override { delete this; }
  AERROR GetUserInfo(char* b, int* l) override { return inner_->GetUserInfo(b, l); }
  AERROR GetQuota(unsigned long long* t, unsigned long long* f) override {
    return inner_->GetQuota(t, f);
  }
  AERROR SetQuota(unsigned long long t, unsigned long long f) override {
    return inner_->SetQuota(t, f);
  }
  AERROR GetType(char** type) override { return inner_->GetType(type); }
  AERROR GetFileList(const char* p, IFileList* l, char** m) override {
    return inner_->GetFileList(p, l, m);
  }
  AERROR GetChanges(IFileChanges* c, char** m) override { return inner_->GetChanges(c, m); }
  AERROR GetFileInfo(const char* p, _FS_FILE_V2* f, char** m) override {
    return inner_->GetFileInfo(p, f, m);
  }
  AERROR Rename(const char* from, const char* to, _FS_FILE_V2* f, char** m) override {
    return Move(from, to, f, m);
  }
  AERROR Move(const char* from, const char* to, _FS_FILE_V2* f, char** m) override {
    ++moves;
    struct stat st {};
    const std::string target = std::string(to) + "/" + f->name;
    if (lstat(target.c_str(), &st) == 0) return ACCESS_DENIED;
    if (refuse_partial &&
        plughost::TemporaryKindOf(std::string(from).substr(std::string(from).rfind('/') + 1)) ==
            plughost::TemporaryKind::kPartial) {
      return ACCESS_DENIED;
    }
    return inner_->Move(from, to, f, m);
  }
  AERROR MoveDir(const char* from, const char* to, _FS_FILE_V2* f, char** m) override {
    return Move(from, to, f, m);
  }
  AERROR CreateDirectory(const char* p, _FS_FILE_V2* f, char** m) override {
    return inner_->CreateDirectory(p, f, m);
  }
  AERROR Delete(_FS_FILE_V2* f, char** m) override { return inner_->Delete(f, m); }
  AERROR DeleteDirectory(_FS_FILE_V2* f, char** m) override {
    return inner_->DeleteDirectory(f, m);
  }
  AERROR Read(const char* p, long long o, long long l, std::shared_ptr<_FS_HANDLE> h,
              IFetchCallback* s, char** m) override {
    return inner_->Read(p, o, l, std::move(h), s, m);
  }
  AERROR Upload(const char* p, std::shared_ptr<_FS_HANDLE> h, ICacheIO* s, _FS_FILE_V2* f,
                UPLOAD_FLAG flag, char** m) override {
    return inner_->Upload(p, std::move(h), s, f, flag, m);
  }
  AERROR SetFileTime(const char* p, std::string c, std::string a, std::string mo, _FS_FILE_V2* f,
                     char** m) override {
    return inner_->SetFileTime(p, std::move(c), std::move(a), std::move(mo), f, m);
  }
  AERROR SetOpt(const char* k, const char* v) override { return inner_->SetOpt(k, v); }
  AERROR GetCredential(char* b, int* l) override { return inner_->GetCredential(b, l); }
  int GetFeature() override { return inner_->GetFeature(); }
  void FreeMsg(char* m) override { inner_->FreeMsg(m); }
  AERROR Connect(IProtocolAuth* a, const char* arg) override { return inner_->Connect(a, arg); }
  AERROR GetIdentifier(char* b, int* l) override { return inner_->GetIdentifier(b, l); }
  AERROR GetRootID(char* b, int* l) override { return inner_->GetRootID(b, l); }
  std::string GetPID() override { return inner_->GetPID(); }
  AERROR SetChangesCallback(IFileChanges* c) override { return inner_->SetChangesCallback(c); }
  AERROR SetLocalConfiguration(ILocalConfiguration* c) override {
    return inner_->SetLocalConfiguration(c);
  }
  AERROR GetShareableLink(_FS_FILE_V2* f, std::string& link) override {
    return inner_->GetShareableLink(f, link);
  }

 private:
  ~NoReplaceMove() = default;
  plughost::ProtocolHandle inner_;
};

class Swap : public LocalDiskTest {
 protected:
  void SetUp() override {
    LocalDiskTest::SetUp();
    client_.reset();
    wrapper_ = new NoReplaceMove(plugin_->CreateProtocol(&config_));
    client_ =
        std::make_unique<plughost::Client>(*plugin_, plughost::ProtocolHandle(wrapper_, nullptr));
    client_->SetOpt("root_path", root_);
  }
  ReplaceResult Put(const std::string& name, const std::string& content) {
    return PutInto(root_id_, name, content);
  }
  NoReplaceMove* wrapper_ = nullptr;  // owned by client_
};

TEST_F(Swap, ReplacesThroughABackupAndRemovesIt) {
  WriteFile(Local("a.txt"), "old");
  ReplaceResult result = Put("a.txt", "new content");
  ASSERT_TRUE(result.ok()) << result.Describe();
  EXPECT_TRUE(result.existed);
  EXPECT_EQ(result.file.id, root_id_ + "/a.txt");
  EXPECT_EQ(result.file.size, 11);
  EXPECT_EQ(ReadFile(Local("a.txt")), "new content");
  EXPECT_THAT(Names(root_), ::testing::ElementsAre("a.txt"));
  EXPECT_EQ(wrapper_->moves, 3);  // refused, old aside, new in
}

TEST_F(Swap, ANewNameNeedsNoSwap) {
  ASSERT_TRUE(Put("b.txt", "new").ok());
  EXPECT_EQ(wrapper_->moves, 1);
  EXPECT_THAT(Names(root_), ::testing::ElementsAre("b.txt"));
}

TEST_F(Swap, TheOldFileGoesBackWhenTheNewOneCannotMoveIn) {
  WriteFile(Local("a.txt"), "old");
  wrapper_->refuse_partial = true;
  ReplaceResult result = Put("a.txt", "new content");
  EXPECT_EQ(result.status, TransferStatus::kFailed);
  EXPECT_EQ(result.step, "replace");
  EXPECT_TRUE(result.kept_existing);
  EXPECT_TRUE(result.old_kept_at.empty());
  EXPECT_EQ(ReadFile(Local("a.txt")), "old");
  EXPECT_THAT(Names(root_), ::testing::ElementsAre("a.txt"));
}

TEST_F(Swap, ANameTooLongForABackupIsRefusedAndKept) {
  const std::string name(240, 'l');
  WriteFile(Local(name), "old");
  ReplaceResult result = Put(name, "new");
  EXPECT_EQ(result.status, TransferStatus::kFailed);
  EXPECT_EQ(result.step, "move");
  EXPECT_TRUE(result.kept_existing);
  EXPECT_EQ(ReadFile(Local(name)), "old");
  EXPECT_THAT(Names(root_), ::testing::ElementsAre(name));
}

}  // namespace
