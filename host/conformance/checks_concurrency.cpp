// Checks of independent transfers in several threads at once, and of the end
// of a run: every message freed, the scratch directory gone, Release last.
#include "host/conformance/suite.h"

#include <thread>

namespace plughost::conformance::detail {

void Suite::ThreadsTransfers() {
  NeedScratch();
  constexpr int kThreads = 4;
  std::vector<std::string> errors(kThreads);
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([this, i, &errors] {
      try {
        const std::string name = "thread-" + std::to_string(i);
        const long long size = kChunk * 2 + 4099 * (i + 1);
        const std::string content = Pattern(size, 100 + static_cast<std::uint32_t>(i));
        auto handle = NewHandle();
        Source source(content, handle);
        _FS_FILE_V2 file;
        AERROR code = UploadWith(Path(""), name, size, &source, handle, &file);
        if (code != SUCCESS) throw std::runtime_error("Upload " + name + ": " + Name(code));
        std::vector<_FS_FILE_V2> listing;
        code = List(Path(""), &listing);
        if (code != SUCCESS) throw std::runtime_error("GetFileList: " + Name(code));
        auto read = NewHandle();
        Sink sink(0, read);
        code = ReadCall(Path(name), 0, size, read, &sink);
        if (code != SUCCESS) throw std::runtime_error("Read " + name + ": " + Name(code));
        std::string diff = Difference(content, sink.data());
        if (!diff.empty()) throw std::runtime_error("Read " + name + ": " + diff);
      } catch (const std::exception& error) {
        errors[static_cast<size_t>(i)] = error.what();
      }
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  for (int i = 0; i < kThreads; ++i) {
    Expect(errors[static_cast<size_t>(i)].empty(),
           "thread " + std::to_string(i) + ": " + errors[static_cast<size_t>(i)]);
    files_["thread-" + std::to_string(i)] = "";  // removed with the scratch directory
  }
}

void Suite::ThreadsReaders() {
  const std::string name = "size-" + std::to_string(kSeveralMiB);
  NeedFile(name);
  const std::string& content = files_[name];
  constexpr int kThreads = 4;
  std::vector<std::string> errors(kThreads);
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      const long long offset = 777 * i + kChunk * i / 2;
      const long long length = kSeveralMiB - offset - 1;
      auto handle = NewHandle();
      Sink sink(offset, handle);
      AERROR code = ReadCall(Path(name), offset, length, handle, &sink);
      std::string diff = Difference(
          content.substr(static_cast<size_t>(offset), static_cast<size_t>(length)), sink.data());
      if (code != SUCCESS) diff = "Read: " + Name(code);
      errors[static_cast<size_t>(i)] = diff;
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  for (int i = 0; i < kThreads; ++i)
    Expect(errors[static_cast<size_t>(i)].empty(),
           "reader " + std::to_string(i) + ": " + errors[static_cast<size_t>(i)]);
}

void Suite::FreeMsgMessages() {
  NeedObject();
  Expect(bad_messages_.load() == 0, "a message was not a terminated text");
  note_ = std::to_string(messages_.load()) + " messages freed with FreeMsg";
}

void Suite::Cleanup() {
  NeedScratch();
  scratch_ok_ = false;
  RemoveScratchTree();
  Expect(!Exists(Path("")), "the scratch directory " + Path("") + " could not be removed");
  if (!root_listed_) Skip("the root was not listed before");
  std::set<std::string> now = Names(ListOrFail(root_id_));
  Expect(now == root_names_,
         "the root lists " + Join(now) + " after the run, " + Join(root_names_) + " before");
}

void Suite::ReleaseLast() {
  NeedObject();
  protocol_.reset();  // Release
  // The plug-in still makes and ends objects afterwards.
  ProtocolHandle again = plugin_->CreateProtocol(&config_);
  Expect(static_cast<bool>(again), "no object after Release");
  again.reset();
}

}  // namespace plughost::conformance::detail
