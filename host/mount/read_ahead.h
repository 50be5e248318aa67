// Sequential reads of a file that is not staged: one plug-in Read fills a
// window of the file, later kernel requests inside it are served from
// memory, and while the reader works through a window the next one is
// fetched in the background. The window grows while the reads stay
// sequential; a seek elsewhere, the close or the end of the mount cancels
// the background transfer through its handle.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include "host/core/client.h"
#include "protocol/contract.h"

namespace plughost {

struct ReadAhead {
  static constexpr long long kFirstWindow = 256 << 10;
  static constexpr long long kLargestWindow = 8 << 20;

  ReadAhead() = default;
  ReadAhead(const ReadAhead&) = delete;
  ReadAhead& operator=(const ReadAhead&) = delete;
  // Cancels the background transfer and waits for it.
  ~ReadAhead();

  long long start = 0;     // offset of data[0]
  std::vector<char> data;  // bytes [start, start + data.size())
  long long next = -1;     // where a sequential reader reads next
  long long window = kFirstWindow;

  // The next window, on its way.
  struct Prefetch {
    long long start = 0;
    std::shared_ptr<std::vector<char>> data;
    std::shared_ptr<_FS_HANDLE> handle;
    std::future<long long> got;  // bytes delivered, or a negative errno
  };
  std::unique_ptr<Prefetch> prefetch;

  void Cancel();
};

// Serves `size` bytes at `offset` of the file at protocol path `path`, known
// to be `known` bytes long, through `ahead`. Bytes read or a negative errno.
long long ReadThrough(Client& client, const std::string& path, long long known, ReadAhead& ahead,
                      char* buffer, std::size_t size, off_t offset);

}  // namespace plughost
