#include "platform/CFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "platform/internal/OsErrors.h"
#include "platform/internal/SystemCalls.h"

using tavik::platform::Sys;

IMPLEMENT_DYNAMIC(CFile, CObject)

const HANDLE CFile::hFileNull = INVALID_HANDLE_VALUE;

// Declared for the file-mapping family in platform/internal/FileMappingObject.h.
namespace tavik::platform {
int FileDescriptorOfHandle(HANDLE file);
}

namespace {

// A CFile handle is its descriptor's number; kernel handles (platform/Kernel.h) start far above.
constexpr std::intptr_t kMaxDescriptor = 0xFFFFFF;

HANDLE handleOf(int fd) { return reinterpret_cast<HANDLE>(static_cast<std::intptr_t>(fd)); }

int descriptorOf(HANDLE h) {
    if (h == INVALID_HANDLE_VALUE) return -1;
    std::intptr_t v = reinterpret_cast<std::intptr_t>(h);
    return v >= 0 && v <= kMaxDescriptor ? static_cast<int>(v) : -1;
}

[[noreturn]] void throwErrno(int e, const CString& name) {
    CFileException::ThrowErrno(e == 0 ? EIO : e, name);
    AfxThrowFileException(CFileException::genericException, -1, name);  // not reached
}

std::string absolutePath(const char* name) {
    if (name[0] == '/') return name;
    char cwd[4096];
    if (Sys().getcwd(cwd, sizeof cwd) == nullptr) return name;
    std::string path = cwd;
    if (path.back() != '/') path += '/';
    return path + name;
}

}  // namespace

int tavik::platform::FileDescriptorOfHandle(HANDLE file) {
    int fd = descriptorOf(file);
    return fd >= 0 && Sys().fcntl(fd, F_GETFD, 0) != -1 ? fd : -1;
}

CFile::CFile() : m_hFile(hFileNull), m_bCloseOnDelete(FALSE) {}

CFile::CFile(HANDLE hFile) : m_hFile(hFile), m_bCloseOnDelete(FALSE) {}

CFile::CFile(LPCTSTR fileName, UINT openFlags) : CFile() {
    CFileException error;
    if (!Open(fileName, openFlags, &error))
        AfxThrowFileException(error.m_cause, error.m_lOsError, error.m_strFileName);
}

CFile::~CFile() {
    if (m_hFile != hFileNull && m_bCloseOnDelete) Abort();
}

int CFile::fd() const { return descriptorOf(m_hFile); }

BOOL CFile::Open(LPCTSTR fileName, UINT openFlags, CFileException* error) {
    auto fail = [&](int cause, LONG os) {
        if (error != nullptr) {
            error->m_cause = cause;
            error->m_lOsError = os;
            error->m_strFileName = fileName;
        }
        return FALSE;
    };
    if (fileName == nullptr || *fileName == '\0')
        return fail(CFileException::fileNotFound, ERROR_FILE_NOT_FOUND);
    if (m_hFile != hFileNull) return fail(CFileException::genericException, ERROR_INVALID_HANDLE);

    int flags = O_CLOEXEC;  // nothing here starts child processes; never leak descriptors
    switch (openFlags & 3) {
        case modeRead:
            flags |= O_RDONLY;
            break;
        case modeWrite:
            flags |= O_WRONLY;
            break;
        case modeReadWrite:
            flags |= O_RDWR;
            break;
        default:
            return fail(CFileException::genericException, ERROR_INVALID_PARAMETER);
    }
    bool truncate = (openFlags & modeCreate) && !(openFlags & modeNoTruncate);
    if (openFlags & modeCreate) flags |= O_CREAT;
    if ((openFlags & modeCreate) && (openFlags & osCreateNew)) flags |= O_EXCL;
    if (openFlags & osWriteThrough) flags |= O_DSYNC;
    const unsigned mode = 0600;

    int fdesc;
    do {
        fdesc = Sys().open(fileName, flags, mode);
    } while (fdesc < 0 && errno == EINTR);
    if (fdesc < 0) {
        LONG os = tavik::platform::Win32ErrorFromErrno(errno);
        return fail(CFileException::OsErrorToException(os), os);
    }
    auto failOpen = [&](int e) {
        Sys().close(fdesc);
        LONG os = tavik::platform::Win32ErrorFromErrno(e);
        return fail(CFileException::OsErrorToException(os), os);
    };
    struct stat st;
    if (Sys().fstat(fdesc, &st) == 0 && S_ISDIR(st.st_mode)) return failOpen(EISDIR);
    if (fdesc > kMaxDescriptor) return failOpen(EMFILE);

    // Share modes as advisory locks; the truncation waits until the lock says the file is ours.
    UINT share = openFlags & 0x70;
    bool wantsWrite = (openFlags & 3) != modeRead;
    int lockOp = 0;
    bool keepLock = true;
    if (share == shareExclusive) {
        lockOp = LOCK_EX;
    } else if (share == shareDenyWrite || share == shareDenyRead) {
        lockOp = LOCK_SH;
    } else {
        // Takes no lock itself, but must not get past an opener that denies it (a writer past any
        // denying lock, a reader past an exclusive one).
        lockOp = wantsWrite ? LOCK_EX : LOCK_SH;
        keepLock = false;
    }
    if (Sys().flock(fdesc, lockOp | LOCK_NB) != 0)
        return failOpen(errno == EWOULDBLOCK ? EWOULDBLOCK : errno);
    if (!keepLock) Sys().flock(fdesc, LOCK_UN);
    if (truncate && Sys().ftruncate(fdesc, 0) != 0) return failOpen(errno);

    m_hFile = handleOf(fdesc);
    m_bCloseOnDelete = TRUE;
    m_strFileName = absolutePath(fileName).c_str();
    return TRUE;
}

UINT CFile::Read(void* buffer, UINT count) {
    if (count == 0) return 0;
    if (fd() < 0) AfxThrowFileException(CFileException::invalidFile, ERROR_INVALID_HANDLE, m_strFileName);
    UINT done = 0;
    while (done < count) {
        std::ptrdiff_t n = Sys().read(fd(), static_cast<char*>(buffer) + done, count - done);
        if (n < 0) {
            if (errno == EINTR) continue;
            // An open descriptor refusing the call was opened without that access, as Windows says.
            throwErrno(errno == EBADF ? EACCES : errno, m_strFileName);
        }
        if (n == 0) break;
        done += static_cast<UINT>(n);
    }
    return done;
}

void CFile::Write(const void* buffer, UINT count) {
    if (count == 0) return;
    if (fd() < 0) AfxThrowFileException(CFileException::invalidFile, ERROR_INVALID_HANDLE, m_strFileName);
    UINT done = 0;
    while (done < count) {
        std::ptrdiff_t n = Sys().write(fd(), static_cast<const char*>(buffer) + done, count - done);
        if (n < 0) {
            if (errno == EINTR) continue;
            throwErrno(errno == EBADF ? EACCES : errno, m_strFileName);
        }
        if (n == 0) throwErrno(ENOSPC, m_strFileName);
        done += static_cast<UINT>(n);
    }
}

ULONGLONG CFile::Seek(LONGLONG offset, UINT from) {
    if (fd() < 0) AfxThrowFileException(CFileException::invalidFile, ERROR_INVALID_HANDLE, m_strFileName);
    int whence = from == begin ? SEEK_SET : from == current ? SEEK_CUR : from == end ? SEEK_END : -1;
    if (whence < 0) AfxThrowFileException(CFileException::badSeek, ERROR_INVALID_PARAMETER, m_strFileName);
    std::int64_t pos = Sys().lseek(fd(), offset, whence);
    if (pos < 0) {
        if (errno == EINVAL)
            AfxThrowFileException(CFileException::badSeek, tavik::platform::ERROR_NEGATIVE_SEEK,
                                  m_strFileName);
        throwErrno(errno, m_strFileName);
    }
    return static_cast<ULONGLONG>(pos);
}

ULONGLONG CFile::GetPosition() const {
    if (fd() < 0) AfxThrowFileException(CFileException::invalidFile, ERROR_INVALID_HANDLE, m_strFileName);
    std::int64_t pos = Sys().lseek(fd(), 0, SEEK_CUR);
    if (pos < 0) throwErrno(errno, m_strFileName);
    return static_cast<ULONGLONG>(pos);
}

ULONGLONG CFile::GetLength() const {
    if (fd() < 0) AfxThrowFileException(CFileException::invalidFile, ERROR_INVALID_HANDLE, m_strFileName);
    struct stat st;
    if (Sys().fstat(fd(), &st) != 0) throwErrno(errno, m_strFileName);
    return static_cast<ULONGLONG>(st.st_size);
}

void CFile::SetLength(ULONGLONG newLength) {
    if (fd() < 0) AfxThrowFileException(CFileException::invalidFile, ERROR_INVALID_HANDLE, m_strFileName);
    if (newLength > ULONGLONG(INT64_MAX))
        AfxThrowFileException(CFileException::badSeek, ERROR_INVALID_PARAMETER, m_strFileName);
    if (Sys().ftruncate(fd(), std::int64_t(newLength)) != 0) throwErrno(errno, m_strFileName);
}

void CFile::Flush() {
    if (fd() < 0) return;
    if (Sys().fsync(fd()) != 0) throwErrno(errno, m_strFileName);
}

void CFile::Close() {
    int fdesc = fd();
    m_hFile = hFileNull;
    m_bCloseOnDelete = FALSE;
    // The descriptor is gone after close() even when it reports an error, so never retry it.
    if (fdesc >= 0 && Sys().close(fdesc) != 0 && errno != EINTR) throwErrno(errno, m_strFileName);
}

void CFile::Abort() {
    int fdesc = fd();
    m_hFile = hFileNull;
    m_bCloseOnDelete = FALSE;
    if (fdesc >= 0) Sys().close(fdesc);
}

UINT CFile::GetBufferPtr(UINT, UINT, void**, void**) { return 0; }

CString CFile::GetFileName() const {
    int slash = m_strFileName.ReverseFind('/');
    return slash < 0 ? m_strFileName : m_strFileName.Mid(slash + 1);
}

CString CFile::GetFileTitle() const {
    CString name = GetFileName();
    int dot = name.ReverseFind('.');
    return dot <= 0 ? name : name.Left(dot);
}

BOOL CFile::GetStatus(CFileStatus& status) const {
    if (m_strFileName.IsEmpty()) return FALSE;
    return GetStatus(m_strFileName, status);
}

BOOL CFile::GetStatus(LPCTSTR fileName, CFileStatus& status) {
    if (fileName == nullptr || *fileName == '\0') return FALSE;
    struct stat st;
    if (Sys().stat(fileName, &st) != 0) return FALSE;
    status.m_ctime = CTime(std::time_t(st.st_ctime));
    status.m_mtime = CTime(std::time_t(st.st_mtime));
    status.m_atime = CTime(std::time_t(st.st_atime));
    status.m_size = static_cast<ULONGLONG>(st.st_size);
    BYTE attr = 0;
    if (S_ISDIR(st.st_mode)) attr |= directory;
    if (!(st.st_mode & S_IWUSR)) attr |= readOnly;
    const char* slash = std::strrchr(fileName, '/');
    const char* base = slash ? slash + 1 : fileName;
    if (base[0] == '.' && std::strcmp(base, ".") != 0 && std::strcmp(base, "..") != 0) attr |= hidden;
    status.m_attribute = attr;
    std::string full = absolutePath(fileName);
    std::size_t n = std::min(full.size(), std::size_t(MAX_PATH - 1));
    std::memcpy(status.m_szFullName, full.data(), n);
    status.m_szFullName[n] = '\0';
    return TRUE;
}

void CFile::Rename(LPCTSTR oldName, LPCTSTR newName) {
    if (oldName == nullptr || newName == nullptr)
        AfxThrowFileException(CFileException::badPath, ERROR_INVALID_PARAMETER, oldName);
    if (Sys().rename(oldName, newName) != 0) throwErrno(errno, oldName);
}

void CFile::Remove(LPCTSTR fileName) {
    if (fileName == nullptr) AfxThrowFileException(CFileException::badPath, ERROR_INVALID_PARAMETER);
    if (Sys().unlink(fileName) != 0) throwErrno(errno == EISDIR ? EACCES : errno, fileName);
}
