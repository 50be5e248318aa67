#include "host/cli/progress.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>

namespace plughost {

std::string HumanBytes(unsigned long long bytes) {
  static const char* const kUnits[] = {"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
  if (bytes < 1024) return std::to_string(bytes) + " B";
  double value = static_cast<double>(bytes) / 1024.0;
  int unit = 0;
  // Switch units before rounding would print "1024.0".
  while (value >= 1023.95 && unit < 5) {
    value /= 1024.0;
    ++unit;
  }
  char text[32];
  std::snprintf(text, sizeof text, "%.1f %s", value, kUnits[unit]);
  return text;
}

bool ShouldShowProgress(int fd, std::optional<bool> force) {
  if (force.has_value()) return *force;
  return isatty(fd) == 1;
}

namespace {

double SteadySeconds() {
  using namespace std::chrono;
  return duration<double>(steady_clock::now().time_since_epoch()).count();
}

std::string Duration(double seconds) {
  if (!std::isfinite(seconds) || seconds < 0) return "--:--";
  long long s = static_cast<long long>(seconds + 0.5);
  char text[32];
  if (s >= 3600) {
    std::snprintf(text, sizeof text, "%lld:%02lld:%02lld", s / 3600, s / 60 % 60, s % 60);
  } else {
    std::snprintf(text, sizeof text, "%02lld:%02lld", s / 60, s % 60);
  }
  return text;
}

}  // namespace

ProgressBar::ProgressBar(int fd, bool enabled, std::string label, Clock clock)
    : fd_(fd), enabled_(enabled), label_(std::move(label)), clock_(std::move(clock)) {
  if (!clock_) clock_ = SteadySeconds;
  start_ = clock_();
  if (label_.size() > 24) label_ = label_.substr(0, 23) + "~";
}

ProgressBar::~ProgressBar() {
  Finish();
}

std::string ProgressBar::Render(long long done, long long total, double elapsed, int width) const {
  if (done < 0) done = 0;
  double fraction = total > 0 ? static_cast<double>(done) / static_cast<double>(total) : 1.0;
  if (fraction > 1.0) fraction = 1.0;
  double rate = elapsed > 0 ? static_cast<double>(done) / elapsed : 0.0;
  std::string left = total > done && rate > 0
                         ? Duration(static_cast<double>(total - done) / rate)
                         : (total <= done ? Duration(0) : std::string("--:--"));
  char percent[8];
  std::snprintf(percent, sizeof percent, "%3d%%", static_cast<int>(fraction * 100.0));
  // Fixed-width figures keep the bar from jittering while they change.
  char figures[96];
  std::snprintf(figures, sizeof figures, " %10s / %10s  %10s/s  %5s",
                HumanBytes(static_cast<unsigned long long>(done)).c_str(),
                HumanBytes(static_cast<unsigned long long>(total > 0 ? total : 0)).c_str(),
                HumanBytes(static_cast<unsigned long long>(rate)).c_str(), left.c_str());
  std::string head = label_ + " " + percent + " ";
  // The bar takes whatever room is left; narrow terminals get no bar.
  int room = width - 1 - static_cast<int>(head.size() + std::strlen(figures)) - 2;
  std::string line = head;
  if (room >= 10) {
    int filled = static_cast<int>(fraction * room);
    line += "[" + std::string(static_cast<size_t>(filled), '#') +
            std::string(static_cast<size_t>(room - filled), '.') + "]";
  }
  line += figures;
  if (width > 1 && static_cast<int>(line.size()) > width - 1) {
    line.resize(static_cast<size_t>(width - 1));
  }
  return line;
}

int ProgressBar::Width() const {
  struct winsize size {};
  if (ioctl(fd_, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) return size.ws_col;
  return 80;
}

void ProgressBar::WriteAll(const std::string& text) {
  size_t done = 0;
  while (done < text.size()) {
    ssize_t n = write(fd_, text.data() + done, text.size() - done);
    if (n < 0) {
      if (errno == EINTR) continue;
      enabled_ = false;  // a broken terminal is not worth failing the transfer for
      return;
    }
    done += static_cast<size_t>(n);
  }
}

void ProgressBar::Update(long long done, long long total) {
  if (!enabled_ || finished_) return;
  double now = clock_();
  if (draws_ > 0 && now - last_draw_ < kMinInterval) return;
  last_draw_ = now;
  ++draws_;
  WriteAll("\r" + Render(done, total, now - start_, Width()) + "\033[K");
  visible_ = true;
}

void ProgressBar::Finish() {
  if (finished_) return;
  finished_ = true;
  if (enabled_ && visible_) WriteAll("\r\033[K");
  visible_ = false;
}

void ProgressBar::Callback(long long total, long long done, std::uint64_t context, double) {
  auto* bar = reinterpret_cast<ProgressBar*>(static_cast<std::uintptr_t>(context));
  if (bar != nullptr) bar->Update(done, total);
}

}  // namespace plughost
