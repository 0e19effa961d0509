#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "plugin/aerror.h"

namespace {

// What hosts were built against: each group's first number and its names, one number after another.
struct Group {
  int first;
  std::vector<const char*> names;
};

const std::vector<Group> kGroups{
    {0,
     {"SUCCESS",
      "FAILED",
      "RETRY",
      "CANCEL",
      "ACCESS_VIOLATION",
      "INSUFFICIENT_BUFFER",
      "INVALID_PARAMETER",
      "FOLDER_CREATION_FAILED",
      "NOT_SUPPORTED",
      "FILE_OPEN_FAILED",
      "FILE_READ_FAILED",
      "FILE_WRITE_FAILED",
      "FILE_SEEK_FAILED",
      "READ_CANCELED",
      "UPLOAD_CANCELED",
      "RETRY_UPLOAD",
      "SAVE_TO_LOCAL",
      "SAVE_FAILED",
      "DEVICE_NOT_READY",
      "FILE_NOT_FOUND",
      "PATH_NOT_FOUND",
      "CAN_NOT_MAKE",
      "FILE_EXISTS",
      "ALREADY_EXISTS",
      "ACCESS_DENIED",
      "INVALID_NAME",
      "OPEN_FAILED",
      "NO_ACCESS",
      "INVALID_USER_BUFFER",
      "INVALID_HANDLE",
      "INVALID_DIRECTORY",
      "DELETE_PENDING",
      "PENDING",
      "NO_PRIVILEGE",
      "NET_WRITE_FAILED",
      "HANDLE_EOF",
      "DIR_NOT_EMPTY",
      "SHARING_VIOLATION",
      "INVALID_FUNCTION",
      "READ_ONLY_FILE",
      "WRITE_PROTECT",
      "BAD_ARGUMENTS",
      "TIMEDOUT"}},
    {1000, {"ASYNCQ_STOPPED", "ASYNCQ_NULLOBJECT", "ASYNCQ_THREADCREATIONFAILED"}},
    {2001,
     {"FS_UNKNOWN_ERROR", "FS_ALREADY_AUTHORIZED", "FS_ALREADY_MOUNTED", "FS_INVALID_LETTER",
      "FS_UNKNOWN_MOUNT_TYPE", "FS_DRIVER_ERROR", "FS_START_ERROR", "FS_MOUNT_ERROR",
      "FS_MOUNT_POINT_ERROR", "FS_UNMOUNT_FAILED", "FS_UNMOUNT_EXIST_UPLOADING",
      "FS_INITIALIZE_FIRST", "FS_NEED_REFRESH", "FS_NEED_AUTHORIZE"}},
    {3001,
     {"CACHE_TOO_SMALL", "CACHE_INVALID_OPEN_MODE", "CACHE_INVALID_PATH", "CACHE_CREATE_FAILED",
      "CACHE_NOT_OPENED", "CACHE_OFFSET_NOT_ALIGNED", "CACHE_WRITE_FAILED", "CACHE_READ_FAILED",
      "CACHE_BLOCK_RESERVED", "CACHE_BLOCK_EMPTY", "CACHE_NO_NEED_READAHEAD",
      "CACHE_NEED_READAHEAD", "CACHE_READAHEAD", "CACHE_NO_RESERVED_BLOCKS"}},
    {4000,
     {"CERT_ERROR", "CERT_NOT_SSL", "CERT_INVALID", "CERT_NEED_CONFIRM", "CERT_ISSUER_NOT_FOUND"}},
    {6000, {"JSON_ERROR", "JSON_PARSE_FAILED"}},
    {7000, {"AUTH_ERROR", "AUTH_RETRY", "AUTH_CANCEL", "AUTH_FAILED"}},
    {7005, {"AUTH_INVALID_APP", "AUTH_KEY_NOT_FOUND"}},
    {8001,
     {"SOCK_CONNECTION_REFUSED",
      "SOCK_REMOTE_HOST_CLOSED",
      "SOCK_HOST_NOT_FOUND",
      "SOCK_ACCESS_ERROR",
      "SOCK_RESOURCE_ERROR",
      "SOCK_TIMEOUT",
      "SOCK_DATAGRAM_TOO_LARGE",
      "SOCK_NETWORK_ERROR",
      "SOCK_ADDRESS_IN_USE",
      "SOCK_ADDRESS_NOT_AVALIABLE",
      "SOCK_UNSUPPORTED_SOCKET_OPERATION",
      "SOCK_UNFINISHED_SOCKET_OPERATION",
      "SOCK_PROXY_AUTH_REQUIRED",
      "SOCK_SSL_HANDSHAKE_FAILED",
      "SOCK_PROXY_CONNECTION_REFUSED",
      "SOCK_PROXY_CONNECTION_CLOSED",
      "SOCK_PROXY_CONNECTION_TIMEOUT",
      "SOCK_PROXY_NOT_FOUND",
      "SOCK_PROXY_PROTOCOL_ERROR",
      "SOCK_OPERATION_ERROR",
      "SOCK_SSL_INTERNAL_ERROR",
      "SOCK_SSL_INVALID_USER_DATA",
      "SOCK_TEMPORARY_ERROR",
      "SOCK_UNKNOWN_SOCKET_ERROR"}}};

TEST(ErrorTable, EveryNumberHasItsNameAndItsErrno) {
  std::map<int, std::string> names;
  for (const Group& group : kGroups) {
    int code = group.first;
    for (const char* name : group.names) names[code++] = std::string("AERROR::") + name;
  }
  for (int code = -10; code <= 9000; ++code) {
    const auto named = names.find(code);
    EXPECT_EQ(GetAERRORA(static_cast<AERROR>(code)),
              named == names.end() ? "Unknown" : named->second);
    EXPECT_EQ(ConvertAERROR(static_cast<AERROR>(code)), code == 0 ? 0 : code == 19 ? -2 : -5);
  }
}

}  // namespace
