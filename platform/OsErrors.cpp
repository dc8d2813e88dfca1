#include "platform/internal/OsErrors.h"

#include <cerrno>

LONG detail::Win32ErrorFromErrno(int e) {
    switch (e) {
        case 0:
            return ERROR_SUCCESS;
        case ENOENT:
            return ERROR_FILE_NOT_FOUND;
        case ENOTDIR:
            return ERROR_PATH_NOT_FOUND;
        case ELOOP:
        case ENAMETOOLONG:
            return ERROR_FILENAME_EXCED_RANGE;
        case EMFILE:
        case ENFILE:
            return ERROR_TOO_MANY_OPEN_FILES;
        case EACCES:
        case EPERM:
        case EROFS:
        case EISDIR:  // Windows refuses to open a directory as a file with access denied
        case ETXTBSY:
            return ERROR_ACCESS_DENIED;
        case EBADF:
            return ERROR_INVALID_HANDLE;
        case ENOMEM:
            return ERROR_NOT_ENOUGH_MEMORY;
        case EEXIST:
            return ERROR_FILE_EXISTS;
        case EINVAL:
            return ERROR_INVALID_PARAMETER;
        case ENOSPC:
        case EDQUOT:
            return ERROR_DISK_FULL;
        case EFBIG:
            return ERROR_FILE_TOO_LARGE;
        case EIO:
            return ERROR_GEN_FAILURE;
        case EWOULDBLOCK:
            return ERROR_SHARING_VIOLATION;
        case ENOLCK:
            return ERROR_LOCK_VIOLATION;
        case ESPIPE:
            return ERROR_SEEK;
        case ENOTEMPTY:
            return ERROR_DIR_NOT_EMPTY;
        case EXDEV:
            return ERROR_NOT_SAME_DEVICE;
        case EBUSY:
            return ERROR_BUSY;
        default:
            return ERROR_GEN_FAILURE;
    }
}
