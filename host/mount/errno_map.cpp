#include "host/mount/errno_map.h"

#include <algorithm>
#include <cerrno>
#include <iterator>

#include "host/core/database.h"

namespace host::mount {
namespace {

struct Row {
  AERROR code;
  int number;
};

constexpr Row kRows[] = {
    {AERROR::SUCCESS, 0},
    {AERROR::RETRY, EAGAIN},
    {AERROR::CANCEL, EINTR},
    {AERROR::ACCESS_VIOLATION, EACCES},
    {AERROR::INSUFFICIENT_BUFFER, ERANGE},
    {AERROR::INVALID_PARAMETER, EINVAL},
    {AERROR::NOT_SUPPORTED, ENOTSUP},
    {AERROR::READ_CANCELED, EINTR},
    {AERROR::UPLOAD_CANCELED, EINTR},
    {AERROR::DEVICE_NOT_READY, EAGAIN},
    {AERROR::FILE_NOT_FOUND, ENOENT},
    {AERROR::PATH_NOT_FOUND, ENOENT},
    {AERROR::FILE_EXISTS, EEXIST},
    {AERROR::ALREADY_EXISTS, EEXIST},
    {AERROR::ACCESS_DENIED, EACCES},
    {AERROR::INVALID_NAME, EINVAL},
    {AERROR::NO_ACCESS, EACCES},
    {AERROR::INVALID_USER_BUFFER, EFAULT},
    {AERROR::INVALID_HANDLE, EBADF},
    {AERROR::INVALID_DIRECTORY, ENOTDIR},
    {AERROR::DELETE_PENDING, EBUSY},
    {AERROR::NO_PRIVILEGE, EPERM},
    {AERROR::DIR_NOT_EMPTY, ENOTEMPTY},
    {AERROR::SHARING_VIOLATION, EBUSY},
    {AERROR::INVALID_FUNCTION, ENOSYS},
    {AERROR::READ_ONLY_FILE, EROFS},
    {AERROR::WRITE_PROTECT, EROFS},
    {AERROR::BAD_ARGUMENTS, EINVAL},
    {AERROR::TIMEDOUT, ETIMEDOUT},
    {AERROR::FS_NEED_AUTHORIZE, EACCES},
    {AERROR::CACHE_TOO_SMALL, ENOSPC},
    {AERROR::AUTH_ERROR, EACCES},
    {AERROR::AUTH_RETRY, EAGAIN},
    {AERROR::AUTH_CANCEL, EACCES},
    {AERROR::AUTH_FAILED, EACCES},
    {AERROR::SOCK_CONNECTION_REFUSED, ECONNREFUSED},
    {AERROR::SOCK_REMOTE_HOST_CLOSED, ECONNRESET},
    {AERROR::SOCK_HOST_NOT_FOUND, EHOSTUNREACH},
    {AERROR::SOCK_TIMEOUT, ETIMEDOUT},
    {AERROR::SOCK_NETWORK_ERROR, ENETUNREACH},
};

}  // namespace

int ErrnoOf(AERROR code) {
  const Row* row = std::find_if(std::begin(kRows), std::end(kRows),
                                [&](const Row& candidate) { return candidate.code == code; });
  return row == std::end(kRows) ? EIO : row->number;
}

int ErrnoOf(const std::exception& failure) {
  const auto* error = dynamic_cast<const DatabaseError*>(&failure);
  if (error == nullptr) return EIO;
  switch (error->SqliteCode() & 0xff) {
    case SQLITE_FULL:
      return ENOSPC;
    case SQLITE_READONLY:
      return EROFS;
    default:
      return EIO;
  }
}

}  // namespace host::mount
