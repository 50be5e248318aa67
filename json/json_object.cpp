#include "json/json_object.h"

#include <json/reader.h>
#include <json/writer.h>

#include <regex>

#include "util/encoding.h"
#include "util/text.h"

namespace {

// Drops the writers' final newline (and any other "C" white space at the ends).
std::string Trimmed(std::string text) {
  return trim(text);
}

// The reader reports bad text by returning false, but too deep a nesting by
// throwing; both are a parse failure here.
template <typename Parse>
void ParseOrThrow(Parse parse) {
  bool parsed = false;
  try {
    parsed = parse();
  } catch (const Json::Exception&) {
    parsed = false;
  }
  if (!parsed) throw JSON_PARSE_FAILED;
}

const std::regex& PathSeparator() {
  static const std::regex slash("/");
  return slash;
}

// Walks `path`; returns null at the first missing member.
Json::Value* Walk(Json::Value* value, const char* path) {
  if (path == nullptr) return value;
  for (const auto& piece : split(std::string(path), PathSeparator())) {
    if (piece.empty()) continue;
    if (!value->isObject() || !value->isMember(piece)) return nullptr;
    value = &(*value)[piece];
  }
  return value;
}

}  // namespace

JsonObject::JsonObject(const char* text, unsigned int length) : target_(&own_) {
  if (text == nullptr) throw JSON_PARSE_FAILED;  // no bytes to read, whatever the length
  ParseOrThrow([&] {
    Json::Reader reader;
    return reader.parse(text, text + length, own_, false);
  });
}

JsonObject::JsonObject(const char* text) : target_(&own_) {
  if (text == nullptr) return;
  ParseOrThrow([&] {
    Json::Reader reader;
    return reader.parse(std::string(text), own_, true);
  });
}

JsonObject::JsonObject(Json::Value& value) : target_(&value) {}

JsonObject::JsonObject(const JsonObject& other) : target_(&own_) {
  if (!other.own_.isNull()) {
    own_ = other.own_;
  } else {
    target_ = other.target_;
  }
}

JsonObject::~JsonObject() = default;

JsonObject JsonObject::GetEmptyObject() {
  return JsonObject("{}", 2);
}

JsonObject JsonObject::GetObject(const char* path) {
  Json::Value* found = Walk(target_, path);
  if (found == nullptr) throw ACCESS_VIOLATION;
  return JsonObject(*found);
}

bool JsonObject::HasObject(const char* path) {
  return Walk(target_, path) != nullptr;
}

JsonObject JsonObject::operator[](const char* key) {
  if (key == nullptr) throw INVALID_PARAMETER;
  return JsonObject((*target_)[key]);
}

JsonObject JsonObject::operator[](int index) {
  return JsonObject((*target_)[index]);
}

JsonObject JsonObject::Copy() {
  return JsonObject(*target_);
}

JsonObject::operator std::string() {
  // Cut at the first NUL byte, as a C string would be.
  return std::string(target_->asString().c_str());
}

JsonObject::operator std::wstring() {
  return s2ws(static_cast<std::string>(*this));
}

JsonObject::operator unsigned long long() {
  return static_cast<unsigned long long>(target_->asUInt64());
}

JsonObject::operator long long() {
  return static_cast<long long>(target_->asInt64());
}

JsonObject::operator long() {
  return static_cast<long>(target_->asInt64());
}

JsonObject::operator int() {
  return static_cast<int>(static_cast<std::int32_t>(target_->asInt64()));
}

JsonObject::operator AERROR() {
  return static_cast<AERROR>(static_cast<std::int32_t>(target_->asInt64()));
}

JsonObject::operator double() {
  return target_->asDouble();
}

JsonObject::operator bool() {
  return target_->asBool();
}

JsonObject& JsonObject::operator=(std::string text) {
  *target_ = Json::Value(text);
  return *this;
}

JsonObject& JsonObject::operator=(const JsonObject& other) {
  if (other.own_.isNull()) {
    *target_ = *other.target_;
  } else {
    own_ = other.own_;
    target_ = &own_;
  }
  return *this;
}

bool JsonObject::Insert(const char* key, const JsonObject& value) {
  if (key == nullptr) return false;
  Json::Value copy = *value.target_;
  (*target_)[key] = std::move(copy);
  return true;
}

bool JsonObject::Insert(const char* key, const std::wstring& value) {
  if (key == nullptr) return false;
  (*target_)[key] = Json::Value(ws2s(value));
  return true;
}

bool JsonObject::InsertArrayItem(std::string value) {
  target_->append(Json::Value(value));
  return true;
}

bool JsonObject::InsertArrayItem(JsonObject& value) {
  Json::Value copy = *value.target_;
  target_->append(std::move(copy));
  return true;
}

bool JsonObject::RemoveArrayItem(unsigned long index) {
  if (!target_->isArray()) return false;
  Json::Value removed;
  return target_->removeIndex(static_cast<Json::ArrayIndex>(index), &removed);
}

bool JsonObject::Remove(const char* key) {
  if (key == nullptr) return false;
  Json::Value removed;
  return target_->removeMember(key, &removed);
}

std::vector<std::string> JsonObject::GetKeys() {
  const Json::Value::Members names = target_->getMemberNames();
  return std::vector<std::string>(names.begin(), names.end());
}

unsigned int JsonObject::GetArraySize() {
  return target_->size();
}

bool JsonObject::IsValid() {
  return !target_->isNull();
}

bool JsonObject::IsArray() {
  return target_->isArray();
}

// The classic writers fix the stored text format; jsoncpp marks them
// deprecated in favour of the stream builders, whose output differs.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

std::string JsonObject::ToText() {
  Json::FastWriter writer;
  return Trimmed(writer.write(*target_));
}

std::string JsonObject::ToStyledText() {
  Json::StyledWriter writer;
  return Trimmed(writer.write(*target_));
}

#pragma GCC diagnostic pop
