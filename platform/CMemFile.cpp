#include "platform/CMemFile.h"

#include <cstdlib>
#include <cstring>
#include <limits>

IMPLEMENT_DYNAMIC(CMemFile, CFile)

CMemFile::CMemFile(UINT growBytes) : m_nGrowBytes(growBytes) {}

CMemFile::CMemFile(BYTE* buffer, UINT bufferSize, UINT growBytes) : m_nGrowBytes(growBytes) {
    Attach(buffer, bufferSize, growBytes);
}

CMemFile::~CMemFile() {
    if (m_lpBuffer != nullptr) Close();
}

void CMemFile::Attach(BYTE* buffer, UINT bufferSize, UINT growBytes) {
    if (m_lpBuffer != nullptr) Close();
    m_nGrowBytes = growBytes;
    m_nPosition = 0;
    m_nBufferSize = bufferSize;
    // A fixed buffer is the file; a growable one is only room to write into.
    m_nFileSize = growBytes == 0 ? bufferSize : 0;
    m_lpBuffer = buffer;
    m_bAutoDelete = FALSE;
}

BYTE* CMemFile::Detach() {
    BYTE* buffer = m_lpBuffer;
    m_lpBuffer = nullptr;
    m_nFileSize = 0;
    m_nBufferSize = 0;
    m_nPosition = 0;
    m_bAutoDelete = TRUE;
    return buffer;
}

BYTE* CMemFile::Alloc(std::size_t bytes) { return static_cast<BYTE*>(std::malloc(bytes)); }

BYTE* CMemFile::Realloc(BYTE* block, std::size_t bytes) {
    return static_cast<BYTE*>(std::realloc(block, bytes));
}

BYTE* CMemFile::Memcpy(BYTE* target, const BYTE* source, std::size_t bytes) {
    return static_cast<BYTE*>(std::memcpy(target, source, bytes));
}

void CMemFile::Free(BYTE* block) { std::free(block); }

void CMemFile::GrowFile(std::size_t newLength) {
    if (newLength <= m_nBufferSize) return;
    if (m_nGrowBytes == 0) AfxThrowMemoryException();
    std::size_t newSize = m_nBufferSize;
    std::size_t steps = (newLength - newSize + m_nGrowBytes - 1) / m_nGrowBytes;
    if (steps > (std::numeric_limits<std::size_t>::max() - newSize) / m_nGrowBytes) AfxThrowMemoryException();
    newSize += steps * m_nGrowBytes;
    BYTE* grown;
    if (m_lpBuffer == nullptr) {
        grown = Alloc(newSize);
    } else if (m_bAutoDelete) {
        grown = Realloc(m_lpBuffer, newSize);
    } else {
        // A caller's buffer that may grow: move into memory of our own and leave the caller's alone.
        grown = Alloc(newSize);
        if (grown != nullptr) Memcpy(grown, m_lpBuffer, m_nFileSize);
    }
    if (grown == nullptr) AfxThrowMemoryException();
    m_lpBuffer = grown;
    m_nBufferSize = newSize;
    m_bAutoDelete = TRUE;
}

UINT CMemFile::Read(void* buffer, UINT count) {
    if (count == 0 || m_nPosition >= m_nFileSize) return 0;
    std::size_t n = std::min<std::size_t>(count, m_nFileSize - m_nPosition);
    Memcpy(static_cast<BYTE*>(buffer), m_lpBuffer + m_nPosition, n);
    m_nPosition += n;
    return static_cast<UINT>(n);
}

void CMemFile::Write(const void* buffer, UINT count) {
    if (count == 0) return;
    std::size_t end = m_nPosition + count;
    if (end > m_nBufferSize) GrowFile(end);
    // A subclass whose GrowFile does nothing (a mapped view) must not be written past its end.
    if (end > m_nBufferSize) AfxThrowMemoryException();
    if (m_nPosition > m_nFileSize) std::memset(m_lpBuffer + m_nFileSize, 0, m_nPosition - m_nFileSize);
    Memcpy(m_lpBuffer + m_nPosition, static_cast<const BYTE*>(buffer), count);
    m_nPosition = end;
    if (m_nPosition > m_nFileSize) m_nFileSize = m_nPosition;
}

ULONGLONG CMemFile::Seek(LONGLONG offset, UINT from) {
    LONGLONG base = from == begin     ? 0
                    : from == current ? LONGLONG(m_nPosition)
                    : from == end     ? LONGLONG(m_nFileSize)
                                      : -1;
    if (base < 0) AfxThrowFileException(CFileException::badSeek, ERROR_INVALID_PARAMETER);
    LONGLONG target;
    if (__builtin_add_overflow(base, offset, &target) || target < 0 ||
        ULONGLONG(target) > std::numeric_limits<UINT>::max())
        AfxThrowFileException(CFileException::badSeek);
    m_nPosition = std::size_t(target);
    return ULONGLONG(target);
}

void CMemFile::SetLength(ULONGLONG newLength) {
    if (newLength > std::numeric_limits<UINT>::max()) AfxThrowMemoryException();
    std::size_t len = std::size_t(newLength);
    if (len > m_nBufferSize) GrowFile(len);
    if (len > m_nBufferSize) AfxThrowMemoryException();
    if (len > m_nFileSize) std::memset(m_lpBuffer + m_nFileSize, 0, len - m_nFileSize);
    if (m_nPosition > len) m_nPosition = len;
    m_nFileSize = len;
}

void CMemFile::Close() {
    if (m_lpBuffer != nullptr && m_bAutoDelete) Free(m_lpBuffer);
    m_lpBuffer = nullptr;
    m_nPosition = 0;
    m_nBufferSize = 0;
    m_nFileSize = 0;
    m_bAutoDelete = TRUE;
}

void CMemFile::Abort() { Close(); }

UINT CMemFile::GetBufferPtr(UINT command, UINT count, void** bufStart, void** bufMax) {
    if (command == bufferCheck) return bufferDirect;
    if (command == bufferCommit) return 0;
    if (command == bufferWrite && m_nPosition + count > m_nBufferSize) GrowFile(m_nPosition + count);
    if (command == bufferWrite && m_nPosition + count > m_nBufferSize) AfxThrowMemoryException();
    if (command == bufferWrite && m_nPosition > m_nFileSize)
        std::memset(m_lpBuffer + m_nFileSize, 0, m_nPosition - m_nFileSize);
    std::size_t avail =
        command == bufferWrite
            ? count
            : (m_nPosition >= m_nFileSize ? 0 : std::min<std::size_t>(count, m_nFileSize - m_nPosition));
    if (bufStart != nullptr) *bufStart = m_lpBuffer + m_nPosition;
    m_nPosition += avail;
    if (command == bufferWrite && m_nPosition > m_nFileSize) m_nFileSize = m_nPosition;
    if (bufMax != nullptr) *bufMax = m_lpBuffer + m_nPosition;
    return static_cast<UINT>(avail);
}

BOOL CMemFile::Open(LPCTSTR, UINT, CFileException*) { AfxThrowNotSupportedException(); }
