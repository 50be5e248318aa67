// Links against the installed library and uses its exported utilities,
// including an AERROR thrown inside the library and caught here by type.
#include <cstdio>
#include <cstring>
#include <string>

#include "json/json_object.h"
#include "protocol/aerror.h"
#include "time/rfc3339.h"

int main() {
  if (std::strcmp(GetAERRORA(FILE_NOT_FOUND), "AERROR::FILE_NOT_FOUND") != 0) return 1;
  if (ConvertAERROR(ACCESS_DENIED) != -13) return 1;
  try {
    JsonObject broken("{\"a\":");
    return 1;
  } catch (AERROR& code) {
    if (code != JSON_PARSE_FAILED) return 1;
  }
  JsonObject document("{\"a\":{\"b\":1}}");
  if (static_cast<int>(document.GetObject("/a/b")) != 1) return 1;
  tm fields{};
  fields.tm_year = 124;
  fields.tm_mday = 1;
  if (TMToRFC3339(&fields) != "2024-01-01T00:00:00.000Z") return 1;
  std::puts("link_exports: ok");
  return 0;
}
