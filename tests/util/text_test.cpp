#include "util/text.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace {

using Strings = std::vector<std::string>;
using WStrings = std::vector<std::wstring>;

std::string Same(std::string& s) {
  return s;
}
std::wstring WSame(std::wstring& s) {
  return s;
}

TEST(StringFormat, FormatsLikePrintf) {
  EXPECT_EQ(string_format("%d-%s-%05.1f", 42, "x", 3.14159), "42-x-003.1");
  EXPECT_EQ(string_format("plain"), "plain");
  EXPECT_EQ(string_format(""), "");
}

TEST(StringFormat, ReturnsLongTextWhole) {
  const std::string big(100000, 'q');
  const std::string out = string_format("<%s>", big.c_str());
  ASSERT_EQ(out.size(), big.size() + 2);
  EXPECT_EQ(out, "<" + big + ">");
}

TEST(StringFormat, StopsAtProducedNul) {
  EXPECT_EQ(string_format("ab%cde", 0), "ab");
}

TEST(WStringFormat, FormatsLikeWprintf) {
  EXPECT_EQ(wstring_format(L"%d:%ls", 7, L"w\u00e9\u20ac"), L"7:w\u00e9\u20ac");
  EXPECT_EQ(wstring_format(L""), L"");
}

TEST(WStringFormat, ReturnsLongTextWhole) {
  const std::wstring big(70000, L'\u00e9');
  const std::wstring out = wstring_format(L"[%ls]%d", big.c_str(), 5);
  ASSERT_EQ(out.size(), big.size() + 3);
  EXPECT_EQ(out, L"[" + big + L"]5");
}

TEST(WStringFormat, StopsAtProducedNul) {
  EXPECT_EQ(wstring_format(L"ab%lcde", static_cast<wint_t>(0)), L"ab");
}

TEST(SplitRegex, PiecesBetweenMatches) {
  const std::regex slash("/");
  EXPECT_EQ(split("a/b/c", slash), (Strings{"a", "b", "c"}));
  EXPECT_EQ(split("a//b", slash), (Strings{"a", "", "b"}));
}

TEST(SplitRegex, LeadingMatchGivesEmptyFirstPiece) {
  EXPECT_EQ(split("/a/b", std::regex("/")), (Strings{"", "a", "b"}));
}

TEST(SplitRegex, TrailingEmptyPieceIsDropped) {
  EXPECT_EQ(split("a/b/", std::regex("/")), (Strings{"a", "b"}));
}

TEST(SplitRegex, NoMatchGivesWholeText) {
  EXPECT_EQ(split("abc", std::regex(",")), (Strings{"abc"}));
}

TEST(SplitRegex, EmptyTextGivesNoPieces) {
  EXPECT_TRUE(split("", std::regex("/")).empty());
  EXPECT_TRUE(split(L"", std::wregex(L"/")).empty());
}

TEST(SplitRegex, MultiCharacterPattern) {
  EXPECT_EQ(split("a, b,c", std::regex(",\\s*")), (Strings{"a", "b", "c"}));
}

TEST(SplitRegex, Wide) {
  EXPECT_EQ(split(L"/\u00e9/b/", std::wregex(L"/")), (WStrings{L"", L"\u00e9", L"b"}));
}

TEST(SplitDelim, RunsOfDelimitersCountAsOne) {
  EXPECT_EQ(split_delim(" a  b ", " ", Same), (Strings{"a", "b"}));
  EXPECT_EQ(split_delim(",;a;,b,", ",;", Same), (Strings{"a", "b"}));
}

TEST(SplitDelim, EmptyOrOnlyDelimiters) {
  EXPECT_TRUE(split_delim("", " ", Same).empty());
  EXPECT_TRUE(split_delim("   ", " ", Same).empty());
}

TEST(SplitDelim, EmptySetGivesWholeText) {
  EXPECT_EQ(split_delim("a b", "", Same), (Strings{"a b"}));
  EXPECT_TRUE(split_delim("", "", Same).empty());
}

TEST(SplitDelim, TransformIsApplied) {
  auto upper = [](std::string& s) {
    for (auto& c : s)
      c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return s;
  };
  EXPECT_EQ(split_delim("ab cd", " ", upper), (Strings{"AB", "CD"}));
}

TEST(SplitDelim, EmptyTransformThrows) {
  EXPECT_THROW(split_delim("a b", " ", nullptr), std::bad_function_call);
  EXPECT_NO_THROW(split_delim("   ", " ", nullptr));
}

TEST(SplitDelim, Wide) {
  EXPECT_EQ(split_delim(L"\t\u00e9 x\t", L" \t", WSame), (WStrings{L"\u00e9", L"x"}));
}

TEST(TokenizeChar, KeepsInnerEmptyTokens) {
  EXPECT_EQ(tokenize("a,,b", ',', Same), (Strings{"a", "", "b"}));
}

TEST(TokenizeChar, NoTrailingEmptyToken) {
  EXPECT_EQ(tokenize("a,b,", ',', Same), (Strings{"a", "b"}));
}

TEST(TokenizeChar, EmptyTextGivesNoTokens) {
  EXPECT_TRUE(tokenize("", ',', Same).empty());
  EXPECT_TRUE(tokenize(L"", L',', WSame).empty());
}

TEST(TokenizeChar, LeadingDelimiterGivesEmptyFirstToken) {
  EXPECT_EQ(tokenize(",a", ',', Same), (Strings{"", "a"}));
}

TEST(TokenizeChar, Wide) {
  EXPECT_EQ(tokenize(L"\u00e9,,b,", L',', WSame), (WStrings{L"\u00e9", L"", L"b"}));
}

TEST(TokenizeString, KeepsTrailingEmptyToken) {
  EXPECT_EQ(tokenize("a;;b;", std::string(";"), Same), (Strings{"a", "", "b", ""}));
}

TEST(TokenizeString, EmptyTextGivesOneEmptyToken) {
  EXPECT_EQ(tokenize("", std::string(";"), Same), (Strings{""}));
  EXPECT_EQ(tokenize(L"", std::wstring(L";"), WSame), (WStrings{L""}));
}

TEST(TokenizeString, MultiCharacterDelimiter) {
  EXPECT_EQ(tokenize("a::b:c::", std::string("::"), Same), (Strings{"a", "b:c", ""}));
}

TEST(TokenizeString, DiffersFromCharacterForm) {
  EXPECT_NE(tokenize("a;b;", ';', Same), tokenize("a;b;", std::string(";"), Same));
}

TEST(TokenizeString, EmptyDelimiterTerminates) {
  EXPECT_EQ(tokenize("abc", std::string(), Same), (Strings{"abc"}));
}

TEST(TokenizeString, EmptyTransformThrows) {
  EXPECT_THROW(tokenize("a;b", std::string(";"), nullptr), std::bad_function_call);
  EXPECT_THROW(tokenize("a,b", ',', nullptr), std::bad_function_call);
}

TEST(TokenizeString, Wide) {
  EXPECT_EQ(tokenize(L"x\u00e9\u00e9y\u00e9\u00e9", std::wstring(L"\u00e9\u00e9"), WSame),
            (WStrings{L"x", L"y", L""}));
}

TEST(Join, SingleItem) {
  EXPECT_EQ(join({"x"}, ","), "x");
}

TEST(Join, SeveralItems) {
  EXPECT_EQ(join({"x", "y", "z"}, ", "), "x, y, z");
}

TEST(Join, EmptyItemsKept) {
  EXPECT_EQ(join({"", "a", ""}, "-"), "-a-");
}

TEST(Join, EmptyVectorThrowsOutOfRange) {
  EXPECT_THROW(join({}, ","), std::out_of_range);
}

TEST(ReplaceAll, ResumesAfterLengthOfFrom) {
  // After "aa" -> "b" at 0 the text is "baa" and the scan resumes at 2, where
  // no "aa" starts.
  std::string text = "aaaa";
  replace_all(text, "aa", "b");
  EXPECT_EQ(text, "baa");
}

TEST(ReplaceAll, LongerReplacementIsRescanned) {
  std::string text = "aa";
  replace_all(text, "a", "ab");
  EXPECT_EQ(text, "abab");
}

TEST(ReplaceAll, ReplacementHoldingFromFurtherOnTerminates) {
  // Resuming one character into "bcb" would find its last "b" again and again;
  // that case steps over the inserted text instead.
  std::string text = "ab";
  replace_all(text, "b", "bcb");
  EXPECT_EQ(text, "abcb");
}

TEST(ReplaceAll, SameLength) {
  std::string text = "one two one";
  replace_all(text, "one", "1!1");
  EXPECT_EQ(text, "1!1 two 1!1");
}

TEST(ReplaceAll, NoOccurrence) {
  std::string text = "abc";
  replace_all(text, "x", "y");
  EXPECT_EQ(text, "abc");
}

TEST(ReplaceAll, EmptyFromLeavesTextAlone) {
  std::string text = "abc";
  replace_all(text, "", "y");
  EXPECT_EQ(text, "abc");
}

TEST(ReplaceAll, Wide) {
  std::wstring text = L"\u00e9\u00e9\u00e9\u00e9";
  replace_all(text, std::wstring(L"\u00e9\u00e9"), std::wstring(L"b"));
  EXPECT_EQ(text, L"b\u00e9\u00e9");
}

TEST(EndsWith, EmptySuffixIsAlwaysASuffix) {
  EXPECT_TRUE(ends_with(std::string("abc"), std::string()));
  EXPECT_TRUE(ends_with(std::string(), std::string()));
  EXPECT_TRUE(ends_with(std::wstring(L"abc"), std::wstring()));
}

TEST(EndsWith, LongerSuffixIsFalse) {
  EXPECT_FALSE(ends_with(std::string("bc"), std::string("abc")));
  EXPECT_FALSE(ends_with(std::wstring(L"bc"), std::wstring(L"abc")));
}

TEST(EndsWith, ComparesTheEnd) {
  EXPECT_TRUE(ends_with(std::string("file.txt"), std::string(".txt")));
  EXPECT_FALSE(ends_with(std::string("file.txt"), std::string(".tx")));
  EXPECT_TRUE(ends_with(std::string("abc"), std::string("abc")));
  EXPECT_TRUE(ends_with(std::wstring(L"\u00e9t\u00e9"), std::wstring(L"t\u00e9")));
  EXPECT_FALSE(ends_with(std::wstring(L"\u00e9t\u00e9"), std::wstring(L"te")));
}

TEST(Trim, BothEnds) {
  std::string text = "\t x y \r\n";
  std::string& result = trim(text);
  EXPECT_EQ(&result, &text);
  EXPECT_EQ(text, "x y");
}

TEST(Trim, AllCWhiteSpace) {
  std::string text = " \t\n\v\f\r";
  EXPECT_EQ(trim(text), "");
  std::string empty;
  EXPECT_EQ(trim(empty), "");
}

TEST(Trim, HighBytesStopTrimming) {
  std::string text = "\xa0 x \xa0";
  EXPECT_EQ(trim(text), "\xa0 x \xa0");
  std::string text2 = " \xc3\xa9 ";
  EXPECT_EQ(trim(text2), "\xc3\xa9");
}

TEST(Trim, InnerWhiteSpaceKept) {
  std::string text = "a \t b";
  EXPECT_EQ(trim(text), "a \t b");
}

}  // namespace
