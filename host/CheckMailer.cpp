#include "host/CheckMailer.h"

#include <fstream>
#include <sstream>

#include "accounts/CMailBoxProfile.h"
#include "host/AccountCheck.h"
#include "host/ConnectionSecurity.h"
#include "host/HeaderText.h"
#include "host/MailSend.h"
#include "rules/CAutoResponderProfile.h"
#include "rules/CForwardMailProfile.h"
#include "transport/CMIMEMessage.h"
#include "transport/CSMTP.h"

namespace tavik::host {

namespace {

// A message with the fields of an automatic message after the usual ones.
template <class Base>
class WithFields : public Base {
public:
    explicit WithFields(std::vector<HeaderLine> extra) : m_extra(std::move(extra)) {}

protected:
    void prepare_header() override {
        Base::prepare_header();
        for (const HeaderLine& line : m_extra) this->add_header_line((line.name + ": " + line.value).c_str());
    }

private:
    std::vector<HeaderLine> m_extra;
};

bool HasEightBit(std::string_view s) {
    for (char c : s)
        if (static_cast<unsigned char>(c) >= 0x80) return true;
    return false;
}

bool ReadWhole(const std::string& path, std::string& text) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    std::ostringstream buffer;
    buffer << in.rdbuf();
    text = buffer.str();
    return !in.bad();
}

std::unique_ptr<CMailMessage> Compose(const OutgoingMail& mail) {
    const std::string body = CrlfText(mail.body);
    std::unique_ptr<CMailMessage> message;
    if (HasEightBit(body) || !mail.attachment.empty()) {
        auto m = std::make_unique<WithFields<CMIMEMessage>>(mail.extra);
        m->AddMIMEPart(body.c_str(), CMIMEMessage::TEXT_PLAIN, HasEightBit(body) ? "; charset=utf-8" : "",
                       CMIMEMessage::_7BIT, 0);
        if (!mail.attachment.empty()) m->AddMIMEPart(mail.attachment.c_str());
        message = std::move(m);
    } else {
        message = std::make_unique<WithFields<CMailMessage>>(mail.extra);
        message->m_sBody = body.c_str();
    }
    message->m_sFrom = mail.from.c_str();
    message->m_sSubject = EncodeHeaderValue(mail.subject).c_str();
    for (const std::string& to : mail.to) message->AddRecipient(to.c_str());
    return message;
}

std::string Text(const CString& s) { return std::string(static_cast<const char*>(s)); }

}  // namespace

std::string AccountFrom(const CMailBoxProfile& account) {
    const std::string address = Text(account.GetEmailAddress());
    const std::string name = Text(account.GetRealName());
    if (name.empty()) return address;
    return EncodeHeaderValue(name) + " <" + address + ">";
}

OutgoingMail ForwardMail(const CForwardMailProfile& redirector, const CMailBoxProfile& account,
                         std::string_view original, const std::string& subject, std::string& error) {
    OutgoingMail mail;
    CStringArray recipients;
    redirector.GetRecipients(recipients);
    for (INT_PTR i = 0; i < recipients.GetSize(); ++i) {
        const std::string address = FirstAddress(Text(recipients.GetAt(i)));
        if (!address.empty()) mail.to.push_back(address);
    }
    if (mail.to.empty()) {
        error = "the redirector has no recipient";
        return mail;
    }
    CString bodyFile, subjectTemplate;
    DWORD useDefaultBody = 0, useDefaultSubject = 0, active = 0;
    redirector.GetRedirectOptions(bodyFile, subjectTemplate, useDefaultBody, useDefaultSubject, active);
    mail.from = AccountFrom(account);
    mail.subject =
        FillSubjectTemplate(subjectTemplate.IsEmpty() ? "FWD: %SUBJECT%" : Text(subjectTemplate), subject);
    std::string intro;
    if (!useDefaultBody && !bodyFile.IsEmpty() && ReadWhole(Text(bodyFile), intro)) intro += "\n";
    mail.body = intro + "----- Forwarded message -----\n" + std::string(original);
    const size_t end = original.find("\r\n\r\n");
    mail.extra = ForwardHeaders(original.substr(0, end == std::string_view::npos ? original.size() : end + 2),
                                Text(account.GetEmailAddress()));
    return mail;
}

OutgoingMail AnswerMail(const CAutoResponderProfile& responder, const CMailBoxProfile& account,
                        const std::string& recipient, std::string_view originalHeader,
                        const std::string& subject, std::string& error) {
    OutgoingMail mail;
    CString textFile, attachFile, subjectTemplate, duplicateAction;
    DWORD ignoreDuplicates = 0, useDefaultSubject = 0, active = 0;
    responder.GetAutoResponderOptions(textFile, attachFile, subjectTemplate, duplicateAction,
                                      ignoreDuplicates, useDefaultSubject, active);
    if (textFile.IsEmpty()) {
        mail.body = "This is an automatic answer: your message has arrived.\n";
    } else if (!ReadWhole(Text(textFile), mail.body)) {
        error = "cannot read the answer's text file " + Text(textFile);
        return mail;
    }
    if (!attachFile.IsEmpty()) {
        if (!std::ifstream(Text(attachFile), std::ios::binary)) {
            error = "cannot read the answer's attachment " + Text(attachFile);
            return mail;
        }
        mail.attachment = Text(attachFile);
    }
    mail.from = AccountFrom(account);
    mail.to.push_back(recipient);
    mail.subject = FillSubjectTemplate(
        subjectTemplate.IsEmpty() ? "AUTO-RESPONSE: %SUBJECT%" : Text(subjectTemplate), subject);
    mail.extra = AnswerHeaders(originalHeader);
    return mail;
}

CheckMailer::CheckMailer(const CMailBoxProfile& account, std::string trustFile, int timeLimit)
    : m_trustFile(std::move(trustFile)), m_timeLimit(timeLimit) {
    SplitServerName(Text(account.GetOutgoingServer()), m_server, m_port);
    CString in, out, inProto, outProto, login, password, outLogin, outPassword;
    account.GetServerData(in, out, inProto, outProto, login, password, outLogin, outPassword);
    m_user = Text(outLogin);
    m_password = Text(outPassword);
    SecurityOptions security = AccountSecurityOptions(account.GetOutgoingSecurity());
    security.trustFile = m_trustFile;
    m_security = ChooseSecurity(security, MailProtocol::kSmtp, m_server, m_port);
    if (m_port == 0)
        m_port = DefaultPort(MailProtocol::kSmtp, static_cast<CBlockingSocket::SECURITY>(m_security));
}

CheckMailer::~CheckMailer() { Close(); }

void CheckMailer::Close() {
    m_smtp.reset();  // QUIT
}

std::string CheckMailer::Open() {
    if (m_smtp) return {};
    if (m_server.empty()) return "the account has no outgoing mail server";
    auto smtp = std::make_unique<CSMTP>(nullptr, m_timeLimit);
    smtp->SetSecurity(static_cast<CBlockingSocket::SECURITY>(m_security), true, m_trustFile.c_str());
    if (!m_user.empty()) smtp->SetLogin(m_user.c_str(), m_password.c_str());
    try {
        CString reply;
        if (!smtp->Connect(m_server.c_str(), reply, m_port))
            return "the outgoing server closed the connection without a greeting";
    } catch (CSMTPException* e) {
        std::string error = Text(e->GetErrorMessage());
        e->Delete();
        return error;
    }
    m_smtp = std::move(smtp);
    return {};
}

std::string CheckMailer::Send(const OutgoingMail& mail) {
    if (std::string error = Open(); !error.empty()) return error;
    std::unique_ptr<CMailMessage> message = Compose(mail);
    std::string error;
    try {
        CString reply;
        if (!m_smtp->SendMessage(message.get(), reply))
            error = "the outgoing server closed the connection before it took the message";
    } catch (CSMTPException* e) {
        error = Text(e->GetErrorMessage());
        e->Delete();
    }
    if (!error.empty()) m_smtp.reset();
    while (!error.empty() && (error.back() == '\n' || error.back() == '\r')) error.pop_back();
    return error;
}

}  // namespace tavik::host
