// The flat record a host reads from a file of its own.
#include <algorithm>
#include <cstdint>

#include "messages/CMessageList.h"
#include "platform/CException.h"

namespace {

constexpr UINT kFixedSize = 48;
constexpr UINT kExtensionSize = 8;

DWORD le32(const BYTE* p) { return DWORD(p[0]) | DWORD(p[1]) << 8 | DWORD(p[2]) << 16 | DWORD(p[3]) << 24; }

[[noreturn]] void refuse(CFile& file) {
    AfxThrowFileException(CFileException::endOfFile, -1, file.GetFilePath());
}

void readExact(CFile& file, void* buffer, UINT count) {
    if (count != 0 && file.Read(buffer, count) != count) refuse(file);
}

ULONGLONG remaining(CFile& file) {
    ULONGLONG length = file.GetLength();
    ULONGLONG position = file.GetPosition();
    return length > position ? length - position : 0;
}

// A zero length means the text is absent and the field keeps its value.
void readText(CFile& file, DWORD length, CString& field) {
    if (length == 0) return;
    CString text;
    readExact(file, text.GetBufferSetLength(static_cast<int>(length)), length);
    field = text;
}

}  // namespace

ULONGLONG CMessageList::LoadMessage(CFile& file) {
    BYTE fixed[kFixedSize];
    if (remaining(file) < kFixedSize) refuse(file);
    readExact(file, fixed, kFixedSize);
    const ULONGLONG textsStart = file.GetPosition();

    DWORD lengths[6];  // e-mail address, server, outgoing server, folder, header, body
    ULONGLONG texts = 0;
    for (int i = 0; i < 6; ++i) {
        lengths[i] = le32(fixed + 20 + 4 * i);
        texts += lengths[i];
    }
    const bool extension = le32(fixed + 44) != 0;
    // Lengths come from the file and may be anything: check them all against what the file holds before
    // allocating or touching the record. A CString also cannot hold 2 GB.
    const ULONGLONG available = remaining(file);
    if (texts > available || (extension && texts + kExtensionSize > available)) refuse(file);
    for (DWORD n : lengths) {
        if (n > 0x7FFFFFFFu) refuse(file);
    }
    DWORD accountLength = 0;
    DWORD skipLength = 0;
    if (extension) {
        BYTE ext[kExtensionSize];
        file.Seek(static_cast<LONGLONG>(textsStart + texts), CFile::begin);
        readExact(file, ext, kExtensionSize);
        accountLength = le32(ext);
        skipLength = le32(ext + 4);
        if (ULONGLONG(accountLength) + skipLength > remaining(file) || accountLength > 0x7FFFFFFFu)
            refuse(file);
        file.Seek(static_cast<LONGLONG>(textsStart), CFile::begin);
    }

    m_MsgType = static_cast<enum_MsgType>(le32(fixed));
    m_bSeen = fixed[4] != 0;
    m_bRead = fixed[5] != 0;
    m_dwID = le32(fixed + 8);
    m_dwSize = le32(fixed + 12);
    m_dwSpamTag = le32(fixed + 16);
    readText(file, lengths[0], m_strEmailAddress);
    readText(file, lengths[1], m_strServerName);
    readText(file, lengths[2], m_strOutgoingServer);
    readText(file, lengths[3], m_strFolderLocation);
    readText(file, lengths[4], m_strHeader);
    if (lengths[5] > 0) {
        delete m_pBodyBuffer;
        m_pBodyBuffer = nullptr;
        auto* body = new CMemFile(1024);
        try {
            BYTE chunk[16384];
            for (DWORD left = lengths[5]; left > 0;) {
                UINT n = static_cast<UINT>(std::min<DWORD>(left, sizeof chunk));
                readExact(file, chunk, n);
                body->Write(chunk, n);
                left -= n;
            }
            const BYTE zero = 0;
            body->Write(&zero, 1);
        } catch (...) {
            delete body;
            throw;
        }
        m_pBodyBuffer = body;
        m_bHasBody = true;
    }
    if (extension) {
        file.Seek(kExtensionSize, CFile::current);
        readText(file, accountLength, m_strAccountName);
        file.Seek(skipLength, CFile::current);
    }
    CString header(m_strHeader);
    ParseHeader(header);
    m_bDirty = true;
    return file.GetPosition();
}
