#include "util/wildcard.h"

#include <cctype>
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

// The matcher is a nondeterministic walk over (expression position, name
// position): "*" and "<" try several name positions and succeed when any
// continuation does. Instead of recursing into every alternative, which costs
// time exponential in the number of stars, the expression is read once from
// left to right while carrying the set of name positions that the walk can be
// at. The answers are those of the recursive walk; the cost is
// O(expression length x name length).
//
// Name positions 0..len are real; "?" and ">" consume a character without
// testing for the end, so the walk can step past the terminator. Every such
// position reads as the terminator and behaves alike, so they share one
// extra "overshoot" slot (len + 1). A walk that has overshot the end never
// counts as being at the end of the name again.

namespace {

constexpr std::size_t kNone = static_cast<std::size_t>(-1);
// Names shorter than this need no heap memory (two bitsets on the stack).
constexpr std::size_t kStackWords = 64;

class PositionSet {
 public:
  PositionSet(std::uint64_t* words, std::size_t count) : words_(words), count_(count) {}

  void Clear() {
    for (std::size_t i = 0; i < count_; ++i)
      words_[i] = 0;
  }
  void Set(std::size_t n) { words_[n / 64] |= std::uint64_t{1} << (n % 64); }
  bool Test(std::size_t n) const { return (words_[n / 64] >> (n % 64)) & 1u; }
  bool Empty() const {
    for (std::size_t i = 0; i < count_; ++i) {
      if (words_[i] != 0) return false;
    }
    return true;
  }
  // Calls f(n) for every member n in ascending order.
  template <typename F>
  void ForEach(F&& f) const {
    for (std::size_t i = 0; i < count_; ++i) {
      std::uint64_t w = words_[i];
      while (w != 0) {
        f(i * 64 + static_cast<std::size_t>(__builtin_ctzll(w)));
        w &= w - 1;
      }
    }
  }
  void Swap(PositionSet& other) { std::swap(words_, other.words_); }

 private:
  std::uint64_t* words_;
  std::size_t count_;
};

// The C library's toupper. A narrow byte goes in as a signed char, so bytes
// 0x80..0xFF stay as they are; wide characters outside 0..255 are left alone
// too (toupper is only defined on that range).
inline char Fold(char c) {
  if (static_cast<signed char>(c) < 0) return c;
  return static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
}
inline wchar_t Fold(wchar_t c) {
  // Widened first: wchar_t is unsigned on some targets.
  auto const v = static_cast<long long>(c);
  if (v < 0 || v > 255) return c;
  return static_cast<wchar_t>(std::toupper(static_cast<int>(c)));
}

template <typename C>
bool Matches(C const* expression, C const* name, bool ignore_case) {
  std::size_t const len = std::char_traits<C>::length(name);
  std::size_t const overshoot = len + 1;
  std::size_t const words = (len + 2 + 63) / 64;

  std::uint64_t local[2 * kStackWords] = {};
  std::vector<std::uint64_t> heap;
  std::uint64_t* storage = local;
  if (words > kStackWords) {
    heap.resize(2 * words);
    storage = heap.data();
  }
  PositionSet current(storage, words);
  PositionSet next(storage + words, words);
  current.Clear();
  current.Set(0);

  std::size_t last_dot = kNone;
  for (std::size_t i = 0; i < len; ++i) {
    if (name[i] == C('.')) last_dot = i;
  }
  auto at = [&](std::size_t n) { return n < len ? name[n] : C(0); };
  auto step = [&](std::size_t n) { return n >= len ? overshoot : n + 1; };

  for (std::size_t p = 0; expression[p] != C(0); ++p) {
    if (current.Empty()) return false;
    C const e = expression[p];
    next.Clear();
    if (e == C('*')) {
      // A final star matches whatever is left, from wherever the walk is.
      if (expression[p + 1] == C(0)) return true;
      // From n inside the name: the rest may start at any of n..len.
      bool filled = false;
      current.ForEach([&](std::size_t n) {
        if (n >= len) {
          next.Set(n);
        } else if (!filled) {
          for (std::size_t j = n; j <= len; ++j)
            next.Set(j);
          filled = true;
        }
      });
    } else if (e == C('?')) {
      current.ForEach([&](std::size_t n) { next.Set(step(n)); });
    } else if (e == C('"')) {
      current.ForEach([&](std::size_t n) { next.Set(at(n) == C('.') ? n + 1 : n); });
    } else if (e == C('>')) {
      current.ForEach([&](std::size_t n) {
        if (at(n) != C('.')) {
          next.Set(step(n));
        } else {
          // Only a dot that is not the name's last one is consumed.
          next.Set(n < last_dot ? n + 1 : n);
        }
      });
    } else if (e == C('<')) {
      std::size_t filled_to = 0;  // positions below this are already set
      current.ForEach([&](std::size_t n) {
        if (n >= len) {
          next.Set(n);
          return;
        }
        // The last dot at or after n; 0 also stands for "no dot".
        std::size_t const d = (last_dot != kNone && last_dot >= n) ? last_dot : 0;
        if (n == d) {
          next.Set(n);
          return;
        }
        std::size_t const hi = d > n ? d : len;
        for (std::size_t j = n > filled_to ? n : filled_to; j <= hi; ++j)
          next.Set(j);
        if (hi + 1 > filled_to) filled_to = hi + 1;
      });
    } else {
      C const want = ignore_case ? Fold(e) : e;
      current.ForEach([&](std::size_t n) {
        if (n >= len) return;
        C const have = ignore_case ? Fold(name[n]) : name[n];
        if (have == want) next.Set(n + 1);
      });
    }
    current.Swap(next);
  }
  return current.Test(len);
}

}  // namespace

// A null expression or name matches nothing.
bool IsNameInExpression(wchar_t const* expression, wchar_t const* name, bool ignore_case) {
  if (expression == nullptr || name == nullptr) return false;
  return Matches(expression, name, ignore_case);
}

bool IsNameInExpressionA(char const* expression, char const* name, bool ignore_case) {
  if (expression == nullptr || name == nullptr) return false;
  return Matches(expression, name, ignore_case);
}
