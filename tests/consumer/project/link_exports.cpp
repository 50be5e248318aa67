// Links against the installed library and uses its exported utilities.
#include <cstdio>
#include <cstring>

#include "protocol/aerror.h"

int main() {
  if (std::strcmp(GetAERRORA(FILE_NOT_FOUND), "AERROR::FILE_NOT_FOUND") != 0) return 1;
  if (ConvertAERROR(ACCESS_DENIED) != -13) return 1;
  std::puts("link_exports: ok");
  return 0;
}
