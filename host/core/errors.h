// The errors the host's operations report besides a plug-in's own result
// (ProtocolError, plugin.h). Each what() is the complete message for a user,
// "<operation> <path>: <reason>" where an operation is known.
#pragma once

#include <cerrno>
#include <stdexcept>
#include <string>

namespace plughost {

// What an operation is reported as: "<operation> <path>: ...".
struct Context {
  std::string operation;
  std::string path;
};

// A mistake in what the user asked for: the command line, a path that
// leaves the storage root, an option without a value.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// An operation failed for a reason the host found itself (the entry is a
// directory, the file ended early, a local file cannot be written).
// `error` is the POSIX errno that a file-system front end reports for it.
class Failure : public std::runtime_error {
 public:
  explicit Failure(const std::string& what, int error = EIO)
      : std::runtime_error(what), error_(error) {}
  Failure(const Context& context, const std::string& reason, int error = EIO)
      : Failure(context.operation + " " + context.path + ": " + reason, error) {}
  int error() const noexcept { return error_; }

 private:
  int error_;
};

// The transfer was stopped through its handle (Ctrl-C, an unmount).
class Cancelled : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
  explicit Cancelled(const Context& context)
      : std::runtime_error(context.operation + " " + context.path + ": cancelled") {}
};

}  // namespace plughost
