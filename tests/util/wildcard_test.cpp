#include "util/wildcard.h"

#include <gtest/gtest.h>

#include <cctype>
#include <random>
#include <string>

namespace {

bool A(char const* e, char const* n, bool ic = false) {
  return IsNameInExpressionA(e, n, ic);
}
bool W(wchar_t const* e, wchar_t const* n, bool ic = false) {
  return IsNameInExpression(e, n, ic);
}

std::wstring Widen(std::string const& s) {
  return std::wstring(s.begin(), s.end());
}

// Both forms must agree; returns their common answer.
bool Both(std::string const& e, std::string const& n, bool ic = false) {
  bool const narrow = A(e.c_str(), n.c_str(), ic);
  bool const wide = W(Widen(e).c_str(), Widen(n).c_str(), ic);
  EXPECT_EQ(narrow, wide) << "expression '" << e << "' name '" << n << "'";
  return narrow;
}

// The matching rules walked literally: recursion into every alternative of
// "*" and "<". Positions at or past the name's end read as the terminator;
// only an exact end counts as the end of the name. Exponential in the number
// of stars, so only used on short inputs as a reference.
struct Reference {
  std::string const& e;
  std::string const& name;
  bool ic;

  char At(size_t n) const { return n < name.size() ? name[n] : '\0'; }
  bool AtEnd(size_t n) const { return n >= name.size(); }
  static char Up(char c) {
    return static_cast<signed char>(c) < 0
               ? c
               : static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  }

  bool Match(size_t p, size_t n) const {
    size_t const len = name.size();
    for (;;) {
      char const c = p < e.size() ? e[p] : '\0';
      if (c == '\0') return n == len;
      if (c == '*') {
        if (p + 1 == e.size()) return true;
        ++p;
        if (AtEnd(n)) continue;
        for (size_t j = n; j < len; ++j) {
          if (Match(p, j)) return true;
        }
        n = len;
      } else if (c == '?') {
        ++n;
        ++p;
      } else if (c == '"') {
        if (At(n) == '.') ++n;
        ++p;
      } else if (c == '>') {
        ++p;
        if (At(n) != '.') {
          ++n;
        } else if (name.find('.', n + 1) != std::string::npos) {
          ++n;
        }
      } else if (c == '<') {
        ++p;
        size_t d = 0;
        for (size_t k = n; k < len; ++k) {
          if (name[k] == '.') d = k;
        }
        if (n == d || AtEnd(n)) continue;
        size_t j = n;
        for (;; ++j) {
          if (Match(p, j)) return true;
          if (j + 1 == d || j + 1 == len) break;
        }
        n = j + 1;
      } else {
        if (AtEnd(n)) return false;
        if (ic ? Up(c) != Up(name[n]) : c != name[n]) return false;
        ++n;
        ++p;
      }
    }
  }
};

bool Ref(std::string const& e, std::string const& n, bool ic = false) {
  return Reference{e, n, ic}.Match(0, 0);
}

TEST(Wildcard, StarMatchesEveryNameIncludingEmpty) {
  for (char const* n : {"", "a", "abc", "abc.txt", ".", "..", "a.b.c"}) {
    EXPECT_TRUE(Both("*", n)) << n;
  }
}

TEST(Wildcard, StarDotStarNeedsADot) {
  EXPECT_TRUE(Both("*.*", "abc.txt"));
  EXPECT_TRUE(Both("*.*", "."));
  EXPECT_TRUE(Both("*.*", "a.b.c"));
  EXPECT_FALSE(Both("*.*", "abc"));
  EXPECT_FALSE(Both("*.*", ""));
}

TEST(Wildcard, QuestionMarkIsExactlyOneCharacter) {
  EXPECT_TRUE(Both("?", "a"));
  EXPECT_FALSE(Both("?", ""));
  EXPECT_FALSE(Both("?", "ab"));
  EXPECT_TRUE(Both("a?c", "abc"));
  EXPECT_FALSE(Both("a?c", "ac"));
}

TEST(Wildcard, QuestionMarkPastTheEndNeverMatches) {
  // "?" consumes without testing for the end; having stepped past the
  // terminator the walk is never at the end again...
  EXPECT_FALSE(Both("??", "a"));
  EXPECT_FALSE(Both("a?\"", "a"));
  EXPECT_FALSE(Both("?*a", ""));
  EXPECT_FALSE(Both("?<", ""));
  // ...except that a final star still accepts at once.
  EXPECT_TRUE(Both("?*", ""));
  EXPECT_TRUE(Both("a??*", "a"));
}

TEST(Wildcard, DosStar) {
  EXPECT_TRUE(Both("<.txt", "abc.txt"));
  EXPECT_TRUE(Both("a<", "abc"));
  EXPECT_TRUE(Both("<.txt", "a.b.txt"));
  EXPECT_FALSE(Both("<.txt", "abc.doc"));
  EXPECT_TRUE(Both("<<.txt", "abc.txt"));
  EXPECT_TRUE(Both("<", ""));
}

TEST(Wildcard, DosStarAtPositionZeroOfDotlessNameMatchesNothing) {
  // 0 stands both for "no dot" and for a dot at index 0.
  EXPECT_FALSE(Both("<", "abc"));
  EXPECT_FALSE(Both("<", "abc.txt"));
  EXPECT_FALSE(Both("<c", "abc"));
  EXPECT_TRUE(Both("a<c", "abc"));
  EXPECT_TRUE(Both("<abc", "abc"));
  EXPECT_TRUE(Both("<.txt", ".txt"));
}

TEST(Wildcard, DosStarStopsAtLastDot) {
  EXPECT_TRUE(Both("<.c", "a.b.c"));
  EXPECT_FALSE(Both("<c", "a.b.c"));  // cannot reach past the last dot
  EXPECT_TRUE(Both("<.*", "a.b.c"));
}

TEST(Wildcard, DosDotMatchesDotOrNothing) {
  EXPECT_TRUE(Both("abc\"", "abc."));
  EXPECT_TRUE(Both("abc\"", "abc"));
  EXPECT_FALSE(Both("abc\"", "abcd"));
  EXPECT_TRUE(Both("a\"b", "a.b"));
  EXPECT_TRUE(Both("a\"b", "ab"));
}

TEST(Wildcard, DosQuestionMark) {
  EXPECT_TRUE(Both(">", "a"));
  EXPECT_TRUE(Both("a>c", "abc"));
  // The last dot of a name is not consumed.
  EXPECT_TRUE(Both("a>.txt", "a.txt"));
  EXPECT_FALSE(Both("a>txt", "a.txt"));
  // A dot with another dot after it is consumed.
  EXPECT_TRUE(Both("a>b.c", "a.b.c"));
  // At the end of the name it still consumes a character (stepping past it).
  EXPECT_FALSE(Both("abc>", "abc"));
  EXPECT_FALSE(Both(">", ""));
}

TEST(Wildcard, IgnoreCase) {
  EXPECT_TRUE(Both("ABC*", "abc.TXT", true));
  EXPECT_FALSE(Both("ABC*", "abc.TXT", false));
  EXPECT_TRUE(Both("*.txt", "FILE.TXT", true));
  EXPECT_FALSE(Both("*.txt", "FILE.TXT", false));
}

TEST(Wildcard, HighBytesAreNotCaseFolded) {
  // "\xE9" and "\xC9" are a case pair in Latin-1.
  EXPECT_FALSE(A("\xE9", "\xC9", true));
  EXPECT_TRUE(A("\xE9", "\xE9", true));
}

TEST(Wildcard, WideBeyondLatin1ComparedExactly) {
  std::wstring const e(1, wchar_t(0x3B1));  // alpha
  std::wstring const upper(1, wchar_t(0x391));
  EXPECT_TRUE(W(e.c_str(), e.c_str(), true));
  EXPECT_FALSE(W(e.c_str(), upper.c_str(), true));
}

TEST(Wildcard, OrdinaryCharactersAndDot) {
  EXPECT_TRUE(Both("abc", "abc"));
  EXPECT_FALSE(Both("abc", "abcd"));
  EXPECT_FALSE(Both("abcd", "abc"));
  EXPECT_TRUE(Both("", ""));
  EXPECT_FALSE(Both("", "a"));
  EXPECT_TRUE(Both("a.b", "a.b"));
  EXPECT_FALSE(Both("a.b", "axb"));
}

TEST(Wildcard, StarBacktracks) {
  EXPECT_TRUE(Both("*a", "banana"));
  EXPECT_TRUE(Both("*an*a", "banana"));
  EXPECT_FALSE(Both("*x*", "banana"));
  EXPECT_TRUE(Both("a*b*c", "aXbYc"));
  EXPECT_TRUE(Both("*\"", "abc"));
  EXPECT_TRUE(Both("*?", "a"));
  EXPECT_FALSE(Both("*?", ""));
}

std::string RandomText(std::mt19937& rng, char const* alphabet, size_t max_len) {
  std::string const a(alphabet);
  std::uniform_int_distribution<size_t> len_dist(0, max_len);
  std::uniform_int_distribution<size_t> pick(0, a.size() - 1);
  std::string s(len_dist(rng), ' ');
  for (char& c : s)
    c = a[pick(rng)];
  return s;
}

TEST(WildcardProperty, NarrowAndWideAgreeOnRandomAscii) {
  std::mt19937 rng(12345);
  std::uniform_int_distribution<int> byte(1, 127);
  for (int i = 0; i < 20000; ++i) {
    // Mix of wildcard-heavy and fully random printable ASCII.
    std::string e;
    std::string n;
    if (i % 2 == 0) {
      e = RandomText(rng, "*?<>\".abAB", 8);
      n = RandomText(rng, ".abAB", 10);
    } else {
      std::uniform_int_distribution<int> len(0, 12);
      e.resize(static_cast<size_t>(len(rng)));
      n.resize(static_cast<size_t>(len(rng)));
      for (char& c : e)
        c = static_cast<char>(byte(rng));
      for (char& c : n)
        c = static_cast<char>(byte(rng));
    }
    bool const ic = (i % 3) == 0;
    bool const narrow = A(e.c_str(), n.c_str(), ic);
    bool const wide = W(Widen(e).c_str(), Widen(n).c_str(), ic);
    ASSERT_EQ(narrow, wide) << "expression '" << e << "' name '" << n << "' ic " << ic;
  }
}

TEST(WildcardProperty, AgreesWithLiteralRecursiveWalk) {
  std::mt19937 rng(777);
  for (int i = 0; i < 30000; ++i) {
    std::string const e = RandomText(rng, "*?<>\".aAb", 7);
    std::string const n = RandomText(rng, ".aAb", 9);
    bool const ic = (i % 2) == 0;
    ASSERT_EQ(A(e.c_str(), n.c_str(), ic), Ref(e, n, ic))
        << "expression '" << e << "' name '" << n << "' ic " << ic;
  }
}

TEST(WildcardProperty, ManyStarsOnLongNamesFinish) {
  // A pure recursive walk would try about C(400, 12) splits here.
  std::string const name(400, 'a');
  std::string expression;
  for (int i = 0; i < 12; ++i)
    expression += "*a";
  EXPECT_TRUE(Both(expression + "*", name));
  EXPECT_FALSE(Both(expression + "*b", name));
  std::string lt;
  for (int i = 0; i < 12; ++i)
    lt += "<a";
  EXPECT_FALSE(Both(lt + "<b", name + ".x"));
  EXPECT_TRUE(Both(lt + "<.x", "b" + name + ".x"));
}

TEST(WildcardProperty, VeryLongNamesBeyondStackBuffer) {
  std::string name(10000, 'x');
  name += ".dat";
  EXPECT_TRUE(Both("*.dat", name));
  EXPECT_TRUE(Both("x<.dat", name));
  EXPECT_FALSE(Both("*.txt", name));
  EXPECT_TRUE(Both("*x*x*x*.*", name));
  EXPECT_TRUE(Both(std::string(10004, '?'), name));
  EXPECT_FALSE(Both(std::string(10005, '?'), name));
}

}  // namespace
