// The part of a host cache's answer that every test cache shares: copying the
// requested window of an in-memory content into the request.
#pragma once

#include <algorithm>
#include <cstring>
#include <string>

#include "protocol/records.h"

namespace test_support {

// Copies what `content` holds at the request's offset, at most its capacity,
// into its buffer; the number of bytes copied (0 past the end).
inline long long CopyWindow(const std::string& content, _FS_CACHE_READ* request) {
  long long n = 0;
  if (request->offset < static_cast<long long>(content.size())) {
    n = std::min<long long>(request->capacity,
                            static_cast<long long>(content.size()) - request->offset);
    std::memcpy(request->buffer, content.data() + request->offset, static_cast<size_t>(n));
  }
  return n;
}

}  // namespace test_support
