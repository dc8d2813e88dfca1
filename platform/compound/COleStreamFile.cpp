#include "platform/COleStreamFile.h"

IMPLEMENT_DYNAMIC(COleStreamFile, CFile)

namespace {

// Only the mode, share and create bits mean something to a storage; the CFile extras do not.
constexpr DWORD kStgmBits = 0x3 | 0x70 | STGM_CREATE;

}  // namespace

COleStreamFile::COleStreamFile(IStream* lpStream) : m_lpStream(lpStream) {}

COleStreamFile::~COleStreamFile() {
    if (m_lpStream) Abort();
}

void COleStreamFile::Attach(IStream* lpStream) { m_lpStream = lpStream; }

IStream* COleStreamFile::Detach() {
    IStream* s = m_lpStream;
    m_lpStream = nullptr;
    return s;
}

int COleStreamFile::ScodeToCause(HRESULT sc) {
    switch (sc) {
        case STG_E_FILENOTFOUND:
            return CFileException::fileNotFound;
        case STG_E_PATHNOTFOUND:
            return CFileException::badPath;
        case STG_E_TOOMANYOPENFILES:
            return CFileException::tooManyOpenFiles;
        case STG_E_ACCESSDENIED:
        case STG_E_DISKISWRITEPROTECTED:
            return CFileException::accessDenied;
        case STG_E_INVALIDHANDLE:
        case STG_E_INVALIDNAME:
        case STG_E_DOCFILECORRUPT:
        case STG_E_FILEALREADYEXISTS:
        case STG_E_REVERTED:
            return CFileException::invalidFile;
        case STG_E_SEEKERROR:
        case STG_E_INVALIDFUNCTION:
            return CFileException::badSeek;
        case STG_E_READFAULT:
        case STG_E_WRITEFAULT:
            return CFileException::hardIO;
        case STG_E_SHAREVIOLATION:
            return CFileException::sharingViolation;
        case STG_E_LOCKVIOLATION:
            return CFileException::lockViolation;
        case STG_E_MEDIUMFULL:
            return CFileException::diskFull;
        default:
            return CFileException::genericException;
    }
}

void COleStreamFile::ThrowScode(HRESULT sc, LPCTSTR fileName) {
    if (sc == STG_E_INSUFFICIENTMEMORY || sc == E_OUTOFMEMORY) AfxThrowMemoryException();
    AfxThrowFileException(ScodeToCause(sc), sc, fileName);
}

BOOL COleStreamFile::OpenStream(IStorage* lpStorage, LPCTSTR name, DWORD flags, CFileException* pError) {
    IStream* s = nullptr;
    HRESULT hr = lpStorage ? lpStorage->OpenStream(name, nullptr, flags & kStgmBits & ~STGM_CREATE, 0, &s)
                           : STG_E_INVALIDPOINTER;
    return Adopt(hr, s, name, pError);
}

BOOL COleStreamFile::CreateStream(IStorage* lpStorage, LPCTSTR name, DWORD flags, CFileException* pError) {
    IStream* s = nullptr;
    HRESULT hr =
        lpStorage ? lpStorage->CreateStream(name, flags & kStgmBits, 0, 0, &s) : STG_E_INVALIDPOINTER;
    return Adopt(hr, s, name, pError);
}

BOOL COleStreamFile::Adopt(HRESULT hr, IStream* s, LPCTSTR name, CFileException* pError) {
    if (FAILED(hr)) {
        if (pError) {
            pError->m_cause = ScodeToCause(hr);
            pError->m_lOsError = hr;
            pError->m_strFileName = name;
        }
        return FALSE;
    }
    m_lpStream = s;
    m_strFileName = name;
    return TRUE;
}

UINT COleStreamFile::Read(void* buffer, UINT count) {
    if (!m_lpStream) AfxThrowFileException(CFileException::invalidFile, -1, m_strFileName);
    ULONG got = 0;
    HRESULT hr = m_lpStream->Read(buffer, count, &got);
    if (FAILED(hr)) ThrowScode(hr, m_strFileName);
    return got;
}

void COleStreamFile::Write(const void* buffer, UINT count) {
    if (!m_lpStream) AfxThrowFileException(CFileException::invalidFile, -1, m_strFileName);
    ULONG put = 0;
    HRESULT hr = m_lpStream->Write(buffer, count, &put);
    if (FAILED(hr)) ThrowScode(hr, m_strFileName);
    if (put != count) AfxThrowFileException(CFileException::diskFull, STG_E_MEDIUMFULL, m_strFileName);
}

ULONGLONG COleStreamFile::Seek(LONGLONG offset, UINT from) {
    if (!m_lpStream) AfxThrowFileException(CFileException::invalidFile, -1, m_strFileName);
    LARGE_INTEGER move;
    move.QuadPart = offset;
    ULARGE_INTEGER pos;
    HRESULT hr = m_lpStream->Seek(move, from, &pos);
    if (FAILED(hr)) ThrowScode(hr, m_strFileName);
    return pos.QuadPart;
}

ULONGLONG COleStreamFile::GetPosition() const {
    if (!m_lpStream) AfxThrowFileException(CFileException::invalidFile, -1, m_strFileName);
    LARGE_INTEGER zero;
    zero.QuadPart = 0;
    ULARGE_INTEGER pos;
    HRESULT hr = m_lpStream->Seek(zero, STREAM_SEEK_CUR, &pos);
    if (FAILED(hr)) ThrowScode(hr, m_strFileName);
    return pos.QuadPart;
}

ULONGLONG COleStreamFile::GetLength() const {
    if (!m_lpStream) AfxThrowFileException(CFileException::invalidFile, -1, m_strFileName);
    STATSTG st;
    HRESULT hr = m_lpStream->Stat(&st, STATFLAG_NONAME);
    if (FAILED(hr)) ThrowScode(hr, m_strFileName);
    return st.cbSize.QuadPart;
}

void COleStreamFile::SetLength(ULONGLONG newLength) {
    if (!m_lpStream) AfxThrowFileException(CFileException::invalidFile, -1, m_strFileName);
    ULARGE_INTEGER size;
    size.QuadPart = newLength;
    HRESULT hr = m_lpStream->SetSize(size);
    if (FAILED(hr)) ThrowScode(hr, m_strFileName);
}

void COleStreamFile::Flush() {
    if (!m_lpStream) AfxThrowFileException(CFileException::invalidFile, -1, m_strFileName);
    HRESULT hr = m_lpStream->Commit(STGC_DEFAULT);
    if (FAILED(hr)) ThrowScode(hr, m_strFileName);
}

void COleStreamFile::Close() {
    if (!m_lpStream) return;
    IStream* s = Detach();
    HRESULT hr = s->Commit(STGC_DEFAULT);
    s->Release();
    if (FAILED(hr)) ThrowScode(hr, m_strFileName);
}

void COleStreamFile::Abort() {
    if (IStream* s = Detach()) s->Release();
}
