#include "host/mount/read_ahead.h"

#include <algorithm>
#include <cstring>
#include <memory>

#include "host/core/adapters.h"
#include "host/mount/mount_support.h"

namespace plughost {

namespace {

// One plug-in transfer of [offset, offset + length) into `out`; the bytes
// delivered (short when the file shrank meanwhile) or a negative errno.
long long Fetch(Client& client, const std::string& path, long long offset, long long length,
                char* out) {
  auto handle = std::make_shared<_FS_HANDLE>();
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

}  // namespace

long long ReadThrough(Client& client, const std::string& path, long long known, ReadAhead& ahead,
                      char* buffer, std::size_t size, off_t offset) {
  const long long want = std::min<long long>(static_cast<long long>(size), known - offset);
  if (want <= 0) return 0;
  const long long end = ahead.start + static_cast<long long>(ahead.data.size());
  if (offset < ahead.start || offset + want > end) {
    // A new window: larger while the reader goes on where it stopped.
    if (offset == ahead.next) {
      ahead.window = std::min(ahead.window * 2, ReadAhead::kLargestWindow);
    } else {
      ahead.window = ReadAhead::kFirstWindow;
    }
    // The plug-in must never be asked past the end: it would hand out empty
    // chunks until cancelled.
    long long length = std::min(std::max(ahead.window, want), known - offset);
    ahead.data.resize(static_cast<std::size_t>(length));
    long long got = Fetch(client, path, offset, length, ahead.data.data());
    if (got < 0) {
      ahead.data.clear();
      return got;
    }
    ahead.start = offset;
    ahead.data.resize(static_cast<std::size_t>(got));
  }
  const long long available =
      std::min(want, ahead.start + static_cast<long long>(ahead.data.size()) - offset);
  if (available <= 0) return 0;
  std::memcpy(buffer, ahead.data.data() + (offset - ahead.start),
              static_cast<std::size_t>(available));
  ahead.next = offset + available;
  return available;
}

}  // namespace plughost
