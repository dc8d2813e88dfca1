#include <cerrno>

#include "platform/internal/OsErrors.h"

namespace tavik::platform {
namespace {

// Windows refuses to open a directory as a file with access denied, so EISDIR says so too. A lock
// another opener holds (EWOULDBLOCK from flock) is a sharing violation; from a socket it is "would
// block". A bad descriptor is "not a socket" to Windows Sockets, as Windows says for a bad handle. EPIPE
// means the connection is gone; a Windows send on such a socket reports a reset. EINTR only surfaces
// from accept (other calls restart), where Windows reports a cancelled blocking call.
constexpr ErrnoRow kRows[] = {
    {EPERM, ERROR_ACCESS_DENIED, 10013, "operation not permitted"},
    {ENOENT, ERROR_FILE_NOT_FOUND, 0, "no such file or directory"},
    {EINTR, 0, 10004, "interrupted call"},
    {EIO, ERROR_GEN_FAILURE, 0, "input/output error"},
    {EBADF, ERROR_INVALID_HANDLE, 10038, "bad descriptor"},
    {ENOMEM, ERROR_NOT_ENOUGH_MEMORY, 10055, "out of memory"},
    {EACCES, ERROR_ACCESS_DENIED, 10013, "permission denied"},
    {EFAULT, 0, 10014, "bad address"},
    {EBUSY, ERROR_BUSY, 0, "busy"},
    {EEXIST, ERROR_FILE_EXISTS, 0, "file exists"},
    {EXDEV, ERROR_NOT_SAME_DEVICE, 0, "not on the same device"},
    {ENOTDIR, ERROR_PATH_NOT_FOUND, 0, "not a directory"},
    {EISDIR, ERROR_ACCESS_DENIED, 0, "is a directory"},
    {EINVAL, ERROR_INVALID_PARAMETER, 10022, "invalid argument"},
    {ENFILE, ERROR_TOO_MANY_OPEN_FILES, 10024, "file table full"},
    {EMFILE, ERROR_TOO_MANY_OPEN_FILES, 10024, "too many open files"},
    {ETXTBSY, ERROR_ACCESS_DENIED, 0, "program file busy"},
    {EFBIG, ERROR_FILE_TOO_LARGE, 0, "file too large"},
    {ENOSPC, ERROR_DISK_FULL, 0, "no space left on the device"},
    {ESPIPE, ERROR_SEEK, 0, "cannot seek"},
    {EROFS, ERROR_WRITE_PROTECT, 0, "read-only file system"},
    {EPIPE, 0, 10054, "broken pipe"},
    {EAGAIN, ERROR_SHARING_VIOLATION, 10035, "would block"},
    {ENOLCK, ERROR_LOCK_VIOLATION, 0, "no locks available"},
    {ENOTEMPTY, ERROR_DIR_NOT_EMPTY, 10066, "directory not empty"},
    {ELOOP, ERROR_FILENAME_EXCED_RANGE, 10062, "too many links"},
    {ENAMETOOLONG, ERROR_FILENAME_EXCED_RANGE, 10063, "name too long"},
    {EINPROGRESS, 0, 10036, "in progress"},
    {EALREADY, 0, 10037, "already in progress"},
    {ENOTSOCK, 0, 10038, "not a socket"},
    {EDESTADDRREQ, 0, 10039, "destination required"},
    {EMSGSIZE, 0, 10040, "message too long"},
    {EPROTOTYPE, 0, 10041, "wrong protocol type"},
    {ENOPROTOOPT, 0, 10042, "bad option"},
    {EPROTONOSUPPORT, 0, 10043, "protocol not supported"},
    {ESOCKTNOSUPPORT, 0, 10044, "socket type not supported"},
    {EOPNOTSUPP, 0, 10045, "operation not supported"},
    {EPFNOSUPPORT, 0, 10046, "protocol family not supported"},
    {EAFNOSUPPORT, 0, 10047, "address family not supported"},
    {EADDRINUSE, 0, 10048, "address in use"},
    {EADDRNOTAVAIL, 0, 10049, "address not available"},
    {ENETDOWN, 0, 10050, "network down"},
    {ENETUNREACH, 0, 10051, "network unreachable"},
    {ENETRESET, 0, 10052, "network reset"},
    {ECONNABORTED, 0, 10053, "connection aborted"},
    {ECONNRESET, 0, 10054, "connection reset"},
    {ENOBUFS, 0, 10055, "no buffer space"},
    {EISCONN, 0, 10056, "already connected"},
    {ENOTCONN, 0, 10057, "not connected"},
    {ESHUTDOWN, 0, 10058, "shut down"},
    {ETOOMANYREFS, 0, 10059, "too many references"},
    {ETIMEDOUT, 0, 10060, "timed out"},
    {ECONNREFUSED, 0, 10061, "connection refused"},
    {EHOSTDOWN, 0, 10064, "host down"},
    {EHOSTUNREACH, 0, 10065, "host unreachable"},
    {EUSERS, 0, 10068, "too many users"},
    {EDQUOT, ERROR_DISK_FULL, 10069, "quota exceeded"},
    {ESTALE, 0, 10070, "stale handle"},
    {EREMOTE, 0, 10071, "remote object"},
};

const ErrnoRow* Find(int error) {
    if (error == EWOULDBLOCK) error = EAGAIN;
    for (const ErrnoRow& row : kRows)
        if (row.error == error) return &row;
    return nullptr;
}

}  // namespace

std::span<const ErrnoRow> ErrnoTable() { return kRows; }

LONG Win32ErrorFromErrno(int error) {
    if (error == 0) return ERROR_SUCCESS;
    const ErrnoRow* row = Find(error);
    return row && row->win32 != 0 ? row->win32 : kUnknownWin32Error;
}

int SocketErrorFromErrno(int error) {
    const ErrnoRow* row = Find(error);
    return row && row->socket != 0 ? row->socket : kUnknownSocketError;
}

}  // namespace tavik::platform
