// The conformance suite: checks that a protocol plug-in keeps the contract
// every host relies on, from the outside, through its entry points and its
// protocol object. It works inside a scratch directory of the storage that
// it creates and removes; nothing else in the storage is touched.
//
//   plughost::conformance::Options options;
//   options.plugin = "/usr/lib/libmemory.so";
//   return plughost::conformance::RunAndReport(options, std::cout);
//
// Checks use only what the contract promises (never one plug-in's own
// answers); gtest.h registers one GoogleTest per check.
#pragma once

#include <ostream>
#include <string>
#include <utility>
#include <vector>

namespace plughost::conformance {

struct Options {
  std::string plugin;  // path of the plug-in library
  // When not empty, handed to the plug-in as the option "root_path" (made
  // absolute first) before `opts`, as plughost does with --root.
  std::string root;
  std::vector<std::pair<std::string, std::string>> opts;  // SetOpt, in order
  std::string dir;       // name of the scratch directory; empty: a fresh generated name
  bool json = false;     // RunAndReport prints one JSON document
  bool verbose = false;  // bind a logger writing to stderr; details of passed checks too
};

struct Result {
  std::string name;
  enum Status { kPass, kFail, kSkip } status;
  std::string detail;  // what was expected and what came back
};

// Names of every check, in the order Run reports them.
std::vector<std::string> CheckNames();

// Runs every check; the result has one entry per name of CheckNames().
std::vector<Result> Run(const Options& options);

// Runs the suite and prints one line per check ("ok", "FAIL" or "skip", the
// name and the detail), then exactly "N passed, M failed, K skipped"; with
// options.json one JSON document instead. Returns 0 when no check failed,
// 1 otherwise.
int RunAndReport(const Options& options, std::ostream& out);

}  // namespace plughost::conformance
