// Loading a protocol plug-in by path and owning the objects it creates.
//
// The loader uses nothing but the contract headers, so it can load any
// plug-in of this contract: it dlopen()s the library (RTLD_NOW|RTLD_LOCAL),
// resolves the eight entry points and reports anything missing with the
// loader's own message. Objects the plug-in creates keep the library loaded
// for as long as they live, so a ProtocolHandle may outlive its Plugin.
//
// Typical use (a command-line tool or a file-system bridge):
//
//   plughost::Plugin plugin = plughost::Plugin::Load("/usr/lib/liblocaldisk.so");
//   plughost::MemoryConfiguration config;              // adapters.h
//   plughost::ProtocolHandle protocol = plugin.CreateProtocol(&config);
//   protocol->SetOpt("root_path", "/srv/data");
//   ...
//   // protocol's destructor calls Release exactly once.
#pragma once

#include <memory>
#include <stdexcept>
#include <string>

#include "protocol/contract.h"

namespace plughost {

// Loading failed: missing file, not a plug-in, or GetProtocol refused.
class LoadError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// An operation of a protocol object returned something other than SUCCESS.
// what() reads "<operation> <path>: <description> (<name>)", followed by
// ": <message>" when the plug-in supplied one.
class ProtocolError : public std::runtime_error {
 public:
  ProtocolError(AERROR code, std::string name, std::string operation, std::string path,
                std::string message = {});

  AERROR code() const noexcept { return code_; }
  // The code's name as GetAERRORA gives it, e.g. "AERROR::FILE_NOT_FOUND".
  const std::string& name() const noexcept { return name_; }
  const std::string& operation() const noexcept { return operation_; }
  const std::string& path() const noexcept { return path_; }
  // Text the plug-in stored through `char** msg`, if any.
  const std::string& message() const noexcept { return message_; }

 private:
  AERROR code_;
  std::string name_;
  std::string operation_;
  std::string path_;
  std::string message_;
};

// A short lower-case description of a code for people ("no such file or
// directory"); codes without their own text are described from their name.
std::string DescribeAERROR(AERROR code, const std::string& name);

// Unique owner of a protocol object: calls Release exactly once (on reset or
// destruction), never deletes. Move-only. Holds a reference to the library.
class ProtocolHandle {
 public:
  ProtocolHandle() noexcept = default;
  ProtocolHandle(IProtocol_V2* object, std::shared_ptr<void> library) noexcept;
  ProtocolHandle(ProtocolHandle&& other) noexcept;
  ProtocolHandle& operator=(ProtocolHandle&& other) noexcept;
  ProtocolHandle(const ProtocolHandle&) = delete;
  ProtocolHandle& operator=(const ProtocolHandle&) = delete;
  ~ProtocolHandle();

  IProtocol_V2* get() const noexcept { return object_; }
  IProtocol_V2* operator->() const noexcept { return object_; }
  explicit operator bool() const noexcept { return object_ != nullptr; }

  // Releases the object now (if any); afterwards the handle is empty.
  void reset() noexcept;
  // Gives up ownership without releasing; the caller must Release.
  IProtocol_V2* release() noexcept;

 private:
  IProtocol_V2* object_ = nullptr;
  std::shared_ptr<void> library_;  // keeps the code of the object mapped
};

// A loaded plug-in with its entry points resolved. Move-only; the library is
// unloaded when the last Plugin and ProtocolHandle referring to it are gone.
class Plugin {
 public:
  // Loads the library at `path` and resolves every entry point. Throws
  // LoadError naming the path and the loader's reason.
  static Plugin Load(const std::string& path);

  Plugin(Plugin&& other) noexcept;
  Plugin& operator=(Plugin&& other) noexcept;
  Plugin(const Plugin&) = delete;
  Plugin& operator=(const Plugin&) = delete;
  ~Plugin();

  const std::string& path() const noexcept { return path_; }

  // GetProtocol: creates a protocol object bound to `manager`. Throws
  // LoadError when the plug-in refuses (returns false or no object).
  ProtocolHandle CreateProtocol(IProtocolManager* manager) const;

  // GetSupportProtocol, with the text freed through FreeP.
  std::string SupportProtocol() const;
  int AuthType() const;
  AERROR AuthFields(char* buffer, int* length) const;
  AERROR OptFields(char* buffer, int* length) const;

  // BindLogger/UnbindLogger. The plug-in's logger is process-wide: bind one
  // logger at a time, and unbind it before it is destroyed. A Plugin unbinds
  // on destruction if it bound one.
  bool BindLogger(ILog* logger);
  void UnbindLogger();

  // GetAERRORA of the plug-in when it exports one (C++ linkage), otherwise a
  // small built-in table, otherwise "AERROR(<number>)".
  std::string ErrorName(AERROR code) const;

  // The raw entry points, for hosts that need them directly.
  FreeP_t free_p() const noexcept { return free_p_; }

 private:
  Plugin() = default;

  std::string path_;
  std::shared_ptr<void> library_;
  GetProtocol_t get_protocol_ = nullptr;
  GetSupportProtocol_t get_support_protocol_ = nullptr;
  FreeP_t free_p_ = nullptr;
  GetAuthType_t get_auth_type_ = nullptr;
  GetAuthFields_t get_auth_fields_ = nullptr;
  GetOptFields_t get_opt_fields_ = nullptr;
  BindLogger_t bind_logger_ = nullptr;
  UnbindLogger_t unbind_logger_ = nullptr;
  const char* (*get_aerrora_)(AERROR) = nullptr;
  bool logger_bound_ = false;
};

// Name of a code from the built-in table (used when a plug-in has no
// GetAERRORA); "AERROR(<number>)" for codes not in it.
std::string FallbackErrorName(AERROR code);

}  // namespace plughost
