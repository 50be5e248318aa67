// Helpers the transfer files share; not part of the core's interface.
#pragma once

#include <optional>
#include <string>

#include "host/core/client.h"
#include "protocol/contract.h"

namespace plughost {
namespace transfer_internal {

// "parent/name" with exactly one separator.
std::string Join(const std::string& parent, const std::string& name);
// The protocol path of an entry's directory, from the entry's path and name.
std::string ParentOf(const std::string& path, const std::string& name);
bool Stopped(const _FS_HANDLE& handle);
// "<description> (<name>)[: <message>]" of a failed call.
std::string DescribeError(Client& client, const ProtocolError& error);
std::string DescribeCode(Client& client, AERROR code, const std::string& message);
// The record of an existing entry, nothing when there is none; throws
// ProtocolError for other failures.
std::optional<_FS_FILE_V2> Existing(Client& client, const std::string& path);

}  // namespace transfer_internal
}  // namespace plughost
