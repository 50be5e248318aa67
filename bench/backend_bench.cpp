// The local-disk transfers and listing against plain POSIX loops doing the
// same work, measured in one run:
//   read   - Read of a file from the page cache into a counting IFetchCallback
//            vs a read() loop with the same 512 KiB buffer;
//   upload - Upload from an in-memory ICacheIO vs a write() loop that copies
//            the same in-memory data into a 512 KiB buffer and writes it;
//   list   - GetFileList of a directory of many files into a counting
//            IFileList vs an opendir/readdir/stat loop that formats the three
//            times the same way.
// Each ratio is baseline time / plug-in time (1.0 = as fast as the baseline).
//
// Sizes: LOCALDISK_BENCH_BYTES (default 1 GiB), LOCALDISK_BENCH_FILES (default
// 100000), LOCALDISK_BENCH_REPS (default 3). The data lives in a fresh
// directory under TMPDIR (or /tmp) and is removed at the end.
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "localdisk/local_disk.h"

namespace {

constexpr long long kChunk = 524288;

long long EnvNumber(const char* name, long long fallback) {
  const char* value = std::getenv(name);
  if (value == nullptr || *value == '\0') return fallback;
  const long long parsed = std::atoll(value);
  return parsed > 0 ? parsed : fallback;
}

struct Setup {
  std::string dir;
  std::string big_file;
  std::string upload_dir;
  std::string list_dir;
  long long bytes = 0;
  long long files = 0;
  std::vector<char> block;  // the in-memory upload source, repeated
};

Setup* setup = nullptr;

class CountingSink : public IFetchCallback {
 public:
  long long bytes = 0;
  AERROR OnFetch(long long, const char* data, long long length, long long*) override {
    benchmark::DoNotOptimize(data);
    bytes += length;
    return SUCCESS;
  }
};

// Serves `total` bytes by repeating one in-memory block.
class BlockCache : public ICacheIO {
 public:
  explicit BlockCache(const std::vector<char>& block) : block_(block) {}
  AERROR ReadCache(_FS_CACHE_READ* request) override {
    const long long left = request->total - request->offset;
    const long long n = std::min(request->capacity, left);
    std::memcpy(request->buffer, block_.data(), static_cast<size_t>(n));
    request->length = n;
    return SUCCESS;
  }

 private:
  const std::vector<char>& block_;
};

class CountingList : public IFileList {
 public:
  long long entries = 0;
  long long size = 0;
  AERROR OnFile(_FS_FILE_V2* file) override {
    ++entries;
    size += file->size + static_cast<long long>(file->modify_time.size());
    return SUCCESS;
  }
};

void ReadPlugin(benchmark::State& state) {
  LocalDisk disk(nullptr);
  auto handle = std::make_shared<_FS_HANDLE>();
  for (auto _ : state) {
    CountingSink sink;
    const AERROR result =
        disk.Read(setup->big_file.c_str(), 0, setup->bytes, handle, &sink, nullptr);
    if (result != SUCCESS || sink.bytes != setup->bytes) state.SkipWithError("Read failed");
  }
  state.SetBytesProcessed(state.iterations() * setup->bytes);
}

void ReadBaseline(benchmark::State& state) {
  std::unique_ptr<char[]> buffer(new char[kChunk]);
  for (auto _ : state) {
    const int fd = open(setup->big_file.c_str(), O_RDONLY);
    long long total = 0;
    ssize_t n;
    while ((n = read(fd, buffer.get(), kChunk)) > 0) {
      benchmark::DoNotOptimize(buffer.get());
      total += n;
    }
    close(fd);
    if (total != setup->bytes) state.SkipWithError("read() loop failed");
  }
  state.SetBytesProcessed(state.iterations() * setup->bytes);
}

void UploadPlugin(benchmark::State& state) {
  LocalDisk disk(nullptr);
  auto handle = std::make_shared<_FS_HANDLE>();
  BlockCache cache(setup->block);
  for (auto _ : state) {
    _FS_FILE_V2 file;
    file.name = "plugin.bin";
    file.size = setup->bytes;
    const AERROR result =
        disk.Upload(setup->upload_dir.c_str(), handle, &cache, &file, UPLOAD_FLAG_NONE, nullptr);
    if (result != SUCCESS || file.size != setup->bytes) state.SkipWithError("Upload failed");
  }
  // Dropping the file discards its dirty pages instead of writing them back.
  std::remove((setup->upload_dir + "/plugin.bin").c_str());
  state.SetBytesProcessed(state.iterations() * setup->bytes);
}

void UploadBaseline(benchmark::State& state) {
  std::unique_ptr<char[]> buffer(new char[kChunk]);
  const std::string path = setup->upload_dir + "/baseline.bin";
  for (auto _ : state) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    long long written = 0;
    while (written < setup->bytes) {
      const long long n = std::min(kChunk, setup->bytes - written);
      std::memcpy(buffer.get(), setup->block.data(), static_cast<size_t>(n));
      long long done = 0;
      while (done < n) {
        const ssize_t w = write(fd, buffer.get() + done, static_cast<size_t>(n - done));
        if (w <= 0) break;
        done += w;
      }
      if (done != n) break;
      written += n;
    }
    close(fd);
    if (written != setup->bytes) state.SkipWithError("write() loop failed");
  }
  std::remove(path.c_str());
  state.SetBytesProcessed(state.iterations() * setup->bytes);
}

void ListPlugin(benchmark::State& state) {
  LocalDisk disk(nullptr);
  for (auto _ : state) {
    CountingList list;
    const AERROR result = disk.GetFileList(setup->list_dir.c_str(), &list, nullptr);
    benchmark::DoNotOptimize(list.size);
    if (result != SUCCESS || list.entries != setup->files) state.SkipWithError("listing failed");
  }
  state.SetItemsProcessed(state.iterations() * setup->files);
}

void FormatLocal(time_t t, char (&out)[64]) {
  tm fields;
  localtime_r(&t, &fields);
  std::snprintf(out, sizeof out, "%04d-%02d-%02dT%02d:%02d:%02d.000Z", fields.tm_year + 1900,
                fields.tm_mon + 1, fields.tm_mday, fields.tm_hour, fields.tm_min, fields.tm_sec);
}

void ListBaseline(benchmark::State& state) {
  for (auto _ : state) {
    long long entries = 0;
    long long size = 0;
    DIR* dir = opendir(setup->list_dir.c_str());
    std::string path = setup->list_dir + "/";
    const size_t prefix = path.size();
    while (const dirent* entry = readdir(dir)) {
      if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0) continue;
      path.resize(prefix);
      path += entry->d_name;
      struct stat st;
      if (stat(path.c_str(), &st) != 0) continue;
      char created[64], accessed[64], modified[64];
      FormatLocal(st.st_ctim.tv_sec, created);
      FormatLocal(st.st_atim.tv_sec, accessed);
      FormatLocal(st.st_mtim.tv_sec, modified);
      benchmark::DoNotOptimize(created);
      benchmark::DoNotOptimize(accessed);
      ++entries;
      size += st.st_size + static_cast<long long>(std::strlen(modified));
    }
    closedir(dir);
    benchmark::DoNotOptimize(size);
    if (entries != setup->files) state.SkipWithError("readdir loop failed");
  }
  state.SetItemsProcessed(state.iterations() * setup->files);
}

// Keeps every repetition's wall time per benchmark name, and prints as usual.
class CollectingReporter : public benchmark::ConsoleReporter {
 public:
  std::map<std::string, std::vector<double>> seconds;      // wall time
  std::map<std::string, std::vector<double>> cpu_seconds;  // this thread's CPU time
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.error_occurred || run.run_type != Run::RT_Iteration) continue;
      const double n = static_cast<double>(run.iterations);
      seconds[run.run_name.function_name].push_back(run.real_accumulated_time / n);
      cpu_seconds[run.run_name.function_name].push_back(run.cpu_accumulated_time / n);
    }
    ConsoleReporter::ReportRuns(runs);
  }
};

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v.empty() ? 0.0 : v[v.size() / 2];
}

double Min(const std::vector<double>& v) {
  return v.empty() ? 0.0 : *std::min_element(v.begin(), v.end());
}

void MakeData(Setup& s) {
  const char* base = std::getenv("TMPDIR");
  std::string pattern =
      std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/localdisk-bench-XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr) {
    std::perror("mkdtemp");
    std::exit(1);
  }
  s.dir = pattern;
  s.big_file = s.dir + "/big.bin";
  s.upload_dir = s.dir + "/upload";
  s.list_dir = s.dir + "/many";
  mkdir(s.upload_dir.c_str(), 0755);
  mkdir(s.list_dir.c_str(), 0755);

  s.block.resize(kChunk);
  unsigned x = 12345;
  for (char& c : s.block) {
    x = x * 1103515245u + 12345u;
    c = static_cast<char>(x >> 16);
  }
  const int fd = open(s.big_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  for (long long written = 0; written < s.bytes;) {
    const long long n = std::min(kChunk, s.bytes - written);
    if (write(fd, s.block.data(), static_cast<size_t>(n)) != n) {
      std::perror("write");
      std::exit(1);
    }
    written += n;
  }
  close(fd);
  for (long long i = 0; i < s.files; ++i) {
    const std::string name = s.list_dir + "/file-" + std::to_string(i) + ".dat";
    const int f = open(name.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (f < 0) {
      std::perror("open");
      std::exit(1);
    }
    close(f);
  }
}

void PrintMachine() {
  utsname u;
  uname(&u);
  std::string cpu = "unknown";
  if (FILE* f = std::fopen("/proc/cpuinfo", "r")) {
    char line[512];
    while (std::fgets(line, sizeof line, f) != nullptr) {
      if (std::strncmp(line, "model name", 10) == 0) {
        cpu = std::strchr(line, ':') != nullptr ? std::strchr(line, ':') + 2 : line;
        if (!cpu.empty() && cpu.back() == '\n') cpu.pop_back();
        break;
      }
    }
    std::fclose(f);
  }
  std::printf("machine: %s %s, %s, %u hardware threads\n", u.sysname, u.release, cpu.c_str(),
              std::thread::hardware_concurrency());
}

}  // namespace

int main(int argc, char** argv) {
  Setup s;
  s.bytes = EnvNumber("LOCALDISK_BENCH_BYTES", 1LL << 30);
  s.files = EnvNumber("LOCALDISK_BENCH_FILES", 100000);
  const long long reps = EnvNumber("LOCALDISK_BENCH_REPS", 3);
  setup = &s;
  PrintMachine();
  std::printf("data: %lld bytes to read and upload, %lld files to list, %lld repetitions\n",
              s.bytes, s.files, reps);
  MakeData(s);

  benchmark::Initialize(&argc, argv);
  // Baseline and plug-in alternate, and swap which goes first on every other
  // repetition, so a busy moment on a shared machine hits both sides alike.
  const struct {
    const char* baseline_name;
    void (*baseline)(benchmark::State&);
    const char* plugin_name;
    void (*plugin)(benchmark::State&);
  } kinds[] = {{"read/baseline", ReadBaseline, "read/plugin", ReadPlugin},
               {"upload/baseline", UploadBaseline, "upload/plugin", UploadPlugin},
               {"list/baseline", ListBaseline, "list/plugin", ListPlugin}};
  for (const auto& kind : kinds) {
    for (long long r = 0; r < reps; ++r) {
      const bool baseline_first = r % 2 == 0;
      for (int side = 0; side < 2; ++side) {
        const bool baseline = (side == 0) == baseline_first;
        benchmark::RegisterBenchmark(baseline ? kind.baseline_name : kind.plugin_name,
                                     baseline ? kind.baseline : kind.plugin)
            ->Iterations(1)
            ->UseRealTime()
            ->Unit(benchmark::kMillisecond);
      }
    }
  }
  // Untimed passes: the big file into the page cache, and one upload-sized
  // write so that neither side pays for the first growth of the page cache.
  {
    std::unique_ptr<char[]> buffer(new char[kChunk]);
    const int fd = open(s.big_file.c_str(), O_RDONLY);
    while (read(fd, buffer.get(), kChunk) > 0) {
    }
    close(fd);
    const std::string warm = s.upload_dir + "/warm.bin";
    const int out = open(warm.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    for (long long written = 0; written < s.bytes; written += kChunk) {
      const long long n = std::min(kChunk, s.bytes - written);
      if (write(out, s.block.data(), static_cast<size_t>(n)) != n) break;
    }
    close(out);
    std::remove(warm.c_str());
  }

  CollectingReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();

  std::error_code ignored;
  std::filesystem::remove_all(s.dir, ignored);

  // On a shared machine the wall time also counts the moments another job
  // held the core; CPU time (user + system of the measuring thread) does not.
  // The best (least disturbed) of the repetitions is the steadiest figure
  // there; all four are printed.
  std::printf("\nratio = baseline time / plug-in time over %lld repetitions (goal in brackets)\n",
              reps);
  const struct {
    const char* name;
    double goal;
  } pairs[] = {{"read", 0.95}, {"upload", 0.95}, {"list", 0.90}};
  for (const auto& pair : pairs) {
    const std::string name = pair.name;
    const auto& base_wall = reporter.seconds[name + "/baseline"];
    const auto& ours_wall = reporter.seconds[name + "/plugin"];
    const auto& base_cpu = reporter.cpu_seconds[name + "/baseline"];
    const auto& ours_cpu = reporter.cpu_seconds[name + "/plugin"];
    if (Median(base_wall) <= 0 || Median(ours_wall) <= 0 || Median(ours_cpu) <= 0 ||
        Min(ours_wall) <= 0 || Min(ours_cpu) <= 0) {
      std::printf("%-7s no result\n", pair.name);
      continue;
    }
    std::printf(
        "%-7s wall median: baseline %8.2f ms, plug-in %8.2f ms, ratio %.3f [>= %.2f]; "
        "wall best: ratio %.3f; CPU median: ratio %.3f; CPU best: ratio %.3f\n",
        pair.name, Median(base_wall) * 1e3, Median(ours_wall) * 1e3,
        Median(base_wall) / Median(ours_wall), pair.goal, Min(base_wall) / Min(ours_wall),
        Median(base_cpu) / Median(ours_cpu), Min(base_cpu) / Min(ours_cpu));
  }
  return 0;
}
