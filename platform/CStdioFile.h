// The framework's buffered text file. Lines end with "\n"; a "\r\n" read in text mode counts as "\n".
// Intentional difference: WriteString writes the text unchanged (no "\n" -> "\r\n" in text mode).
#pragma once

#include <vector>

#include "platform/CFile.h"

class CStdioFile : public CFile {
    DECLARE_DYNAMIC(CStdioFile)
public:
    CStdioFile() = default;
    // Throws CFileException when the open fails.
    CStdioFile(LPCTSTR fileName, UINT openFlags);
    ~CStdioFile() override;

    BOOL Open(LPCTSTR fileName, UINT openFlags, CFileException* error = nullptr) override;

    // One line without its line end; FALSE at the end of the file (with an empty text). A last line
    // without a line end is returned.
    virtual BOOL ReadString(CString& line);
    // As fgets: at most max-1 characters, the "\n" kept (a "\r\n" in text mode becomes "\n"), always
    // terminated. Null at the end of the file.
    virtual LPTSTR ReadString(LPTSTR buffer, UINT max);
    // Throws CFileException on a write failure.
    virtual void WriteString(LPCTSTR text);

    UINT Read(void* buffer, UINT count) override;
    void Write(const void* buffer, UINT count) override;
    ULONGLONG Seek(LONGLONG offset, UINT from) override;
    ULONGLONG GetPosition() const override;
    ULONGLONG GetLength() const override;
    void SetLength(ULONGLONG newLength) override;
    void Flush() override;
    void Close() override;
    void Abort() override;

private:
    bool fillBuffer();
    void dropReadBuffer();
    int readByte();  // -1 at the end

    bool m_textMode = true;
    std::vector<char> m_buffer;  // read-ahead
    std::size_t m_bufPos = 0;
};
