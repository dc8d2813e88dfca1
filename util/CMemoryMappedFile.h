// A view of a file mapping presented as a memory file: reads and writes go straight to the view, and
// the file never grows beyond it. The mapping handle lives in m_hFile.
#pragma once

#include "platform/CMemFile.h"
#include "platform/FileMapping.h"

class CMemoryMappedFile : public CMemFile {
public:
    CMemoryMappedFile();
    // Closes a mapping that is still set.
    ~CMemoryMappedFile() override;

    // Creates the mapping and maps a view of maxSizeLow bytes at the offset. 0 (after a message box)
    // when the mapping cannot be created or the view not mapped. The sixth argument is not used.
    virtual BOOL Open(const char* name, HANDLE file, DWORD protect, DWORD maxSizeHigh, DWORD maxSizeLow,
                      DWORD unused, DWORD access, DWORD offsetHigh, DWORD offsetLow);
    using CMemFile::Open;
    // Maps a view of an existing mapping (which the object then owns).
    BOOL Attach(HANDLE mapping, DWORD size, DWORD access, DWORD offsetHigh, DWORD offsetLow);
    using CMemFile::Attach;
    // Replaces the current view; 0 (after a message box) when the old view cannot be unmapped or the
    // new one not mapped.
    BOOL MapViewOfFile(DWORD access, DWORD offsetHigh, DWORD offsetLow, DWORD size);
    // Success also when there is no view.
    BOOL UnmapViewOfFile();
    // Unmaps the view and hands the mapping handle to the caller, who must close it.
    HANDLE Detach();
    // Unmaps the view and closes the mapping handle if the object owns it.
    void Close() override;
    // Writes [offset, offset + count) of the view back to its file (count 0: to the view's end);
    // nothing when there is no view or the offset lies outside it.
    virtual void Flush(DWORD offset, DWORD count);
    void Flush() override { Flush(0, 0); }

    // Through the memory file at the current position. A write past the view's end throws
    // CMemoryException and writes nothing.
    UINT ReadFile(void* buffer, UINT count);
    void WriteFile(const void* buffer, UINT count);

    operator unsigned char*() { return m_lpBuffer; }

    UINT GetBufferPtr(UINT command, UINT count = 0, void** bufStart = nullptr,
                      void** bufMax = nullptr) override;
    void SetLength(ULONGLONG newLength) override {}

protected:
    BYTE* Alloc(std::size_t bytes) override { return nullptr; }
    BYTE* Realloc(BYTE* block, std::size_t bytes) override { return nullptr; }
    void Free(BYTE* block) override {}
    // Never grows: a length inside the view is already there, a longer one throws CMemoryException.
    void GrowFile(std::size_t newLength) override;

    BOOL m_bOwnsHandle = TRUE;
};
