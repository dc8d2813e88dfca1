// The attached-file part of a MIME message: a file read whole and sent base64-encoded, its media type
// found by extension in the classes-root media-type list ("application/octet-stream" when unknown).
#pragma once

#include "transport/CMIMEContentAgent.h"

class CAppOctetStream : public CMIMEContentAgent {
public:
    explicit CAppOctetStream(int contentType) : CMIMEContentAgent(contentType) {}

    // content is the file's path. Returns 0 and appends nothing when the path is null, the file cannot
    // be opened (for reading, denying others write access) or read, or it is larger than kMaxFileSize;
    // else appends sub-header and base64 text and returns 1. The encoding argument is not used: the
    // content always goes base64.
    int AppendPart(const char* content, const char* parameters, int encoding, int isPath,
                   CString& destination) override;
    CString GetContentTypeString() override { return "application/octet-stream"; }

    // Encoding 4 (base64): appends the whole file encoded, then "\r\n". Any other code appends nothing.
    // A read failure throws CFileException, with part of the text already appended.
    virtual void attach_file(CStdioFile* file, int encoding, CString& destination);

    // The encoded text of a bigger file would not fit a string.
    static constexpr unsigned long long kMaxFileSize = 1ULL << 30;
    // attach_file reads this much at a time: a whole number of 54-byte groups, one output line each.
    static constexpr unsigned kReadPiece = 54 * 4096;

protected:
    // Content-Type (with "; file=name.ext" and the media type of the extension when isPath is set),
    // Content-Transfer-Encoding: base64, Content-Disposition: attachment; filename=name.ext, an empty
    // line. The parameters argument is not used. Name and extension are cut at 255 characters each and
    // kept on one line.
    CString build_sub_header(const char* content, const char* parameters, int encoding, int isPath) override;

    // Sets type to the name of the first sub-key of HKEY_CLASSES_ROOT\MIME\Database\Content Type whose
    // "Extension" value equals extension (with its dot), letter case ignored; leaves it alone otherwise.
    static void FindContentType(const CString& extension, CString& type);
};
