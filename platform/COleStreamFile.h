// The framework's CFile over an IStream: the file calls work on one stream of a compound file.
// Failures of Read, Write, Seek, SetLength, Flush and Close throw a new CFileException whose
// m_lOsError holds the HRESULT; OpenStream and CreateStream report through the optional
// CFileException and return FALSE instead.
#pragma once

#include "platform/CFile.h"
#include "platform/OleStorage.h"

class COleStreamFile : public CFile {
    DECLARE_DYNAMIC(COleStreamFile)
public:
    // Attaches lpStream when given (the object takes over the caller's reference).
    explicit COleStreamFile(IStream* lpStream = nullptr);
    // Releases an attached stream; never throws.
    ~COleStreamFile() override;

    // Takes over the caller's reference; an attached stream must be detached or closed first.
    void Attach(IStream* lpStream);
    // Hands the reference back to the caller; null when nothing is attached.
    IStream* Detach();
    IStream* GetStream() const { return m_lpStream; }

    // nOpenFlags are CFile mode and share flags (their values are the STGM_ values). FALSE on failure,
    // with the cause and the HRESULT (m_lOsError) in *pError.
    BOOL OpenStream(IStorage* lpStorage, LPCTSTR lpszStreamName,
                    DWORD nOpenFlags = modeReadWrite | shareExclusive, CFileException* pError = nullptr);
    BOOL CreateStream(IStorage* lpStorage, LPCTSTR lpszStreamName,
                      DWORD nOpenFlags = modeReadWrite | shareExclusive | modeCreate,
                      CFileException* pError = nullptr);

    UINT Read(void* buffer, UINT count) override;
    void Write(const void* buffer, UINT count) override;
    ULONGLONG Seek(LONGLONG offset, UINT from) override;
    ULONGLONG GetPosition() const override;
    ULONGLONG GetLength() const override;
    void SetLength(ULONGLONG newLength) override;
    void Flush() override;
    // Releases the stream; throws only when committing it fails.
    void Close() override;
    void Abort() override;

    // HRESULT -> CFileException cause (unknown codes give genericException).
    static int ScodeToCause(HRESULT sc);
    [[noreturn]] static void ThrowScode(HRESULT sc, LPCTSTR fileName = nullptr);

protected:
    IStream* m_lpStream;

private:
    // The end of OpenStream and CreateStream: the stream attached, or the failure reported.
    BOOL Adopt(HRESULT hr, IStream* s, LPCTSTR name, CFileException* pError);
};
