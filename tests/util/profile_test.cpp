#include "util/profile.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "tests/support/files.h"

namespace {

using test_support::TempDir;

std::string Long(char c, size_t n) {
  return std::string(n, c);
}

struct Case {
  char const* what;
  std::string content;
  char const* section;
  char const* key;
  char const* fallback;
  int size;
  int result;
  char const* text;  // expected buffer contents; null means untouched
};

// Each case: its purpose; the file; the request and the expected outcome.
// clang-format off
std::vector<Case> const kCases = {
    {"section trimmed and lowered, key lowered",
     "[Net]\nPort=8080\n",
     " net ", "PORT", "dflt", 64, 4, "8080"},
    {"request key is not trimmed",
     "[Net]\nPort=8080\n",
     "net", " port", "dflt", 64, 4, "dflt"},
    {"key piece keeps its trailing blank",
     "[net]\nport = 8080\n",
     "net", "port", "dflt", 64, 4, "dflt"},
    {"value keeps its leading blank",
     "[net]\nport = 8080\n",
     "net", "port ", "dflt", 64, 5, " 8080"},
    {"value exactly size long: default copied",
     "[s]\nk=abcd\n",
     "s", "k", "xy", 4, 2, "xy"},
    {"value exactly size long and default too long: 0",
     "[s]\nk=abcd\n",
     "s", "k", "wxyz", 4, 0, nullptr},
    {"value one shorter than size fits",
     "[s]\nk=abcd\n",
     "s", "k", "xy", 5, 4, "abcd"},
    {"scan stops at the next section",
     "[a]\nx=1\n[b]\ny=2\n",
     "a", "y", "none", 16, 4, "none"},
    {"later section found on its own",
     "[a]\nx=1\n[b]\ny=2\n",
     "b", "y", "none", 16, 1, "2"},
    {"only the first of two same-named sections",
     "[a]\nx=1\n[a]\nz=3\n",
     "a", "z", "none", 16, 4, "none"},
    {"value ends at a second equals sign",
     "[s]\nk=a=b\n",
     "s", "k", "d", 16, 1, "a"},
    {"no comment syntax: semicolon is part of the key",
     "[s]\n;k=v\n",
     "s", ";k", "d", 16, 1, "v"},
    {"commented-looking line does not give the bare key",
     "[s]\n;k=v\n",
     "s", "k", "d", 16, 1, "d"},
    {"hash is part of the key too",
     "[s]\n#k=v\n",
     "s", "#k", "d", 16, 1, "v"},
    {"keys before the first header are never seen",
     "k=v\n[s]\nj=w\n",
     "s", "k", "d", 16, 1, "d"},
    {"lines are trimmed before parsing",
     " [ S ] \n\t k=v \r\n",
     "s", "k", "d", 16, 1, "v"},
    {"CRLF line ends",
     "[s]\r\nk=v\r\n",
     "s", "k", "d", 16, 1, "v"},
    {"two-byte brackets are not a header",
     "[]\nk=v\n",
     "", "k", "d", 16, 1, "d"},
    {"blank section name after trimming",
     "[ ]\nk=v\n",
     " ", "k", "d", 16, 1, "v"},
    {"header must end with the bracket",
     "[s] x\nk=v\n",
     "s", "k", "d", 16, 1, "d"},
    {"empty and blank lines skipped in the section",
     "[s]\n\n\n \nk=v\n",
     "s", "k", "d", 16, 1, "v"},
    {"line without equals skipped",
     "[s]\njunk\nk=v\n",
     "s", "k", "d", 16, 1, "v"},
    {"key with nothing after equals gives one piece and is skipped",
     "[s]\nk=\nk=v\n",
     "s", "k", "d", 16, 1, "v"},
    {"empty value between two equals signs falls back",
     "[s]\nk==x\n",
     "s", "k", "dd", 16, 2, "dd"},
    {"empty key matches a line starting with equals",
     "[s]\n=v\n",
     "s", "", "d", 16, 1, "v"},
    {"value keeps its case",
     "[SeCtIoN]\nKey=Val\n",
     "SECTION", "kEY", "d", 16, 3, "Val"},
    {"a line longer than 2047 bytes is cut into pieces",
     "[s]\nk=" + Long('x', 2100) + "\n",
     "s", "k", "d", 4096, 2045, nullptr},
    {"the rest of a long line is a line of its own",
     "[s]\na=" + Long('y', 2045) + "k=v\n",
     "s", "k", "d", 16, 1, "v"},
    {"last line without line end",
     "[s]\nk=v",
     "s", "k", "d", 16, 1, "v"},
    {"inner blanks of section names count",
     "[my section]\nk=v\n",
     " MY SECTION ", "k", "d", 16, 1, "v"},
    {"section name without its inner blank differs",
     "[my section]\nk=v\n",
     "mysection", "k", "d", 16, 1, "d"},
    {"trailing blanks of the value trimmed with the line",
     "[s]\nk= v \n",
     "s", "k", "d", 16, 2, " v"},
    {"inner blanks of the value kept",
     "[s]\nk=a b c\n",
     "s", "k", "d", 16, 5, "a b c"},
    {"any line starting with a bracket ends the section",
     "[s]\n[junk\nk=v\n",
     "s", "k", "d", 16, 1, "d"},
    {"bytes above 0x7F compared as they are",
     "[s]\nK\xC3\x89=v\n",
     "s", "k\xC3\x89", "d", 16, 1, "v"},
    {"missing key with empty default copies the empty text",
     "[s]\nk=v\n",
     "s", "x", "", 16, 0, ""},
    {"other section's equal key is not used",
     "[x]\nk=1\n[s]\nk=2\n",
     "s", "k", "d", 16, 1, "2"},
    {"brackets inside a value",
     "[s]\nk=[v]\n",
     "s", "k", "d", 16, 3, "[v]"},
    {"blank before the equals sign belongs to the key",
     "[s]\nk =v\n",
     "s", "k", "d", 16, 1, "d"},
    {"missing section",
     "[s]\nk=v\n",
     "t", "k", "dflt", 16, 4, "dflt"},
    {"empty file",
     "",
     "s", "k", "dflt", 16, 4, "dflt"},
    {"value found but too long and default too long",
     "[s]\nk=abcdefgh\n",
     "s", "k", "abcdefgh", 8, 0, nullptr},
};
// clang-format on

TEST(ProfileString, Table) {
  TempDir dir;
  ASSERT_GE(kCases.size(), 30u);
  int index = 0;
  for (Case const& c : kCases) {
    std::string const file = dir.Write("case" + std::to_string(index++) + ".ini", c.content);
    std::vector<char> buffer(static_cast<size_t>(c.size) + 16, '#');
    buffer.back() = '\0';
    int const r =
        GetPrivateProfileString(c.section, c.key, c.fallback, buffer.data(), c.size, file);
    EXPECT_EQ(r, c.result) << c.what;
    if (c.text != nullptr) {
      EXPECT_STREQ(buffer.data(), c.text) << c.what;
    } else if (c.result == 0) {
      EXPECT_EQ(buffer[0], '#') << c.what << ": buffer must stay untouched";
    }
  }
}

TEST(ProfileString, LongLineFirstPieceIsTheValue) {
  TempDir dir;
  std::string const file = dir.Write("long.ini", "[s]\nk=" + Long('x', 2100) + "\n");
  std::vector<char> buffer(4096, '#');
  ASSERT_EQ(GetPrivateProfileString("s", "k", "d", buffer.data(), 4096, file), 2045);
  EXPECT_EQ(std::string(buffer.data()), Long('x', 2045));
}

TEST(ProfileString, LineOfExactly2047BytesIsOneLine) {
  TempDir dir;
  // 2047 bytes of text then the line end: the line end arrives as its own piece.
  std::string const file = dir.Write("edge.ini", "[s]\nk=" + Long('z', 2045) + "\nj=w\n");
  std::vector<char> buffer(4096, '#');
  EXPECT_EQ(GetPrivateProfileString("s", "k", "d", buffer.data(), 4096, file), 2045);
  EXPECT_EQ(GetPrivateProfileString("s", "j", "d", buffer.data(), 4096, file), 1);
  EXPECT_STREQ(buffer.data(), "w");
}

TEST(ProfileString, MissingFileCopiesDefault) {
  TempDir dir;
  char buffer[16];
  std::memset(buffer, '#', sizeof buffer);
  EXPECT_EQ(GetPrivateProfileString("s", "k", "dflt", buffer, 16, dir.path() + "/missing.ini"), 4);
  EXPECT_STREQ(buffer, "dflt");
}

TEST(ProfileString, MissingFileDefaultTooLong) {
  TempDir dir;
  char buffer[4];
  std::memset(buffer, '#', sizeof buffer);
  EXPECT_EQ(GetPrivateProfileString("s", "k", "dflt", buffer, 4, dir.path() + "/missing.ini"), 0);
  EXPECT_EQ(buffer[0], '#');
}

TEST(ProfileString, NullBufferOrZeroSizeGivesZero) {
  TempDir dir;
  std::string const file = dir.Write("a.ini", "[s]\nk=v\n");
  EXPECT_EQ(GetPrivateProfileString("s", "k", "d", nullptr, 16, file), 0);
  char buffer[4] = {'#', '#', '#', '#'};
  EXPECT_EQ(GetPrivateProfileString("s", "k", "d", buffer, 0, file), 0);
  EXPECT_EQ(buffer[0], '#');
  EXPECT_EQ(GetPrivateProfileString("s", "k", "d", buffer, -1, file), 0);
  EXPECT_EQ(buffer[0], '#');
}

TEST(ProfileString, FileIsReadAfreshOnEveryCall) {
  TempDir dir;
  std::string const file = dir.Write("a.ini", "[s]\nk=one\n");
  char buffer[16];
  EXPECT_EQ(GetPrivateProfileString("s", "k", "d", buffer, 16, file), 3);
  EXPECT_STREQ(buffer, "one");
  dir.Write("a.ini", "[s]\nk=three\n");
  EXPECT_EQ(GetPrivateProfileString("s", "k", "d", buffer, 16, file), 5);
  EXPECT_STREQ(buffer, "three");
}

TEST(ProfileString, DirectoryAsFileGivesDefault) {
  TempDir dir;
  char buffer[16];
  EXPECT_EQ(GetPrivateProfileString("s", "k", "dflt", buffer, 16, dir.path()), 4);
  EXPECT_STREQ(buffer, "dflt");
}

TEST(ProfileString, DoesNotLeakFileDescriptors) {
  TempDir dir;
  std::string const file = dir.Write("a.ini", "[s]\nk=v\n");
  char buffer[16];
  for (int i = 0; i < 5000; ++i) {
    ASSERT_EQ(GetPrivateProfileString("s", "k", "d", buffer, 16, file), 1);
    ASSERT_EQ(GetPrivateProfileInt("s", "k", 7, file), 0u);
  }
}

TEST(ProfileInt, TrailingTextIgnored) {
  TempDir dir;
  std::string const file = dir.Write("a.ini", "[s]\na=12abc\nb=abc\n");
  EXPECT_EQ(GetPrivateProfileInt("s", "a", 99, file), 12u);
  EXPECT_EQ(GetPrivateProfileInt("s", "b", 99, file), 0u);  // not the default
  EXPECT_EQ(GetPrivateProfileInt("s", "c", 99, file), 99u);
}

TEST(ProfileInt, SignsAndBlanks) {
  TempDir dir;
  std::string const file =
      dir.Write("a.ini", "[s]\nneg=-1\nplus=+7\nlead= 42\nempty==5\nbig=2147483647\n");
  EXPECT_EQ(GetPrivateProfileInt("s", "neg", 99, file), 0xFFFFFFFFu);
  EXPECT_EQ(GetPrivateProfileInt("s", "plus", 99, file), 7u);
  EXPECT_EQ(GetPrivateProfileInt("s", "lead", 99, file), 42u);
  EXPECT_EQ(GetPrivateProfileInt("s", "empty", 99, file), 0u);
  EXPECT_EQ(GetPrivateProfileInt("s", "big", 99, file), 2147483647u);
}

TEST(ProfileInt, SameMatchingRulesAsStrings) {
  TempDir dir;
  std::string const file = dir.Write("a.ini", "k=1\n[Net]\nPort=8080\nx = 5\n[net]\ny=6\n");
  EXPECT_EQ(GetPrivateProfileInt(" NET ", "port", 1, file), 8080u);
  EXPECT_EQ(GetPrivateProfileInt("net", " port", 1, file), 1u);
  EXPECT_EQ(GetPrivateProfileInt("net", "x", 1, file), 1u);
  EXPECT_EQ(GetPrivateProfileInt("net", "x ", 1, file), 5u);
  EXPECT_EQ(GetPrivateProfileInt("net", "y", 1, file), 1u);  // second same-named section
  EXPECT_EQ(GetPrivateProfileInt("net", "k", 1, file), 1u);  // before any header
}

TEST(ProfileInt, MissingFileGivesDefault) {
  TempDir dir;
  EXPECT_EQ(GetPrivateProfileInt("s", "k", 1234, dir.path() + "/missing.ini"), 1234u);
}

}  // namespace
