#include "host/core/listing.h"

#include <algorithm>

#include "host/core/paths.h"

namespace plughost {

Entry EntryOf(const _FS_FILE_V2& record, const std::string& directory_id) {
  Entry entry;
  entry.name = record.name;
  if (record.id != JoinProtocolPath(directory_id, record.name)) entry.id = record.id;
  entry.size = record.size;
  entry.create = PackFileTimeFields(record.create_time);
  entry.access = PackFileTimeFields(record.access_time);
  entry.modify = PackFileTimeFields(record.modify_time);
  entry.type = record.type;
  return entry;
}

std::string IdOf(const Entry& entry, const std::string& directory_id) {
  return entry.id.empty() ? JoinProtocolPath(directory_id, entry.name) : entry.id;
}

void StreamEntries(Client& client, const std::string& directory_id, const Context& context,
                   const std::function<void(Entry&&)>& on_entry) {
  client.ForEach(directory_id, context,
                 [&](const _FS_FILE_V2& record) { on_entry(EntryOf(record, directory_id)); });
}

std::vector<Entry> SortedEntries(Client& client, const std::string& directory_id,
                                 const Context& context) {
  std::vector<Entry> entries;
  StreamEntries(client, directory_id, context,
                [&](Entry&& entry) { entries.push_back(std::move(entry)); });
  std::sort(entries.begin(), entries.end(),
            [](const Entry& a, const Entry& b) { return a.name < b.name; });
  return entries;
}

}  // namespace plughost
