// The table of checks in the order they run, and the report of a run: one
// line per check and the totals, or one JSON document.
#include <json/json.h>

#include "host/conformance/conformance.h"
#include "host/conformance/suite.h"

namespace plughost::conformance {

namespace detail {

const std::vector<std::pair<const char*, Suite::Check>>& Suite::Table() {
  static const std::vector<std::pair<const char*, Check>> table = {
      {"load.entry_points", &Suite::LoadEntryPoints},
      {"entry.get_protocol_null_arguments", &Suite::EntryGetProtocolNull},
      {"entry.support_protocol_fresh_copies", &Suite::EntrySupportProtocol},
      {"entry.bind_logger", &Suite::EntryLogger},
      {"entry.auth", &Suite::EntryAuth},
      {"object.create", &Suite::ObjectCreate},
      {"object.set_opt", &Suite::ObjectOptions},
      {"object.type_matches_support_protocol", &Suite::ObjectType},
      {"object.pid_option", &Suite::ObjectPid},
      {"object.local_configuration", &Suite::ObjectLocalConfiguration},
      {"rootid.null_length", &Suite::RootIdNullLength},
      {"rootid.buffer_rules", &Suite::RootIdBufferRules},
      {"rootid.stable", &Suite::RootIdResolve},
      {"identifier.null_length", &Suite::IdentifierNullLength},
      {"identifier.buffer_rules", &Suite::IdentifierBufferRules},
      {"userinfo.null_length", &Suite::UserInfoNullLength},
      {"userinfo.buffer_rules", &Suite::UserInfoBufferRules},
      {"quota.figures", &Suite::QuotaFigures},
      {"quota.null_pointers", &Suite::QuotaNullPointers},
      {"freemsg.null", &Suite::FreeMsgNull},
      {"info.root", &Suite::InfoRoot},
      {"info.missing_leaves_record", &Suite::InfoMissing},
      {"list.root", &Suite::ListRoot},
      {"list.missing", &Suite::ListMissing},
      {"mkdir.scratch", &Suite::MkdirScratch},
      {"list.empty_directory", &Suite::ListEmpty},
      {"mkdir.nested", &Suite::MkdirNested},
      {"mkdir.missing_parent", &Suite::MkdirMissingParent},
      {"upload.0_bytes", &Suite::Upload0},
      {"upload.1_byte", &Suite::Upload1},
      {"upload.one_chunk", &Suite::UploadChunk},
      {"upload.chunk_plus_1", &Suite::UploadChunkPlus1},
      {"upload.several_mib", &Suite::UploadSeveralMiB},
      {"read.ranges_1_byte", &Suite::ReadRanges1},
      {"read.ranges_one_chunk", &Suite::ReadRangesChunk},
      {"read.ranges_chunk_plus_1", &Suite::ReadRangesChunkPlus1},
      {"read.ranges_several_mib", &Suite::ReadRangesSeveralMiB},
      {"read.zero_length", &Suite::ReadZeroLength},
      {"read.chunks_contiguous", &Suite::ReadChunksContiguous},
      {"read.missing", &Suite::ReadMissing},
      {"list.entries_once", &Suite::ListEntriesOnce},
      {"list.types_and_sizes", &Suite::ListTypesAndSizes},
      {"list.times_parse", &Suite::ListTimes},
      {"list.parents", &Suite::ListParents},
      {"list.ids_address_entries", &Suite::ListIds},
      {"list.file_is_not_a_directory", &Suite::ListFile},
      {"info.file", &Suite::InfoFile},
      {"mkdir.existing_keeps_content", &Suite::MkdirExisting},
      {"progress.upload_reaches_total", &Suite::ProgressUpload},
      {"progress.read_reaches_total", &Suite::ProgressRead},
      {"cancel.read_before_start", &Suite::CancelReadBefore},
      {"cancel.read_during", &Suite::CancelReadDuring},
      {"cancel.upload_before_start", &Suite::CancelUploadBefore},
      {"cancel.upload_during", &Suite::CancelUploadDuring},
      {"upload.source_fails_first_leaves_no_file", &Suite::UploadSourceFailsFirst},
      {"upload.source_fails_later_leaves_no_file", &Suite::UploadSourceFailsLater},
      {"upload.overwrite", &Suite::UploadOverwrite},
      {"upload.missing_directory", &Suite::UploadMissingDirectory},
      {"move.into_directory", &Suite::MoveIntoDirectory},
      {"move.and_rename", &Suite::MoveAndRename},
      {"rename.same_directory", &Suite::RenameSameDirectory},
      {"move.record_id", &Suite::MoveRecordId},
      {"movedir.keeps_tree", &Suite::MoveDirKeepsTree},
      {"move.missing_source", &Suite::MoveMissing},
      {"settime.modify_round_trip", &Suite::SetTimeModify},
      {"settime.access_round_trip", &Suite::SetTimeAccess},
      {"settime.missing", &Suite::SetTimeMissing},
      {"delete.file", &Suite::DeleteFile},
      {"delete.non_empty_directory", &Suite::DeleteNonEmpty},
      {"delete.empty_directory", &Suite::DeleteEmptyDirectory},
      {"delete.missing", &Suite::DeleteMissing},
      {"threads.parallel_transfers", &Suite::ThreadsTransfers},
      {"threads.parallel_readers", &Suite::ThreadsReaders},
      {"freemsg.every_message", &Suite::FreeMsgMessages},
      {"cleanup.scratch_removed", &Suite::Cleanup},
      {"release.last", &Suite::ReleaseLast},
  };
  return table;
}

}  // namespace detail

namespace {

using detail::Suite;

const char* StatusWord(Result::Status status) {
  switch (status) {
    case Result::kPass:
      return "ok";
    case Result::kFail:
      return "FAIL";
    case Result::kSkip:
      return "skip";
  }
  return "?";
}

}  // namespace

std::vector<std::string> CheckNames() {
  std::vector<std::string> names;
  for (const auto& entry : Suite::Table())
    names.emplace_back(entry.first);
  return names;
}

std::vector<Result> Run(const Options& options) {
  Suite suite(options);
  std::vector<Result> results = suite.RunAll();
  suite.RemoveScratch();
  return results;
}

int RunAndReport(const Options& options, std::ostream& out) {
  const std::vector<Result> results = Run(options);
  int passed = 0;
  int failed = 0;
  int skipped = 0;
  for (const Result& result : results) {
    (result.status == Result::kPass ? passed : result.status == Result::kFail ? failed : skipped)++;
  }
  if (options.json) {
    Json::Value document(Json::objectValue);
    document["plugin"] = options.plugin;
    Json::Value checks(Json::arrayValue);
    for (const Result& result : results) {
      Json::Value check(Json::objectValue);
      check["name"] = result.name;
      check["status"] = StatusWord(result.status);
      check["detail"] = result.detail;
      checks.append(check);
    }
    document["checks"] = checks;
    document["passed"] = passed;
    document["failed"] = failed;
    document["skipped"] = skipped;
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "  ";
    out << Json::writeString(builder, document) << "\n";
  } else {
    for (const Result& result : results) {
      out << StatusWord(result.status) << (result.status == Result::kPass ? "   " : " ")
          << result.name;
      if (!result.detail.empty() && (result.status != Result::kPass || options.verbose))
        out << ": " << result.detail;
      out << "\n";
    }
    out << passed << " passed, " << failed << " failed, " << skipped << " skipped\n";
  }
  out.flush();
  return failed == 0 ? 0 : 1;
}

}  // namespace plughost::conformance
