// The framework's binary file over the operating system's file calls (platform/internal/
// FileSystemHooks.h). Every failure throws a new CFileException (cause, Win32 error code, file name);
// the file stays open after a failed Read, Write or Seek (a Write that fails part-way keeps the bytes
// written before the failure). Descriptors are never inherited by child processes, so modeNoInherit
// changes nothing.
#pragma once

#include <ctime>

#include "platform/CException.h"
#include "platform/CString.h"
#include "platform/CTime.h"

struct CFileStatus {
    CTime m_ctime;  // status change time (Windows: creation)
    CTime m_mtime;  // last modification
    CTime m_atime;  // last access
    ULONGLONG m_size = 0;
    BYTE m_attribute = 0;  // CFile::Attribute bits
    BYTE m_padding = 0;
    char m_szFullName[MAX_PATH] = {};  // absolute path, cut at MAX_PATH-1 characters
};

class CFile : public CObject {
    DECLARE_DYNAMIC(CFile)
public:
    enum OpenFlags : UINT {
        modeRead = 0x0000,
        modeWrite = 0x0001,
        modeReadWrite = 0x0002,
        shareCompat = 0x0000,
        shareExclusive = 0x0010,
        shareDenyWrite = 0x0020,
        shareDenyRead = 0x0030,
        shareDenyNone = 0x0040,
        modeNoInherit = 0x0080,
        modeCreate = 0x1000,
        modeNoTruncate = 0x2000,
        typeText = 0x4000,  // only meaningful for CStdioFile
        typeBinary = 0x8000,
        osWriteThrough = 0x20000,  // every Write reaches the disk before it returns
        // Every file modeCreate creates is owner-only now (below); the flag stays for callers that say so.
        osOwnerOnly = 0x100000,
        // Our addition, as CreateFile's CREATE_NEW: with modeCreate, the open fails (ERROR_FILE_EXISTS) when
        // the name exists already, a symbolic link included, which is never followed.
        osCreateNew = 0x200000,
    };
    // A file that modeCreate creates is owner-only (0600): the library's files hold mail, addresses and
    // passwords, and Windows has no mode bits to say otherwise. An existing file keeps its mode.
    // Share modes are advisory locks on the whole file, taken without waiting when the file is opened:
    // shareExclusive takes an exclusive lock, shareDenyWrite and shareDenyRead a shared one, shareCompat
    // and shareDenyNone none. So two exclusive opens, or an exclusive and a denying one, collide with
    // sharingViolation, in this process or another; opens that take no lock never collide.
    enum Attribute : BYTE {
        normal = 0x00,
        readOnly = 0x01,
        hidden = 0x02,
        system = 0x04,
        volume = 0x08,
        directory = 0x10,
        archive = 0x20,
    };
    enum SeekPosition : UINT { begin = 0, current = 1, end = 2 };
    enum BufferCommand : UINT { bufferRead, bufferWrite, bufferCommit, bufferCheck };
    enum BufferFlags : UINT { bufferDirect = 0x01, bufferBlocking = 0x02 };

    static const HANDLE hFileNull;  // INVALID_HANDLE_VALUE

    CFile();
    // Throws CFileException when the open fails.
    CFile(LPCTSTR fileName, UINT openFlags);
    // Adopts an open handle from another CFile (not closed on delete).
    explicit CFile(HANDLE hFile);
    // Closes an open file, ignoring errors (never throws).
    ~CFile() override;
    CFile(const CFile&) = delete;
    CFile& operator=(const CFile&) = delete;

    // FALSE on failure, with the cause in *error when given (no throw). Opening an open CFile fails.
    virtual BOOL Open(LPCTSTR fileName, UINT openFlags, CFileException* error = nullptr);

    // Reads up to count bytes; fewer only at the end of the file. Throws on an I/O error.
    virtual UINT Read(void* buffer, UINT count);
    // Writes all count bytes or throws (diskFull, accessDenied, hardIO, ...).
    virtual void Write(const void* buffer, UINT count);
    // Returns the new position; a position before the start throws badSeek. Seeking past the end is
    // allowed (a later write fills the gap with zeros).
    virtual ULONGLONG Seek(LONGLONG offset, UINT from);
    void SeekToBegin() { Seek(0, begin); }
    ULONGLONG SeekToEnd() { return Seek(0, end); }
    virtual ULONGLONG GetPosition() const;
    virtual ULONGLONG GetLength() const;
    virtual void SetLength(ULONGLONG newLength);
    // Pushes written data to the disk (fsync); throws on failure.
    virtual void Flush();
    // Throws when the close fails; the handle is gone either way.
    virtual void Close();
    // Closes without ever throwing.
    virtual void Abort();
    // Direct buffer access; a plain file has none and returns 0.
    virtual UINT GetBufferPtr(UINT command, UINT count = 0, void** bufStart = nullptr,
                              void** bufMax = nullptr);

    // The name as given to Open; the path made absolute; the title is the name without directory.
    virtual CString GetFileName() const;
    virtual CString GetFilePath() const { return m_strFileName; }
    virtual CString GetFileTitle() const;
    virtual void SetFilePath(LPCTSTR newName) { m_strFileName = newName; }

    BOOL GetStatus(CFileStatus& status) const;
    // FALSE when the file does not exist or cannot be examined.
    static BOOL GetStatus(LPCTSTR fileName, CFileStatus& status);
    // Throw CFileException on failure. Rename replaces an existing target (the POSIX rename).
    static void Rename(LPCTSTR oldName, LPCTSTR newName);
    static void Remove(LPCTSTR fileName);

    operator HANDLE() const { return m_hFile; }

    HANDLE m_hFile;  // hFileNull when closed; opaque
    BOOL m_bCloseOnDelete;

protected:
    int fd() const;  // the descriptor behind m_hFile, -1 when closed
    CString m_strFileName;
};
