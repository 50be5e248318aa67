#include "protocol/aerror.h"

#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>

#include "tests/protocol/aerror_table.h"

namespace {

AERROR Code(int value) {
  return static_cast<AERROR>(value);
}

TEST(GetAERRORA, NamesEveryAssignedCode) {
  for (const AerrorName& entry : kAllAerrors) {
    EXPECT_STREQ(GetAERRORA(entry.code), entry.name) << static_cast<int>(entry.code);
  }
}

TEST(GetAERRORA, TableHasEveryCodeOnce) {
  std::set<int> seen;
  for (const AerrorName& entry : kAllAerrors)
    EXPECT_TRUE(seen.insert(entry.code).second);
  EXPECT_EQ(seen.size(), 111u);
}

TEST(GetAERRORA, FortyTwoIsAHoleAndFortyThreeIsTimedOut) {
  EXPECT_STREQ(GetAERRORA(Code(42)), "Unknown");
  EXPECT_STREQ(GetAERRORA(Code(43)), "AERROR::TIMEDOUT");
  EXPECT_EQ(TIMEDOUT, 43);
}

TEST(GetAERRORA, UnassignedValuesAreUnknown) {
  for (int value : {-1, 44, 999, 2000, 5000, 8025}) {
    EXPECT_STREQ(GetAERRORA(Code(value)), "Unknown") << value;
  }
  EXPECT_STREQ(GetAERRORA(Code(1000)), "AERROR::ASYNCQ_STOPPED");
}

TEST(GetAERRORA, EveryValueOutsideTheTableIsUnknown) {
  std::set<int> assigned;
  for (const AerrorName& entry : kAllAerrors)
    assigned.insert(entry.code);
  for (int value = -100; value <= 9000; ++value) {
    if (assigned.count(value) != 0) continue;
    ASSERT_STREQ(GetAERRORA(Code(value)), "Unknown") << value;
  }
  // Every gap between the ranges, at both of its ends.
  for (int value : {1003, 2000, 2015, 3000, 3015, 3999, 4005, 5999, 6002, 6999, 7004, 7007, 8000,
                    8025, INT32_MIN, INT32_MAX}) {
    EXPECT_STREQ(GetAERRORA(Code(value)), "Unknown") << value;
  }
}

TEST(GetAERRORA, ReturnsStaticTexts) {
  EXPECT_EQ(GetAERRORA(FAILED), GetAERRORA(FAILED));
  EXPECT_EQ(GetAERRORA(Code(42)), GetAERRORA(Code(-7)));
}

TEST(GetAERRORA, KeepsTheSharedMisspelling) {
  EXPECT_EQ(SOCK_ADDRESS_NOT_AVALIABLE, 8010);
  EXPECT_STREQ(GetAERRORA(SOCK_ADDRESS_NOT_AVALIABLE), "AERROR::SOCK_ADDRESS_NOT_AVALIABLE");
}

TEST(ConvertAERROR, MapsTheFourCodes) {
  EXPECT_EQ(ConvertAERROR(SUCCESS), 0);
  EXPECT_EQ(ConvertAERROR(FILE_NOT_FOUND), -2);
  EXPECT_EQ(ConvertAERROR(ACCESS_DENIED), -13);
  EXPECT_EQ(ConvertAERROR(SHARING_VIOLATION), -13);
}

TEST(ConvertAERROR, EverythingElseIsIo) {
  EXPECT_EQ(ConvertAERROR(PATH_NOT_FOUND), -5);
  EXPECT_EQ(ConvertAERROR(Code(37)), -13);
  EXPECT_EQ(ConvertAERROR(SOCK_TIMEOUT), -5);
  EXPECT_EQ(ConvertAERROR(Code(8006)), -5);
  for (int value : {-1, 1, 2, 18, 20, 23, 25, 36, 42, 43, 1000, 6001, 8024, 99999}) {
    EXPECT_EQ(ConvertAERROR(Code(value)), -5) << value;
  }
}

TEST(AERROR, IsThrownAndCaughtAsItself) {
  try {
    throw JSON_PARSE_FAILED;
  } catch (int) {
    FAIL() << "caught as int";
  } catch (AERROR& code) {
    EXPECT_EQ(code, JSON_PARSE_FAILED);
  }
  static_assert(sizeof(AERROR) == 4);
  static_assert(std::is_same_v<std::underlying_type_t<AERROR>, std::int32_t>);
}

}  // namespace
