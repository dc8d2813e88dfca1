// The one errno table: every row sound, and the file calls reporting through it.
#include <gtest/gtest.h>

#include <cerrno>
#include <set>
#include <string>

#include "platform/CException.h"
#include "platform/CFile.h"
#include "platform/FileSystem.h"
#include "platform/internal/OsErrors.h"
#include "platform/internal/SystemCalls.h"
#include "tests/support/TempDir.h"

namespace tavik::test {
namespace {

TEST(ErrnoTable, EveryRowIsKnownOnBothSides) {
    std::set<int> seen;
    for (const platform::ErrnoRow& row : platform::ErrnoTable()) {
        SCOPED_TRACE(row.what);
        EXPECT_TRUE(seen.insert(row.error).second) << "errno " << row.error << " listed twice";
        EXPECT_NE(std::string(row.what), "");
        EXPECT_TRUE(row.win32 != 0 || row.socket != 0) << "a row that translates to nothing";
        if (row.win32 != 0) {
            EXPECT_EQ(platform::Win32ErrorFromErrno(row.error), row.win32);
        } else {
            EXPECT_EQ(platform::Win32ErrorFromErrno(row.error), platform::kUnknownWin32Error);
        }
        if (row.socket != 0) {
            EXPECT_GE(row.socket, 10004);
            EXPECT_LE(row.socket, 10071);
            EXPECT_EQ(platform::SocketErrorFromErrno(row.error), row.socket);
        } else {
            EXPECT_EQ(platform::SocketErrorFromErrno(row.error), platform::kUnknownSocketError);
        }
    }
    EXPECT_EQ(platform::Win32ErrorFromErrno(0), ERROR_SUCCESS);
    EXPECT_EQ(platform::Win32ErrorFromErrno(99999), platform::kUnknownWin32Error);
    EXPECT_EQ(platform::SocketErrorFromErrno(99999), platform::kUnknownSocketError);
    // The same number means a held lock to a file call and "would block" to a socket.
    EXPECT_EQ(platform::Win32ErrorFromErrno(EWOULDBLOCK), platform::ERROR_SHARING_VIOLATION);
    EXPECT_EQ(platform::SocketErrorFromErrno(EWOULDBLOCK), 10035);
}

int g_error = 0;
int FailingUnlink(const char*) {
    errno = g_error;
    return -1;
}
int FailingOpen(const char*, int, mode_t) {
    errno = g_error;
    return -1;
}

// DeleteFile, GetTempFileName and CFile once kept tables of their own with different defaults.
TEST(ErrnoTable, FileCallsReportThroughIt) {
    TempDir dir;
    std::string file = dir.file("f");
    WriteFile(file, "x");
    platform::ScopedSystemCalls calls;
    calls->unlink = FailingUnlink;
    calls->open = FailingOpen;
    for (int error : {EROFS, EBUSY, EIO, ENAMETOOLONG, 99999}) {
        SCOPED_TRACE(error);
        g_error = error;
        const LONG expected = platform::Win32ErrorFromErrno(error);
        SetLastError(0);
        EXPECT_FALSE(DeleteFile(file.c_str()));
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(expected));
        char name[MAX_PATH];
        SetLastError(0);
        EXPECT_EQ(GetTempFileName(dir.path().c_str(), "tv", 0, name), 0u);
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(expected));
        CFile f;
        CFileException cause;
        EXPECT_FALSE(f.Open(file.c_str(), CFile::modeRead, &cause));
        EXPECT_EQ(cause.m_lOsError, expected);
        EXPECT_EQ(cause.m_cause, CFileException::OsErrorToException(expected));
    }
}

}  // namespace
}  // namespace tavik::test
