#include "host/core/plugin.h"

#include <dlfcn.h>

#include <cctype>
#include <utility>

namespace plughost {

namespace {

std::string ComposeWhat(const std::string& name, AERROR code, const std::string& operation,
                        const std::string& path, const std::string& message) {
  std::string what = operation;
  if (!path.empty()) what += " " + path;
  what += ": " + DescribeAERROR(code, name) + " (" + name + ")";
  if (!message.empty()) what += ": " + message;
  return what;
}

std::string LastDlError() {
  const char* error = dlerror();
  return error != nullptr ? error : "unknown loader error";
}

}  // namespace

ProtocolError::ProtocolError(AERROR code, std::string name, std::string operation, std::string path,
                             std::string message)
    : std::runtime_error(ComposeWhat(name, code, operation, path, message)),
      code_(code),
      name_(std::move(name)),
      operation_(std::move(operation)),
      path_(std::move(path)),
      message_(std::move(message)) {}

std::string DescribeAERROR(AERROR code, const std::string& name) {
  switch (code) {
    case SUCCESS:
      return "success";
    case FAILED:
      return "operation failed";
    case CANCEL:
      return "cancelled";
    case INSUFFICIENT_BUFFER:
      return "buffer too small";
    case INVALID_PARAMETER:
      return "invalid parameter";
    case NOT_SUPPORTED:
      return "not supported by the plug-in";
    case FILE_NOT_FOUND:
    case PATH_NOT_FOUND:
      return "no such file or directory";
    case ACCESS_DENIED:
      return "access denied";
    case FILE_READ_FAILED:
      return "read failed";
    case FILE_WRITE_FAILED:
      return "write failed";
    case READ_CANCELED:
      return "read cancelled";
    case UPLOAD_CANCELED:
      return "upload cancelled";
    case FILE_EXISTS:
    case ALREADY_EXISTS:
      return "already exists";
    case DIR_NOT_EMPTY:
      return "directory not empty";
    default:
      break;
  }
  // "AERROR::SOCK_TIMEOUT" -> "sock timeout"; unnamed codes by number.
  std::string text = name;
  const std::string prefix = "AERROR::";
  if (text.compare(0, prefix.size(), prefix) != 0) return "error " + std::to_string(code);
  text.erase(0, prefix.size());
  for (char& c : text) {
    c = c == '_' ? ' ' : static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  }
  return text;
}

std::string FallbackErrorName(AERROR code) {
  switch (code) {
    case SUCCESS:
      return "AERROR::SUCCESS";
    case FAILED:
      return "AERROR::FAILED";
    case CANCEL:
      return "AERROR::CANCEL";
    case INSUFFICIENT_BUFFER:
      return "AERROR::INSUFFICIENT_BUFFER";
    case INVALID_PARAMETER:
      return "AERROR::INVALID_PARAMETER";
    case NOT_SUPPORTED:
      return "AERROR::NOT_SUPPORTED";
    case FILE_READ_FAILED:
      return "AERROR::FILE_READ_FAILED";
    case FILE_WRITE_FAILED:
      return "AERROR::FILE_WRITE_FAILED";
    case READ_CANCELED:
      return "AERROR::READ_CANCELED";
    case UPLOAD_CANCELED:
      return "AERROR::UPLOAD_CANCELED";
    case FILE_NOT_FOUND:
      return "AERROR::FILE_NOT_FOUND";
    case PATH_NOT_FOUND:
      return "AERROR::PATH_NOT_FOUND";
    case ALREADY_EXISTS:
      return "AERROR::ALREADY_EXISTS";
    case ACCESS_DENIED:
      return "AERROR::ACCESS_DENIED";
    default:
      return "AERROR(" + std::to_string(static_cast<int>(code)) + ")";
  }
}

// --- ProtocolHandle -------------------------------------------------------

ProtocolHandle::ProtocolHandle(IProtocol_V2* object, std::shared_ptr<void> library) noexcept
    : object_(object), library_(std::move(library)) {}

ProtocolHandle::ProtocolHandle(ProtocolHandle&& other) noexcept
    : object_(std::exchange(other.object_, nullptr)), library_(std::move(other.library_)) {}

ProtocolHandle& ProtocolHandle::operator=(ProtocolHandle&& other) noexcept {
  if (this != &other) {
    reset();
    object_ = std::exchange(other.object_, nullptr);
    library_ = std::move(other.library_);
  }
  return *this;
}

ProtocolHandle::~ProtocolHandle() {
  reset();
}

void ProtocolHandle::reset() noexcept {
  // There is no reference count: a second Release would be a use after free.
  if (IProtocol_V2* object = std::exchange(object_, nullptr)) object->Release();
  library_.reset();
}

IProtocol_V2* ProtocolHandle::release() noexcept {
  library_.reset();
  return std::exchange(object_, nullptr);
}

// --- Plugin ---------------------------------------------------------------

namespace {

template <typename F>
F Resolve(void* library, const std::string& path, const char* symbol) {
  dlerror();
  void* address = dlsym(library, symbol);
  if (address == nullptr) {
    throw LoadError(path + " is not a protocol plug-in: entry point " + symbol + " not found (" +
                    LastDlError() + ")");
  }
  return reinterpret_cast<F>(address);
}

}  // namespace

Plugin Plugin::Load(const std::string& path) {
  dlerror();
  void* raw = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (raw == nullptr) throw LoadError("cannot load plug-in " + path + ": " + LastDlError());
  Plugin plugin;
  plugin.path_ = path;
  plugin.library_ = std::shared_ptr<void>(raw, [](void* library) { dlclose(library); });
  void* lib = raw;
  plugin.get_protocol_ = Resolve<GetProtocol_t>(lib, path, "GetProtocol");
  plugin.get_support_protocol_ = Resolve<GetSupportProtocol_t>(lib, path, "GetSupportProtocol");
  plugin.free_p_ = Resolve<FreeP_t>(lib, path, "FreeP");
  plugin.get_auth_type_ = Resolve<GetAuthType_t>(lib, path, "GetAuthType");
  plugin.get_auth_fields_ = Resolve<GetAuthFields_t>(lib, path, "GetAuthFields");
  plugin.get_opt_fields_ = Resolve<GetOptFields_t>(lib, path, "GetOptFields");
  plugin.bind_logger_ = Resolve<BindLogger_t>(lib, path, "BindLogger");
  plugin.unbind_logger_ = Resolve<UnbindLogger_t>(lib, path, "UnbindLogger");
  // Optional: the error-name function is exported with C++ linkage.
  dlerror();
  plugin.get_aerrora_ =
      reinterpret_cast<const char* (*)(AERROR)>(dlsym(lib, "_Z10GetAERRORA6AERROR"));
  dlerror();
  return plugin;
}

Plugin::Plugin(Plugin&& other) noexcept {
  *this = std::move(other);
}

Plugin& Plugin::operator=(Plugin&& other) noexcept {
  if (this != &other) {
    if (logger_bound_ && unbind_logger_ != nullptr) unbind_logger_();
    path_ = std::move(other.path_);
    library_ = std::move(other.library_);
    get_protocol_ = other.get_protocol_;
    get_support_protocol_ = other.get_support_protocol_;
    free_p_ = other.free_p_;
    get_auth_type_ = other.get_auth_type_;
    get_auth_fields_ = other.get_auth_fields_;
    get_opt_fields_ = other.get_opt_fields_;
    bind_logger_ = other.bind_logger_;
    unbind_logger_ = other.unbind_logger_;
    get_aerrora_ = other.get_aerrora_;
    // Only one of the two may unbind the logger.
    logger_bound_ = std::exchange(other.logger_bound_, false);
  }
  return *this;
}

Plugin::~Plugin() {
  if (logger_bound_ && unbind_logger_ != nullptr) unbind_logger_();
}

ProtocolHandle Plugin::CreateProtocol(IProtocolManager* manager) const {
  IProtocol_V2* object = nullptr;
  if (!get_protocol_(manager, &object) || object == nullptr) {
    throw LoadError("plug-in " + path_ + " refused to create a protocol object (GetProtocol " +
                    "returned false)");
  }
  return ProtocolHandle(object, library_);
}

std::string Plugin::SupportProtocol() const {
  char* text = nullptr;
  get_support_protocol_(&text);
  if (text == nullptr) return {};
  std::string out = text;
  free_p_(text);
  return out;
}

int Plugin::AuthType() const {
  return get_auth_type_();
}

AERROR Plugin::AuthFields(char* buffer, int* length) const {
  return get_auth_fields_(buffer, length);
}

AERROR Plugin::OptFields(char* buffer, int* length) const {
  return get_opt_fields_(buffer, length);
}

bool Plugin::BindLogger(ILog* logger) {
  bool bound = bind_logger_(logger);
  if (bound) logger_bound_ = true;
  return bound;
}

void Plugin::UnbindLogger() {
  unbind_logger_();
  logger_bound_ = false;
}

std::string Plugin::ErrorName(AERROR code) const {
  if (get_aerrora_ != nullptr) {
    const char* name = get_aerrora_(code);
    if (name != nullptr && std::string(name) != "Unknown") return name;
    return "AERROR(" + std::to_string(static_cast<int>(code)) + ")";
  }
  return FallbackErrorName(code);
}

}  // namespace plughost
