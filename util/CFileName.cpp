#include "util/CFileName.h"

#include <cstring>

#include "platform/Shell.h"

CFileName::CFileName(CString path) : m_strPath(std::move(path)) { Split(); }

CFileName::CFileName(const CFileName& other) { *this = other; }

CFileName& CFileName::operator=(const CFileName& other) {
    if (this == &other) return *this;
    m_strPath = other.m_strPath;
    std::memcpy(m_szDrive, other.m_szDrive, sizeof m_szDrive);
    std::memcpy(m_szDir, other.m_szDir, sizeof m_szDir);
    std::memcpy(m_szTitle, other.m_szTitle, sizeof m_szTitle);
    std::memcpy(m_szExt, other.m_szExt, sizeof m_szExt);
    return *this;
}

void CFileName::SetFileName(CString path) {
    m_strPath = std::move(path);
    Split();
}

void CFileName::Split() { _splitpath(m_strPath, m_szDrive, m_szDir, m_szTitle, m_szExt); }

CString CFileName::GetFullName() { return m_strPath; }

CString CFileName::GetRoot() {
    Split();
    return CString(m_szDrive) + m_szDir;
}

CString CFileName::GetFileName() {
    Split();
    return CString(m_szTitle) + m_szExt;
}

CString CFileName::GetFileTitle() {
    Split();
    return CString(m_szTitle);
}

CString CFileName::GetDescription() {
    SHFILEINFO info;
    std::memset(&info, 0, sizeof info);
    SHGetFileInfo(m_strPath, 0, &info, sizeof info, SHGFI_TYPENAME);
    return CString(info.szTypeName);
}

bool CFileName::Exist() {
    CString path = m_strPath;
    // The search fails on a directory named with its separator, so drop it ("/" itself stays).
    if (path.GetLength() > 1 && path[path.GetLength() - 1] == '/') path = path.Left(path.GetLength() - 1);
    if (path.IsEmpty()) return false;
    WIN32_FIND_DATA data;
    HANDLE find = FindFirstFile(path, &data);
    if (find == INVALID_HANDLE_VALUE) return false;
    FindClose(find);
    return true;
}
