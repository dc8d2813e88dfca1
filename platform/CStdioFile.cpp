#include "platform/CStdioFile.h"

#include <algorithm>
#include <cstring>

IMPLEMENT_DYNAMIC(CStdioFile, CFile)

namespace {
constexpr std::size_t kReadAhead = 4096;
}

CStdioFile::CStdioFile(LPCTSTR fileName, UINT openFlags) {
    CFileException error;
    if (!Open(fileName, openFlags, &error))
        AfxThrowFileException(error.m_cause, error.m_lOsError, error.m_strFileName);
}

CStdioFile::~CStdioFile() = default;

BOOL CStdioFile::Open(LPCTSTR fileName, UINT openFlags, CFileException* error) {
    m_buffer.clear();
    m_bufPos = 0;
    m_textMode = (openFlags & typeBinary) == 0;
    return CFile::Open(fileName, openFlags & ~UINT(typeText | typeBinary), error);
}

bool CStdioFile::fillBuffer() {
    m_buffer.resize(kReadAhead);
    m_bufPos = 0;
    UINT n;
    try {
        n = CFile::Read(m_buffer.data(), UINT(kReadAhead));
    } catch (...) {
        m_buffer.clear();
        throw;
    }
    m_buffer.resize(n);
    return n > 0;
}

// The descriptor has run ahead of the caller by the unread bytes; put it back before anything that
// depends on the real position.
void CStdioFile::dropReadBuffer() {
    std::size_t unread = m_buffer.size() - m_bufPos;
    m_buffer.clear();
    m_bufPos = 0;
    if (unread > 0) CFile::Seek(-LONGLONG(unread), current);
}

int CStdioFile::readByte() {
    if (m_bufPos >= m_buffer.size() && !fillBuffer()) return -1;
    return static_cast<unsigned char>(m_buffer[m_bufPos++]);
}

BOOL CStdioFile::ReadString(CString& line) {
    line.Empty();
    std::string& out = line.str();
    bool any = false;
    for (;;) {
        if (m_bufPos >= m_buffer.size() && !fillBuffer()) break;
        any = true;
        const char* start = m_buffer.data() + m_bufPos;
        const char* stop = m_buffer.data() + m_buffer.size();
        const char* nl = static_cast<const char*>(std::memchr(start, '\n', std::size_t(stop - start)));
        if (nl == nullptr) {
            out.append(start, stop);
            m_bufPos = m_buffer.size();
            continue;
        }
        out.append(start, nl);
        m_bufPos += std::size_t(nl - start) + 1;
        if (m_textMode && !out.empty() && out.back() == '\r') out.pop_back();
        return TRUE;
    }
    return any ? TRUE : FALSE;
}

LPTSTR CStdioFile::ReadString(LPTSTR buffer, UINT max) {
    if (buffer == nullptr || max == 0) return nullptr;
    UINT n = 0;
    while (n + 1 < max) {
        int c = readByte();
        if (c < 0) break;
        if (c == '\r' && m_textMode) {
            int next = readByte();
            if (next == '\n') {
                c = '\n';
            } else if (next >= 0) {
                --m_bufPos;  // readByte just filled or advanced the buffer, so the byte is still there
            }
        }
        buffer[n++] = static_cast<char>(c);
        if (c == '\n') break;
    }
    buffer[n] = '\0';
    return n == 0 && max > 1 ? nullptr : buffer;
}

void CStdioFile::WriteString(LPCTSTR text) {
    if (text == nullptr) AfxThrowInvalidArgException();
    Write(text, UINT(std::strlen(text)));
}

UINT CStdioFile::Read(void* buffer, UINT count) {
    UINT done = 0;
    std::size_t buffered = m_buffer.size() - m_bufPos;
    if (buffered > 0) {
        done = UINT(std::min<std::size_t>(buffered, count));
        std::memcpy(buffer, m_buffer.data() + m_bufPos, done);
        m_bufPos += done;
    }
    if (done < count) done += CFile::Read(static_cast<char*>(buffer) + done, count - done);
    return done;
}

void CStdioFile::Write(const void* buffer, UINT count) {
    dropReadBuffer();
    CFile::Write(buffer, count);
}

ULONGLONG CStdioFile::Seek(LONGLONG offset, UINT from) {
    dropReadBuffer();
    return CFile::Seek(offset, from);
}

ULONGLONG CStdioFile::GetPosition() const { return CFile::GetPosition() - (m_buffer.size() - m_bufPos); }

ULONGLONG CStdioFile::GetLength() const { return CFile::GetLength(); }

void CStdioFile::SetLength(ULONGLONG newLength) {
    dropReadBuffer();
    CFile::SetLength(newLength);
}

void CStdioFile::Flush() { CFile::Flush(); }

void CStdioFile::Close() {
    m_buffer.clear();
    m_bufPos = 0;
    CFile::Close();
}

void CStdioFile::Abort() {
    m_buffer.clear();
    m_bufPos = 0;
    CFile::Abort();
}
