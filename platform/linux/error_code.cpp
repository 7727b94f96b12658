#include "platform/linux/error_code.h"

#include <cerrno>

DWORD windowsErrorFor(int error) {
  switch (error) {
    case ENOENT: return ERROR_FILE_NOT_FOUND;
    case ENOTDIR: return ERROR_PATH_NOT_FOUND;
    case EMFILE:
    case ENFILE: return ERROR_TOO_MANY_OPEN_FILES;
    case EACCES:
    case EPERM:
    case EISDIR:
    case EXDEV: return ERROR_ACCESS_DENIED;  // EXDEV: a path leads out of openat2's folder
    case EBADF: return ERROR_INVALID_HANDLE;
    case ENOMEM: return ERROR_NOT_ENOUGH_MEMORY;
    case EROFS: return ERROR_WRITE_PROTECT;
    case EOPNOTSUPP: return ERROR_NOT_SUPPORTED;
    case EEXIST: return ERROR_FILE_EXISTS;
    case ENOSPC: return ERROR_DISK_FULL;
    case EINVAL:
    case EILSEQ: return ERROR_INVALID_NAME;
    case EAGAIN: return ERROR_SHARING_VIOLATION;  // another process has a lease
    case EBUSY:
    case ETXTBSY: return ERROR_BUSY;
    case ENAMETOOLONG: return ERROR_FILENAME_EXCED_RANGE;
    case EFBIG: return ERROR_FILE_TOO_LARGE;
    case EIO: return ERROR_IO_DEVICE;
    case EDQUOT: return ERROR_DISK_QUOTA_EXCEEDED;
    case ELOOP: return ERROR_CANT_RESOLVE_FILENAME;
    default: return ERROR_GEN_FAILURE;
  }
}
