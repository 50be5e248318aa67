#include "host/mount/read_ahead.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <utility>

#include "host/core/adapters.h"
#include "host/mount/mount_support.h"

namespace plughost {

namespace {

// One plug-in transfer of [offset, offset + length) into `out`; the bytes
// delivered (short when the file shrank meanwhile, or when cancelled through
// `handle`) or a negative errno.
long long Fetch(Client& client, const std::string& path, long long offset, long long length,
                char* out, const std::shared_ptr<_FS_HANDLE>& handle) {
  long long got = 0;
  FetchAdapter sink(
      [&](long long position, const char* data, long long count) {
        if (count <= 0) {
          // Truncated meanwhile: what arrived is all there is.
          handle->state.store(FS_HANDLE_STOP);
          return;
        }
        long long begin = position - offset;
        if (begin < 0 || begin >= length) return;
        long long take = std::min(count, length - begin);
        std::memcpy(out + begin, data, static_cast<std::size_t>(take));
        got = std::max(got, begin + take);
      },
      handle);
  AERROR result = client.Read(path, offset, length, handle, &sink, nullptr);
  if (result != SUCCESS && result != READ_CANCELED) return ErrnoOf(result);
  return got;
}

// Starts the transfer of the window after the current one.
void StartPrefetch(Client& client, const std::string& path, long long known, ReadAhead& ahead) {
  const long long begin = ahead.start + static_cast<long long>(ahead.data.size());
  const long long length = std::min(ahead.window, known - begin);
  if (length <= 0) return;
  auto prefetch = std::make_unique<ReadAhead::Prefetch>();
  prefetch->start = begin;
  prefetch->data = std::make_shared<std::vector<char>>(static_cast<std::size_t>(length));
  prefetch->handle = std::make_shared<_FS_HANDLE>();
  prefetch->got = std::async(std::launch::async,
                             [&client, path, begin, length, data = prefetch->data,
                              handle = prefetch->handle]() noexcept -> long long {
                               try {
                                 return Fetch(client, path, begin, length, data->data(), handle);
                               } catch (...) {
                                 return -EIO;
                               }
                             });
  ahead.prefetch = std::move(prefetch);
}

}  // namespace

void ReadAhead::Cancel() {
  if (!prefetch) return;
  prefetch->handle->state.store(FS_HANDLE_STOP);
  if (prefetch->got.valid()) prefetch->got.wait();
  prefetch.reset();
}

ReadAhead::~ReadAhead() {
  Cancel();
}

long long ReadThrough(Client& client, const std::string& path, long long known, ReadAhead& ahead,
                      char* buffer, std::size_t size, off_t offset) {
  const long long want = std::min<long long>(static_cast<long long>(size), known - offset);
  if (want <= 0) return 0;
  const long long end = ahead.start + static_cast<long long>(ahead.data.size());
  const bool sequential = offset == ahead.next;
  if (offset < ahead.start || offset + want > end) {
    bool filled = false;
    if (ahead.prefetch && sequential && ahead.prefetch->start == offset) {
      // The reader went on where it stopped: the next window is on its way.
      long long got = ahead.prefetch->got.get();
      if (got >= want) {
        ahead.data.swap(*ahead.prefetch->data);
        ahead.data.resize(static_cast<std::size_t>(got));
        ahead.start = offset;
        filled = true;
      }
      ahead.prefetch.reset();
    }
    ahead.Cancel();
    if (!filled) {
      // A new window: larger while the reader goes on where it stopped.
      ahead.window = sequential ? std::min(ahead.window * 2, ReadAhead::kLargestWindow)
                                : ReadAhead::kFirstWindow;
      // The plug-in must never be asked past the end: it would hand out
      // empty chunks until cancelled.
      long long length = std::min(std::max(ahead.window, want), known - offset);
      ahead.data.resize(static_cast<std::size_t>(length));
      long long got =
          Fetch(client, path, offset, length, ahead.data.data(), std::make_shared<_FS_HANDLE>());
      if (got < 0) {
        ahead.data.clear();
        return got;
      }
      ahead.start = offset;
      ahead.data.resize(static_cast<std::size_t>(got));
    } else if (sequential) {
      ahead.window = std::min(ahead.window * 2, ReadAhead::kLargestWindow);
    }
  }
  const long long available =
      std::min(want, ahead.start + static_cast<long long>(ahead.data.size()) - offset);
  if (available <= 0) return 0;
  std::memcpy(buffer, ahead.data.data() + (offset - ahead.start),
              static_cast<std::size_t>(available));
  ahead.next = offset + available;
  // Past the middle of a window of a sequential reader: fetch the next one.
  const long long window_end = ahead.start + static_cast<long long>(ahead.data.size());
  if (!ahead.prefetch && !ahead.data.empty() && window_end < known &&
      ahead.next - ahead.start >= static_cast<long long>(ahead.data.size()) / 2) {
    StartPrefetch(client, path, known, ahead);
  }
  return available;
}

}  // namespace plughost
