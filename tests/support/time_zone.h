// Pins the process time zone for the life of a scope (setenv("TZ") and
// tzset) and restores the previous one after; and the zones the tests use.
#pragma once

#include <cstdlib>
#include <ctime>
#include <optional>
#include <string>

namespace test_support {

inline constexpr char const* kUtc = "UTC0";
// UTC+08:00 without summer time.
inline constexpr char const* kEast8 = "CST-8";
// UTC+01:00, +02:00 from the last Sunday of March to the last Sunday of October.
inline constexpr char const* kParis = "CET-1CEST,M3.5.0,M10.5.0/3";
// UTC-05:00, -04:00 from the second Sunday of March to the first Sunday of November.
inline constexpr char const* kNewYork = "EST5EDT,M3.2.0,M11.1.0";

class TzGuard {
 public:
  explicit TzGuard(char const* zone) {
    if (char const* old = std::getenv("TZ")) saved_ = std::string(old);
    setenv("TZ", zone, 1);
    tzset();
  }
  ~TzGuard() {
    if (saved_)
      setenv("TZ", saved_->c_str(), 1);
    else
      unsetenv("TZ");
    tzset();
  }
  TzGuard(TzGuard const&) = delete;
  TzGuard& operator=(TzGuard const&) = delete;

 private:
  std::optional<std::string> saved_;
};

}  // namespace test_support
