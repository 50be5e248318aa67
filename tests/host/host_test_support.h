// Shared helpers of the host library tests: a fresh temporary directory and
// small file utilities.
#pragma once

#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>

#include "tests/support/files.h"

namespace plughost_test {

class TempDir : public test_support::TempDir {
 public:
  TempDir() : test_support::TempDir("plughost-test") {}
};

using test_support::ReadFile;
using test_support::WriteFile;

}  // namespace plughost_test
