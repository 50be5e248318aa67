// Checks of the exported entry points, the protocol object, its options and
// identifiers with their buffer-and-length rules, and the quota.
#include "host/conformance/suite.h"

#include <climits>
#include <cstdlib>
#include <cstring>

#include "host/core/adapters.h"

namespace plughost::conformance::detail {

void Suite::LoadEntryPoints() {
  Expect(!options_.plugin.empty(), "no plug-in path given");
  try {
    plugin_.emplace(Plugin::Load(options_.plugin));
  } catch (const LoadError& error) {
    Fail(error.what());
  }
  library_ = dlopen(options_.plugin.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (library_ == nullptr) {
    const char* error = dlerror();
    Fail(std::string("dlopen: ") + (error != nullptr ? error : "failed"));
  }
  if (options_.verbose) {
    log_ = std::make_unique<StderrLog>("plughost check: ");
    plugin_->BindLogger(log_.get());
  }
}

void Suite::EntryGetProtocolNull() {
  NeedLibrary();
  auto get_protocol = Symbol<GetProtocol_t>("GetProtocol");
  IProtocol_V2* const sentinel = reinterpret_cast<IProtocol_V2*>(uintptr_t{0x1000});
  IProtocol_V2* out = sentinel;
  Expect(!get_protocol(nullptr, &out), "GetProtocol(null manager) returned true");
  Expect(out == sentinel, "GetProtocol(null manager) stored an object");
  MemoryConfiguration manager;
  Expect(!get_protocol(&manager, nullptr), "GetProtocol(manager, null) returned true");
}

void Suite::EntrySupportProtocol() {
  NeedLibrary();
  auto get_support = Symbol<GetSupportProtocol_t>("GetSupportProtocol");
  auto free_p = Symbol<FreeP_t>("FreeP");
  get_support(nullptr);  // ignored
  free_p(nullptr);       // ignored
  char* first = nullptr;
  char* second = nullptr;
  get_support(&first);
  get_support(&second);
  std::string a = first != nullptr ? first : "";
  std::string b = second != nullptr ? second : "";
  bool distinct = first != second;
  free_p(first);
  if (second != first) free_p(second);
  Expect(!a.empty(), "GetSupportProtocol gave no name");
  Expect(a == b, "GetSupportProtocol gave \"" + a + "\", then \"" + b + "\"");
  Expect(distinct, "GetSupportProtocol returned the same pointer twice, expected fresh copies");
  protocol_name_ = a;
  note_ = "\"" + a + "\"";
}

void Suite::EntryLogger() {
  NeedLibrary();
  auto bind = Symbol<BindLogger_t>("BindLogger");
  auto unbind = Symbol<UnbindLogger_t>("UnbindLogger");
  Expect(!bind(nullptr), "BindLogger(null) returned true");
  CountingLog counting;
  Expect(bind(&counting), "BindLogger returned false");
  unbind();
  if (log_) plugin_->BindLogger(log_.get());
}

void Suite::EntryAuth() {
  NeedLibrary();
  auto auth_type = Symbol<GetAuthType_t>("GetAuthType");
  auto auth_fields = Symbol<GetAuthFields_t>("GetAuthFields");
  const int type = auth_type();
  std::string buffer(256, '\0');
  int length = 255;
  AERROR code = auth_fields(buffer.data(), &length);
  if (code == SUCCESS)
    Expect(length >= 0 && length <= 255,
           "GetAuthFields: length " + std::to_string(length) + " for a capacity of 255");
  note_ = "type " + std::to_string(type) + ", fields " + Name(code);
}

void Suite::ObjectCreate() {
  NeedPlugin();
  try {
    protocol_ = plugin_->CreateProtocol(&config_);
  } catch (const LoadError& error) {
    Fail(error.what());
  }
  Expect(static_cast<bool>(protocol_), "GetProtocol gave no object");
}

void Suite::ObjectOptions() {
  IProtocol_V2* p = NeedObject();
  if (!options_.root.empty()) {
    std::string root = options_.root;
    if (char* real = realpath(root.c_str(), nullptr)) {
      root = real;
      std::free(real);
    }
    ExpectSuccess(p->SetOpt("root_path", root.c_str()), "SetOpt root_path");
  }
  for (const auto& [key, value] : options_.opts)
    ExpectSuccess(p->SetOpt(key.c_str(), value.c_str()), "SetOpt " + key);
  ExpectSuccess(p->SetOpt("plughost-check-unknown-option", "1"), "SetOpt of an unknown key");
}

void Suite::ObjectType() {
  IProtocol_V2* p = NeedObject();
  char* type = nullptr;
  char* again = nullptr;
  ExpectSuccess(p->GetType(&type), "GetType");
  ExpectSuccess(p->GetType(&again), "GetType");
  Expect(type != nullptr, "GetType gave a null name");
  Expect(type == again, "GetType gave different pointers, expected one static name");
  if (protocol_name_.empty()) Skip("no name from GetSupportProtocol to compare with");
  Expect(protocol_name_ == type,
         "GetType \"" + std::string(type) + "\", GetSupportProtocol \"" + protocol_name_ + "\"");
}

void Suite::ObjectPid() {
  IProtocol_V2* p = NeedObject();
  ExpectSuccess(p->SetOpt("pid", "plughost-check"), "SetOpt pid");
  std::string pid = p->GetPID();
  Expect(pid == "plughost-check", "GetPID \"" + pid + "\", expected \"plughost-check\"");
}

void Suite::ObjectLocalConfiguration() {
  IProtocol_V2* p = NeedObject();
  ExpectCode(p->SetLocalConfiguration(nullptr), ACCESS_DENIED, "SetLocalConfiguration(null)");
  ExpectSuccess(p->SetLocalConfiguration(&local_config_), "SetLocalConfiguration");
}

void Suite::RootIdNullLength() {
  IProtocol_V2* p = NeedObject();
  char buffer[16];
  ExpectCode(p->GetRootID(buffer, nullptr), INVALID_PARAMETER, "GetRootID with a null length");
}

void Suite::RootIdBufferRules() {
  IProtocol_V2* p = NeedObject();
  CheckBufferRules([p](char* b, int* l) { return p->GetRootID(b, l); }, "GetRootID", true);
}

void Suite::RootIdResolve() {
  IProtocol_V2* p = NeedObject();
  int length = 0;
  p->GetRootID(nullptr, &length);
  Expect(length > 0 && length < 1 << 20, "GetRootID length " + std::to_string(length));
  std::string buffer(static_cast<size_t>(length), '\0');
  int capacity = length;
  ExpectSuccess(p->GetRootID(buffer.data(), &capacity), "GetRootID");
  Expect(capacity == length, "GetRootID length changed between calls");
  int again_length = length;
  std::string again(static_cast<size_t>(length), '\0');
  ExpectSuccess(p->GetRootID(again.data(), &again_length), "GetRootID");
  Expect(again == buffer, "GetRootID gave \"" + buffer + "\", then \"" + again + "\"");
  root_id_ = buffer;
  root_ok_ = true;
  note_ = "\"" + root_id_ + "\"";
}

void Suite::IdentifierNullLength() {
  IProtocol_V2* p = NeedObject();
  char buffer[16];
  AERROR code = p->GetIdentifier(buffer, nullptr);
  Expect(code == INVALID_PARAMETER || code == SUCCESS || code == NOT_SUPPORTED,
         "GetIdentifier with a null length: expected " + Name(INVALID_PARAMETER) + ", got " +
             Name(code));
  note_ = Name(code);
}

void Suite::IdentifierBufferRules() {
  IProtocol_V2* p = NeedObject();
  CheckBufferRules([p](char* b, int* l) { return p->GetIdentifier(b, l); }, "GetIdentifier", false);
}

void Suite::UserInfoNullLength() {
  IProtocol_V2* p = NeedObject();
  char buffer[16];
  AERROR code = p->GetUserInfo(buffer, nullptr);
  Expect(code == INVALID_PARAMETER || code == NOT_SUPPORTED,
         "GetUserInfo with a null length: expected " + Name(INVALID_PARAMETER) + ", got " +
             Name(code));
}

void Suite::UserInfoBufferRules() {
  IProtocol_V2* p = NeedObject();
  CheckBufferRules([p](char* b, int* l) { return p->GetUserInfo(b, l); }, "GetUserInfo", false);
}

void Suite::QuotaFigures() {
  IProtocol_V2* p = NeedObject();
  constexpr unsigned long long kUnset = ~0ull;
  unsigned long long total = kUnset;
  unsigned long long second = kUnset;
  ExpectSuccess(p->GetQuota(&total, &second), "GetQuota");
  if (total == kUnset && second == kUnset) {
    note_ = "no figures";
    return;
  }
  Expect(total != kUnset && second != kUnset, "GetQuota filled only one of its figures");
  Expect(second <= total, "GetQuota: second figure " + std::to_string(second) +
                              " exceeds the total " + std::to_string(total));
  note_ = std::to_string(second) + " of " + std::to_string(total) + " bytes";
}

void Suite::QuotaNullPointers() {
  IProtocol_V2* p = NeedObject();
  unsigned long long figure = 0;
  ExpectSuccess(p->GetQuota(nullptr, nullptr), "GetQuota(null, null)");
  ExpectSuccess(p->GetQuota(&figure, nullptr), "GetQuota(total, null)");
  ExpectSuccess(p->GetQuota(nullptr, &figure), "GetQuota(null, free)");
}

void Suite::FreeMsgNull() {
  IProtocol_V2* p = NeedObject();
  p->FreeMsg(nullptr);
}

}  // namespace plughost::conformance::detail
