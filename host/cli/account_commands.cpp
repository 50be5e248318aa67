// df, whoami and info: the storage account and the plug-in itself.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <iostream>
#include <optional>

#include "host/cli/commands.h"
#include "host/cli/progress.h"

namespace plughost {

namespace {

int Df(Invocation& run) {
  std::optional<Quota> quota = run.client().GetQuota();
  if (!quota) {
    if (run.json()) {
      std::cout << JsonFields()
                       .Value("total", Json::Value())
                       .Value("used", Json::Value())
                       .Value("free", Json::Value())
                       .str()
                << "\n";
    } else {
      std::cout << "quota: not reported by the plug-in\n";
    }
    return kExitOk;
  }
  unsigned long long free = quota->total > quota->used ? quota->total - quota->used : 0;
  if (run.json()) {
    std::cout << JsonFields()
                     .Value("total", Json::Value(static_cast<Json::UInt64>(quota->total)))
                     .Value("used", Json::Value(static_cast<Json::UInt64>(quota->used)))
                     .Value("free", Json::Value(static_cast<Json::UInt64>(free)))
                     .str()
              << "\n";
    return kExitOk;
  }
  int percent =
      quota->total > 0
          ? static_cast<int>(
                100.0 * static_cast<double>(quota->used) / static_cast<double>(quota->total) + 0.5)
          : 0;
  std::cout << "total  " << HumanBytes(quota->total) << "\n"
            << "used   " << HumanBytes(quota->used) << " (" << percent << "%)\n"
            << "free   " << HumanBytes(free) << "\n";
  return kExitOk;
}

int Whoami(Invocation& run) {
  std::string user = run.client().UserInfo();
  if (run.json()) {
    std::cout << JsonFields().Text("user", user).str() << "\n";
  } else {
    std::cout << user << "\n";
  }
  return kExitOk;
}

int Info(Invocation& run) {
  const Plugin& plugin = run.session.plugin();
  std::string protocol = plugin.SupportProtocol();
  std::string type = run.client().Type();
  int features = run.client().Feature();
  std::string pid = run.client().Pid();
  int auth = plugin.AuthType();
  const ConfineResult confinement = run.session.confinement().value_or(ConfineResult{});
  if (run.json()) {
    std::cout << JsonFields()
                     .Text("plugin", plugin.path())
                     .Text("protocol", protocol)
                     .Text("type", type)
                     .Value("features", features)
                     .Text("root", run.session.root_id())
                     .Text("pid", pid)
                     .Value("auth_type", auth)
                     .Text("confinement",
                           confinement.mode == ConfineMode::kLandlock ? "landlock" : "fallback")
                     .Value("landlock_abi", confinement.abi)
                     .str()
              << "\n";
    return kExitOk;
  }
  char hex[16];
  std::snprintf(hex, sizeof hex, "0x%x", static_cast<unsigned>(features));
  std::cout << "plugin:   " << run.name(plugin.path()) << "\n"
            << "protocol: " << protocol << "\n"
            << "type:     " << type << "\n"
            << "features: " << hex << "\n"
            << "root:     " << run.name(run.session.root_id()) << "\n"
            << "pid:      " << pid << "\n"
            << "auth:     " << auth << "\n"
            << "confinement: " << DescribeConfinement(confinement) << "\n";
  return kExitOk;
}

}  // namespace

void RegisterAccountCommands(CommandSet& commands) {
  commands.Add("df", "Show the storage's size, used and free space", Df);
  commands.Add("whoami", "Show the account the storage is used as", Whoami);
  commands.Add("info", "Show the plug-in: type, features, root identifier, pid, auth type", Info);
}

}  // namespace plughost
