// What plughost prints: text for people, JSON for programs.
//
// JSON values are written by jsoncpp. An object's members keep the order
// they are added in (jsoncpp's own objects sort their keys), so objects are
// assembled member by member. A text that is not valid UTF-8 (a name is
// bytes) is written as `<key>` with U+FFFD for each invalid byte plus
// `<key>_bytes`, the raw bytes in Base64: distinct names stay distinct and
// nothing is lost.
#pragma once

#include <json/json.h>

#include <string>
#include <string_view>

#include "host/core/listing.h"
#include "protocol/contract.h"

namespace plughost {

// One JSON object, members in the order added.
class JsonFields {
 public:
  // A text member, with `<key>_bytes` added when it is not valid UTF-8.
  JsonFields& Text(const std::string& key, std::string_view bytes);
  JsonFields& Value(const std::string& key, const Json::Value& value);
  std::string str() const { return text_ + "}"; }

 private:
  std::string text_ = "{";
};

// A value as compact JSON, UTF-8 written as it is.
std::string JsonText(const Json::Value& value);

// Standard Base64 (RFC 4648, '=' padding, no line breaks).
std::string Base64(std::string_view bytes);

std::string TypeName(int type);

// "2024-01-02T03:04:05.000Z" -> "2024-01-02 03:04:05". The plug-in's times
// are local wall-clock fields; the "Z" is only a suffix.
std::string ShortTime(const std::string& rfc3339);

// A record as JSON: path, name, type, size, id and the three times.
std::string RecordJson(const _FS_FILE_V2& file, std::string_view display_path);
// The same object for a listed entry of the directory `directory_id`.
std::string EntryJson(const Entry& entry, std::string_view display_path,
                      const std::string& directory_id);

// Writes all `length` bytes to `fd`; std::system_error "cannot write <what>".
void WriteBytes(int fd, const char* data, long long length, const std::string& what);

// How names reach the terminal: escaped (EscapeName) unless literal.
class NameStyle {
 public:
  explicit NameStyle(bool literal) : literal_(literal) {}
  std::string operator()(std::string_view name) const;

 private:
  bool literal_;
};

}  // namespace plughost
