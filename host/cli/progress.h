// A one-line transfer progress bar for a terminal: bytes, percent, rate and
// time left, redrawn at most ten times a second and cleared at the end.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace plughost {

// "512 B", "1.5 KiB", "20.0 GiB" (binary units, one decimal above bytes).
std::string HumanBytes(unsigned long long bytes);

// Whether to draw on `fd`: `force` decides when set, else whether `fd` is a
// terminal.
bool ShouldShowProgress(int fd, std::optional<bool> force);

class ProgressBar {
 public:
  using Clock = std::function<double()>;  // seconds, monotonic

  // Draws on `fd` when `enabled`; `label` (a file name) starts the line.
  ProgressBar(int fd, bool enabled, std::string label, Clock clock = {});
  ProgressBar(const ProgressBar&) = delete;
  ProgressBar& operator=(const ProgressBar&) = delete;
  // Clears the line if it was drawn.
  ~ProgressBar();

  // Records progress; redraws when at least 0.1 s passed since the last draw
  // (the first update always draws).
  void Update(long long done, long long total);
  // Clears the line (if drawn); later updates draw nothing.
  void Finish();

  // The text of one line for `width` columns (without the leading "\r").
  std::string Render(long long done, long long total, double elapsed, int width) const;

  int draws() const noexcept { return draws_; }

  // A callback for _FS_HANDLE::progress; the context is a ProgressBar*.
  static void Callback(long long total, long long done, std::uint64_t context, double rate);
  std::uint64_t context() noexcept { return reinterpret_cast<std::uintptr_t>(this); }

  static constexpr double kMinInterval = 0.1;

 private:
  int Width() const;
  void WriteAll(const std::string& text);

  int fd_;
  bool enabled_;
  std::string label_;
  Clock clock_;
  double start_ = 0;
  double last_draw_ = 0;
  int draws_ = 0;
  bool visible_ = false;
  bool finished_ = false;
};

}  // namespace plughost
