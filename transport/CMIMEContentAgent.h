// A producer of one kind of MIME part, chosen by its numeric content type (0 text, 1 attached file).
#pragma once

#include "platform/CString.h"

class CStdioFile;

class CMIMEContentAgent {
public:
    explicit CMIMEContentAgent(int contentType) : m_nMIMETypeIHandle(contentType) {}
    virtual ~CMIMEContentAgent() = default;

    bool QueryType(int contentType) const { return contentType == m_nMIMETypeIHandle; }

    // Appends the part's sub-header and content to destination; the result says whether it could.
    virtual int AppendPart(const char* content, const char* parameters, int encoding, int isPath,
                           CString& destination) = 0;
    virtual CString GetContentTypeString() = 0;

protected:
    virtual CString build_sub_header(const char* content, const char* parameters, int encoding,
                                     int isPath) = 0;

private:
    int m_nMIMETypeIHandle;
};
