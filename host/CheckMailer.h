// The mail a check sends: forwards and automatic answers, composed from the rule and the original, and
// one SMTP session per account that carries them (opened at the first message, closed by QUIT).
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "host/AnswerPolicy.h"

class CAutoResponderProfile;
class CForwardMailProfile;
class CMailBoxProfile;
class CSMTP;

namespace tavik::host {

struct OutgoingMail {
    std::string from;             // "Name <address>" or an address, ready to write
    std::vector<std::string> to;  // bare addresses
    std::string subject;          // UTF-8
    std::string body;             // UTF-8 or 8-bit text, any line ends
    std::string attachment;       // a file to attach; empty: none
    std::vector<HeaderLine> extra;
};

// The account's own From line: its real name (encoded when it must be) and its address.
std::string AccountFrom(const CMailBoxProfile& account);

// A forward of original (the whole message as fetched, or its header alone) to the redirector's
// recipients, under its subject template, with the redirector's body template (when it names a readable
// file) above the original. error says why none can be made (no recipients).
OutgoingMail ForwardMail(const CForwardMailProfile& redirector, const CMailBoxProfile& account,
                         std::string_view original, const std::string& subject, std::string& error);
// The responder's answer to recipient: its text file (or a short note when it names none), its
// attachment, its subject template, and the fields an automatic answer carries. error says why none can
// be made (the text file or the attachment cannot be read).
OutgoingMail AnswerMail(const CAutoResponderProfile& responder, const CMailBoxProfile& account,
                        const std::string& recipient, std::string_view originalHeader,
                        const std::string& subject, std::string& error);

class CheckMailer {
public:
    CheckMailer(const CMailBoxProfile& account, std::string trustFile, int timeLimit);
    ~CheckMailer();
    CheckMailer(const CheckMailer&) = delete;
    CheckMailer& operator=(const CheckMailer&) = delete;

    // Empty when the server took the message, else why not. A failed session is opened afresh for the
    // next message.
    std::string Send(const OutgoingMail& mail);

private:
    std::string Open();
    void Close();

    std::string m_server, m_user, m_password, m_trustFile;
    int m_port = 0;
    unsigned long m_security = 0;
    int m_timeLimit;
    std::unique_ptr<CSMTP> m_smtp;
};

}  // namespace tavik::host
