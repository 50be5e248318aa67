// A directory listing kept small: per entry only what a front end shows
// (name, type, size, the three file times as packed numbers) instead of the
// whole protocol record, whose copies cost hundreds of bytes each.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "host/core/client.h"
#include "host/core/file_time.h"

namespace plughost {

struct Entry {
  std::string name;
  // The identifier, kept only when it is not the directory's identifier
  // joined with the name (which it always is for localdisk).
  std::string id;
  long long size = 0;
  // PackFileTimeFields of the record's texts.
  long long create = kNoFields;
  long long access = kNoFields;
  long long modify = kNoFields;
  int type = 0;  // 1 file, 2 directory

  bool directory() const noexcept { return type == 2; }
};

// The entry of a record listed in the directory whose identifier is `directory_id`.
Entry EntryOf(const _FS_FILE_V2& record, const std::string& directory_id);
// The identifier of an entry listed in `directory_id`.
std::string IdOf(const Entry& entry, const std::string& directory_id);

// Lists the directory `directory_id`, handing each entry to `on_entry` as it
// arrives (nothing is kept).
void StreamEntries(Client& client, const std::string& directory_id, const Context& context,
                   const std::function<void(Entry&&)>& on_entry);
// All entries of the directory, sorted by name (byte order).
std::vector<Entry> SortedEntries(Client& client, const std::string& directory_id,
                                 const Context& context);

}  // namespace plughost
