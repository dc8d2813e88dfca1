// The framework's file in memory. The buffer grows by a step (rounded up to a multiple of it) as writes
// pass its end; a step of 0 means a fixed buffer, and a write past it throws CMemoryException.
// Subclasses that supply their own memory (a mapped view) override the allocation hooks.
#pragma once

#include <cstddef>

#include "platform/CFile.h"

class CMemFile : public CFile {
    DECLARE_DYNAMIC(CMemFile)
public:
    explicit CMemFile(UINT growBytes = 1024);
    // Uses the caller's buffer (not freed by us). growBytes 0: the whole buffer is the file's content
    // and the file cannot grow; otherwise the file starts empty and grows into reallocated memory.
    CMemFile(BYTE* buffer, UINT bufferSize, UINT growBytes = 0);
    ~CMemFile() override;

    void Attach(BYTE* buffer, UINT bufferSize, UINT growBytes = 0);
    // Hands the buffer to the caller (who then frees it with free() if we allocated it) and leaves the
    // file empty.
    BYTE* Detach();

    // Past the end reads return fewer bytes (0 at the end).
    UINT Read(void* buffer, UINT count) override;
    // Grows the buffer when needed; zero-fills a gap left by a seek past the end.
    void Write(const void* buffer, UINT count) override;
    // Positions past the end are allowed; before the start throws badSeek.
    ULONGLONG Seek(LONGLONG offset, UINT from) override;
    ULONGLONG GetPosition() const override { return m_nPosition; }
    ULONGLONG GetLength() const override { return m_nFileSize; }
    void SetLength(ULONGLONG newLength) override;
    void Flush() override {}
    void Close() override;
    void Abort() override;
    // bufferCheck answers bufferDirect; bufferRead/bufferWrite hand out the memory at the position and
    // advance it (write requests grow the file as Write does).
    UINT GetBufferPtr(UINT command, UINT count = 0, void** bufStart = nullptr,
                      void** bufMax = nullptr) override;

    // A memory file has no name and cannot be opened by name: Open throws CNotSupportedException.
    BOOL Open(LPCTSTR fileName, UINT openFlags, CFileException* error = nullptr) override;

protected:
    // Allocation hooks (malloc/realloc/free/memcpy by default). Returning null from Alloc/Realloc makes
    // the write throw CMemoryException.
    virtual BYTE* Alloc(std::size_t bytes);
    virtual BYTE* Realloc(BYTE* block, std::size_t bytes);
    virtual BYTE* Memcpy(BYTE* target, const BYTE* source, std::size_t bytes);
    virtual void Free(BYTE* block);
    // Makes the buffer at least newLength bytes (in whole grow steps). Throws CMemoryException when the
    // step is 0 or memory runs out.
    virtual void GrowFile(std::size_t newLength);

    std::size_t m_nGrowBytes;
    std::size_t m_nPosition = 0;
    std::size_t m_nBufferSize = 0;
    std::size_t m_nFileSize = 0;
    BYTE* m_lpBuffer = nullptr;
    BOOL m_bAutoDelete = TRUE;  // we own m_lpBuffer
};
