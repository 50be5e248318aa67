// Finding and removing the temporary files a killed transfer leaves.
#include "host/core/transfer.h"

#include <algorithm>
#include <cstdio>
#include <ctime>

#include "host/core/file_time.h"
#include "host/core/transfer_internal.h"

namespace plughost {

using namespace transfer_internal;

// --- stale temporary files ---------------------------------------------------------------

std::optional<long long> AgeSeconds(const std::string& modify_time, std::time_t now) {
  const long long fields = PackFileTimeFields(modify_time);
  if (fields == kNoFields) return std::nullopt;
  long long age = static_cast<long long>(now - FileTimeInstant(modify_time));
  // In the repeated autumn hour the fields name two instants and the codec
  // takes the earlier: a file a running transfer wrote a moment ago, in the
  // second pass, would look an hour old. The difference of the wall-clock
  // fields is right there, and smaller only around a clock change, so the
  // smaller of the two never makes a busy file look stale.
  struct tm local {};
  char text[32];
  if (localtime_r(&now, &local) != nullptr &&
      std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &local) > 0) {
    const long long now_fields = PackFileTimeFields(text);
    if (now_fields != kNoFields) age = std::min(age, now_fields - fields);
  }
  return age;
}

namespace {

void Find(Client& client, const std::string& directory, const std::string& relative, int depth,
          int max_depth, std::vector<TemporaryFile>* found) {
  std::vector<_FS_FILE_V2> entries;
  try {
    entries = client.List(directory, {"cleanup", relative.empty() ? "/" : relative});
  } catch (const ProtocolError&) {
    if (depth == 0) throw;
    return;  // vanished or unreadable meanwhile
  }
  for (const _FS_FILE_V2& entry : entries) {
    const std::string path = Join(directory, entry.name);
    const std::string child = relative.empty() ? entry.name : relative + "/" + entry.name;
    if (entry.type == 2) {
      if (depth < max_depth) Find(client, path, child, depth + 1, max_depth, found);
      continue;
    }
    TemporaryKind kind = TemporaryKindOf(entry.name);
    if (entry.type != 1 || kind == TemporaryKind::kNone) continue;
    TemporaryFile file;
    file.path = path;
    file.relative = child;
    file.name = entry.name;
    file.kind = kind;
    file.size = entry.size;
    file.modify_time = entry.modify_time;
    found->push_back(std::move(file));
  }
}

}  // namespace

std::vector<TemporaryFile> FindTemporaryFiles(Client& client, const std::string& directory,
                                              const std::string& relative, int max_depth) {
  std::vector<TemporaryFile> found;
  Find(client, directory, relative, 0, max_depth, &found);
  std::sort(found.begin(), found.end(),
            [](const TemporaryFile& a, const TemporaryFile& b) { return a.relative < b.relative; });
  return found;
}

std::vector<CleanupEntry> CleanupTemporaryFiles(Client& client,
                                                const std::vector<TemporaryFile>& files,
                                                const CleanupOptions& options) {
  const std::time_t now = options.now != 0 ? options.now : std::time(nullptr);
  std::vector<CleanupEntry> done;
  for (const TemporaryFile& file : files) {
    CleanupEntry entry;
    entry.file = file;
    std::optional<long long> age = AgeSeconds(file.modify_time, now);
    if (age && *age < options.min_age_seconds) {
      entry.action = CleanupAction::kSkippedRecent;
      done.push_back(std::move(entry));
      continue;
    }
    try {
      if (file.kind == TemporaryKind::kBackup) {
        // An old version kept aside by a swap that did not finish: it goes
        // back to its name if that is missing, else it has been superseded.
        const std::string parent = ParentOf(file.path, file.name);
        const std::string original = OriginalNameOf(file.name);
        // The list may be old by now: the kept file must still be there, and
        // the name is checked last, right before the move. The protocol has
        // no exclusive move, so a put that completes in the one call between
        // that check and the move loses to the old version where the
        // plug-in's Move replaces a name; plug-ins that leave ".old" files are
        // the ones whose Move refuses an existing name, and there the restore
        // fails instead and both files stay.
        if (!options.dry_run && !Existing(client, file.path)) {
          entry.action = CleanupAction::kFailed;
          entry.detail = "it is gone";
          done.push_back(std::move(entry));
          continue;
        }
        if (!Existing(client, Join(parent, original))) {
          if (!options.dry_run) client.Move(file.path, parent, original, {"cleanup", file.path});
          entry.action = CleanupAction::kRestored;
          entry.detail = original;
          done.push_back(std::move(entry));
          continue;
        }
      }
      if (!options.dry_run) client.Delete(file.path, {"cleanup", file.path});
      entry.action = CleanupAction::kRemoved;
    } catch (const ProtocolError& error) {
      entry.action = CleanupAction::kFailed;
      entry.detail = DescribeError(client, error);
    }
    done.push_back(std::move(entry));
  }
  return done;
}

}  // namespace plughost
