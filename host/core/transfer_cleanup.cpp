// Finding and removing the temporary files a killed transfer leaves.
#include "host/core/transfer.h"

#include <algorithm>
#include <cstdio>
#include <ctime>

#include "host/core/transfer_internal.h"

namespace plughost {

using namespace transfer_internal;

// --- stale temporary files ---------------------------------------------------------------

std::optional<long long> AgeSeconds(const std::string& modify_time, std::time_t now) {
  struct tm fields {};
  int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
  if (std::sscanf(modify_time.c_str(), "%4d-%2d-%2dT%2d:%2d:%2d", &year, &month, &day, &hour,
                  &minute, &second) != 6) {
    return std::nullopt;
  }
  fields.tm_year = year - 1900;
  fields.tm_mon = month - 1;
  fields.tm_mday = day;
  fields.tm_hour = hour;
  fields.tm_min = minute;
  fields.tm_sec = second;
  // Local wall-clock fields; an hour off at most around a clock change,
  // which does not matter for telling a stale file from a busy one.
  fields.tm_isdst = -1;
  std::time_t when = mktime(&fields);
  if (when == static_cast<std::time_t>(-1)) return std::nullopt;
  return static_cast<long long>(now - when);
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
