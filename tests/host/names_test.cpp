// Names printed safely: the escape quoting of text output and the lossless
// JSON form of names that are not UTF-8.
#include <gtest/gtest.h>

#include <string>

#include "host/cli/names.h"
#include "host/cli/output.h"

using namespace plughost;

TEST(EscapeName, MatchesTheEscapeQuotingOfLs) {
  EXPECT_EQ(EscapeName("plain.txt"), "plain.txt");
  EXPECT_EQ(EscapeName("a b"), "a\\ b");
  EXPECT_EQ(EscapeName("nl\nx"), "nl\\nx");
  EXPECT_EQ(EscapeName("tab\t"), "tab\\t");
  EXPECT_EQ(EscapeName("esc\033[31m"), "esc\\033[31m");
  EXPECT_EQ(EscapeName("del\x7f"), "del\\177");
  EXPECT_EQ(EscapeName("back\\slash"), "back\\\\slash");
  EXPECT_EQ(EscapeName("q\"uote'"), "q\"uote'");
  EXPECT_EQ(EscapeName("caf\xc3\xa9"), "caf\xc3\xa9");
  EXPECT_EQ(EscapeName("caf\xe9"), "caf\\351");
  // A C1 control is valid UTF-8 but moves a terminal all the same.
  EXPECT_EQ(EscapeName("c1\xc2\x85"), "c1\\302\\205");
  EXPECT_EQ(EscapeName(std::string("nul\0x", 5)), "nul\\000x");
}

TEST(EscapeName, RefusesOverlongAndSurrogateForms) {
  EXPECT_EQ(EscapeName("\xc0\xaf"), "\\300\\257");
  EXPECT_EQ(EscapeName("\xed\xa0\x80"), "\\355\\240\\200");
  EXPECT_EQ(EscapeName("\xf4\x90\x80\x80"), "\\364\\220\\200\\200");
  EXPECT_EQ(EscapeName("\xf0\x9f\x98\x80"), "\xf0\x9f\x98\x80");
  EXPECT_EQ(EscapeName("cut\xe2\x82"), "cut\\342\\202");
}

TEST(JsonNames, DistinctNamesStayDistinctAndLossless) {
  std::string latin1 = JsonFields().Text("name", "caf\xe9").str();
  std::string utf8 = JsonFields().Text("name", "caf\xc3\xa9").str();
  EXPECT_EQ(utf8, "{\"name\":\"caf\xc3\xa9\"}");
  EXPECT_EQ(latin1, "{\"name\":\"caf\xef\xbf\xbd\",\"name_bytes\":\"Y2Fm6Q==\"}");
  EXPECT_NE(latin1, utf8);
}

TEST(JsonNames, ControlCharactersAreEscaped) {
  EXPECT_EQ(JsonFields().Text("name", "a\nb\033").str(), "{\"name\":\"a\\nb\\u001b\"}");
}

TEST(Base64, IsStandardWithZeroBitsBeforeThePadding) {
  EXPECT_EQ(Base64(""), "");
  EXPECT_EQ(Base64("a"), "YQ==");
  EXPECT_EQ(Base64("ab"), "YWI=");
  EXPECT_EQ(Base64("abc"), "YWJj");
  EXPECT_EQ(Base64("line"), "bGluZQ==");
  EXPECT_EQ(Base64(std::string("\0\0\0\0", 4)), "AAAAAA==");
  EXPECT_EQ(Base64("hello\n"), "aGVsbG8K");
}

TEST(JsonFields, KeepsTheOrderOfMembers) {
  EXPECT_EQ(JsonFields().Value("z", 1).Text("a", "x").Value("m", Json::Value()).str(),
            "{\"z\":1,\"a\":\"x\",\"m\":null}");
}
