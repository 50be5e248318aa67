#include "util/encoding.h"

#include <gtest/gtest.h>

#include <cctype>
#include <cstring>
#include <regex>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

unsigned char const* Bytes(char const* s) {
  return reinterpret_cast<unsigned char const*>(s);
}

std::string B64(std::string const& s) {
  char* r = base64(Bytes(s.data()), s.size());
  return r ? std::string(r) : std::string("<null>");
}

// ---- UTF-8 <-> wide ----

TEST(Utf8, AsciiRoundTrip) {
  EXPECT_EQ(s2ws("hello"), L"hello");
  EXPECT_EQ(ws2s(L"hello"), "hello");
  EXPECT_EQ(s2ws(""), L"");
  EXPECT_EQ(ws2s(L""), "");
}

TEST(Utf8, EveryLengthDecodesAndEncodes) {
  std::string const bytes = "A\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80";  // A é € 😀
  std::wstring const wide = {L'A', wchar_t(0xE9), wchar_t(0x20AC), wchar_t(0x1F600)};
  EXPECT_EQ(s2ws(bytes), wide);
  EXPECT_EQ(ws2s(wide), bytes);
  EXPECT_EQ(wchar2utf8(wide.c_str()), bytes);
}

TEST(Utf8, BoundaryCodePoints) {
  struct Case {
    unsigned cp;
    std::string bytes;
  } const cases[] = {
      {0x0, std::string(1, '\0')},
      {0x7F, "\x7F"},
      {0x80, "\xC2\x80"},
      {0x7FF, "\xDF\xBF"},
      {0x800, "\xE0\xA0\x80"},
      {0xD7FF, "\xED\x9F\xBF"},
      {0xE000, "\xEE\x80\x80"},
      {0xFEFF, "\xEF\xBB\xBF"},  // a byte-order mark passes through as a character
      {0xFFFF, "\xEF\xBF\xBF"},
      {0x10000, "\xF0\x90\x80\x80"},
      {0x10FFFF, "\xF4\x8F\xBF\xBF"},
  };
  for (auto const& c : cases) {
    std::wstring const w(1, static_cast<wchar_t>(c.cp));
    EXPECT_EQ(ws2s(w), c.bytes) << std::hex << c.cp;
    EXPECT_EQ(s2ws(c.bytes), w) << std::hex << c.cp;
  }
}

TEST(Utf8, EmbeddedNulKeptByStringForms) {
  std::string const bytes("a\0b", 3);
  std::wstring const wide(L"a\0b", 3);
  EXPECT_EQ(s2ws(bytes), wide);
  EXPECT_EQ(ws2s(wide), bytes);
  EXPECT_EQ(wchar2utf8(wide.c_str()), "a");  // stops at the terminator
}

TEST(Utf8, MalformedInputRaisesRangeError) {
  char const* const bad[] = {
      "\x80",                  // stray continuation byte
      "\xBF",                  // stray continuation byte
      "\xC0\x80",              // overlong NUL
      "\xC1\xBF",              // overlong
      "\xE0\x80\x80",          // overlong 3-byte
      "\xE0\x9F\xBF",          // overlong 3-byte (0x7FF)
      "\xF0\x80\x80\x80",      // overlong 4-byte
      "\xF0\x8F\xBF\xBF",      // overlong 4-byte (0xFFFF)
      "\xED\xA0\x80",          // high surrogate D800
      "\xED\xBF\xBF",          // low surrogate DFFF
      "\xF4\x90\x80\x80",      // 0x110000
      "\xF5\x80\x80\x80",      // lead above F4
      "\xF8\x88\x80\x80\x80",  // 5-byte form
      "\xFE",                  // never valid
      "\xFF",                  // never valid
      "\xC3",                  // truncated 2-byte
      "\xE2\x82",              // truncated 3-byte
      "\xF0\x9F\x98",          // truncated 4-byte
      "a\xC3",                 // truncated at the end after valid text
      "\xC3\x61",              // continuation replaced by ASCII "a"
      "\xE2\x28\xA1",          // bad second byte
      "\xE2\x82\x28",          // bad third byte
  };
  for (char const* b : bad) {
    EXPECT_THROW(s2ws(b), std::range_error) << ::testing::PrintToString(std::string(b));
  }
}

TEST(Utf8, WideSurrogateRaisesRangeError) {
  EXPECT_THROW(ws2s(std::wstring(1, wchar_t(0xD800))), std::range_error);
  EXPECT_THROW(ws2s(std::wstring(1, wchar_t(0xDBFF))), std::range_error);
  EXPECT_THROW(ws2s(std::wstring(1, wchar_t(0xDC00))), std::range_error);
  EXPECT_THROW(ws2s(std::wstring(1, wchar_t(0xDFFF))), std::range_error);
  EXPECT_THROW(ws2s(L"ok" + std::wstring(1, wchar_t(0xDFFF))), std::range_error);
  wchar_t const text[] = {L'a', wchar_t(0xD800), 0};
  EXPECT_THROW(wchar2utf8(text), std::range_error);
}

TEST(Utf8, WideAboveMaximumRaisesRangeError) {
  EXPECT_THROW(ws2s(std::wstring(1, wchar_t(0x110000))), std::range_error);
  EXPECT_THROW(ws2s(std::wstring(1, wchar_t(0x7FFFFFFF))), std::range_error);
  EXPECT_THROW(ws2s(std::wstring(1, static_cast<wchar_t>(-1))), std::range_error);
  wchar_t const text[] = {wchar_t(0x110000), 0};
  EXPECT_THROW(wchar2utf8(text), std::range_error);
}

TEST(Utf8, WcharNullPointerGivesEmpty) {
  EXPECT_EQ(wchar2utf8(nullptr), "");
}

TEST(Utf8, AllScalarValuesRoundTrip) {
  std::wstring all;
  for (unsigned cp = 0; cp <= 0x10FFFF; ++cp) {
    if (cp >= 0xD800 && cp <= 0xDFFF) continue;
    all.push_back(static_cast<wchar_t>(cp));
  }
  std::string const bytes = ws2s(all);
  EXPECT_EQ(s2ws(bytes), all);
}

TEST(Utf8, EveryTwoByteSequenceMatchesReference) {
  // Exhaustive over all byte pairs: accepted exactly when a well-formed
  // one- or two-byte encoding.
  for (int a = 0; a < 256; ++a) {
    for (int b = 0; b < 256; ++b) {
      std::string const s{static_cast<char>(a), static_cast<char>(b)};
      bool expect_ok;
      if (a < 0x80 && b < 0x80) {
        expect_ok = true;
      } else if (a >= 0xC2 && a <= 0xDF && (b & 0xC0) == 0x80) {
        expect_ok = true;
      } else {
        expect_ok = false;
      }
      if (expect_ok) {
        EXPECT_NO_THROW(s2ws(s)) << a << "," << b;
      } else {
        EXPECT_THROW(s2ws(s), std::range_error) << a << "," << b;
      }
    }
  }
}

// ---- base64 ----

TEST(Base64, StandardLengths) {
  EXPECT_EQ(B64("abc"), "YWJj");
  EXPECT_EQ(B64("ab"), "YWI=");
  EXPECT_EQ(B64("a"), "YT==");
}

TEST(Base64, FillerIsEqualsSignNotZero) {
  // 3k + 1: the filler's bits show in the second-to-last character.
  EXPECT_EQ(B64("a"), "YT==");
  EXPECT_NE(B64("a"), "YQ==");
  EXPECT_EQ(B64("abca"), "YWJjYT==");
  // 3k + 2: the filler contributes no bits; the standard encoding results.
  EXPECT_EQ(B64("abcab"), "YWJjYWI=");
  EXPECT_EQ(B64("foobar"), "Zm9vYmFy");
  EXPECT_EQ(B64("Man"), "TWFu");
}

TEST(Base64, BinaryBytes) {
  unsigned char const data[] = {0x00, 0xFF, 0xFE, 0x00, 0x10, 0x80};
  char* r = base64(data, sizeof data);
  ASSERT_NE(r, nullptr);
  EXPECT_STREQ(r, "AP/+ABCA");
}

TEST(Base64, NullAndEmptyInputGiveNull) {
  EXPECT_EQ(base64(nullptr, 0), nullptr);
  EXPECT_EQ(base64(nullptr, 5), nullptr);
  unsigned char const one = 'x';
  EXPECT_EQ(base64(&one, 0), nullptr);
}

TEST(Base64, NullInputReleasesPreviousBuffer) {
  // Under the address sanitizer a leak or double free here fails the run.
  ASSERT_NE(base64(Bytes("abc"), 3), nullptr);
  EXPECT_EQ(base64(nullptr, 0), nullptr);
  EXPECT_EQ(base64(nullptr, 0), nullptr);
  ASSERT_NE(base64(Bytes("abcd"), 4), nullptr);
}

TEST(Base64, ManyCallsInARowReplaceTheBuffer) {
  std::string input;
  for (int i = 0; i < 5000; ++i) {
    input.push_back(static_cast<char>('a' + i % 26));
    char* r = base64(Bytes(input.data()), input.size());
    ASSERT_NE(r, nullptr);
    ASSERT_EQ(std::strlen(r), (input.size() + 2) / 3 * 4);
  }
}

TEST(Base64, ResultValidUntilNextCall) {
  char* first = base64(Bytes("hello"), 5);
  ASSERT_NE(first, nullptr);
  std::string const copy(first);
  EXPECT_EQ(copy, "aGVsbG8=");
  char* second = base64(Bytes("world!"), 6);
  ASSERT_NE(second, nullptr);
  EXPECT_STREQ(second, "d29ybGQh");
}

TEST(Base64, OutputUsesOnlyAlphabet) {
  std::string data;
  for (int i = 0; i < 256; ++i)
    data.push_back(static_cast<char>(i));
  std::string const r = B64(data);
  EXPECT_EQ(r.size(), 344u);
  for (char c : r) {
    EXPECT_TRUE(std::isalnum(static_cast<unsigned char>(c)) || c == '+' || c == '/' || c == '=');
  }
}

// ---- URLEncode ----

TEST(UrlEncode, SlashHandling) {
  EXPECT_EQ(URLEncode("a b/c~", false), "a%20b/c~");
  EXPECT_EQ(URLEncode("a b/c~", true), "a%20b%2Fc~");
}

TEST(UrlEncode, UnreservedBytesStay) {
  std::string const plain = "ABCXYZabcxyz0189-._~";
  EXPECT_EQ(URLEncode(plain.c_str(), true), plain);
}

TEST(UrlEncode, EveryOtherByteUpperCaseHex) {
  EXPECT_EQ(URLEncode("\xC3\xA9", false), "%C3%A9");
  EXPECT_EQ(URLEncode("+&=?#%", false), "%2B%26%3D%3F%23%25");
  EXPECT_EQ(URLEncode("\x01\x7F\xFF", false), "%01%7F%FF");
  EXPECT_EQ(URLEncode("", true), "");
  EXPECT_EQ(URLEncode(nullptr, true), "");
}

// ---- NewUUID ----

TEST(Uuid, ShapeAndVersion) {
  std::regex const shape(
      "[0-9a-fA-F]{8}-[0-9a-fA-F]{4}-4[0-9a-fA-F]{3}-[89abAB][0-9a-fA-F]{3}-"
      "[0-9a-fA-F]{12}");
  for (int i = 0; i < 100; ++i) {
    std::string const u = NewUUID();
    EXPECT_EQ(u.size(), 36u);
    EXPECT_TRUE(std::regex_match(u, shape)) << u;
  }
}

TEST(Uuid, Distinct) {
  std::set<std::string> seen;
  for (int i = 0; i < 1000; ++i)
    seen.insert(NewUUID());
  EXPECT_EQ(seen.size(), 1000u);
}

// ---- is_email_valid ----

TEST(Email, AcceptsWordDotWordAtDomain) {
  EXPECT_TRUE(is_email_valid("john.smith@example.com"));
  EXPECT_TRUE(is_email_valid("john_smith@mail.example.org"));
  EXPECT_TRUE(is_email_valid("a@b.c"));
}

TEST(Email, RejectsDomainWithoutDot) {
  EXPECT_FALSE(is_email_valid("john.smith@example"));
}

TEST(Email, RejectsLeadingSpace) {
  EXPECT_FALSE(is_email_valid(" john.smith@example.com"));
}

TEST(Email, WholeStringMatchOnly) {
  EXPECT_FALSE(is_email_valid("john@example.com "));
  EXPECT_FALSE(is_email_valid("<john@example.com>"));
  EXPECT_FALSE(is_email_valid(""));
  EXPECT_FALSE(is_email_valid("@example.com"));
  EXPECT_FALSE(is_email_valid("john@.com"));
  EXPECT_FALSE(is_email_valid("john..smith@example.com"));
  EXPECT_FALSE(is_email_valid("john-smith@example.com"));
}

// ---- octalToDecimal ----

TEST(Octal, Examples) {
  EXPECT_EQ(octalToDecimal(17), 15);
  EXPECT_EQ(octalToDecimal(-10), -8);
  EXPECT_EQ(octalToDecimal(0), 0);
  EXPECT_EQ(octalToDecimal(7), 7);
  EXPECT_EQ(octalToDecimal(10), 8);
  EXPECT_EQ(octalToDecimal(777), 511);
  EXPECT_EQ(octalToDecimal(-17), -15);
}

TEST(Octal, DigitsEightAndNineNotRejected) {
  EXPECT_EQ(octalToDecimal(19), 17);
  EXPECT_EQ(octalToDecimal(8), 8);
  EXPECT_EQ(octalToDecimal(99), 81);
}

TEST(Octal, Extremes) {
  EXPECT_EQ(octalToDecimal(2147483647), 2 * 134217728 + 1 * 16777216 + 4 * 2097152 + 7 * 262144 +
                                            4 * 32768 + 8 * 4096 + 3 * 512 + 6 * 64 + 4 * 8 + 7);
  EXPECT_EQ(octalToDecimal(-2147483647 - 1),
            -(2 * 134217728 + 1 * 16777216 + 4 * 2097152 + 7 * 262144 + 4 * 32768 + 8 * 4096 +
              3 * 512 + 6 * 64 + 4 * 8 + 8));
}

}  // namespace
