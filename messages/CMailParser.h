// Splits a message at its first blank line into header text and body text.
#pragma once

#include "platform/CString.h"

class CMailParser {
public:
    CMailParser() = default;
    virtual ~CMailParser() = default;

    // Finds the first "\r\n\r\n": when it is at position 1 or later, the header is what comes before it,
    // the body what comes after it (the four characters belong to neither) and the result is true.
    // Otherwise (none, or at position 0) false, and both texts keep their values.
    bool ScanMail(const CString& text);
    CString GetMsgHeaderText() { return m_strHeader; }
    CString GetMsgBodyText() { return m_strBody; }

protected:
    CString m_strHeader;
    CString m_strBody;
};
