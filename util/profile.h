// Reading single values from profile files: "[section]" headers followed by
// "key=value" lines.
#pragma once

#include <string>

#include "protocol/export.h"

// The matching rules are strict: section names are compared trimmed and
// case-insensitively, keys case-insensitively but untrimmed, values are taken
// as they stand between the first and a second "=", only the first section of
// a name is searched, and there are no comments. Lines are read in pieces of
// at most 2047 bytes.
//
// Copies the value (with its terminator) into `buffer` when it is shorter
// than `size` and not empty, and returns its length. Otherwise copies
// `default_value` when that is shorter than `size` and returns its length,
// else returns 0. A null `buffer` or a `size` of 0 or less gives 0.
LD_EXPORT int GetPrivateProfileString(std::string section, std::string key,
                                      std::string default_value, char* buffer, int size,
                                      std::string file);

// atoi of the value (a negative number keeps its bit pattern), or
// `default_value` when the file, section or key is missing.
LD_EXPORT unsigned int GetPrivateProfileInt(std::string section, std::string key,
                                            unsigned int default_value, std::string file);
