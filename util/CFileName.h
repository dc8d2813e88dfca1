// A path with its parts and a presence test. Paths are POSIX paths: '/' separates, the drive part is
// always empty, and the root part of a path ends with its separator.
#pragma once

#include "platform/CString.h"
#include "platform/FileSystem.h"

class CFileName {
public:
    CFileName(CString path = "");
    CFileName(const CFileName& other);
    CFileName& operator=(const CFileName& other);
    virtual ~CFileName() = default;

    void SetFileName(CString path);

    CString GetFullName();
    // Drive and directory with its trailing separator; empty for a bare file name.
    CString GetRoot();
    // Title and extension.
    CString GetFileName();
    CString GetFileTitle();
    // The system's type name of the file ("plain text document" and the like); empty when the file
    // does not exist.
    CString GetDescription();
    // True when the file or directory exists; a trailing separator is ignored; an empty path is false.
    bool Exist();

private:
    void Split();

    CString m_strPath;
    char m_szDrive[_MAX_DRIVE];
    char m_szDir[_MAX_DIR];
    char m_szTitle[_MAX_FNAME];
    char m_szExt[_MAX_EXT];
};
