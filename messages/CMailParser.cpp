#include "messages/CMailParser.h"

bool CMailParser::ScanMail(const CString& text) {
    const std::string& s = text.str();
    const std::size_t at = s.find("\r\n\r\n");
    if (at == std::string::npos || at == 0) return false;
    m_strHeader = CString(s.substr(0, at));
    m_strBody = CString(s.substr(at + 4));
    return true;
}
