#include "transport/CSMTP.h"

#include <cctype>
#include <cstdio>
#include <cstring>
#include <string>

#include "platform/Kernel.h"
#include "transport/CBase64.h"
#include "transport/CMailMessage.h"
#include "transport/internal/LineBreaks.h"

IMPLEMENT_DYNAMIC(CSMTP, CBlockingSocket)

namespace {

// The reply's code as "%d" reads it; a reply without one leaves code as it was.
void ScanCode(const CString& reply, int& code) { std::sscanf(reply.GetString(), "%d", &code); }

CString Command(const char* format, const CString& argument) {
    CString command;
    command.Format(format, tavik::lib::OneLine(argument.str()).c_str());
    return command;
}

[[noreturn]] void Throw(const CString& text) { throw new CSMTPException(text); }

}  // namespace

CSMTP::CSMTP(void* terminationEvent, int timeLimit)
    : m_nTimeLimit(timeLimit), m_hTerminate(terminationEvent) {}

CSMTP::~CSMTP() {
    try {
        CString reply;
        Disconnect(reply);
    } catch (CSMTPException* e) {
        e->Delete();
    } catch (CException* e) {
        e->Delete();
    }
    Cleanup();
}

void CSMTP::Fail(CBlockingSocketException* e) {
    m_bConnected = false;
    CString text = e->GetErrorMessage();
    e->Delete();
    Throw(text);
}

void CSMTP::CheckTermination() {
    if (m_hTerminate != nullptr && WaitForSingleObject(m_hTerminate, 0) == WAIT_OBJECT_0)
        Throw("Forced Termination by user");
}

bool CSMTP::SingleLineResponse(CString command, CString& reply) {
    reply.Empty();
    Send(command, command.GetLength(), m_nTimeLimit);
    char buffer[kReceiveSize + 1];
    // Where the first line end stands once one has arrived; the reply is one line only if that is at
    // its end, and no later read can change where it stands.
    size_t firstEnd = std::string::npos;
    for (;;) {
        int got = Receive(buffer, kReceiveSize, m_nTimeLimit);
        if (got <= 0) {
            reply.TrimRight();
            return false;
        }
        buffer[got] = '\0';
        const size_t before = reply.str().size();
        reply.Append(buffer, got);
        CheckTermination();
        const std::string& text = reply.str();
        if (firstEnd == std::string::npos) firstEnd = text.find("\r\n", before > 0 ? before - 1 : 0);
        if (firstEnd != std::string::npos && firstEnd + 2 == text.size()) break;
        if (reply.GetLength() > kMaxReply) {
            m_bConnected = false;  // whatever comes next is still part of this reply
            Throw("The server's reply is too long");
        }
    }
    reply.TrimRight();
    return true;
}

bool CSMTP::Connect(CString host, CString& reply, int port) {
    reply.Empty();
    if (!m_sUser.IsEmpty() && GetSecurity() == SECURITY_NONE)
        Throw("The password is sent only over an encrypted connection: ask for TLS or STARTTLS to log in");
    try {
        Create(SOCK_STREAM);
        m_sMailerName = host;
        CSockAddr address = GetHostByName(host, static_cast<USHORT>(port));
        CBlockingSocket::Connect(address);
        if (GetSecurity() == SECURITY_TLS) StartTls(host, m_nTimeLimit);
        char buffer[kReceiveSize + 1] = {};
        int got = Receive(buffer, kReceiveSize, m_nTimeLimit);
        if (got <= 0) return false;
        CheckTermination();
        reply = CString(buffer, got);
        reply.TrimRight();
        int code = 500;
        ScanCode(reply, code);
        if (code != 220) Throw(reply);

        CString name, ip;
        GetLocalAddress(name, ip);
        if (GetSecurity() != SECURITY_NONE || !m_sUser.IsEmpty()) {
            Extended(name, reply);
            return true;
        }
        if (SingleLineResponse(Command("HELO %s\r\n", name), reply)) {
            code = 0;
            ScanCode(reply, code);
            if (code != 250) Throw(reply);
        }
        return true;
    } catch (CBlockingSocketException* e) {
        Fail(e);
    }
}

bool CSMTP::SendMessage(CMailMessage* message, CString& reply) {
    if (message == nullptr) Throw("INTERNAL ERROR: Message is Invalid");
    if (message->GetNumRecipients() <= 0) Throw("INTERNAL ERROR: No Recipients Specified");
    try {
        message->FormatMessage();
        int code = 0;
        if (SingleLineResponse(Command("MAIL From: <%s>\r\n", message->m_sFrom), reply)) {
            ScanCode(reply, code);
            if (code != 250) {
                if (message->m_sResentFrom.IsEmpty()) Throw(reply);
                if (SingleLineResponse(Command("MAIL From: <%s>\r\n", message->m_sResentFrom), reply)) {
                    ScanCode(reply, code);
                    if (code != 250) Throw(reply);
                }
            }
        }

        int accepted = 0;
        for (int i = 0; i < message->GetNumRecipients(); ++i) {
            CString address, name;
            message->GetRecipient(address, name, i);
            if (!SingleLineResponse(Command("RCPT TO: <%s>\r\n", address), reply)) continue;
            ScanCode(reply, code);
            if (code == 250 || code == 251)
                ++accepted;
            else if (!((code >= 450 && code <= 452) || (code >= 550 && code <= 553)))
                Throw(reply);
        }
        if (accepted == 0) Throw(reply);

        if (!SingleLineResponse("DATA\r\n", reply)) return false;
        ScanCode(reply, code);
        if (code != 354) Throw(reply);
        // Write, not one Send: a send stops short when the server reads slower than the time limit,
        // where the original blocking send waited for the whole text.
        Write(message->m_sHeader, message->m_sHeader.GetLength(), m_nTimeLimit);
        // Most bodies need no change on the way: those go out without a copy.
        if (tavik::lib::NeedsWireFixes(message->m_sBody.str())) {
            CString body = PrepareBody(message);
            Write(body, body.GetLength(), m_nTimeLimit);
        } else {
            Write(message->m_sBody, message->m_sBody.GetLength(), m_nTimeLimit);
        }
        if (!SingleLineResponse("\r\n.\r\n", reply)) return false;
        ScanCode(reply, code);
        if (code != 250) Throw(reply);
        return true;
    } catch (CBlockingSocketException* e) {
        Fail(e);
    }
}

CString CSMTP::PrepareBody(CMailMessage* message) {
    const std::string& body = message->m_sBody.str();
    if (!tavik::lib::HasBareLineEnd(body)) return CString(tavik::lib::DoubleLoneDots(body));
    std::string lines = body;
    tavik::lib::CrlfLineEnds(lines);
    return CString(tavik::lib::DoubleLoneDots(lines));
}

void CSMTP::Disconnect(CString& reply) {
    if (!m_bConnected || m_hSocket == 0) {
        Cleanup();
        return;
    }
    try {
        if (SingleLineResponse("QUIT\r\n", reply)) {
            int code = 0;
            ScanCode(reply, code);
            if (code != 221) Throw(reply);
        }
        Close();
    } catch (CBlockingSocketException* e) {
        Fail(e);
    }
}

void CSMTP::SetLogin(CString user, CString password) {
    m_sUser = user;
    m_sPassword = password;
}

bool CSMTP::MultiLineResponse(CString command, CString& reply) {
    reply.Empty();
    Send(command, command.GetLength(), m_nTimeLimit);
    char buffer[kReceiveSize + 1];
    for (;;) {
        int got = Receive(buffer, kReceiveSize, m_nTimeLimit);
        if (got <= 0) {
            reply.TrimRight();
            return false;
        }
        reply.Append(buffer, got);
        CheckTermination();
        // Complete once the text ends with a line whose code is not followed by "-".
        const std::string& text = reply.str();
        if (text.size() >= 2 && text.compare(text.size() - 2, 2, "\r\n") == 0) {
            const size_t end = text.size() - 2;
            const size_t before = end == 0 ? std::string::npos : text.rfind("\r\n", end - 1);
            const size_t start = before == std::string::npos ? 0 : before + 2;
            if (end - start < 4 || text[start + 3] != '-') break;
        }
        if (reply.GetLength() > kMaxReply) {
            m_bConnected = false;
            Throw("The server's reply is too long");
        }
    }
    reply.TrimRight();
    return true;
}

void CSMTP::Expect(const CString& command, int code, CString& reply, bool multiLine) {
    const bool answered = multiLine ? MultiLineResponse(command, reply) : SingleLineResponse(command, reply);
    if (!answered) {
        m_bConnected = false;
        Throw("The server closed the connection");
    }
    int got = 0;
    ScanCode(reply, got);
    if (got != code) Throw(reply);
}

namespace {

// Whether an EHLO reply lists the extension (its first word on a line after the code), and the words
// after it.
bool SameLetters(const char* a, const char* b, size_t n) {
    for (size_t i = 0; i < n; ++i)
        if (std::toupper(static_cast<unsigned char>(a[i])) != std::toupper(static_cast<unsigned char>(b[i])))
            return false;
    return true;
}

bool Extension(const CString& reply, const char* name, std::string* parameters = nullptr) {
    const std::string& text = reply.str();
    const size_t length = std::strlen(name);
    for (size_t at = 0; at < text.size();) {
        size_t end = text.find("\r\n", at);
        if (end == std::string::npos) end = text.size();
        const std::string line = text.substr(at, end - at);
        at = end + 2;
        if (line.size() < 4 + length || !SameLetters(line.c_str() + 4, name, length)) continue;
        const char after = line.size() > 4 + length ? line[4 + length] : '\0';
        // "AUTH=PLAIN" is how some servers still list their mechanisms.
        if (after != '\0' && after != ' ' && after != '=') continue;
        if (parameters) *parameters = line.size() > 5 + length ? line.substr(5 + length) : "";
        return true;
    }
    return false;
}

bool HasWord(const std::string& words, const char* word) {
    std::string upper = words;
    for (char& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    for (size_t at = 0; (at = upper.find(word, at)) != std::string::npos; ++at) {
        const size_t end = at + std::strlen(word);
        const bool starts = at == 0 || upper[at - 1] == ' ' || upper[at - 1] == '=';
        if (starts && (end == upper.size() || upper[end] == ' ')) return true;
    }
    return false;
}

CString Base64(const std::string& bytes) {
    return CBase64().Encode(bytes.data(), static_cast<int>(bytes.size()));
}

}  // namespace

void CSMTP::Extended(const CString& localName, CString& reply) {
    const CString hello = Command("EHLO %s\r\n", localName);
    Expect(hello, 250, reply, true);
    if (GetSecurity() == SECURITY_STARTTLS) {
        if (!Extension(reply, "STARTTLS"))
            Throw("The server does not offer STARTTLS, so the connection cannot be encrypted");
        Expect("STARTTLS\r\n", 220, reply);
        StartTls(m_sMailerName, m_nTimeLimit);
        // What the server listed before TLS may have been changed on the way.
        Expect(hello, 250, reply, true);
    }
    if (!m_sUser.IsEmpty()) Authenticate(reply, reply);
}

void CSMTP::Authenticate(const CString& extensions, CString& reply) {
    if (!IsSecure()) Throw("The password is sent only over an encrypted connection");
    std::string mechanisms;
    if (!Extension(extensions, "AUTH", &mechanisms))
        Throw("The server offers no login this client knows (AUTH PLAIN or LOGIN)");
    const std::string user = m_sUser.str(), password = m_sPassword.str();
    // The mask stays up only while a credential is in flight, however the exchange ends.
    struct Masked {
        CString& mask;
        Masked(CString& m, const char* shown) : mask(m) { mask = shown; }
        ~Masked() { mask.Empty(); }
    };
    if (HasWord(mechanisms, "PLAIN")) {
        Masked masked(m_sMask, "AUTH PLAIN xxxxxxx");
        Expect("AUTH PLAIN " + Base64(std::string(1, '\0') + user + '\0' + password) + "\r\n", 235, reply);
    } else if (HasWord(mechanisms, "LOGIN")) {
        Expect("AUTH LOGIN\r\n", 334, reply);
        {
            Masked masked(m_sMask, "xxxxxxx");
            Expect(Base64(user) + "\r\n", 334, reply);
        }
        Masked masked(m_sMask, "xxxxxxx");
        Expect(Base64(password) + "\r\n", 235, reply);
    } else {
        Throw("The server offers no login this client knows (AUTH PLAIN or LOGIN)");
    }
}
