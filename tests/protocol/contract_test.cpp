// The binary contract with the host: slot order of the protocol interface and
// of the host interfaces, and the record layouts a host relies on.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <type_traits>

#include "protocol/contract.h"

namespace {

// Slot index of a virtual member function under the Itanium C++ ABI: the
// pointer-to-member holds 1 + the byte offset of the slot in the vtable.
template <typename F>
long SlotOf(F f) {
  struct Representation {
    std::uintptr_t ptr;
    std::ptrdiff_t adj;
  };
  static_assert(sizeof(F) == sizeof(Representation));
  Representation rep;
  std::memcpy(&rep, &f, sizeof rep);
  if ((rep.ptr & 1) == 0) return -1;
  return static_cast<long>((rep.ptr - 1) / sizeof(void*));
}

TEST(Contract, ProtocolSlotsAreInBindingOrder) {
  using P = IProtocol_V2;
  EXPECT_EQ(SlotOf(&P::Release), 0);
  EXPECT_EQ(SlotOf(&P::GetUserInfo), 1);
  EXPECT_EQ(SlotOf(&P::GetQuota), 2);
  EXPECT_EQ(SlotOf(&P::SetQuota), 3);
  EXPECT_EQ(SlotOf(&P::GetType), 4);
  EXPECT_EQ(SlotOf(&P::GetFileList), 5);
  EXPECT_EQ(SlotOf(&P::GetChanges), 6);
  EXPECT_EQ(SlotOf(&P::GetFileInfo), 7);
  EXPECT_EQ(SlotOf(&P::Rename), 8);
  EXPECT_EQ(SlotOf(&P::Move), 9);
  EXPECT_EQ(SlotOf(&P::MoveDir), 10);
  EXPECT_EQ(SlotOf(&P::CreateDirectory), 11);
  EXPECT_EQ(SlotOf(&P::Delete), 12);
  EXPECT_EQ(SlotOf(&P::DeleteDirectory), 13);
  EXPECT_EQ(SlotOf(&P::Read), 14);
  EXPECT_EQ(SlotOf(&P::Upload), 15);
  EXPECT_EQ(SlotOf(&P::SetFileTime), 16);
  EXPECT_EQ(SlotOf(&P::SetOpt), 17);
  EXPECT_EQ(SlotOf(&P::GetCredential), 18);
  EXPECT_EQ(SlotOf(&P::GetFeature), 19);
  EXPECT_EQ(SlotOf(&P::FreeMsg), 20);
  EXPECT_EQ(SlotOf(&P::Connect), 21);
  EXPECT_EQ(SlotOf(&P::GetIdentifier), 22);
  EXPECT_EQ(SlotOf(&P::GetRootID), 23);
  EXPECT_EQ(SlotOf(&P::GetPID), 24);
  EXPECT_EQ(SlotOf(&P::SetChangesCallback), 25);
  EXPECT_EQ(SlotOf(&P::SetLocalConfiguration), 26);
  EXPECT_EQ(SlotOf(&P::GetShareableLink), 27);
}

TEST(Contract, InterfacesHaveNoVirtualDestructor) {
  EXPECT_FALSE(std::has_virtual_destructor_v<IRefObject>);
  EXPECT_FALSE(std::has_virtual_destructor_v<IProtocol_V1>);
  EXPECT_FALSE(std::has_virtual_destructor_v<IProtocol_V2>);
  EXPECT_FALSE(std::is_destructible_v<IProtocol_V2>);  // hosts call Release, never delete
  EXPECT_TRUE((std::is_base_of_v<IRefObject, IProtocol_V1>));
  EXPECT_TRUE((std::is_base_of_v<IProtocol_V1, IProtocol_V2>));
}

TEST(Contract, HostInterfaceSlots) {
  EXPECT_EQ(SlotOf(&IProtocolManager::WriteConfiguration), 1);
  EXPECT_EQ(SlotOf(&IProtocolManager::ReadConfiguration), 2);
  EXPECT_EQ(SlotOf(&ILocalConfiguration::WriteConfiguration), 0);
  EXPECT_EQ(SlotOf(&ILocalConfiguration::ReadConfiguration), 1);
  EXPECT_EQ(SlotOf(&IFileList::OnFile), 0);
  EXPECT_EQ(SlotOf(&IFetchCallback::OnFetch), 0);
  EXPECT_EQ(SlotOf(&ICacheIO::ReadCache), 0);
  EXPECT_EQ(SlotOf(&ILog::WriteLog), 2);
}

TEST(Contract, FreshRecordsAreZeroed) {
  _FS_FILE_V2 file;
  EXPECT_EQ(file.type, 0);
  EXPECT_EQ(file.size, 0);
  EXPECT_TRUE(file.id.empty());
  EXPECT_TRUE(file.parents.empty());
  _FS_HANDLE handle;
  EXPECT_EQ(handle.state.load(), 0);
  EXPECT_EQ(handle.progress, nullptr);
  _FS_CACHE_READ request;
  EXPECT_EQ(request.buffer, nullptr);
  EXPECT_EQ(request.length, 0);
  EXPECT_EQ(request.reserved[2], 0);
  EXPECT_TRUE((std::is_base_of_v<_FS_FILE_V1, _FS_FILE_V2>));
  EXPECT_FALSE(std::is_polymorphic_v<_FS_FILE_V2>);
  EXPECT_EQ(FS_HANDLE_STOP, 3);
}

TEST(Contract, HandleStateIsAPlainThirtyTwoBitWord) {
  _FS_HANDLE handle;
  handle.state.store(3);
  std::int32_t word;
  std::memcpy(&word, reinterpret_cast<const char*>(&handle) + 4, sizeof word);
  EXPECT_EQ(word, 3);
  EXPECT_TRUE(std::atomic<std::int32_t>::is_always_lock_free);
}

}  // namespace
