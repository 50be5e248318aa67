#include "protocol/aerror.h"

namespace {

constexpr const char kUnknown[] = "Unknown";

// One dense table per assigned range; a null entry is a hole inside a range.
struct Range {
  std::int32_t first;
  std::int32_t last;
  const char* const* names;
};

constexpr const char* kGeneralNames[] = {
    "AERROR::SUCCESS",
    "AERROR::FAILED",
    "AERROR::RETRY",
    "AERROR::CANCEL",
    "AERROR::ACCESS_VIOLATION",
    "AERROR::INSUFFICIENT_BUFFER",
    "AERROR::INVALID_PARAMETER",
    "AERROR::FOLDER_CREATION_FAILED",
    "AERROR::NOT_SUPPORTED",
    "AERROR::FILE_OPEN_FAILED",
    "AERROR::FILE_READ_FAILED",
    "AERROR::FILE_WRITE_FAILED",
    "AERROR::FILE_SEEK_FAILED",
    "AERROR::READ_CANCELED",
    "AERROR::UPLOAD_CANCELED",
    "AERROR::RETRY_UPLOAD",
    "AERROR::SAVE_TO_LOCAL",
    "AERROR::SAVE_FAILED",
    "AERROR::DEVICE_NOT_READY",
    "AERROR::FILE_NOT_FOUND",
    "AERROR::PATH_NOT_FOUND",
    "AERROR::CAN_NOT_MAKE",
    "AERROR::FILE_EXISTS",
    "AERROR::ALREADY_EXISTS",
    "AERROR::ACCESS_DENIED",
    "AERROR::INVALID_NAME",
    "AERROR::OPEN_FAILED",
    "AERROR::NO_ACCESS",
    "AERROR::INVALID_USER_BUFFER",
    "AERROR::INVALID_HANDLE",
    "AERROR::INVALID_DIRECTORY",
    "AERROR::DELETE_PENDING",
    "AERROR::PENDING",
    "AERROR::NO_PRIVILEGE",
    "AERROR::NET_WRITE_FAILED",
    "AERROR::HANDLE_EOF",
    "AERROR::DIR_NOT_EMPTY",
    "AERROR::SHARING_VIOLATION",
    "AERROR::INVALID_FUNCTION",
    "AERROR::READ_ONLY_FILE",
    "AERROR::WRITE_PROTECT",
    "AERROR::BAD_ARGUMENTS",
    nullptr,
    "AERROR::TIMEDOUT",
};
static_assert(sizeof(kGeneralNames) / sizeof(kGeneralNames[0]) == 44);

constexpr const char* kAsynchronousQueueNames[] = {
    "AERROR::ASYNCQ_STOPPED",
    "AERROR::ASYNCQ_NULLOBJECT",
    "AERROR::ASYNCQ_THREADCREATIONFAILED",
};
static_assert(sizeof(kAsynchronousQueueNames) / sizeof(kAsynchronousQueueNames[0]) == 3);

constexpr const char* kFileSystemMountNames[] = {
    "AERROR::FS_UNKNOWN_ERROR",
    "AERROR::FS_ALREADY_AUTHORIZED",
    "AERROR::FS_ALREADY_MOUNTED",
    "AERROR::FS_INVALID_LETTER",
    "AERROR::FS_UNKNOWN_MOUNT_TYPE",
    "AERROR::FS_DRIVER_ERROR",
    "AERROR::FS_START_ERROR",
    "AERROR::FS_MOUNT_ERROR",
    "AERROR::FS_MOUNT_POINT_ERROR",
    "AERROR::FS_UNMOUNT_FAILED",
    "AERROR::FS_UNMOUNT_EXIST_UPLOADING",
    "AERROR::FS_INITIALIZE_FIRST",
    "AERROR::FS_NEED_REFRESH",
    "AERROR::FS_NEED_AUTHORIZE",
};
static_assert(sizeof(kFileSystemMountNames) / sizeof(kFileSystemMountNames[0]) == 14);

constexpr const char* kCacheNames[] = {
    "AERROR::CACHE_TOO_SMALL",         "AERROR::CACHE_INVALID_OPEN_MODE",
    "AERROR::CACHE_INVALID_PATH",      "AERROR::CACHE_CREATE_FAILED",
    "AERROR::CACHE_NOT_OPENED",        "AERROR::CACHE_OFFSET_NOT_ALIGNED",
    "AERROR::CACHE_WRITE_FAILED",      "AERROR::CACHE_READ_FAILED",
    "AERROR::CACHE_BLOCK_RESERVED",    "AERROR::CACHE_BLOCK_EMPTY",
    "AERROR::CACHE_NO_NEED_READAHEAD", "AERROR::CACHE_NEED_READAHEAD",
    "AERROR::CACHE_READAHEAD",         "AERROR::CACHE_NO_RESERVED_BLOCKS",
};
static_assert(sizeof(kCacheNames) / sizeof(kCacheNames[0]) == 14);

constexpr const char* kCertificatesNames[] = {
    "AERROR::CERT_ERROR",        "AERROR::CERT_NOT_SSL",          "AERROR::CERT_INVALID",
    "AERROR::CERT_NEED_CONFIRM", "AERROR::CERT_ISSUER_NOT_FOUND",
};
static_assert(sizeof(kCertificatesNames) / sizeof(kCertificatesNames[0]) == 5);

constexpr const char* kJsonDocumentsNames[] = {
    "AERROR::JSON_ERROR",
    "AERROR::JSON_PARSE_FAILED",
};
static_assert(sizeof(kJsonDocumentsNames) / sizeof(kJsonDocumentsNames[0]) == 2);

constexpr const char* kAuthenticationNames[] = {
    "AERROR::AUTH_ERROR",
    "AERROR::AUTH_RETRY",
    "AERROR::AUTH_CANCEL",
    "AERROR::AUTH_FAILED",
    nullptr,
    "AERROR::AUTH_INVALID_APP",
    "AERROR::AUTH_KEY_NOT_FOUND",
};
static_assert(sizeof(kAuthenticationNames) / sizeof(kAuthenticationNames[0]) == 7);

constexpr const char* kSocketsNames[] = {
    "AERROR::SOCK_CONNECTION_REFUSED",
    "AERROR::SOCK_REMOTE_HOST_CLOSED",
    "AERROR::SOCK_HOST_NOT_FOUND",
    "AERROR::SOCK_ACCESS_ERROR",
    "AERROR::SOCK_RESOURCE_ERROR",
    "AERROR::SOCK_TIMEOUT",
    "AERROR::SOCK_DATAGRAM_TOO_LARGE",
    "AERROR::SOCK_NETWORK_ERROR",
    "AERROR::SOCK_ADDRESS_IN_USE",
    "AERROR::SOCK_ADDRESS_NOT_AVALIABLE",
    "AERROR::SOCK_UNSUPPORTED_SOCKET_OPERATION",
    "AERROR::SOCK_UNFINISHED_SOCKET_OPERATION",
    "AERROR::SOCK_PROXY_AUTH_REQUIRED",
    "AERROR::SOCK_SSL_HANDSHAKE_FAILED",
    "AERROR::SOCK_PROXY_CONNECTION_REFUSED",
    "AERROR::SOCK_PROXY_CONNECTION_CLOSED",
    "AERROR::SOCK_PROXY_CONNECTION_TIMEOUT",
    "AERROR::SOCK_PROXY_NOT_FOUND",
    "AERROR::SOCK_PROXY_PROTOCOL_ERROR",
    "AERROR::SOCK_OPERATION_ERROR",
    "AERROR::SOCK_SSL_INTERNAL_ERROR",
    "AERROR::SOCK_SSL_INVALID_USER_DATA",
    "AERROR::SOCK_TEMPORARY_ERROR",
    "AERROR::SOCK_UNKNOWN_SOCKET_ERROR",
};
static_assert(sizeof(kSocketsNames) / sizeof(kSocketsNames[0]) == 24);

constexpr Range kRanges[] = {
    {0, 43, kGeneralNames},
    {1000, 1002, kAsynchronousQueueNames},
    {2001, 2014, kFileSystemMountNames},
    {3001, 3014, kCacheNames},
    {4000, 4004, kCertificatesNames},
    {6000, 6001, kJsonDocumentsNames},
    {7000, 7006, kAuthenticationNames},
    {8001, 8024, kSocketsNames},
};

}  // namespace

const char* GetAERRORA(AERROR code) {
  const std::int32_t value = code;
  for (const Range& range : kRanges) {
    if (value >= range.first && value <= range.last) {
      const char* name = range.names[value - range.first];
      return name != nullptr ? name : kUnknown;
    }
  }
  return kUnknown;
}

int ConvertAERROR(AERROR code) {
  switch (code) {
    case SUCCESS:
      return 0;
    case FILE_NOT_FOUND:
      return -2;  // -ENOENT
    case ACCESS_DENIED:
    case SHARING_VIOLATION:
      return -13;  // -EACCES
    default:
      return -5;  // -EIO
  }
}
