// Inputs that once made a fuzz target fail, as plain tests. The raw inputs
// are kept in fuzz/regressions/<target>/ and replayed by the
// hardening.fuzz_replay.* tests as well.
#include <gtest/gtest.h>

#include <string>

#include "json/json_object.h"

namespace {

// fuzz/regressions/json/crash-7b124d88...: a comment, then an object whose
// member names hold bytes that are not UTF-8 (0xB5 runs, 0xF5, a 0xCF 0x9D
// pair followed by stray continuation bytes and control characters).
const std::string kIllFormedNames =
    "/* c */ {\"\xb5\xb5\xb5\xb5\xb5\xb5"
    "ce\xf5s_tokan\":\"xx\",\"\xcf\x9d\x9d\x9d\x9d\x01\x01\x9d\x9d\x9d\x9d\x9d\x9d\x9d\x9d\x9d"
    "\x9d\x9d\x9d\x9d\x9d\x9d\x9d\x9d\x9d\x9d\x9d"
    "efreshrefrehken\":\"y\"}}}";

TEST(FuzzRegression, JsonWithIllFormedUtf8NamesIsWrittenAsTextThatParsesAgain) {
  JsonObject document(kIllFormedNames.c_str(), static_cast<unsigned int>(kIllFormedNames.size()));
  ASSERT_EQ(document.GetArraySize(), 2u);
  // The writers escape by decoding UTF-8, so the names come out as other
  // characters; the text is still JSON with both members.
  const std::string text = document.ToText();
  JsonObject again(text.c_str(), static_cast<unsigned int>(text.size()));
  EXPECT_EQ(again.GetArraySize(), 2u);
  const std::string styled = document.ToStyledText();
  JsonObject from_styled(styled.c_str());
  EXPECT_EQ(from_styled.GetArraySize(), 2u);
  EXPECT_EQ(from_styled.ToText(), again.ToText());
}

TEST(FuzzRegression, JsonWithWellFormedUtf8NamesRoundTripsExactly) {
  const std::string input = "/* c */ {\"\xc2\xb5 name\":\"xx\",\"\xcf\x9d\\u0001 y\":\"y\"}";
  JsonObject document(input.c_str(), static_cast<unsigned int>(input.size()));
  const std::string text = document.ToText();
  JsonObject again(text.c_str(), static_cast<unsigned int>(text.size()));
  EXPECT_EQ(again.ToText(), text);
  EXPECT_TRUE(again.HasObject("\xc2\xb5 name"));
}

// fuzz/regressions/json/crash-581c47e3...: a member name with an escaped NUL.
// The compact writer keeps the whole name; the indented writer cuts it at the
// NUL, as the JSON library's writer does, and the wrapper keeps its output.
TEST(FuzzRegression, JsonMemberNameWithNulIsCutOnlyByTheIndentedWriter) {
  const std::string input = "{\"a\":[{\"b\":true}],\"tr\\u0000inc\":-1.5e300}";
  JsonObject document(input.c_str(), static_cast<unsigned int>(input.size()));
  const std::string text = document.ToText();
  EXPECT_NE(text.find("\"tr\\u0000inc\""), std::string::npos) << text;
  JsonObject again(text.c_str(), static_cast<unsigned int>(text.size()));
  EXPECT_EQ(again.ToText(), text);

  const std::string styled = document.ToStyledText();
  EXPECT_EQ(styled.find("u0000"), std::string::npos) << styled;
  JsonObject from_styled(styled.c_str());
  EXPECT_EQ(from_styled.GetKeys(), (std::vector<std::string>{"a", "tr"}));
}

}  // namespace
