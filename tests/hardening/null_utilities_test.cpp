// The exported utilities that take pointers, called with null in each pointer
// position, each in a child process: a null is refused with the function's
// own failure value, never followed.
#include <sys/time.h>

#include <gtest/gtest.h>

#include <cctype>
#include <ctime>
#include <functional>
#include <string>
#include <vector>

#include "json/json_object.h"
#include "protocol/aerror.h"
#include "tests/support/child_process.h"
#include "time/approxidate.h"
#include "time/rfc3339.h"
#include "util/encoding.h"
#include "util/paths.h"
#include "util/wildcard.h"

namespace {

struct Row {
  std::string name;
  std::function<bool()> holds;  // true when the call gave the expected answer
};

std::vector<Row> Rows() {
  return {
      {"approxidate(null, result)",
       [] {
         tm result{};
         result.tm_year = 99;
         return approxidate(nullptr, &result) == -1 && result.tm_year == 99;
       }},
      {"approxidate(text, null)", [] { return approxidate("3 days ago", nullptr) == -1; }},
      {"approxidate(absolute text, null)",
       [] { return approxidate("2023-01-15T10:20:30Z", nullptr) == -1; }},
      {"parse_date_basic(null, result, offset)",
       [] {
         timeval result{};
         int offset = 0;
         return parse_date_basic(nullptr, &result, &offset) == -1;
       }},
      {"parse_date_basic(text, null, offset)",
       [] {
         int offset = 0;
         return parse_date_basic("2023-01-15T10:20:30Z", nullptr, &offset) == -1;
       }},
      {"parse_date_basic(text, result, null)",
       [] {
         timeval result{};
         return parse_date_basic("2023-01-15T10:20:30Z", &result, nullptr) == 0 &&
                result.tv_sec == 1673778030;
       }},
      {"RFC3339ToTM(null)", [] { return RFC3339ToTM(nullptr) == RFC3339ToTM(""); }},
      {"RFC3339ToLocalTM(null)", [] { return RFC3339ToLocalTM(nullptr) == RFC3339ToLocalTM(""); }},
      {"AdjustServerTimeOffset(null)",
       [] { return AdjustServerTimeOffset(nullptr) == AdjustServerTimeOffset(""); }},
      {"NoAdjustServerTimeOffset(null)", [] { return NoAdjustServerTimeOffset(nullptr).empty(); }},
      {"TMToRFC3339(null)", [] { return TMToRFC3339(nullptr).empty(); }},
      {"TMToUTCRFC3339(null)", [] { return TMToUTCRFC3339(nullptr).empty(); }},
      {"IsNameInExpression(null, name)", [] { return !IsNameInExpression(nullptr, L"a", false); }},
      {"IsNameInExpression(expression, null)",
       [] { return !IsNameInExpression(L"*", nullptr, true); }},
      {"IsNameInExpressionA(null, name)", [] { return !IsNameInExpressionA(nullptr, "a", false); }},
      {"IsNameInExpressionA(expression, null)",
       [] { return !IsNameInExpressionA("*", nullptr, true); }},
      {"base64(null, 3)", [] { return base64(nullptr, 3) == nullptr; }},
      {"URLEncode(null)", [] { return URLEncode(nullptr, true).empty(); }},
      {"wchar2utf8(null)", [] { return wchar2utf8(nullptr).empty(); }},
      {"ToExactPath(null)", [] { return ToExactPath(nullptr).empty(); }},
      {"JsonObject(null)", [] { return JsonObject(nullptr).ToText() == "null"; }},
      {"JsonObject::GetObject(null)",
       [] {
         JsonObject document("{\"a\":1}");
         try {
           document.GetObject(nullptr);
         } catch (AERROR) {
         }
         return document.ToText() == "{\"a\":1}";
       }},
      {"JsonObject::HasObject(null)",
       [] {
         JsonObject document("{\"a\":1}");
         document.HasObject(nullptr);
         return document.ToText() == "{\"a\":1}";
       }},
      {"JsonObject::operator[](null)",
       [] {
         JsonObject document("{\"a\":1}");
         try {
           document[static_cast<const char*>(nullptr)];
         } catch (AERROR error) {
           return error == INVALID_PARAMETER && document.ToText() == "{\"a\":1}";
         }
         return false;
       }},
      {"JsonObject::Insert(null, object)",
       [] {
         JsonObject document("{\"a\":1}");
         JsonObject value("2");
         return !document.Insert(nullptr, value) && document.ToText() == "{\"a\":1}";
       }},
      {"JsonObject::Insert(null, wide text)",
       [] {
         JsonObject document("{\"a\":1}");
         return !document.Insert(nullptr, std::wstring(L"x")) && document.ToText() == "{\"a\":1}";
       }},
      {"JsonObject::Remove(null)",
       [] {
         JsonObject document("{\"a\":1}");
         return !document.Remove(nullptr) && document.ToText() == "{\"a\":1}";
       }},
  };
}

class NullUtilityArguments : public ::testing::TestWithParam<Row> {};

TEST_P(NullUtilityArguments, AreRefusedNotFollowed) {
  const Row& row = GetParam();
  const auto outcome =
      test_support::RunForked([&](int report[2]) { report[0] = row.holds() ? 1 : 0; });
  ASSERT_TRUE(outcome.exited) << row.name << ": " << outcome.how;
  EXPECT_EQ(outcome.report[0], 1) << row.name << " gave an unexpected answer";
}

void PrintTo(const Row& row, std::ostream* out) {
  *out << row.name;
}

std::string RowName(const ::testing::TestParamInfo<Row>& info) {
  std::string name;
  for (const char c : info.param.name)
    name += std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
  return name + "_" + std::to_string(info.index);
}

INSTANTIATE_TEST_SUITE_P(Exports, NullUtilityArguments, ::testing::ValuesIn(Rows()), RowName);

}  // namespace
