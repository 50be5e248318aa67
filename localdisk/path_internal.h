// Path normalisation shared by the local-disk operations. Not installed.
#pragma once

#include <cstring>
#include <string>

// The normal form of the first `length` bytes of `path` (which need not be
// NUL-terminated): empty and "." segments dropped, ".." cutting the previous
// segment (never above the start), no trailing separator except for "/".
// Relative input stays relative; an empty or fully collapsing relative input
// yields "". The result comes from malloc and is released with free.
char* normalize_path(const char* path, unsigned long length);

// Stores in `out` the identifier of `name` inside `directory`: one separator
// added unless `directory` already ends with it (an empty one gets it too).
// Reuses the capacity `out` already has.
void join_path_into(std::string& out, const std::string& directory, const std::string& name,
                    char separator);

#if defined(__APPLE__)
// The C library has no memrchr here: the last of the first `n` bytes of `s`
// equal to `c` (as an unsigned byte), or null.
extern "C" void* memrchr(const void* s, int c, unsigned long n);
#endif
