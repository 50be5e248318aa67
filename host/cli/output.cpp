#include "host/cli/output.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <sstream>
#include <system_error>

#include "host/cli/names.h"
#include "util/encoding.h"

namespace plughost {

namespace {

struct RecordView {
  std::string_view path;
  std::string_view name;
  int type;
  long long size;
  std::string_view id;
  std::string_view create_time;
  std::string_view access_time;
  std::string_view modify_time;
};

std::string ViewJson(const RecordView& r) {
  return JsonFields()
      .Text("path", r.path)
      .Text("name", r.name)
      .Text("type", TypeName(r.type))
      .Value("size", Json::Value(static_cast<Json::Int64>(r.size)))
      .Text("id", r.id)
      .Text("create_time", r.create_time)
      .Text("access_time", r.access_time)
      .Text("modify_time", r.modify_time)
      .str();
}

}  // namespace

std::string JsonText(const Json::Value& value) {
  // One writer for the whole run: building one per value would dominate a
  // long listing.
  static const std::unique_ptr<Json::StreamWriter> writer = [] {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["emitUTF8"] = true;
    return std::unique_ptr<Json::StreamWriter>(builder.newStreamWriter());
  }();
  thread_local std::ostringstream out;
  out.str({});
  writer->write(value, &out);
  return out.str();
}

JsonFields& JsonFields::Value(const std::string& key, const Json::Value& value) {
  if (text_.size() > 1) text_ += ',';
  text_ += JsonText(Json::Value(key));
  text_ += ':';
  text_ += JsonText(value);
  return *this;
}

JsonFields& JsonFields::Text(const std::string& key, std::string_view bytes) {
  if (IsValidUtf8(bytes)) return Value(key, Json::Value(bytes.data(), bytes.data() + bytes.size()));
  Value(key, Json::Value(ReplaceInvalidUtf8(bytes)));
  return Value(key + "_bytes", Json::Value(Base64(bytes)));
}

std::string Base64(std::string_view bytes) {
  // The library pads a short last group with '=' bytes, which leaves stray
  // bits in the last character; the tail is encoded with zero bytes instead
  // and padded here, as RFC 4648 has it.
  auto encode = [](std::string_view group) -> std::string {
    if (group.empty()) return {};
    const char* text = base64(reinterpret_cast<const unsigned char*>(group.data()), group.size());
    return text != nullptr ? text : "";
  };
  size_t whole = bytes.size() - bytes.size() % 3;
  std::string out = encode(bytes.substr(0, whole));
  size_t rest = bytes.size() - whole;
  if (rest > 0) {
    std::string tail(bytes.substr(whole));
    tail.resize(3, '\0');
    std::string last = encode(tail);
    out += last.substr(0, rest + 1);
    out.append(3 - rest, '=');
  }
  return out;
}

std::string TypeName(int type) {
  if (type == 1) return "file";
  if (type == 2) return "directory";
  return "unknown(" + std::to_string(type) + ")";
}

std::string ShortTime(const std::string& rfc3339) {
  if (rfc3339.size() < 19 || rfc3339[10] != 'T') return rfc3339;
  std::string out = rfc3339.substr(0, 19);
  out[10] = ' ';
  return out;
}

std::string RecordJson(const _FS_FILE_V2& file, std::string_view display_path) {
  return ViewJson({display_path, file.name, file.type, file.size, file.id, file.create_time,
                   file.access_time, file.modify_time});
}

std::string EntryJson(const Entry& entry, std::string_view display_path,
                      const std::string& directory_id) {
  return ViewJson({display_path, entry.name, entry.type, entry.size, IdOf(entry, directory_id),
                   UnpackFileTimeFields(entry.create), UnpackFileTimeFields(entry.access),
                   UnpackFileTimeFields(entry.modify)});
}

void WriteBytes(int fd, const char* data, long long length, const std::string& what) {
  while (length > 0) {
    ssize_t n = write(fd, data, static_cast<size_t>(std::min<long long>(length, 1 << 20)));
    if (n < 0) {
      if (errno == EINTR) continue;
      throw std::system_error(errno, std::generic_category(), "cannot write " + what);
    }
    data += n;
    length -= n;
  }
}

std::string NameStyle::operator()(std::string_view name) const {
  return literal_ ? std::string(name) : EscapeName(name);
}

}  // namespace plughost
