// Tidying of storage paths, running a command for its output, and questions
// about processes, the executable's directory and the login name.
#pragma once

#include <string>

#include "protocol/export.h"

// Which characters count as separators differs from helper to helper on
// purpose; each comment says which.

// Appends "/" unless the text already ends with "/" (a trailing backslash
// does not count). An empty text gives "/".
LD_EXPORT std::string ensure_ends_with_divider(std::string path);
// Strips leading "/" and "\". A text of nothing but those is kept as it is.
LD_EXPORT std::string remove_head_slashes(std::string path);
// Strips trailing "/" and "\". A text of nothing but those is kept as it is.
LD_EXPORT std::string remove_tail_slashes(std::string path);
// Collapses runs of "/"; backslashes are left alone.
LD_EXPORT std::string remove_duplicated_slashes(std::string path);
// After remove_head_slashes: `container` gets the text before the first "/",
// `rest` the text after it. An empty path leaves both untouched.
LD_EXPORT void split_container_name(std::string path, std::string& container, std::string& rest);
// The text after the last "/"; a path without "/" is returned unchanged.
LD_EXPORT std::string get_file_name(std::string path);
// A canonical absolute path made without touching the file system: "\"
// becomes "/", empty and "." components go, ".." drops the previous one (and
// is ignored at the top). No components give the empty text; there is never
// a trailing "/". A null path gives the empty text.
LD_EXPORT std::string ToExactPath(const char* path);

// Runs `command` through the shell and returns its standard output (read up
// to the first NUL of each chunk). The exit status is ignored. Throws
// std::runtime_error("popen() failed!") when the command cannot be started.
LD_EXPORT std::string pexec(std::string command);
// True when signal 0 can be sent to the process: a process that exists but
// may not be signalled by the caller counts as not running.
LD_EXPORT bool IsRunningPID(long long pid);
// The directory of the running executable, without a trailing "/".
LD_EXPORT std::string GetCurrentPath();
// The login name of the process's real user; empty when there is none.
LD_EXPORT std::string GetUserName();
