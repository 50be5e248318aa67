// What the checks of the conformance suite share besides the suite itself:
// how a check fails or is skipped, contents that show a wrong byte, handles
// that log progress, and the fetch sink and upload source that note every
// request that breaks the rules.
#pragma once

#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "protocol/contract.h"

namespace plughost::conformance::detail {

constexpr long long kChunk = 524288;  // the transfer chunk of the contract
constexpr long long kSeveralMiB = 3 * 1048576 + 12345;
inline constexpr char kMissing[] = "plughost-check-missing";

struct CheckFailed {
  std::string detail;
};
struct CheckSkipped {
  std::string detail;
};

[[noreturn]] inline void Fail(std::string detail) {
  throw CheckFailed{std::move(detail)};
}
[[noreturn]] inline void Skip(std::string detail) {
  throw CheckSkipped{std::move(detail)};
}
inline void Expect(bool condition, const std::string& detail) {
  if (!condition) Fail(detail);
}

// Content that tells every byte apart from its neighbours and from other
// files: a corrupted, dropped or shifted byte shows.
inline std::string Pattern(long long size, std::uint32_t seed) {
  std::string data(static_cast<size_t>(size), '\0');
  std::uint32_t x = seed * 2654435761u + 0x9e3779b9u;
  for (char& c : data) {
    x ^= x << 13;
    x ^= x >> 17;
    x ^= x << 5;
    c = static_cast<char>(x >> 24);
  }
  return data;
}

// "expected ... got ..." for two byte strings.
inline std::string Difference(const std::string& expected, const std::string& got) {
  size_t n = std::min(expected.size(), got.size());
  for (size_t i = 0; i < n; ++i) {
    if (expected[i] != got[i]) {
      char text[128];
      std::snprintf(text, sizeof text, "byte %zu differs: expected 0x%02x, got 0x%02x", i,
                    static_cast<unsigned char>(expected[i]), static_cast<unsigned char>(got[i]));
      return text;
    }
  }
  if (expected.size() != got.size())
    return "expected " + std::to_string(expected.size()) + " bytes, got " +
           std::to_string(got.size());
  return {};
}

// Progress reports of one transfer: (total, done) in call order.
struct ProgressLog {
  std::vector<std::pair<long long, long long>> calls;
};

inline void OnProgress(long long total, long long done, std::uint64_t context, double) {
  reinterpret_cast<ProgressLog*>(static_cast<uintptr_t>(context))->calls.emplace_back(total, done);
}

inline std::shared_ptr<_FS_HANDLE> NewHandle(ProgressLog* log = nullptr) {
  auto handle = std::make_shared<_FS_HANDLE>();
  if (log != nullptr) {
    handle->progress = OnProgress;
    handle->progress_context = static_cast<std::uint64_t>(reinterpret_cast<uintptr_t>(log));
  }
  return handle;
}

// Collects what a Read delivers and whether the chunks follow each other.
class Sink final : public IFetchCallback {
 public:
  Sink(long long start, std::shared_ptr<_FS_HANDLE> handle, int cancel_after_chunks = -1)
      : next_(start), handle_(std::move(handle)), cancel_after_(cancel_after_chunks) {}

  AERROR OnFetch(long long offset, const char* data, long long length, long long* out) override {
    if (out != nullptr) *out = 0;
    ++chunks_;
    if (offset != next_ && problem_.empty())
      problem_ = "chunk " + std::to_string(chunks_) + " starts at " + std::to_string(offset) +
                 ", expected " + std::to_string(next_);
    if (length < 0 || (length > 0 && data == nullptr)) {
      if (problem_.empty()) problem_ = "chunk of length " + std::to_string(length);
      return FAILED;
    }
    // A plug-in that cannot see the end of a file keeps sending empty chunks
    // until the host stops it; the suite asks only for existing ranges, so
    // this is a fault, and stopping keeps the suite from spinning.
    if (length == 0 && ++empty_ > 64) {
      if (problem_.empty()) problem_ = "endless empty chunks";
      handle_->state.store(FS_HANDLE_STOP);
    }
    if (length > 0) data_.append(data, static_cast<size_t>(length));
    next_ = offset + length;
    if (cancel_after_ >= 0 && chunks_ >= cancel_after_) handle_->state.store(FS_HANDLE_STOP);
    return SUCCESS;
  }

  const std::string& data() const { return data_; }
  const std::string& problem() const { return problem_; }
  int chunks() const { return chunks_; }

 private:
  long long next_;
  std::shared_ptr<_FS_HANDLE> handle_;
  int cancel_after_;
  int chunks_ = 0;
  int empty_ = 0;
  std::string data_;
  std::string problem_;
};

// An upload source serving `content`, optionally failing or cancelling the
// transfer at a given request, and noting requests that break the rules.
class Source final : public ICacheIO {
 public:
  Source(std::string content, std::shared_ptr<_FS_HANDLE> handle)
      : content_(std::move(content)), handle_(std::move(handle)) {}

  int fail_at = -1;    // index of the request answered with a failure
  int cancel_at = -1;  // index of the request after which the handle says stop

  AERROR ReadCache(_FS_CACHE_READ* request) override {
    const int index = requests_++;
    if (request == nullptr || request->buffer == nullptr) {
      Note("request without a buffer");
      return FAILED;
    }
    const long long size = static_cast<long long>(content_.size());
    if (request->offset != delivered_)
      Note("request " + std::to_string(index) + " asks for offset " +
           std::to_string(request->offset) + ", expected " + std::to_string(delivered_));
    if (request->total != size)
      Note("request total " + std::to_string(request->total) + ", expected " +
           std::to_string(size));
    if (request->capacity <= 0) Note("request capacity " + std::to_string(request->capacity));
    if (index == fail_at) return FAILED;
    // A plug-in that keeps asking after everything was delivered would spin
    // for ever; stop it and say so.
    if (index > size / std::max<long long>(request->capacity, 1) + 64) {
      Note("request " + std::to_string(index) + " after all " + std::to_string(size) +
           " bytes were delivered");
      handle_->state.store(FS_HANDLE_STOP);
      return FAILED;
    }
    if (request->offset < 0 || request->offset > size || request->capacity <= 0) return FAILED;
    const long long n = std::min(request->capacity, size - request->offset);
    std::memcpy(request->buffer, content_.data() + request->offset, static_cast<size_t>(n));
    request->length = n;
    delivered_ = request->offset + n;
    if (index == cancel_at) handle_->state.store(FS_HANDLE_STOP);
    return SUCCESS;
  }

  int requests() const { return requests_; }
  const std::string& problem() const { return problem_; }

 private:
  void Note(const std::string& text) {
    if (problem_.empty()) problem_ = text;
  }
  std::string content_;
  std::shared_ptr<_FS_HANDLE> handle_;
  int requests_ = 0;
  long long delivered_ = 0;
  std::string problem_;
};

// A logger that only counts, for the logger entry points.
class CountingLog final : public ILog {
 public:
  void Write(LOGLEVEL, const char*) override { ++lines; }
  void WriteFormat(LOGLEVEL, const char*, ...) override { ++lines; }
  void WriteLog(LOGLEVEL, const char*, va_list) override { ++lines; }
  std::atomic<int> lines{0};
};

}  // namespace plughost::conformance::detail
