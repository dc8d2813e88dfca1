// The text part of a MIME message: "text/plain", "7Bit", the text wrapped at the agent's line width.
#pragma once

#include <string>
#include <string_view>

#include "transport/CMIMEContentAgent.h"

class CTextPlain : public CMIMEContentAgent {
public:
    CTextPlain(int contentType, unsigned int charsPerLine = 76)
        : CMIMEContentAgent(contentType), m_nWrapPos(charsPerLine) {}

    // Sub-header, then the wrapped text; a null content gives an empty text. Bare CR or LF line ends
    // in the content become CRLF before wrapping. Always 1.
    int AppendPart(const char* content, const char* parameters, int encoding, int isPath,
                   CString& destination) override;
    CString GetContentTypeString() override { return "text/plain"; }

    // Breaks lines longer than the width at the last space seen, as the original wrapper did, quirks and
    // all: the last-space position is not reset at line ends (a later long word can break an earlier
    // line at its last space), the column after a line end starts at 2, a long word without spaces is
    // never broken, and white space on both sides of a break goes. Linear in the length of the text.
    CString wrap_text(const char* text) const;

protected:
    // "Content-Type: text/plain<parameters>", "Content-Transfer-Encoding: 7Bit", an empty line. The
    // parameters are written as given (for example "; charset=iso-8859-1"), kept on one line.
    CString build_sub_header(const char* content, const char* parameters, int encoding, int isPath) override;

    unsigned int m_nWrapPos;

private:
    void WrapInto(std::string& out, std::string_view text) const;
};
