// The progress bar: formatting, at most ten redraws a second, cleared at the
// end, silent when disabled.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "host/cli/progress.h"
#include "tests/support/files.h"

using plughost::HumanBytes;
using plughost::ProgressBar;
using ::testing::HasSubstr;

namespace {

// A file standing in for the terminal.
class Sink {
 public:
  Sink() : fd_(open((dir_ / "out").c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600)) {}
  ~Sink() { close(fd_); }
  int fd() const { return fd_; }
  std::string text() const { return test_support::ReadFile(dir_ / "out"); }

 private:
  test_support::TempDir dir_;
  int fd_;
};

size_t Count(const std::string& text, const std::string& what) {
  size_t n = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
    ++n;
  return n;
}

}  // namespace

TEST(HumanBytes, BinaryUnits) {
  EXPECT_EQ(HumanBytes(0), "0 B");
  EXPECT_EQ(HumanBytes(1023), "1023 B");
  EXPECT_EQ(HumanBytes(1024), "1.0 KiB");
  EXPECT_EQ(HumanBytes(1536), "1.5 KiB");
  EXPECT_EQ(HumanBytes(1048575), "1.0 MiB");
  EXPECT_EQ(HumanBytes(5ull << 30), "5.0 GiB");
  EXPECT_EQ(HumanBytes(3ull << 40), "3.0 TiB");
}

TEST(ProgressBar, RenderShowsBytesPercentRateAndTimeLeft) {
  ProgressBar bar(-1, false, "big.bin", [] { return 0.0; });
  std::string line = bar.Render(1 << 20, 4 << 20, 2.0, 80);
  EXPECT_THAT(line, HasSubstr("big.bin  25% ["));
  EXPECT_THAT(line, HasSubstr("   1.0 MiB /    4.0 MiB"));
  EXPECT_THAT(line, HasSubstr("512.0 KiB/s"));
  EXPECT_THAT(line, HasSubstr("00:06"));
  EXPECT_LE(line.size(), 79u);
  // No room for a bar on a narrow terminal, and never wider than it.
  std::string narrow = bar.Render(1 << 20, 4 << 20, 2.0, 40);
  EXPECT_EQ(narrow.find('['), std::string::npos);
  EXPECT_LE(narrow.size(), 39u);
  EXPECT_THAT(bar.Render(0, 100, 0.0, 80), HasSubstr("--:--"));
  EXPECT_THAT(bar.Render(100, 100, 1.0, 80), HasSubstr("100%"));
}

TEST(ProgressBar, RedrawsAtMostTenTimesASecond) {
  Sink sink;
  double now = 0;
  {
    ProgressBar bar(sink.fd(), true, "f", [&] { return now; });
    // One second of updates every 1/16 s (exact in binary): a draw at the
    // first, then at every second update, the first one 0.1 s or more later.
    for (int i = 0; i <= 16; ++i) {
      now = i / 16.0;
      bar.Update(i, 16);
    }
    EXPECT_EQ(bar.draws(), 9);
  }
  std::string text = sink.text();
  EXPECT_EQ(Count(text, "\r"), 10u);  // 9 draws and the clearing
  EXPECT_TRUE(text.size() >= 4 && text.substr(text.size() - 4) == "\r\033[K");
}

TEST(ProgressBar, FinishClearsOnceAndStopsDrawing) {
  Sink sink;
  double now = 0;
  ProgressBar bar(sink.fd(), true, "f", [&] { return now; });
  bar.Update(1, 2);
  bar.Finish();
  now = 5;
  bar.Update(2, 2);
  bar.Finish();
  std::string text = sink.text();
  EXPECT_EQ(bar.draws(), 1);
  EXPECT_EQ(Count(text, "\r\033[K"), 1u);
  EXPECT_EQ(text.substr(text.size() - 4), "\r\033[K");
}

TEST(ProgressBar, DisabledDrawsNothing) {
  Sink sink;
  {
    ProgressBar bar(sink.fd(), false, "f");
    bar.Update(1, 2);
    ProgressBar::Callback(2, 2, bar.context(), 0.0);
  }
  EXPECT_EQ(sink.text(), "");
}

TEST(ProgressBar, UndrawnBarLeavesNoClearingSequence) {
  Sink sink;
  { ProgressBar bar(sink.fd(), true, "f"); }
  EXPECT_EQ(sink.text(), "");
}

TEST(ProgressBar, CallbackFeedsTheBarFromTheHandle) {
  Sink sink;
  ProgressBar bar(sink.fd(), true, "f", [] { return 1.0; });
  ProgressBar::Callback(10, 5, bar.context(), 0.0);
  EXPECT_EQ(bar.draws(), 1);
  EXPECT_THAT(sink.text(), HasSubstr(" 50%"));
}

TEST(ShouldShowProgress, ForcedOrTerminal) {
  Sink sink;
  EXPECT_FALSE(plughost::ShouldShowProgress(sink.fd(), std::nullopt));
  EXPECT_TRUE(plughost::ShouldShowProgress(sink.fd(), true));
  EXPECT_FALSE(plughost::ShouldShowProgress(sink.fd(), false));
}
