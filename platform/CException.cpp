#include "platform/CException.h"

#include <cerrno>
#include <cstring>

#include "platform/MessageBox.h"
#include "platform/internal/OsErrors.h"

IMPLEMENT_DYNAMIC(CException, CObject)
IMPLEMENT_DYNAMIC(CMemoryException, CException)
IMPLEMENT_DYNAMIC(CNotSupportedException, CException)
IMPLEMENT_DYNAMIC(CInvalidArgException, CException)
IMPLEMENT_DYNAMIC(CFileException, CException)

namespace {

BOOL copyMessage(const char* text, LPTSTR buf, UINT max, UINT* helpContext) {
    if (helpContext != nullptr) *helpContext = 0;
    if (buf == nullptr || max == 0) return FALSE;
    std::size_t n = std::strlen(text);
    if (n > max - 1) n = max - 1;
    std::memcpy(buf, text, n);
    buf[n] = '\0';
    return TRUE;
}

// The framework's texts; %1 is the file name.
const char* fileCauseText(int cause) {
    switch (cause) {
        case CFileException::none:
            return "No error occurred.";
        case CFileException::fileNotFound:
            return "%1 was not found.";
        case CFileException::badPath:
            return "%1 contains an invalid path.";
        case CFileException::tooManyOpenFiles:
            return "%1 could not be opened because there are too many open files.";
        case CFileException::accessDenied:
            return "Access to %1 was denied.";
        case CFileException::invalidFile:
            return "An invalid file handle was associated with %1.";
        case CFileException::removeCurrentDir:
            return "%1 could not be removed because it is the current directory.";
        case CFileException::directoryFull:
            return "%1 could not be created because the directory is full.";
        case CFileException::badSeek:
            return "Seek failed on %1";
        case CFileException::hardIO:
            return "A hardware I/O error was reported while accessing %1.";
        case CFileException::sharingViolation:
            return "A sharing violation occurred while accessing %1.";
        case CFileException::lockViolation:
            return "A locking violation occurred while accessing %1.";
        case CFileException::diskFull:
            return "Disk full while accessing %1.";
        case CFileException::endOfFile:
            return "An attempt was made to access %1 past its end.";
        default:
            return "An unexpected error occurred while accessing %1.";
    }
}

}  // namespace

void CException::Delete() {
    if (m_bAutoDelete) delete this;
}

BOOL CException::GetErrorMessage(LPTSTR buf, UINT max, UINT* helpContext) const {
    if (helpContext != nullptr) *helpContext = 0;
    if (buf != nullptr && max > 0) *buf = '\0';
    return FALSE;
}

int CException::ReportError(UINT type, UINT messageId) const {
    char text[512];
    if (GetErrorMessage(text, sizeof text)) return AfxMessageBox(text, type);
    if (messageId == 0) return AfxMessageBox("No error message is available.", type);
    return AfxMessageBox(messageId, type);
}

BOOL CMemoryException::GetErrorMessage(LPTSTR buf, UINT max, UINT* helpContext) const {
    return copyMessage("Out of memory.", buf, max, helpContext);
}

BOOL CNotSupportedException::GetErrorMessage(LPTSTR buf, UINT max, UINT* helpContext) const {
    return copyMessage("An unsupported operation was attempted.", buf, max, helpContext);
}

BOOL CInvalidArgException::GetErrorMessage(LPTSTR buf, UINT max, UINT* helpContext) const {
    return copyMessage("Encountered an improper argument.", buf, max, helpContext);
}

BOOL CFileException::GetErrorMessage(LPTSTR buf, UINT max, UINT* helpContext) const {
    CString text(fileCauseText(m_cause));
    text.Replace("%1", m_strFileName.IsEmpty() ? "an unnamed file" : m_strFileName.GetString());
    return copyMessage(text, buf, max, helpContext);
}

int CFileException::OsErrorToException(LONG osError) {
    switch (osError) {
        case ERROR_SUCCESS:
            return none;
        case ERROR_FILE_NOT_FOUND:
            return fileNotFound;
        case ERROR_PATH_NOT_FOUND:
        case tavik::platform::ERROR_NOT_SAME_DEVICE:
        case tavik::platform::ERROR_INVALID_NAME:
        case tavik::platform::ERROR_FILENAME_EXCED_RANGE:
        case tavik::platform::ERROR_DIRECTORY:
            return badPath;
        case tavik::platform::ERROR_TOO_MANY_OPEN_FILES:
            return tooManyOpenFiles;
        case ERROR_ACCESS_DENIED:
        case tavik::platform::ERROR_WRITE_PROTECT:
        case tavik::platform::ERROR_INVALID_ACCESS:
        case tavik::platform::ERROR_FILE_EXISTS:
        case ERROR_ALREADY_EXISTS:
            return accessDenied;
        case ERROR_INVALID_HANDLE:
            return invalidFile;
        case tavik::platform::ERROR_CURRENT_DIRECTORY:
        case tavik::platform::ERROR_DIR_NOT_EMPTY:
            return removeCurrentDir;
        case tavik::platform::ERROR_SEEK:
        case tavik::platform::ERROR_NEGATIVE_SEEK:
            return badSeek;
        case tavik::platform::ERROR_WRITE_FAULT:
        case tavik::platform::ERROR_READ_FAULT:
        case tavik::platform::ERROR_GEN_FAILURE:
            return hardIO;
        case tavik::platform::ERROR_SHARING_VIOLATION:
        case tavik::platform::ERROR_BUSY:
            return sharingViolation;
        case tavik::platform::ERROR_LOCK_VIOLATION:
            return lockViolation;
        case tavik::platform::ERROR_DISK_FULL:
        case tavik::platform::ERROR_HANDLE_DISK_FULL:
        case tavik::platform::ERROR_FILE_TOO_LARGE:
            return diskFull;
        case tavik::platform::ERROR_HANDLE_EOF:
            return endOfFile;
        default:
            return genericException;
    }
}

int CFileException::ErrnoToException(int errnoValue) {
    return OsErrorToException(tavik::platform::Win32ErrorFromErrno(errnoValue));
}

void CFileException::ThrowOsError(LONG osError, LPCTSTR fileName) {
    if (osError != 0) AfxThrowFileException(OsErrorToException(osError), osError, fileName);
}

void CFileException::ThrowErrno(int errnoValue, LPCTSTR fileName) {
    if (errnoValue != 0) {
        LONG os = tavik::platform::Win32ErrorFromErrno(errnoValue);
        AfxThrowFileException(OsErrorToException(os), os, fileName);
    }
}

void AfxThrowFileException(int cause, LONG osError, LPCTSTR fileName) {
    throw new CFileException(cause, osError, fileName);
}
void AfxThrowMemoryException() { throw new CMemoryException; }
void AfxThrowNotSupportedException() { throw new CNotSupportedException; }
void AfxThrowInvalidArgException() { throw new CInvalidArgException; }
