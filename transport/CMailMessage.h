// A plain RFC 822 message to send: sender, subject, body and six recipient lists, formatted into header
// and body texts by FormatMessage (CSMTP::SendMessage calls it).
//
// The header lines come in a fixed order and spelling: From, Resent-From, Reply-To, Organization (each
// when set), To, cc, bcc, resent-to, resent-cc, resent-bcc (each when not empty; Bcc recipients are
// written into the header like the others), Date (local time, two-digit year, zone name), Subject,
// X-Mailer.
//
// Hostile text: every header line goes through add_header_line, which keeps it on one line. A CR or LF
// (or a run of them) in a subject, name or address is removed where it folds onto a space or tab and
// otherwise becomes one space, so no value can start a header line of its own. Ordinary text is written
// exactly as given.
#pragma once

#include "platform/CArray.h"
#include "platform/CString.h"
#include "platform/CTime.h"

class CMailMessage {
public:
    class CRecipient {
    public:
        CString m_sEmailAddress;
        CString m_sFriendlyName;
    };

    CMailMessage();
    virtual ~CMailMessage() = default;

    // Each appends to its list and to the envelope (every recipient of every kind, in the order added).
    int AddRecipient(const char* address, const char* name = "");  // To; returns 1
    void AddCarbonCopy(CString address, CString name = "");
    void AddBlindCarbonCopy(CString address, CString name = "");
    int AddResentRecipient(const char* address, const char* name = "");  // returns 1
    void AddResentCarbonCopy(CString address, CString name = "");
    void AddResentBlindCarbonCopy(CString address, CString name = "");

    // "Carl <c@x>;e@y" into To recipients: split at every ';' (pieces not trimmed, an empty piece is a
    // recipient with empty address and name); a piece with '<' has the name before it and the address up
    // to the first '>'. Returns 0 at the first piece whose '>' is missing or stands before its '<'
    // (recipients of earlier pieces stay added), else 1.
    int AddMultipleRecipients(const char* list);

    int GetNumRecipients() const { return m_Recipients.GetSize(); }
    // Envelope entry index; 0 (and both texts untouched) when index is out of range, else 1.
    int GetRecipient(CString& address, CString& name, int index) const;

    // Builds the header text and completes the body (a final CRLF). Sets the date to now.
    void FormatMessage();

    void SetCharsPerLine(unsigned int n) { m_nCharsPerLine = n; }
    unsigned int GetCharsPerLine() const { return m_nCharsPerLine; }

    CString m_sFrom;
    CString m_sResentFrom;  // may be empty; also the sender CSMTP retries with
    CString m_sReplyTo;
    CString m_sSubject;
    CString m_sOrganization;
    CString m_sXMailer;  // "Tavik Mail"
    CString m_sHeader;   // built by FormatMessage
    CTime m_tDateTime;   // set by prepare_header
    CString m_sBody;

protected:
    virtual void prepare_header();
    virtual void prepare_body();
    virtual void end_header();
    virtual void start_header();
    // Appends the line and "\r\n" to the header, the line kept on one line (see above).
    virtual void add_header_line(const char* line);

    // "tag: " then the recipients, comma-separated without space, each "name <address>" or "<address>".
    // Nothing for an empty list.
    void add_tag(const char* tag, const CArray<CRecipient, CRecipient&>& list);

    unsigned int m_nCharsPerLine;
    CArray<CRecipient, CRecipient&> m_Recipients;  // the envelope
    CArray<CRecipient, CRecipient&> m_ToRecipients;
    CArray<CRecipient, CRecipient&> m_CCRecipients;
    CArray<CRecipient, CRecipient&> m_BCCRecipients;
    CArray<CRecipient, CRecipient&> m_ResentToRecipients;
    CArray<CRecipient, CRecipient&> m_ResentCCRecipients;
    CArray<CRecipient, CRecipient&> m_ResentBCCRecipients;

private:
    void add(CArray<CRecipient, CRecipient&>& list, const char* address, const char* name);
};
