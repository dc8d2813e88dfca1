#include "util/CMemoryMappedFile.h"

#include "platform/Kernel.h"
#include "platform/MessageBox.h"

CMemoryMappedFile::CMemoryMappedFile() : CMemFile(1024) { m_hFile = INVALID_HANDLE_VALUE; }

CMemoryMappedFile::~CMemoryMappedFile() {
    if (m_hFile != INVALID_HANDLE_VALUE) Close();
    // The memory file below must not take the mapping handle for a file of its own.
    m_hFile = CFile::hFileNull;
}

BOOL CMemoryMappedFile::Open(const char* name, HANDLE file, DWORD protect, DWORD maxSizeHigh,
                             DWORD maxSizeLow, DWORD unused, DWORD access, DWORD offsetHigh,
                             DWORD offsetLow) {
    HANDLE mapping = ::CreateFileMapping(file, nullptr, protect, maxSizeHigh, maxSizeLow, name);
    if (!mapping) {
        AfxMessageBox("Unable to open shared file\n", MB_OK);
        return 0;
    }
    m_hFile = mapping;
    return MapViewOfFile(access, offsetHigh, offsetLow, maxSizeLow);
}

BOOL CMemoryMappedFile::Attach(HANDLE mapping, DWORD size, DWORD access, DWORD offsetHigh, DWORD offsetLow) {
    m_hFile = mapping;
    return MapViewOfFile(access, offsetHigh, offsetLow, size);
}

BOOL CMemoryMappedFile::MapViewOfFile(DWORD access, DWORD offsetHigh, DWORD offsetLow, DWORD size) {
    if (!UnmapViewOfFile()) return 0;
    void* view = ::MapViewOfFile(m_hFile, access, offsetHigh, offsetLow, size);
    if (!view) {
        AfxMessageBox("Unable to map view of a file", MB_OK);
        return 0;
    }
    CMemFile::Attach(static_cast<BYTE*>(view), size, 0);
    m_bOwnsHandle = TRUE;
    return 1;
}

BOOL CMemoryMappedFile::UnmapViewOfFile() {
    BYTE* view = CMemFile::Detach();
    if (!view) return 1;
    if (!::UnmapViewOfFile(view)) {
        AfxMessageBox("Unable to Unmap View", MB_OK);
        return 0;
    }
    return 1;
}

HANDLE CMemoryMappedFile::Detach() {
    HANDLE mapping = m_hFile;
    m_bOwnsHandle = FALSE;
    Close();
    m_hFile = INVALID_HANDLE_VALUE;
    m_bOwnsHandle = TRUE;
    return mapping;
}

void CMemoryMappedFile::Close() {
    if (m_hFile == INVALID_HANDLE_VALUE) return;
    UnmapViewOfFile();
    if (m_bOwnsHandle) {
        ::CloseHandle(m_hFile);
        m_hFile = INVALID_HANDLE_VALUE;
    }
}

void CMemoryMappedFile::Flush(DWORD offset, DWORD count) {
    if (m_lpBuffer && offset < GetLength()) ::FlushViewOfFile(m_lpBuffer + offset, count);
}

UINT CMemoryMappedFile::ReadFile(void* buffer, UINT count) { return CMemFile::Read(buffer, count); }

void CMemoryMappedFile::WriteFile(const void* buffer, UINT count) { CMemFile::Write(buffer, count); }

UINT CMemoryMappedFile::GetBufferPtr(UINT command, UINT count, void** bufStart, void** bufMax) { return 0; }

void CMemoryMappedFile::GrowFile(std::size_t newLength) {
    // The view is all there is: writing past it would run off the mapped pages.
    if (newLength > m_nBufferSize) AfxThrowMemoryException();
}
