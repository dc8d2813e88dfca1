#include "transport/CMailMessage.h"

#include <cstring>

#include "transport/internal/LineBreaks.h"

CMailMessage::CMailMessage() : m_sXMailer("Tavik Mail"), m_nCharsPerLine(76) {}

void CMailMessage::add(CArray<CRecipient, CRecipient&>& list, const char* address, const char* name) {
    CRecipient r;
    r.m_sEmailAddress = address;
    r.m_sFriendlyName = name;
    list.Add(r);
    m_Recipients.Add(r);
}

int CMailMessage::AddRecipient(const char* address, const char* name) {
    add(m_ToRecipients, address, name);
    return 1;
}

void CMailMessage::AddCarbonCopy(CString address, CString name) { add(m_CCRecipients, address, name); }

void CMailMessage::AddBlindCarbonCopy(CString address, CString name) { add(m_BCCRecipients, address, name); }

int CMailMessage::AddResentRecipient(const char* address, const char* name) {
    add(m_ResentToRecipients, address, name);
    return 1;
}

void CMailMessage::AddResentCarbonCopy(CString address, CString name) {
    add(m_ResentCCRecipients, address, name);
}

void CMailMessage::AddResentBlindCarbonCopy(CString address, CString name) {
    add(m_ResentBCCRecipients, address, name);
}

int CMailMessage::AddMultipleRecipients(const char* list) {
    const CString all(list);
    int start = 0;
    for (;;) {
        int end = all.Find(';', start);
        CString piece = end < 0 ? all.Mid(start) : all.Mid(start, end - start);
        int open = piece.Find('<');
        if (open < 0) {
            AddRecipient(piece, "");
        } else {
            int close = piece.Find('>');
            if (close < open) return 0;
            AddRecipient(piece.Mid(open + 1, close - open - 1), piece.Left(open));
        }
        if (end < 0) return 1;
        start = end + 1;
    }
}

int CMailMessage::GetRecipient(CString& address, CString& name, int index) const {
    if (index < 0 || index >= m_Recipients.GetSize()) return 0;
    address = m_Recipients[index].m_sEmailAddress;
    name = m_Recipients[index].m_sFriendlyName;
    return 1;
}

void CMailMessage::FormatMessage() {
    start_header();
    prepare_header();
    end_header();
    prepare_body();
}

void CMailMessage::start_header() { m_sHeader.Empty(); }

void CMailMessage::end_header() { m_sHeader += "\r\n"; }

void CMailMessage::add_header_line(const char* line) {
    const char* text = line ? line : "";
    m_sHeader.str() += tavik::lib::OneLine(std::string_view(text, std::strlen(text)));
    m_sHeader += "\r\n";
}

void CMailMessage::add_tag(const char* tag, const CArray<CRecipient, CRecipient&>& list) {
    if (list.IsEmpty()) return;
    CString line;
    line.Format("%s: ", tag);
    for (int i = 0; i < list.GetSize(); ++i) {
        if (i > 0) line += ",";
        const CRecipient& r = list[i];
        line += r.m_sFriendlyName;
        if (!r.m_sFriendlyName.IsEmpty()) line += " ";
        line += "<";
        line += r.m_sEmailAddress;
        line += ">";
    }
    add_header_line(line);
}

void CMailMessage::prepare_header() {
    add_header_line("From: " + m_sFrom);
    if (!m_sResentFrom.IsEmpty()) add_header_line("Resent-From: " + m_sResentFrom);
    if (!m_sReplyTo.IsEmpty()) add_header_line("Reply-To: " + m_sReplyTo);
    if (!m_sOrganization.IsEmpty()) add_header_line("Organization: " + m_sOrganization);
    add_tag("To", m_ToRecipients);
    add_tag("cc", m_CCRecipients);
    add_tag("bcc", m_BCCRecipients);
    add_tag("resent-to", m_ResentToRecipients);
    add_tag("resent-cc", m_ResentCCRecipients);
    add_tag("resent-bcc", m_ResentBCCRecipients);
    m_tDateTime = CTime::GetCurrentTime();
    add_header_line("Date: " + m_tDateTime.Format("%a, %d %b %y %H:%M:%S %Z"));
    add_header_line("Subject: " + m_sSubject);
    add_header_line("X-Mailer: " + m_sXMailer);
}

void CMailMessage::prepare_body() {
    const std::string& body = m_sBody.str();
    if (body.size() < 2 || body.compare(body.size() - 2, 2, "\r\n") != 0) m_sBody += "\r\n";
}
