// errno -> Windows codes, in one table for the whole platform: the Win32 code a file or directory call
// reports, and the Windows Sockets code a socket call reports. Platform-internal.
#pragma once

#include <span>

#include "platform/WinTypes.h"

namespace tavik::platform {

constexpr LONG ERROR_TOO_MANY_OPEN_FILES = 4;
constexpr LONG ERROR_INVALID_ACCESS = 12;
constexpr LONG ERROR_CURRENT_DIRECTORY = 16;
constexpr LONG ERROR_NOT_SAME_DEVICE = 17;
constexpr LONG ERROR_WRITE_PROTECT = 19;
constexpr LONG ERROR_SEEK = 25;
constexpr LONG ERROR_WRITE_FAULT = 29;
constexpr LONG ERROR_READ_FAULT = 30;
constexpr LONG ERROR_GEN_FAILURE = 31;
constexpr LONG ERROR_SHARING_VIOLATION = 32;
constexpr LONG ERROR_LOCK_VIOLATION = 33;
constexpr LONG ERROR_HANDLE_EOF = 38;
constexpr LONG ERROR_HANDLE_DISK_FULL = 39;
constexpr LONG ERROR_FILE_EXISTS = 80;
constexpr LONG ERROR_DISK_FULL = 112;
constexpr LONG ERROR_INVALID_NAME = 123;
constexpr LONG ERROR_NEGATIVE_SEEK = 131;
constexpr LONG ERROR_DIR_NOT_EMPTY = 145;
constexpr LONG ERROR_BUSY = 170;
constexpr LONG ERROR_FILENAME_EXCED_RANGE = 206;
constexpr LONG ERROR_FILE_TOO_LARGE = 223;
constexpr LONG ERROR_DIRECTORY = 267;

// What an errno value we do not know becomes at each boundary.
constexpr LONG kUnknownWin32Error = ERROR_GEN_FAILURE;
constexpr int kUnknownSocketError = 10107;  // WSASYSCALLFAILURE

struct ErrnoRow {
    int error;
    LONG win32;  // 0: not a failure of a file call; it becomes kUnknownWin32Error
    int socket;  // 0: not a failure of a socket call; it becomes kUnknownSocketError
    const char* what;
};
std::span<const ErrnoRow> ErrnoTable();

// 0 gives ERROR_SUCCESS.
LONG Win32ErrorFromErrno(int error);
// EAGAIN from a blocking transfer is a time-out, which the socket layer decides itself.
int SocketErrorFromErrno(int error);

}  // namespace tavik::platform
