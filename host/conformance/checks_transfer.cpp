// Checks of uploads and reads: sizes around the chunk, ranges byte for byte,
// progress, cancellation, and a source that fails.
#include "host/conformance/suite.h"

#include <algorithm>

namespace plughost::conformance::detail {

void Suite::UploadSize(long long size) {
  NeedScratch();
  const std::string name = "size-" + std::to_string(size);
  const std::string content = Pattern(size, static_cast<std::uint32_t>(size) + 1);
  _FS_FILE_V2 file;
  auto handle = NewHandle();
  Source source(content, handle);
  ExpectSuccess(UploadWith(Path(""), name, size, &source, handle, &file), "Upload " + name);
  Expect(source.problem().empty(), "Upload " + name + ": " + source.problem());
  Expect(file.type == 1 && file.name == name && file.size == size,
         "Upload filled type " + std::to_string(file.type) + ", name \"" + file.name + "\", size " +
             std::to_string(file.size) + "; expected 1, \"" + name + "\", " + std::to_string(size));
  _FS_FILE_V2 info;
  ExpectSuccess(Info(file.id, &info), "GetFileInfo of the uploaded record's id " + file.id);
  Expect(info.size == size, "GetFileInfo size " + std::to_string(info.size));
  files_[name] = content;
  if (size > 0) ExpectRange(Path(name), content, 0, size);
  note_ = std::to_string(source.requests()) + " cache requests";
}

void Suite::ReadRanges(long long size) {
  const std::string name = "size-" + std::to_string(size);
  NeedFile(name);
  const std::string& content = files_[name];
  ExpectRange(Path(name), content, 0, 1);
  ExpectRange(Path(name), content, size / 2, std::min<long long>(size - size / 2, 4099));
  ExpectRange(Path(name), content, size - 1, 1);
  if (size > kChunk + 16) ExpectRange(Path(name), content, kChunk - 16, 32);  // across a chunk
  if (size > 2 * kChunk) ExpectRange(Path(name), content, 1, size - 2);
}

void Suite::ReadZeroLength() {
  const std::string name = "size-" + std::to_string(kChunk);
  NeedFile(name);
  ExpectNothingRead(Path(name), 0, SUCCESS, "Read of 0 bytes");
}

void Suite::ReadMissing() {
  NeedScratch();
  ExpectNothingRead(Path(kMissing), 1, FILE_NOT_FOUND, "Read of a missing file");
}

void Suite::ExpectNothingRead(const std::string& path, long long length, AERROR expected,
                              const std::string& what) {
  auto handle = NewHandle();
  Sink sink(0, handle);
  const AERROR got = ReadCall(path, 0, length, handle, &sink);
  // Any failure will do for a missing file: the contract names no code for it.
  if (expected == SUCCESS)
    ExpectSuccess(got, what);
  else
    ExpectFailure(got, what);
  Expect(sink.data().empty(), what + " delivered data");
}

void Suite::ProgressUpload() {
  NeedScratch();
  const long long size = 2 * kChunk + 7;
  ProgressLog log;
  auto handle = NewHandle(&log);
  Source source(Pattern(size, 11), handle);
  _FS_FILE_V2 file;
  ExpectSuccess(UploadWith(Path(""), "progress", size, &source, handle, &file), "Upload");
  files_["progress"] = Pattern(size, 11);
  Expect(!log.calls.empty(), "no progress reported");
  long long last = 0;
  for (const auto& [total, done] : log.calls) {
    Expect(total == size,
           "progress total " + std::to_string(total) + ", expected " + std::to_string(size));
    Expect(done >= last && done <= size,
           "progress went from " + std::to_string(last) + " to " + std::to_string(done));
    last = done;
  }
  Expect(last == size, "progress ended at " + std::to_string(last) + " of " + std::to_string(size));
  note_ = std::to_string(log.calls.size()) + " reports";
}

void Suite::ProgressRead() {
  const std::string name = "size-" + std::to_string(kSeveralMiB);
  NeedFile(name);
  ProgressLog log;
  auto handle = NewHandle(&log);
  Sink sink(0, handle);
  ExpectSuccess(ReadCall(Path(name), 0, kSeveralMiB, handle, &sink), "Read");
  Expect(!log.calls.empty(), "no progress reported");
  long long last = 0;
  for (const auto& [total, done] : log.calls) {
    Expect(total == kSeveralMiB, "progress total " + std::to_string(total));
    Expect(done >= last,
           "progress went back from " + std::to_string(last) + " to " + std::to_string(done));
    last = done;
  }
  Expect(last == kSeveralMiB,
         "progress ended at " + std::to_string(last) + " of " + std::to_string(kSeveralMiB));
  Expect(sink.problem().empty(), sink.problem());
  note_ = std::to_string(log.calls.size()) + " reports";
}

void Suite::ReadChunksContiguous() {
  const std::string name = "size-" + std::to_string(kSeveralMiB);
  NeedFile(name);
  auto handle = NewHandle();
  Sink sink(100, handle);
  ExpectSuccess(ReadCall(Path(name), 100, kSeveralMiB - 200, handle, &sink), "Read");
  Expect(sink.problem().empty(), sink.problem());
  Expect(sink.chunks() >= 1, "no chunk delivered");
  note_ = std::to_string(sink.chunks()) + " chunks";
}

void Suite::CancelReadBefore() {
  const std::string name = "size-" + std::to_string(kSeveralMiB);
  NeedFile(name);
  auto handle = NewHandle();
  handle->state.store(FS_HANDLE_STOP);
  Sink sink(0, handle);
  ExpectCode(ReadCall(Path(name), 0, kSeveralMiB, handle, &sink), READ_CANCELED,
             "Read with a stopped handle");
  Expect(sink.data().empty(),
         "Read with a stopped handle delivered " + std::to_string(sink.data().size()) + " bytes");
}

void Suite::CancelReadDuring() {
  const std::string name = "size-" + std::to_string(kSeveralMiB);
  NeedFile(name);
  auto handle = NewHandle();
  Sink sink(0, handle, 1);  // stop after the first chunk
  ExpectCode(ReadCall(Path(name), 0, kSeveralMiB, handle, &sink), READ_CANCELED,
             "Read stopped after its first chunk");
  Expect(static_cast<long long>(sink.data().size()) < kSeveralMiB,
         "Read stopped after its first chunk delivered the whole range");
  note_ = std::to_string(sink.data().size()) + " bytes before stopping";
}

void Suite::CancelUploadBefore() {
  ExpectCancelledUpload("cancel-before", 2, -1, 0, "Upload with a stopped handle");
}

void Suite::CancelUploadDuring() {
  ExpectCancelledUpload("cancel-during", 4, 0, 1, "Upload stopped after its first chunk");
}

void Suite::ExpectCancelledUpload(const std::string& name, int chunks, int cancel_at, int requests,
                                  const std::string& what) {
  NeedScratch();
  auto handle = NewHandle();
  if (cancel_at < 0) handle->state.store(FS_HANDLE_STOP);
  Source source(Pattern(kChunk * chunks, static_cast<std::uint32_t>(chunks) + 3), handle);
  source.cancel_at = cancel_at;
  _FS_FILE_V2 file;
  AERROR code = UploadWith(Path(""), name, kChunk * chunks, &source, handle, &file);
  Remove(Path(name));
  ExpectCode(code, UPLOAD_CANCELED, what);
  Expect(source.requests() == requests,
         what + " asked the cache " + std::to_string(source.requests()) + " times");
}

void Suite::UploadSourceFails(int at) {
  NeedScratch();
  const std::string name = "fails-at-" + std::to_string(at);
  auto handle = NewHandle();
  Source source(Pattern(kChunk * 3, 7), handle);
  source.fail_at = at;
  _FS_FILE_V2 file;
  AERROR code = UploadWith(Path(""), name, kChunk * 3, &source, handle, &file);
  bool left = Exists(Path(name));
  std::vector<_FS_FILE_V2> files;
  bool listed = List(Path(""), &files) == SUCCESS && Names(files).count(name) != 0;
  if (left || listed) Remove(Path(name));
  ExpectFailure(code, "Upload whose source fails at request " + std::to_string(at));
  Expect(!left && !listed, "Upload whose source failed left " + name + " behind");
}

void Suite::UploadOverwrite() {
  NeedFile("size-1");
  const std::string content = Pattern(1000, 99);
  _FS_FILE_V2 file;
  ExpectSuccess(Upload(Path(""), "size-1", content, &file, UPLOAD_FLAG_OVERWRITE),
                "Upload over an existing file");
  Expect(file.size == 1000,
         "Upload over an existing file filled size " + std::to_string(file.size));
  ExpectRange(Path("size-1"), content, 0, 1000);
  files_["size-1"] = content;
}

void Suite::UploadMissingDirectory() {
  NeedScratch();
  _FS_FILE_V2 file;
  ExpectFailure(Upload(Path(kMissing), "x", "data", &file), "Upload into a missing directory");
  Expect(!Exists(Path(kMissing)), "Upload into a missing directory created it");
}

}  // namespace plughost::conformance::detail
