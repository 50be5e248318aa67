// JsonObject: both text constructors, then GetObject/HasObject on paths taken
// from the input, the conversions, ToText/ToStyledText and a re-parse of the
// written text.
#include <json/value.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "fuzz/fuzz_support.h"
#include "json/json_object.h"
#include "protocol/aerror.h"

namespace {

// Reads every conversion of a value; the library's own type errors are the
// contract's answer for mismatches, anything else escapes and crashes.
void Convert(JsonObject& value) {
  try {
    (void)static_cast<std::string>(value);
  } catch (const Json::Exception&) {
  }
  try {
    (void)static_cast<std::wstring>(value);
  } catch (const Json::Exception&) {
  } catch (const std::range_error&) {
  }
  try {
    (void)static_cast<long long>(value);
  } catch (const Json::Exception&) {
  }
  try {
    (void)static_cast<unsigned long long>(value);
  } catch (const Json::Exception&) {
  }
  try {
    (void)static_cast<int>(value);
  } catch (const Json::Exception&) {
  }
  try {
    (void)static_cast<double>(value);
  } catch (const Json::Exception&) {
  }
  try {
    (void)static_cast<bool>(value);
  } catch (const Json::Exception&) {
  }
  try {
    (void)value.GetKeys();  // the library refuses arrays and scalars
  } catch (const Json::Exception&) {
  }
  (void)value.GetArraySize();
  (void)value.IsValid();
  (void)value.IsArray();
}

void Walk(JsonObject& document, const std::string& path) {
  bool found = document.HasObject(path.c_str());
  try {
    JsonObject node = document.GetObject(path.c_str());
    FUZZ_CHECK(found);
    Convert(node);
    (void)node.ToText();
  } catch (AERROR error) {
    FUZZ_CHECK(error == ACCESS_VIOLATION);
    FUZZ_CHECK(!found);
  }
}

void CheckText(JsonObject& document, bool valid_utf8) {
  const std::string text = document.ToText();
  const std::string styled = document.ToStyledText();
  FUZZ_CHECK(!text.empty() && !styled.empty());
  FUZZ_CHECK(text.back() != '\n' && styled.back() != '\n');
  // What the writer produced parses again and, for well-formed UTF-8, is
  // written the same way. The writers escape strings by decoding UTF-8, so
  // ill-formed bytes come out as other characters (the JSON library's
  // behaviour, which the wrapper keeps); those texts must still parse.
  if (!valid_utf8) {
    try {
      JsonObject again(text.c_str(), static_cast<unsigned int>(text.size()));
      JsonObject from_styled(styled.c_str());
    } catch (AERROR) {
    }
    return;
  }
  try {
    JsonObject again(text.c_str(), static_cast<unsigned int>(text.size()));
    FUZZ_CHECK(again.ToText() == text);
    JsonObject from_styled(styled.c_str());
    // The indented writer cuts member names at an embedded NUL (the JSON
    // library's behaviour, kept): texts holding one only need to parse.
    if (text.find("\\u0000") == std::string::npos) FUZZ_CHECK(from_styled.ToText() == text);
  } catch (AERROR) {
    // A top-level value the reader refuses on its own (it is strict about
    // some scalars at the root) is not our concern here.
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // Input: the document, then after a NUL byte paths separated by newlines.
  auto [text, paths_text] = fuzz::SplitAtNul(data, size);
  std::vector<std::string> paths{""};
  size_t start = 0;
  while (start <= paths_text.size()) {
    size_t end = paths_text.find('\n', start);
    if (end == std::string::npos) end = paths_text.size();
    paths.push_back(paths_text.substr(start, end - start));
    start = end + 1;
  }

  const bool valid_utf8 = fuzz::IsValidUtf8(text);

  // The ranged constructor on an exact-size buffer (no terminator).
  std::unique_ptr<char[]> exact(new char[text.size() + 1]);
  std::memcpy(exact.get(), text.data(), text.size());
  bool ranged_ok = false;
  try {
    JsonObject document(exact.get(), static_cast<unsigned int>(text.size()));
    ranged_ok = true;
    for (const auto& path : paths)
      Walk(document, path);
    Convert(document);
    CheckText(document, valid_utf8);
    JsonObject copy(document);
    FUZZ_CHECK(copy.ToText() == document.ToText());
  } catch (AERROR error) {
    FUZZ_CHECK(error == JSON_PARSE_FAILED);
  }

  bool text_ok = false;
  try {
    JsonObject document(text.c_str());
    text_ok = true;
    for (const auto& path : paths)
      Walk(document, path);
    CheckText(document, valid_utf8);
  } catch (AERROR error) {
    FUZZ_CHECK(error == JSON_PARSE_FAILED);
  }
  (void)ranged_ok;
  (void)text_ok;
  return 0;
}
