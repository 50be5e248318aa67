#include "json/json_object.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace {

using Strings = std::vector<std::string>;

JsonObject Parse(const std::string& text) {
  return JsonObject(text.data(), static_cast<unsigned int>(text.size()));
}

template <typename F>
AERROR ThrownCode(F f) {
  try {
    f();
  } catch (AERROR code) {
    return code;
  }
  return SUCCESS;
}

// --- Construction and parsing -------------------------------------------------

TEST(JsonParse, LengthConstructorReadsExactlyLengthBytes) {
  const char text[] = "{\"k\":1}GARBAGE";
  JsonObject doc(text, 7);
  EXPECT_EQ(doc.ToText(), "{\"k\":1}");
}

TEST(JsonParse, LengthConstructorNeedsNoTerminator) {
  const char text[3] = {'[', '1', ']'};
  JsonObject doc(text, 3);
  EXPECT_TRUE(doc.IsArray());
  EXPECT_EQ(static_cast<int>(doc[0]), 1);
}

TEST(JsonParse, NotJsonThrowsParseFailed) {
  EXPECT_EQ(ThrownCode([] { JsonObject doc("not json"); }), JSON_PARSE_FAILED);
  EXPECT_EQ(ThrownCode([] { Parse("{\"a\":}"); }), JSON_PARSE_FAILED);
}

TEST(JsonParse, EmptyTextThrowsParseFailed) {
  EXPECT_EQ(ThrownCode([] { JsonObject doc(""); }), JSON_PARSE_FAILED);
  EXPECT_EQ(ThrownCode([] { JsonObject doc("", 0); }), JSON_PARSE_FAILED);
}

TEST(JsonParse, TruncatedTextThrowsParseFailed) {
  const std::string full = "{\"a\":[1,2,{\"b\":\"text\"}],\"c\":true}";
  for (std::size_t cut = 0; cut < full.size(); ++cut) {
    SCOPED_TRACE(cut);
    EXPECT_EQ(ThrownCode([&] { Parse(full.substr(0, cut)); }), JSON_PARSE_FAILED);
  }
  EXPECT_NO_THROW(Parse(full));
}

TEST(JsonParse, DeeplyNestedArraysThrowParseFailed) {
  const std::string deep(100000, '[');
  EXPECT_EQ(ThrownCode([&] { Parse(deep); }), JSON_PARSE_FAILED);
  EXPECT_EQ(ThrownCode([&] { JsonObject doc(deep.c_str()); }), JSON_PARSE_FAILED);
  const std::string balanced = std::string(100000, '[') + std::string(100000, ']');
  EXPECT_EQ(ThrownCode([&] { Parse(balanced); }), JSON_PARSE_FAILED);
}

TEST(JsonParse, ModeratelyNestedArraysParse) {
  const std::string nested = std::string(200, '[') + std::string(200, ']');
  JsonObject doc = Parse(nested);
  EXPECT_EQ(doc.ToText(), nested);
}

TEST(JsonParse, InvalidUtf8OutsideStringsThrowsParseFailed) {
  EXPECT_EQ(ThrownCode([] { Parse("\xff"); }), JSON_PARSE_FAILED);
  EXPECT_EQ(ThrownCode([] { Parse("{\xc3\xa9:1}"); }), JSON_PARSE_FAILED);
  EXPECT_EQ(ThrownCode([] { Parse("[1,\xc3]"); }), JSON_PARSE_FAILED);
  EXPECT_EQ(ThrownCode([] { JsonObject doc("\xfe\xff{}"); }), JSON_PARSE_FAILED);
}

TEST(JsonParse, InvalidUtf8InsideStringIsKeptAsBytes) {
  // The reader passes string bytes through; only the wide conversion checks them.
  JsonObject doc = Parse("{\"k\":\"a\xff\"}");
  EXPECT_EQ(static_cast<std::string>(doc["k"]), "a\xff");
  EXPECT_THROW(static_cast<void>(static_cast<std::wstring>(doc["k"])), std::range_error);
}

TEST(JsonParse, NullBytesWithLengthThrowParseFailed) {
  EXPECT_EQ(ThrownCode([] { JsonObject doc(nullptr, 5); }), JSON_PARSE_FAILED);
}

TEST(JsonParse, NullTextGivesInvalidOwner) {
  JsonObject doc(nullptr);
  EXPECT_FALSE(doc.IsValid());
  EXPECT_EQ(doc.ToText(), "null");
}

TEST(JsonParse, CommentBeforeDocumentIsAllowed) {
  JsonObject doc("// note\n{}");
  EXPECT_TRUE(doc.IsValid());
  EXPECT_EQ(doc.ToText(), "{}");
  const std::string text = "// note\n{}";
  EXPECT_EQ(Parse(text).ToText(), "{}");
}

TEST(JsonParse, OnlyTheNulTerminatedConstructorKeepsComments) {
  const std::string text = "// note\n{\"a\":1}";
  JsonObject with_comments(text.c_str());
  JsonObject without_comments = Parse(text);
  EXPECT_NE(with_comments.ToStyledText().find("// note"), std::string::npos);
  EXPECT_EQ(without_comments.ToStyledText().find("// note"), std::string::npos);
  EXPECT_EQ(with_comments.ToText(), without_comments.ToText());
}

TEST(JsonParse, ScalarRoots) {
  EXPECT_EQ(static_cast<int>(JsonObject("42")), 42);
  EXPECT_EQ(static_cast<std::string>(JsonObject("\"s\"")), "s");
  EXPECT_TRUE(static_cast<bool>(JsonObject("true")));
  EXPECT_FALSE(JsonObject("null").IsValid());
}

TEST(JsonParse, EmptyObject) {
  JsonObject doc = JsonObject::GetEmptyObject();
  EXPECT_TRUE(doc.IsValid());
  EXPECT_EQ(doc.ToText(), "{}");
  EXPECT_EQ(doc.GetArraySize(), 0u);
}

// --- Navigation ---------------------------------------------------------------

TEST(JsonPath, SlashesAreIgnored) {
  JsonObject doc("{\"a\":{\"b\":1}}");
  EXPECT_EQ(static_cast<int>(doc.GetObject("/a/b")), 1);
  EXPECT_EQ(static_cast<int>(doc.GetObject("a/b/")), 1);
  EXPECT_EQ(static_cast<int>(doc.GetObject("a//b")), 1);
  EXPECT_EQ(static_cast<int>(doc.GetObject("//a/b//")), 1);
}

TEST(JsonPath, MissingMemberThrowsAccessViolation) {
  JsonObject doc("{\"a\":{\"b\":1}}");
  EXPECT_EQ(ThrownCode([&] { doc.GetObject("/a/c"); }), ACCESS_VIOLATION);
  EXPECT_EQ(ThrownCode([&] { doc.GetObject("/A/b"); }), ACCESS_VIOLATION);
  EXPECT_EQ(ThrownCode([&] { doc.GetObject("/a/b/c"); }), ACCESS_VIOLATION);
}

TEST(JsonPath, HasObject) {
  JsonObject doc("{\"a\":{\"b\":1},\"arr\":[1]}");
  EXPECT_TRUE(doc.HasObject("/a/b"));
  EXPECT_TRUE(doc.HasObject("/a"));
  EXPECT_FALSE(doc.HasObject("/a/c"));
  EXPECT_FALSE(doc.HasObject("/a/b/c"));
  EXPECT_FALSE(doc.HasObject("/arr/0"));
  EXPECT_TRUE(doc.HasObject(""));
  EXPECT_TRUE(doc.HasObject("///"));
  EXPECT_EQ(doc.ToText(), "{\"a\":{\"b\":1},\"arr\":[1]}");  // nothing created
}

TEST(JsonPath, EmptyPathViewsTheTarget) {
  JsonObject doc("{\"a\":1}");
  JsonObject view = doc.GetObject("");
  view["b"] = std::string("x");
  EXPECT_EQ(doc.ToText(), "{\"a\":1,\"b\":\"x\"}");
}

TEST(JsonPath, NumericPieceNamesAMember) {
  JsonObject doc("{\"0\":\"zero\",\"list\":[\"item\"]}");
  EXPECT_EQ(static_cast<std::string>(doc.GetObject("/0")), "zero");
  EXPECT_EQ(ThrownCode([&] { doc.GetObject("/list/0"); }), ACCESS_VIOLATION);
}

TEST(JsonView, EditThroughGetObjectChangesOwner) {
  JsonObject doc("{\"a\":{\"b\":1}}");
  JsonObject a = doc.GetObject("/a");
  a["c"] = std::string("new");
  EXPECT_EQ(doc.ToText(), "{\"a\":{\"b\":1,\"c\":\"new\"}}");
}

TEST(JsonView, OperatorIndexCreatesMissingMember) {
  JsonObject doc("{}");
  JsonObject missing = doc["m"];
  EXPECT_FALSE(missing.IsValid());
  EXPECT_EQ(doc.ToText(), "{\"m\":null}");
}

TEST(JsonView, OperatorIndexOnNullMakesObject) {
  JsonObject doc(nullptr);
  doc["k"]["n"] = std::string("v");
  EXPECT_EQ(doc.ToText(), "{\"k\":{\"n\":\"v\"}}");
}

TEST(JsonView, ArrayIndexGrowsArray) {
  JsonObject doc(nullptr);
  doc[2] = std::string("c");
  EXPECT_TRUE(doc.IsArray());
  EXPECT_EQ(doc.ToText(), "[null,null,\"c\"]");
}

TEST(JsonView, CopyIsAViewNotADeepCopy) {
  JsonObject doc("{\"a\":1}");
  JsonObject copy = doc.Copy();
  copy["b"] = std::string("2");
  EXPECT_EQ(doc.ToText(), "{\"a\":1,\"b\":\"2\"}");
}

TEST(JsonCopy, CopyingAnOwnerCopiesTheDocument) {
  JsonObject doc("{\"a\":1}");
  JsonObject other(doc);
  other["b"] = std::string("x");
  EXPECT_EQ(doc.ToText(), "{\"a\":1}");
  EXPECT_EQ(other.ToText(), "{\"a\":1,\"b\":\"x\"}");
}

TEST(JsonCopy, CopyingAViewYieldsAnotherView) {
  JsonObject doc("{\"a\":{}}");
  JsonObject view = doc["a"];
  JsonObject second(view);
  second["z"] = std::string("1");
  EXPECT_EQ(doc.ToText(), "{\"a\":{\"z\":\"1\"}}");
}

TEST(JsonCopy, CopyingANullOwnerViewsItsValue) {
  JsonObject owner(nullptr);
  JsonObject copy(owner);
  copy["k"] = std::string("v");
  EXPECT_EQ(owner.ToText(), "{\"k\":\"v\"}");
}

TEST(JsonAssign, ViewAssignmentOverwritesViewedValue) {
  JsonObject doc("{\"a\":{\"b\":1},\"c\":[1,2]}");
  JsonObject a = doc["a"];
  a = doc["c"];  // a view on the right: its value is copied into a's target
  EXPECT_EQ(doc.ToText(), "{\"a\":[1,2],\"c\":[1,2]}");
}

TEST(JsonAssign, OwnerAssignmentMakesViewAnOwner) {
  JsonObject doc("{\"a\":{\"b\":1}}");
  JsonObject view = doc["a"];
  JsonObject source("{\"fresh\":true}");
  view = source;  // an owner on the right: the view stops viewing
  EXPECT_EQ(view.ToText(), "{\"fresh\":true}");
  EXPECT_EQ(doc.ToText(), "{\"a\":{\"b\":1}}");
  view["more"] = std::string("x");
  EXPECT_EQ(doc.ToText(), "{\"a\":{\"b\":1}}");
  EXPECT_EQ(source.ToText(), "{\"fresh\":true}");
}

TEST(JsonAssign, ViewOfOwnDocumentIntoOwner) {
  JsonObject doc("{\"a\":{\"b\":1}}");
  doc = doc["a"];
  EXPECT_EQ(doc.ToText(), "{\"b\":1}");
}

TEST(JsonAssign, StringBecomesJsonString) {
  JsonObject doc("{}");
  doc["k"] = std::string("{\"not\":\"parsed\"}");
  EXPECT_EQ(doc.ToText(), "{\"k\":\"{\\\"not\\\":\\\"parsed\\\"}\"}");
}

// --- Conversions --------------------------------------------------------------

TEST(JsonConvert, IntTruncatesTo32Bits) {
  JsonObject doc("{\"n\":4294967297}");
  EXPECT_EQ(static_cast<int>(doc["n"]), 1);
  EXPECT_EQ(static_cast<AERROR>(doc["n"]), FAILED);
  EXPECT_EQ(static_cast<long long>(doc["n"]), 4294967297LL);
  EXPECT_EQ(static_cast<long>(doc["n"]), 4294967297L);
  EXPECT_EQ(static_cast<unsigned long long>(doc["n"]), 4294967297ULL);
}

TEST(JsonConvert, AerrorFromNumber) {
  JsonObject doc("{\"e\":6001}");
  EXPECT_EQ(static_cast<AERROR>(doc["e"]), JSON_PARSE_FAILED);
}

TEST(JsonConvert, NullConvertsToZeroValues) {
  JsonObject doc(nullptr);
  EXPECT_EQ(static_cast<std::string>(doc), "");
  EXPECT_EQ(static_cast<std::wstring>(doc), L"");
  EXPECT_EQ(static_cast<int>(doc), 0);
  EXPECT_EQ(static_cast<long long>(doc), 0);
  EXPECT_EQ(static_cast<double>(doc), 0.0);
  EXPECT_FALSE(static_cast<bool>(doc));
}

TEST(JsonConvert, StringCutAtEmbeddedNul) {
  JsonObject doc("{\"s\":\"ab\\u0000cd\"}");
  EXPECT_EQ(static_cast<std::string>(doc["s"]), "ab");
}

TEST(JsonConvert, NumbersAndBooleansToString) {
  JsonObject doc("{\"i\":12,\"b\":true}");
  EXPECT_EQ(static_cast<std::string>(doc["i"]), "12");
  EXPECT_EQ(static_cast<std::string>(doc["b"]), "true");
}

TEST(JsonConvert, ObjectToStringThrowsLibraryException) {
  JsonObject doc("{\"o\":{}}");
  EXPECT_THROW(static_cast<void>(static_cast<std::string>(doc["o"])), std::exception);
  EXPECT_THROW(static_cast<void>(static_cast<int>(doc["o"])), std::exception);
}

TEST(JsonConvert, WideStringDecodesUtf8) {
  JsonObject doc("{\"w\":\"\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80\"}");
  EXPECT_EQ(static_cast<std::wstring>(doc["w"]), L"\u00e9\u20ac\U0001F600");
}

TEST(JsonConvert, WideStringRejectsInvalidUtf8) {
  const char* bad[] = {"\xc3", "\xc0\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80", "\x80"};
  for (const char* bytes : bad) {
    JsonObject doc(nullptr);
    doc["w"] = std::string(bytes);
    EXPECT_THROW(static_cast<void>(static_cast<std::wstring>(doc["w"])), std::range_error);
  }
}

TEST(JsonConvert, DoubleAndBool) {
  JsonObject doc("{\"d\":2.5,\"t\":true,\"f\":false}");
  EXPECT_DOUBLE_EQ(static_cast<double>(doc["d"]), 2.5);
  EXPECT_TRUE(static_cast<bool>(doc["t"]));
  EXPECT_FALSE(static_cast<bool>(doc["f"]));
}

// --- Editing ------------------------------------------------------------------

TEST(JsonEdit, InsertCopiesValue) {
  JsonObject doc("{}");
  JsonObject item("{\"x\":1}");
  EXPECT_TRUE(doc.Insert("item", item));
  item["y"] = std::string("2");
  EXPECT_EQ(doc.ToText(), "{\"item\":{\"x\":1}}");
}

TEST(JsonEdit, InsertWideTextStoresUtf8) {
  JsonObject doc("{}");
  EXPECT_TRUE(doc.Insert("w", std::wstring(L"\u00e9\u20ac\U0001F600")));
  EXPECT_EQ(static_cast<std::string>(doc["w"]), "\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80");
  EXPECT_EQ(static_cast<std::wstring>(doc["w"]), L"\u00e9\u20ac\U0001F600");
}

TEST(JsonEdit, InsertWideRejectsInvalidCodePoints) {
  JsonObject doc("{}");
  std::wstring surrogate(1, static_cast<wchar_t>(0xD800));
  std::wstring too_big(1, static_cast<wchar_t>(0x110000));
  EXPECT_THROW(doc.Insert("s", surrogate), std::range_error);
  EXPECT_THROW(doc.Insert("b", too_big), std::range_error);
}

TEST(JsonEdit, InsertArrayItems) {
  JsonObject doc(nullptr);
  EXPECT_TRUE(doc.InsertArrayItem(std::string("a")));
  JsonObject obj("{\"k\":1}");
  EXPECT_TRUE(doc.InsertArrayItem(obj));
  EXPECT_EQ(obj.ToText(), "{\"k\":1}");
  EXPECT_TRUE(doc.IsArray());
  EXPECT_EQ(doc.GetArraySize(), 2u);
  EXPECT_EQ(doc.ToText(), "[\"a\",{\"k\":1}]");
}

TEST(JsonEdit, RemoveArrayItemShifts) {
  JsonObject doc("[1,2,3]");
  EXPECT_TRUE(doc.RemoveArrayItem(0));
  EXPECT_EQ(doc.ToText(), "[2,3]");
}

TEST(JsonEdit, RemoveArrayItemOutOfRange) {
  JsonObject doc("[1,2,3]");
  EXPECT_FALSE(doc.RemoveArrayItem(5));
  EXPECT_EQ(doc.ToText(), "[1,2,3]");
}

TEST(JsonEdit, RemoveArrayItemIndexTakenAs32Bits) {
  JsonObject doc("[1,2,3]");
  EXPECT_TRUE(doc.RemoveArrayItem(0x100000001UL));
  EXPECT_EQ(doc.ToText(), "[1,3]");
}

TEST(JsonEdit, RemoveArrayItemOnObjectIsFalse) {
  JsonObject doc("{\"0\":1}");
  EXPECT_FALSE(doc.RemoveArrayItem(0));
  EXPECT_EQ(doc.ToText(), "{\"0\":1}");
}

TEST(JsonEdit, RemoveMember) {
  JsonObject doc("{\"a\":1,\"b\":2}");
  EXPECT_TRUE(doc.Remove("a"));
  EXPECT_FALSE(doc.Remove("a"));
  EXPECT_EQ(doc.ToText(), "{\"b\":2}");
  JsonObject arr("[1]");
  EXPECT_FALSE(arr.Remove("a"));
}

// --- Queries ------------------------------------------------------------------

TEST(JsonQuery, KeysAreSorted) {
  JsonObject doc("{\"b\":1,\"a\":2,\"c\":3}");
  EXPECT_EQ(doc.GetKeys(), (Strings{"a", "b", "c"}));
  EXPECT_TRUE(JsonObject(nullptr).GetKeys().empty());
}

TEST(JsonQuery, Sizes) {
  EXPECT_EQ(JsonObject("[1,2,3]").GetArraySize(), 3u);
  EXPECT_EQ(JsonObject("{\"a\":1,\"b\":2}").GetArraySize(), 2u);
  EXPECT_EQ(JsonObject("5").GetArraySize(), 0u);
  EXPECT_EQ(JsonObject("\"text\"").GetArraySize(), 0u);
}

TEST(JsonQuery, Kinds) {
  EXPECT_TRUE(JsonObject("[]").IsArray());
  EXPECT_FALSE(JsonObject("{}").IsArray());
  EXPECT_TRUE(JsonObject("{}").IsValid());
  EXPECT_TRUE(JsonObject("0").IsValid());
}

// --- Output -------------------------------------------------------------------

TEST(JsonOutput, CompactHasNoTrailingNewline) {
  JsonObject doc("{\"k\":\"v\"}");
  EXPECT_EQ(doc.ToText(), "{\"k\":\"v\"}");
}

TEST(JsonOutput, StyledEndsWithBrace) {
  JsonObject doc("{\"k\":\"v\",\"n\":[1,2]}");
  const std::string styled = doc.ToStyledText();
  ASSERT_FALSE(styled.empty());
  EXPECT_EQ(styled.back(), '}');
  EXPECT_EQ(styled, "{\n   \"k\" : \"v\",\n   \"n\" : [ 1, 2 ]\n}");
}

TEST(JsonOutput, ScalarOutput) {
  EXPECT_EQ(JsonObject("1.5").ToText(), "1.5");
  EXPECT_EQ(JsonObject("\"s\"").ToStyledText(), "\"s\"");
}

TEST(JsonOutput, NestedRoundTrip) {
  const std::string text =
      "{\"arr\":[1,-2,3.25,true,false,null,\"s\",{\"deep\":[[],{}]}],"
      "\"obj\":{\"a\":{\"b\":{\"c\":\"\\u00e9\\n\\\"q\\\"\"}}},\"z\":\"\"}";
  JsonObject doc = Parse(text);
  const std::string once = doc.ToText();
  JsonObject again = Parse(once);
  EXPECT_EQ(again.ToText(), once);
  JsonObject styled(doc.ToStyledText().c_str());
  EXPECT_EQ(styled.ToText(), once);
  EXPECT_EQ(static_cast<std::string>(doc.GetObject("/obj/a/b/c")), "\xc3\xa9\n\"q\"");
}

TEST(JsonOutput, TenMegabyteDocument) {
  std::string text = "{\"items\":[";
  const std::string payload(90, 'p');
  int count = 0;
  while (text.size() < 10 * 1024 * 1024) {
    if (count > 0) text += ',';
    text += "{\"id\":" + std::to_string(count) + ",\"v\":\"" + payload + "\"}";
    ++count;
  }
  text += "]}";
  JsonObject doc = Parse(text);
  JsonObject items = doc.GetObject("/items");
  EXPECT_EQ(items.GetArraySize(), static_cast<unsigned int>(count));
  EXPECT_EQ(static_cast<int>(items[count - 1]["id"]), count - 1);
  EXPECT_EQ(doc.ToText(), text);
  EXPECT_GT(doc.ToStyledText().size(), text.size());
}

}  // namespace
