// One MIME part of a message: its header fields, its raw content and, once decoded, its bytes.
//
// Header analysis happens in Initialize: every "Content-" field anywhere in the header text (so a line
// "X-Content-Type:" counts as Content-Type), a field running on over lines that end in ';', with all
// blanks, tabs, line ends, vertical tabs, form feeds and '"' removed (so a quoted boundary is found
// without its quotes, and a file name loses its blanks). A part with a content type and no file name gets
// a generated one: an empty temporary file "mai*.tmp" is created and listed with the file manager, and
// its title followed by the content type's extension becomes the name.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "platform/CArray.h"
#include "platform/CString.h"
#include "util/XString.h"

class CFile;
class CFileManager;

class CMimeHeader {
public:
    CMimeHeader() = default;
    CMimeHeader(const CMimeHeader& other) = default;
    CMimeHeader& operator=(const CMimeHeader& other) = default;
    CMimeHeader(CMimeHeader&& other) noexcept = default;
    CMimeHeader& operator=(CMimeHeader&& other) noexcept = default;
    virtual ~CMimeHeader() = default;

    // Keeps both texts and analyses the header (see above).
    void Initialize(XString& headerText, XString& content);
    // A part with a boundary is a container of further parts.
    bool HasBoundary() const { return !m_strBoundary.IsEmpty(); }
    // Decodes and returns the decoded bytes, which end with one zero byte (an empty content decodes to
    // nothing, and gives an empty C string).
    const unsigned char* GetDecodedContent();
    // Decodes and writes every decoded byte, the final zero byte included, to a file; returns its path.
    // With a path, that file is created or truncated, and it is the caller's. Without one the file is made
    // in the temporary directory under the part's file name (a generated one when it has none) with the
    // content type's extension, owner-only: a name is cleaned of separators, drive colons, control
    // characters, leading dots and excess length, never replaces a file this part did not create ("-1",
    // "-2", ... are tried, then a generated name), and the file is listed with the file manager.
    // Shows "unable to create temporary file" when no name can be generated. Throws CFileException when
    // the file cannot be written.
    XString GetLocalFile(CString path);
    // Appends every character of text to out, then one zero byte.
    void TransferContent(XString& text, CByteArray& out);

    // Equal header texts, compared exactly. The other three give the same answer as ==, as they always
    // have; nothing relies on them.
    bool operator==(const CMimeHeader& other) const { return m_strHeader == other.m_strHeader; }
    bool operator!=(const CMimeHeader& other) const { return *this == other; }
    bool operator<(const CMimeHeader& other) const { return *this == other; }
    bool operator>(const CMimeHeader& other) const { return *this == other; }

    // Our additions: the fields, for hosts and tests.
    void SetFileManager(CFileManager* manager) { m_pFileManager = manager; }
    const CString& GetContentType() const { return m_strContentType; }
    const CString& GetCharset() const { return m_strCharset; }
    const CString& GetTransferEncoding() const { return m_strTransferEncoding; }
    const CString& GetBoundary() const { return m_strBoundary; }
    const CString& GetFileName() const { return m_strFileName; }
    const XString& GetHeaderText() const { return m_strHeader; }
    const XString& GetContent() const { return m_strContent; }
    // The decoded bytes of the last decode, the final zero byte included.
    const CByteArray& GetDecodedBytes() const { return m_DecodedContent; }
    // The file name made safe to create inside one directory, as GetLocalFile cleans it; empty when the
    // part has no name.
    CString GetSafeFileName() const;

protected:
    void ParseMimeHeader();
    void ParseContent(XString& line);
    void Decode();
    // The extension registered for the content type (".gif"), or empty.
    CString GetSubType();

private:
    friend class CMimeDecoder;
    // The decoder's walk gives a container no content of its own.
    void InitializeHeader(std::string_view headerText);
    CString OpenOwnFile(CFile& file, const std::string& dir, const std::string& title,
                        const std::string& ext);
    CString LookUpSubType();

    CString m_strContentType;
    CString m_strCharset;
    CString m_strTransferEncoding;
    CString m_strBoundary;
    CString m_strFileName;
    CString m_strReserved;  // copied with the part, otherwise unused
    XString m_strHeader;
    XString m_strContent;
    CFileManager* m_pFileManager = nullptr;
    CByteArray m_DecodedContent;
    // The last file this part created in the temporary directory: the only one it may write over.
    CString m_strOwnFile;
    // Extensions already looked up, shared by the parts of one scan: the registry is asked once a type.
    std::shared_ptr<std::map<std::string, CString>> m_pExtensions;
};
