// JsonObject: a small facade over a jsoncpp value. An object either owns a
// document or is a view of a value inside another one; navigation always
// yields views, so edits through a view change the owner's document in place.
// A view must not outlive the document it points into.
#pragma once

#include <json/value.h>

#include <string>
#include <vector>

#include "protocol/aerror.h"
#include "protocol/export.h"

class LD_EXPORT JsonObject {
 public:
  // Owner of the document parsed from `length` bytes at `text`, comments
  // dropped. Throws JSON_PARSE_FAILED.
  JsonObject(const char* text, unsigned int length);
  // Owner of the document parsed from NUL-terminated `text`, comments kept; a
  // null `text` gives an owner of a null value. Throws JSON_PARSE_FAILED.
  explicit JsonObject(const char* text);
  // View of `value`.
  explicit JsonObject(Json::Value& value);
  // Copies a non-null owned document; otherwise views the other's target.
  JsonObject(const JsonObject& other);
  virtual ~JsonObject();

  // An owner of "{}".
  static JsonObject GetEmptyObject();

  // Walks member names separated by "/" (empty pieces are skipped). Throws
  // ACCESS_VIOLATION at the first missing member.
  JsonObject GetObject(const char* path);
  bool HasObject(const char* path);
  // Views that create the member or element when missing; a null key throws
  // INVALID_PARAMETER.
  JsonObject operator[](const char* key);
  JsonObject operator[](int index);
  // A view of the same value: not a deep copy.
  JsonObject Copy();

  operator std::string();
  // Strict UTF-8 decoding; throws std::range_error.
  operator std::wstring();
  operator unsigned long long();
  operator long long();
  operator long();
  // The 64-bit value truncated to 32 bits, without a range check.
  operator int();
  operator AERROR();
  operator double();
  operator bool();

  // The target becomes the JSON string `text`.
  JsonObject& operator=(std::string text);
  // A null-owning `other` copies its target's value into this target;
  // otherwise this becomes an owner of a copy of `other`'s document.
  JsonObject& operator=(const JsonObject& other);

  // Insert and Remove return false for a null key and change nothing.
  bool Insert(const char* key, const JsonObject& value);
  // Stores `value` as UTF-8; throws std::range_error for invalid code points.
  bool Insert(const char* key, const std::wstring& value);
  bool InsertArrayItem(std::string value);
  bool InsertArrayItem(JsonObject& value);
  bool RemoveArrayItem(unsigned long index);
  bool Remove(const char* key);

  std::vector<std::string> GetKeys();
  unsigned int GetArraySize();
  bool IsValid();
  bool IsArray();

  // Compact and indented text of the target, without the final newline.
  std::string ToText();
  std::string ToStyledText();

 private:
  Json::Value* target_;
  Json::Value own_;
};
