#include "transport/CSMTP.h"

#include <cstdio>
#include <string>

#include "platform/Kernel.h"
#include "transport/CMailMessage.h"
#include "transport/internal/LineBreaks.h"

IMPLEMENT_DYNAMIC(CSMTP, CBlockingSocket)

namespace {

// The reply's code as "%d" reads it; a reply without one leaves code as it was.
void ScanCode(const CString& reply, int& code) { std::sscanf(reply.GetString(), "%d", &code); }

CString Command(const char* format, const CString& argument) {
    CString command;
    command.Format(format, detail::OneLine(argument.str()).c_str());
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
    try {
        Create(SOCK_STREAM);
        m_sMailerName = host;
        CSockAddr address = GetHostByName(host, static_cast<USHORT>(port));
        CBlockingSocket::Connect(address);
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
        if (detail::NeedsWireFixes(message->m_sBody.str())) {
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
    if (!detail::HasBareLineEnd(body)) return CString(detail::DoubleLoneDots(body));
    std::string lines = body;
    detail::CrlfLineEnds(lines);
    return CString(detail::DoubleLoneDots(lines));
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
