// Sequential reads of a file that is not staged: one plug-in Read fills a
// window of the file, later kernel requests inside it are served from
// memory, and the window grows while the reads stay sequential. A seek
// outside the window drops it; the next request starts a small one.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <vector>

#include "host/core/client.h"

namespace plughost {

struct ReadAhead {
  static constexpr long long kFirstWindow = 256 << 10;
  static constexpr long long kLargestWindow = 16 << 20;

  long long start = 0;     // offset of data[0]
  std::vector<char> data;  // bytes [start, start + data.size())
  long long next = -1;     // where a sequential reader reads next
  long long window = kFirstWindow;
};

// Serves `size` bytes at `offset` of the file at protocol path `path`, known
// to be `known` bytes long, through `ahead`. Bytes read or a negative errno.
long long ReadThrough(Client& client, const std::string& path, long long known, ReadAhead& ahead,
                      char* buffer, std::size_t size, off_t offset);

}  // namespace plughost
