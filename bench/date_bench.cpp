// parse_date_basic against strptime + timegm on the same texts, in one run.
// After the runs the ratio of the two per text is printed; below 1.0 means
// parse_date_basic is faster.
#include <benchmark/benchmark.h>
#include <sys/time.h>

#include <cstdio>
#include <ctime>
#include <map>
#include <string>
#include <vector>

#include "time/approxidate.h"

namespace {

char const kIso[] = "2023-01-15T10:20:30Z";
char const kIsoFormat[] = "%Y-%m-%dT%H:%M:%SZ";
char const kMail[] = "Sat, 14 Jan 2023 08:00:00 +0200";
char const kMailFormat[] = "%a, %d %b %Y %H:%M:%S %z";

void ParseDateBasic(benchmark::State& state, char const* text) {
  for (auto _ : state) {
    timeval tv{};
    int offset = 0;
    int ret = parse_date_basic(text, &tv, &offset);
    benchmark::DoNotOptimize(ret);
    benchmark::DoNotOptimize(tv);
  }
}

void Strptime(benchmark::State& state, char const* text, char const* format) {
  for (auto _ : state) {
    tm fields{};
    char const* end = strptime(text, format, &fields);
    long gmtoff = fields.tm_gmtoff;
    time_t t = timegm(&fields) - gmtoff;
    benchmark::DoNotOptimize(end);
    benchmark::DoNotOptimize(t);
  }
}

BENCHMARK_CAPTURE(ParseDateBasic, iso8601, kIso);
BENCHMARK_CAPTURE(Strptime, iso8601, kIso, kIsoFormat);
BENCHMARK_CAPTURE(ParseDateBasic, rfc2822, kMail);
BENCHMARK_CAPTURE(Strptime, rfc2822, kMail, kMailFormat);

// Keeps the console output and remembers the time per iteration of each run.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(std::vector<Run> const& runs) override {
    for (Run const& run : runs) {
      if (run.run_type == Run::RT_Iteration && run.iterations > 0)
        ns_[run.benchmark_name()] = run.GetAdjustedCPUTime();
    }
    ConsoleReporter::ReportRuns(runs);
  }
  void PrintRatios() const {
    for (char const* text : {"iso8601", "rfc2822"}) {
      auto ours = ns_.find(std::string("ParseDateBasic/") + text);
      auto base = ns_.find(std::string("Strptime/") + text);
      if (ours == ns_.end() || base == ns_.end() || base->second <= 0) continue;
      std::printf("ratio parse_date_basic/strptime+timegm (%s): %.3f\n", text,
                  ours->second / base->second);
    }
  }

 private:
  std::map<std::string, double> ns_;
};

bool Sane() {
  timeval tv{};
  int offset = 0;
  if (parse_date_basic(kIso, &tv, &offset) != 0 || tv.tv_sec != 1673778030) return false;
  if (parse_date_basic(kMail, &tv, &offset) != 0 || tv.tv_sec != 1673676000) return false;
  tm fields{};
  if (!strptime(kMail, kMailFormat, &fields)) return false;
  long gmtoff = fields.tm_gmtoff;  // timegm resets it
  return timegm(&fields) - gmtoff == 1673676000;
}

}  // namespace

int main(int argc, char** argv) {
  if (!Sane()) {
    std::fprintf(stderr, "date_bench: parsers disagree on the sample texts\n");
    return 1;
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.PrintRatios();
  benchmark::Shutdown();
  return 0;
}
