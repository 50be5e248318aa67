// Path mapping: protocol paths are local paths that are only cleaned up here,
// never prefixed with the root or confined to it.
#include "localdisk/path_internal.h"

#include <cstdlib>
#include <cstring>
#include <memory>

#include "localdisk/local_disk.h"

#if defined(__APPLE__)
extern "C" void* memrchr(const void* s, int c, unsigned long n) {
  const unsigned char* p = static_cast<const unsigned char*>(s);
  const unsigned char byte = static_cast<unsigned char>(c);
  while (n > 0) {
    --n;
    if (p[n] == byte) return const_cast<unsigned char*>(p + n);
  }
  return nullptr;
}
#endif

char* normalize_path(const char* path, unsigned long length) {
  // Every kept segment is written as '/' plus its bytes, so a relative input
  // can need one byte more than its length before the leading '/' is dropped
  // again; one extra byte keeps that inside the single allocation.
  char* out = static_cast<char*>(std::malloc(length == 0 ? 2 : length + 2));
  unsigned long used = 0;
  if (length != 0) {
    const char* segment = path;
    const char* const end = path + length;
    for (;;) {
      const char* slash =
          static_cast<const char*>(std::memchr(segment, '/', static_cast<size_t>(end - segment)));
      const char* const stop = slash != nullptr ? slash : end;
      const unsigned long size = static_cast<unsigned long>(stop - segment);
      if (size == 0 || (size == 1 && segment[0] == '.')) {
        // empty (repeated, leading or trailing separator) or "." : dropped
      } else if (size == 2 && segment[0] == '.' && segment[1] == '.') {
        // Cut the last written segment; the output always starts with '/'
        // when it is not empty, so the scan finds one.
        if (used != 0) {
          const char* last = static_cast<const char*>(memrchr(out, '/', used));
          used = static_cast<unsigned long>(last - out);
        }
      } else {
        out[used++] = '/';
        std::memcpy(out + used, segment, size);
        used += size;
      }
      if (slash == nullptr) break;
      segment = slash + 1;
    }
  }
  if (used == 0) out[used++] = '/';
  out[used] = '\0';
  // A relative input keeps no leading separator (terminator moves too).
  if (!(length != 0 && path[0] == '/') && out[0] == '/') std::memmove(out, out + 1, used);
  return out;
}

std::string LocalDisk::GetPath(const char* path) {
  std::string mapped(path);
  std::unique_ptr<char, void (*)(void*)> normal(normalize_path(mapped.c_str(), mapped.size()),
                                                std::free);
  mapped.assign(normal.get());
  normal.reset();
  // Only the root ends with the separator; "/." names it for the file system.
  if (!mapped.empty() && mapped.back() == separator) mapped += '.';
  return mapped;
}

void join_path_into(std::string& out, const std::string& directory, const std::string& name,
                    char separator) {
  out.reserve(directory.size() + 1 + name.size());
  out.assign(directory);
  if (out.empty() || out.back() != separator) out += separator;
  out += name;
}

std::string LocalDisk::JoinPath(const std::string& directory, const std::string& name) {
  std::string joined;
  join_path_into(joined, directory, name, separator);
  return joined;
}
