// The exported entry points, called as a host calls them.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include "protocol/log.h"
#include "protocol/plugin.h"
#include "tests/protocol/test_protocol.h"

namespace {
// Set to make the next allocation of this process fail: lets a test reach the
// failure path of GetProtocol without any seam in the product.
bool fail_next_allocation = false;
}  // namespace

void* operator new(std::size_t size) {
  if (fail_next_allocation) {
    fail_next_allocation = false;
    throw std::bad_alloc();
  }
  if (size == 0) size = 1;
  if (void* p = std::malloc(size)) return p;
  throw std::bad_alloc();
}
void operator delete(void* p) noexcept {
  std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
  std::free(p);
}

namespace {

TEST(GetProtocol, RejectsNullArgumentsAndLeavesOutAlone) {
  RecordingManager manager;
  IProtocol_V2* sentinel = reinterpret_cast<IProtocol_V2*>(0x1234);
  IProtocol_V2* out = sentinel;
  EXPECT_FALSE(GetProtocol(nullptr, &out));
  EXPECT_EQ(out, sentinel);
  EXPECT_FALSE(GetProtocol(&manager, nullptr));
}

TEST(GetProtocol, CreatesALocalDiskThatReleaseDestroys) {
  RecordingManager manager;
  IProtocol_V2* protocol = nullptr;
  ASSERT_TRUE(GetProtocol(&manager, &protocol));
  ASSERT_NE(protocol, nullptr);
  char* type = nullptr;
  EXPECT_EQ(protocol->GetType(&type), SUCCESS);
  EXPECT_STREQ(type, "localdisk");
  protocol->Release();
}

TEST(GetProtocol, AFailingAllocationIsReportedAsFalse) {
  RecordingManager manager;
  IProtocol_V2* sentinel = reinterpret_cast<IProtocol_V2*>(0x1234);
  IProtocol_V2* out = sentinel;
  fail_next_allocation = true;
  EXPECT_FALSE(GetProtocol(&manager, &out));
  fail_next_allocation = false;
  EXPECT_EQ(out, sentinel);
}

TEST(GetSupportProtocol, ReturnsAFreshCopyEveryTime) {
  char* first = nullptr;
  char* second = nullptr;
  GetSupportProtocol(&first);
  GetSupportProtocol(&second);
  ASSERT_NE(first, nullptr);
  ASSERT_NE(second, nullptr);
  EXPECT_STREQ(first, "localdisk");
  EXPECT_STREQ(second, "localdisk");
  EXPECT_NE(first, second);
  FreeP(first);
  FreeP(second);
  GetSupportProtocol(nullptr);  // ignored
}

TEST(FreeP, IgnoresNull) {
  FreeP(nullptr);
  FreeP(strdup("x"));
}

TEST(AuthExports, FixedAnswers) {
  EXPECT_EQ(GetAuthType(), 0);
  char buffer[4] = {'a', 'b', 'c', 'd'};
  int length = 4;
  EXPECT_EQ(GetAuthFields(buffer, &length), NOT_SUPPORTED);
  EXPECT_EQ(GetAuthFields(nullptr, nullptr), NOT_SUPPORTED);
  EXPECT_EQ(length, 4);
  EXPECT_EQ(std::string(buffer, 4), "abcd");
  EXPECT_EQ(GetOptFields(buffer, &length), NOT_SUPPORTED);
  EXPECT_EQ(GetOptFields(nullptr, nullptr), NOT_SUPPORTED);
  EXPECT_EQ(length, 4);
  EXPECT_EQ(std::string(buffer, 4), "abcd");
}

TEST(BindLogger, NullIsRefusedAndUnbindClears) {
  RecordingLog log;
  EXPECT_FALSE(BindLogger(nullptr));
  EXPECT_EQ(CurrentLogger(), nullptr);
  EXPECT_TRUE(BindLogger(&log));
  EXPECT_EQ(CurrentLogger(), &log);
  EXPECT_FALSE(BindLogger(nullptr));
  EXPECT_EQ(CurrentLogger(), &log);  // a refused bind keeps the logger
  UnbindLogger();
  EXPECT_EQ(CurrentLogger(), nullptr);
  UnbindLogger();
}

}  // namespace
