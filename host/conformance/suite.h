// The conformance suite as one object: the plug-in, its protocol object and
// the scratch directory the checks share, the helpers that call the
// contract's operations (every message goes back through FreeMsg), and one
// member per check. The checks are defined by concern in checks_*.cpp; the
// table of names and the report are in report.cpp.
#pragma once

#include <dlfcn.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "host/conformance/conformance.h"
#include "host/conformance/fixtures.h"
#include "host/core/adapters.h"
#include "host/core/plugin.h"
#include "protocol/contract.h"

namespace plughost::conformance::detail {

class Suite {
 public:
  explicit Suite(const Options& options) : options_(options) {}
  ~Suite();

  using Check = void (Suite::*)();
  static const std::vector<std::pair<const char*, Check>>& Table();

  std::vector<Result> RunAll();

 private:
  // --- preconditions and helpers -------------------------------------------

  void NeedPlugin();
  void NeedLibrary();
  IProtocol_V2* NeedObject();
  void NeedRoot();
  void NeedScratch();
  void NeedFile(const std::string& name);

  // Codes are named from the shared table, whatever the plug-in exports.
  static std::string Name(AERROR code);
  void ExpectCode(AERROR got, AERROR want, const std::string& what);
  void ExpectSuccess(AERROR got, const std::string& what) { ExpectCode(got, SUCCESS, what); }
  void ExpectFailure(AERROR got, const std::string& what);

  // A protocol path below the scratch directory ("" is the scratch itself).
  std::string Path(const std::string& relative) const;
  static std::string Child(const std::string& directory, const std::string& name);

  // Every message an operation stores goes back through FreeMsg.
  void Take(char* msg);

  AERROR Info(const std::string& path, _FS_FILE_V2* file);
  bool Exists(const std::string& path);
  AERROR List(const std::string& path, std::vector<_FS_FILE_V2>* files);
  std::vector<_FS_FILE_V2> ListOrFail(const std::string& path);
  AERROR Mkdir(const std::string& parent, const std::string& name, _FS_FILE_V2* file);
  AERROR MoveCall(AERROR (IProtocol_V2::*operation)(const char*, const char*, _FS_FILE_V2*, char**),
                  const std::string& from, const std::string& to, const std::string& name,
                  _FS_FILE_V2* file);
  AERROR DeleteCall(AERROR (IProtocol_V2::*operation)(_FS_FILE_V2*, char**),
                    const std::string& path);
  AERROR UploadWith(const std::string& parent, const std::string& name, long long size,
                    Source* source, std::shared_ptr<_FS_HANDLE> handle, _FS_FILE_V2* file,
                    UPLOAD_FLAG flag = UPLOAD_FLAG_NONE);
  AERROR Upload(const std::string& parent, const std::string& name, const std::string& content,
                _FS_FILE_V2* file, UPLOAD_FLAG flag = UPLOAD_FLAG_NONE);
  AERROR ReadCall(const std::string& path, long long offset, long long length,
                  std::shared_ptr<_FS_HANDLE> handle, Sink* sink);
  // Reads a range that exists and compares it byte for byte.
  // Reads `length` bytes from the start of `path`: the result must be SUCCESS
  // (when `expected` is) or a failure, and no byte may be delivered.
  void ExpectNothingRead(const std::string& path, long long length, AERROR expected,
                         const std::string& what);
  // Uploads `chunks` chunks as `name` with the handle stopped before the start
  // (`cancel_at` < 0) or once chunk `cancel_at` is delivered: UPLOAD_CANCELED
  // after exactly `requests` cache requests.
  void ExpectCancelledUpload(const std::string& name, int chunks, int cancel_at, int requests,
                             const std::string& what);
  void ExpectRange(const std::string& path, const std::string& content, long long offset,
                   long long length);
  void Remove(const std::string& path) { DeleteCall(&IProtocol_V2::Delete, path); }
  // Removes a tree depth first through the contract's own operations.
  void RemoveTree(const std::string& path, int depth);
  std::set<std::string> Names(const std::vector<_FS_FILE_V2>& files);
  static std::string Join(const std::set<std::string>& names);

  // Buffer-and-length rules of a text output. `strict`: the text always
  // exists (the root identifier); otherwise an operation may have no text.
  void CheckBufferRules(const std::function<AERROR(char*, int*)>& call, const std::string& what,
                        bool strict);

  // --- the checks ------------------------------------------------------------

  // entry points, the object, identifiers and their buffers, quota (checks_entry.cpp)
  void LoadEntryPoints();
  template <typename Function>
  Function Symbol(const char* name) {
    void* symbol = dlsym(library_, name);
    if (symbol == nullptr) Fail(std::string("no entry point ") + name);
    return reinterpret_cast<Function>(symbol);
  }
  void EntryGetProtocolNull();
  void EntrySupportProtocol();
  void EntryLogger();
  void EntryAuth();
  void ObjectCreate();
  void ObjectOptions();
  void ObjectType();
  void ObjectPid();
  void ObjectLocalConfiguration();
  void RootIdNullLength();
  void RootIdBufferRules();
  void RootIdResolve();
  void IdentifierNullLength();
  void IdentifierBufferRules();
  void UserInfoNullLength();
  void UserInfoBufferRules();
  void QuotaFigures();
  void QuotaNullPointers();
  void FreeMsgNull();

  // records, listings, directories, moves, times, deletes (checks_namespace.cpp)
  void InfoRoot();
  void InfoMissing();
  void ListRoot();
  void ListMissing();
  void MkdirScratch();
  void ListEmpty();
  void MkdirNested();
  void MkdirMissingParent();
  void ListEntriesOnce();
  void ListTypesAndSizes();
  void ListTimes();
  void ListParents();
  void ListIds();
  void ListFile();
  void InfoFile();
  void MkdirExisting();
  std::string Prepare(const std::string& relative, std::uint32_t seed, long long size = 70000);
  void ExpectMoved(const std::string& from, const std::string& to, const std::string& content,
                   const _FS_FILE_V2& record);
  void MoveIntoDirectory();
  void MoveAndRename();
  void RenameSameDirectory();
  void MoveRecordId();
  void MoveDirKeepsTree();
  void MoveMissing();
  static std::string SettableTime(int variant);
  void SetTime(bool modify);
  void SetTimeModify() { SetTime(true); }
  void SetTimeAccess() { SetTime(false); }
  void SetTimeMissing();
  void DeleteFile();
  std::map<std::string, std::pair<int, long long>> Tree(const std::string& relative, int depth = 0);
  void DeleteNonEmpty();
  void DeleteEmptyDirectory();
  void DeleteMissing();

  // uploads, reads, progress, cancel (checks_transfer.cpp)
  void UploadSize(long long size);
  void Upload0() { UploadSize(0); }
  void Upload1() { UploadSize(1); }
  void UploadChunk() { UploadSize(kChunk); }
  void UploadChunkPlus1() { UploadSize(kChunk + 1); }
  void UploadSeveralMiB() { UploadSize(kSeveralMiB); }
  void ReadRanges(long long size);
  void ReadRanges1() { ReadRanges(1); }
  void ReadRangesChunk() { ReadRanges(kChunk); }
  void ReadRangesChunkPlus1() { ReadRanges(kChunk + 1); }
  void ReadRangesSeveralMiB() { ReadRanges(kSeveralMiB); }
  void ReadZeroLength();
  void ReadMissing();
  void ProgressUpload();
  void ProgressRead();
  void ReadChunksContiguous();
  void CancelReadBefore();
  void CancelReadDuring();
  void CancelUploadBefore();
  void CancelUploadDuring();
  void UploadSourceFails(int at);
  void UploadSourceFailsFirst() { UploadSourceFails(0); }
  void UploadSourceFailsLater() { UploadSourceFails(1); }
  void UploadOverwrite();
  void UploadMissingDirectory();

  // threads, messages and the end of the run (checks_concurrency.cpp)
  void ThreadsTransfers();
  void ThreadsReaders();
  void FreeMsgMessages();
  void Cleanup();
  void ReleaseLast();

 public:
  // Runs at the end whatever happened, so that a failing check never leaves
  // the scratch directory behind.
  void RemoveScratch();

 private:
  // A few passes, so that a listing that misses entries still ends empty.
  void RemoveScratchTree();

 private:
  const Options& options_;
  std::optional<Plugin> plugin_;
  void* library_ = nullptr;
  std::unique_ptr<StderrLog> log_;
  MemoryConfiguration config_;
  MemoryLocalConfiguration local_config_;
  ProtocolHandle protocol_;  // after the configurations: released first
  std::string protocol_name_;
  std::string root_id_;
  bool root_ok_ = false;
  std::string scratch_;
  bool scratch_ok_ = false;
  std::set<std::string> root_names_;
  bool root_listed_ = false;
  std::map<std::string, std::string> files_;  // top-level files of the scratch directory
  std::set<std::string> dirs_;                // top-level directories of it
  std::atomic<int> messages_{0};
  std::atomic<int> bad_messages_{0};
  std::string note_;  // detail of a passing check
};

}  // namespace plughost::conformance::detail
