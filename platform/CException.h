// The framework's exception family. Exceptions are thrown as heap pointers (`throw new CFileException`)
// and the catcher owns them: it calls Delete() when done.
#pragma once

#include "platform/CObject.h"
#include "platform/CString.h"

class CException : public CObject {
    DECLARE_DYNAMIC(CException)
public:
    // autoDelete FALSE marks an exception that is not on the heap; Delete() then leaves it alone.
    explicit CException(BOOL autoDelete = TRUE) : m_bAutoDelete(autoDelete) {}
    ~CException() override = default;

    // Deletes a heap exception; the pointer is dead afterwards.
    void Delete();

    // Copies at most max-1 characters of the description plus a terminator into buf (the framework's
    // truncation). FALSE (and an empty buf) when there is no description; *helpContext is set to 0.
    virtual BOOL GetErrorMessage(LPTSTR buf, UINT max, UINT* helpContext = nullptr) const;
    // Shows the description with AfxMessageBox (platform/MessageBox.h). messageId is the string resource
    // shown when there is no description.
    virtual int ReportError(UINT type = 0, UINT messageId = 0) const;

    BOOL m_bAutoDelete;
};

class CMemoryException : public CException {
    DECLARE_DYNAMIC(CMemoryException)
public:
    using CException::CException;
    BOOL GetErrorMessage(LPTSTR buf, UINT max, UINT* helpContext = nullptr) const override;
};

class CNotSupportedException : public CException {
    DECLARE_DYNAMIC(CNotSupportedException)
public:
    using CException::CException;
    BOOL GetErrorMessage(LPTSTR buf, UINT max, UINT* helpContext = nullptr) const override;
};

class CInvalidArgException : public CException {
    DECLARE_DYNAMIC(CInvalidArgException)
public:
    using CException::CException;
    BOOL GetErrorMessage(LPTSTR buf, UINT max, UINT* helpContext = nullptr) const override;
};

class CFileException : public CException {
    DECLARE_DYNAMIC(CFileException)
public:
    enum {
        none,
        genericException,
        fileNotFound,
        badPath,
        tooManyOpenFiles,
        accessDenied,
        invalidFile,
        removeCurrentDir,
        directoryFull,
        badSeek,
        hardIO,
        sharingViolation,
        lockViolation,
        diskFull,
        endOfFile
    };

    explicit CFileException(int cause = none, LONG osError = -1, LPCTSTR fileName = nullptr)
        : m_cause(cause), m_lOsError(osError), m_strFileName(fileName) {}

    // The framework's texts ("Access to %1 was denied." and so on) with the file name, or "an unnamed
    // file" when there is none.
    BOOL GetErrorMessage(LPTSTR buf, UINT max, UINT* helpContext = nullptr) const override;

    // Win32 error code -> cause (unknown codes give genericException).
    static int OsErrorToException(LONG osError);
    // C runtime errno -> cause.
    static int ErrnoToException(int errnoValue);
    // Throw a new CFileException for the code; a code of 0 throws nothing.
    static void ThrowOsError(LONG osError, LPCTSTR fileName = nullptr);
    static void ThrowErrno(int errnoValue, LPCTSTR fileName = nullptr);

    int m_cause;
    LONG m_lOsError;  // Win32 error code, -1 when unknown
    CString m_strFileName;
};

[[noreturn]] void AfxThrowFileException(int cause, LONG osError = -1, LPCTSTR fileName = nullptr);
[[noreturn]] void AfxThrowMemoryException();
[[noreturn]] void AfxThrowNotSupportedException();
[[noreturn]] void AfxThrowInvalidArgException();
