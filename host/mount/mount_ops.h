// Kernel glue: the libfuse operations table over MountFs. Every operation
// turns into one MountFs call; nothing here decides anything about files.
#pragma once

struct fuse_operations;

namespace plughost {

class MountFs;

// How long the kernel may trust what it was told, and whether it caches
// written pages itself.
struct KernelTuning {
  double attr_timeout = 10.0;           // attributes and entries
  unsigned transfer_size = 1u << 20;    // max_read, max_write, readahead
  bool writeback_cache = false;         // the kernel gathers writes into pages
  bool direct_writes_coherent = false;  // set at init: KernelDropsPagesOnDirectWrites
};

// What fuse_new receives as its private data: init hands it on.
struct KernelContext {
  MountFs* fs = nullptr;
  KernelTuning tuning;
};

// The table for fuse_new; static storage.
const fuse_operations* Operations();

}  // namespace plughost
