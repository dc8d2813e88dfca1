#include "transport/CPopMail.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <vector>

#include "messages/CMessageList.h"
#include "platform/CTime.h"
#include "platform/Kernel.h"
#include "transport/CRC32i.h"
#include "transport/internal/EndMarkScanner.h"
#include "transport/internal/ReplyParts.h"
#include "util/XString.h"

IMPLEMENT_DYNAMIC(CPopMail, CBlockingSocket)

namespace {

constexpr int kReceiveSize = 16384;

// Every "+OK" test of the client: anywhere in the text, letter case ignored.
bool IsPositive(const CString& reply) { return XString(reply).NCFind(XString("+OK")) >= 0; }

CString Formatted(const char* format, const char* text) {
    CString s;
    s.Format(format, text);
    return s;
}

CString Formatted(const char* format, int n) {
    CString s;
    s.Format(format, n);
    return s;
}

}  // namespace

CPopMail::CPopMail(void* terminationEvent, HWND statusWindow, int timeLimit)
    : m_hStatusWnd(statusWindow), m_nTimeLimit(timeLimit), m_hTerminate(terminationEvent) {}

CPopMail::~CPopMail() {
    // The host learns that the session object is gone even when its window was never checked.
    SendMessage(m_hStatusWnd, WM_POP_FINISHED, 0, 0);
}

void CPopMail::Fail(CBlockingSocketException* e) {
    CString text = e->GetErrorMessage() + "\r\n";
    e->Delete();
    NotifyStatusWindow(text, false);
    throw new CPopMailException(text);
}

// "+OK 50626870 octets" announces a retrieve's size: room for it up front saves a tens-of-megabytes
// message from being copied at every doubling. A hostile announcement gets no more than kMaxReserve.
void CPopMail::ReserveForListing(CString& reply, const char* first, int size) {
    constexpr long long kMaxReserve = 64LL << 20;
    if (size < 5 || std::strncmp(first, "+OK ", 4) != 0) return;
    long long announced = 0;
    for (int i = 4; i < size && first[i] >= '0' && first[i] <= '9' && announced <= kMaxReserve; ++i)
        announced = announced * 10 + (first[i] - '0');
    if (announced > 0) reply.Preallocate(static_cast<int>(std::min(announced + 1024, kMaxReserve)));
}

void CPopMail::CheckTermination() {
    if (m_hTerminate != nullptr && WaitForSingleObject(m_hTerminate, 0) == WAIT_OBJECT_0)
        throw new CPopMailException("Forced Termination by user");
}

bool CPopMail::ReadReply(CString& reply, bool multiLine) {
    detail::EndMarkScanner mark(multiLine ? std::string_view("\r\n.\r\n") : std::string_view("\r\n"));
    const int limit = multiLine ? kMaxMultiLineReply : kMaxLineReply;
    char buffer[kReceiveSize + 1];
    for (;;) {
        int got = Receive(buffer, kReceiveSize, m_nTimeLimit);
        if (got <= 0) return multiLine;
        buffer[got] = '\0';
        // All the bytes, zeros included: the reply is what the server sent.
        if (multiLine && reply.IsEmpty()) ReserveForListing(reply, buffer, got);
        reply.Append(buffer, got);
        CheckTermination();
        // Only the new bytes (and the few before them) can complete the mark: a long reply read in
        // thousands of pieces is scanned once, not once per piece.
        if (mark.Find(reply.str()) != detail::EndMarkScanner::npos) return true;
        if (reply.GetLength() > limit) throw new CPopMailException("The server's reply is too long\r\n");
    }
}

bool CPopMail::SingleLineResponse(CString command, CString& reply) {
    reply.Empty();
    Send(command, command.GetLength(), m_nTimeLimit);
    return ReadReply(reply, false);
}

bool CPopMail::MultiLineResponse(CString command, CString& reply) {
    reply.Empty();
    Send(command, command.GetLength(), m_nTimeLimit);
    return ReadReply(reply, true);
}

bool CPopMail::StripResponse(CString& reply, CString& status) {
    bool split = detail::StripReply(reply.str(), &status.str());
    status.FreeExtra();
    return split;
}

void CPopMail::StripResponse(CString& reply) { detail::StripReply(reply.str(), nullptr); }

void CPopMail::NotifyStatusWindow(CString text, bool connected) {
    if (!IsWindow(m_hStatusWnd)) return;
    CTime now = CTime::GetCurrentTime();
    CString line;
    if (connected) {
        line.Format("\r\n%s - Connected to %s\r\n", now.Format("%H:%M:%S %A, %B %d, %Y").GetString(),
                    m_strServer.GetString());
        SendMessage(m_hStatusWnd, WM_POP_STATUS, 0, reinterpret_cast<LPARAM>(line.GetString()));
    }
    line.Format("[%s] %s", now.Format("%H:%M:%S").GetString(), text.GetString());
    SendMessage(m_hStatusWnd, WM_POP_STATUS, 0, reinterpret_cast<LPARAM>(line.GetString()));
}

bool CPopMail::Connect(const CString& host, int port) {
    try {
        Create(SOCK_STREAM);
        m_strServer = host;
        NotifyStatusWindow(Formatted("Looking up %s..\r\n", host), true);
        CSockAddr address = GetHostByName(host, static_cast<unsigned short>(port));
        NotifyStatusWindow(Formatted("Connecting to %s..\r\n", host), false);
        CBlockingSocket::Connect(address);
        char buffer[kReceiveSize + 1];
        int got = Receive(buffer, kReceiveSize, m_nTimeLimit);
        if (got <= 0) return true;
        // The greeting is a read like any other: a host that already gave up stops here.
        CheckTermination();
        buffer[got] = '\0';
        CString greeting(buffer, got);
        bool positive = IsPositive(greeting);
        NotifyStatusWindow(greeting, false);
        return positive;
    } catch (CBlockingSocketException* e) {
        Fail(e);
    }
}

bool CPopMail::Login(CString user, CString password) {
    try {
        m_strUser = user;
        m_strPassword = password;
        CString command = Formatted("USER %s\r\n", user);
        CString reply;
        NotifyStatusWindow(command, false);
        if (!SingleLineResponse(command, reply)) return false;
        NotifyStatusWindow(reply, false);
        if (!IsPositive(reply)) throw new CPopMailException(reply);
        command = Formatted("PASS %s\r\n", password);
        NotifyStatusWindow("PASS xxxxxxx\r\n", false);
        if (!SingleLineResponse(command, reply)) return false;
        NotifyStatusWindow(reply, false);
        return IsPositive(reply);
    } catch (CBlockingSocketException* e) {
        Fail(e);
    }
}

bool CPopMail::MailBoxStats(int* count, int* size) {
    try {
        CString reply;
        if (!SingleLineResponse("STAT\r\n", reply)) return false;
        if (!IsPositive(reply)) throw new CPopMailException(reply);
        reply.TrimRight();
        std::vector<char> word(1000);
        std::sscanf(reply, "%999s %d %d", word.data(), count, size);
        return true;
    } catch (CBlockingSocketException* e) {
        Fail(e);
    }
}

long CPopMail::GetMsgSize(int n) {
    try {
        int size = 0;
        CString reply;
        if (!SingleLineResponse(Formatted("LIST %d\r\n", n), reply)) return 0;
        if (!IsPositive(reply)) throw new CPopMailException(reply);
        reply.TrimRight();
        char word[100] = {};
        int number = 0;
        std::sscanf(reply, "%99s %d %d", word, &number, &size);
        if (CString(word).Find("-ERR") >= 0) size = -1;
        return size;
    } catch (CBlockingSocketException* e) {
        Fail(e);
    }
}

bool CPopMail::GetIDString(int n, CString& id) {
    try {
        CString reply;
        if (!SingleLineResponse(Formatted("UIDL %d\r\n", n), reply)) return false;
        if (!IsPositive(reply)) {
            CString message;
            message.Format(
                "%s\r\nThis server does not support the UIDL command. TavikMail cannot work with "
                "this server\r\n",
                reply.GetString());
            NotifyStatusWindow(message, false);
            throw new CPopMailException(message);
        }
        // Sized to the reply, so no field of a hostile reply can overrun its buffer.
        std::vector<char> word(static_cast<size_t>(reply.GetLength()) + 1);
        std::vector<char> uid(kReceiveSize + 1);
        int number = 0;
        std::sscanf(reply, "%s %d %16384s", word.data(), &number, uid.data());
        id = uid.data();
        return true;
    } catch (CBlockingSocketException* e) {
        Fail(e);
    }
}

bool CPopMail::GetIDNumeric(CString id, unsigned long& number) {
    CRC32i crc;
    crc.Update(reinterpret_cast<unsigned char*>(const_cast<char*>(id.GetString())),
               static_cast<ULONG>(id.GetLength()));
    number = crc.Final();
    return true;
}

bool CPopMail::GetHeader(int n, CMessageList& record) {
    try {
        CString top;
        top.Format("TOP %d %d\r\n", n, 0);
        NotifyStatusWindow(top, false);
        long size = GetMsgSize(n);
        CString header;
        if (!MultiLineResponse(top, header)) return false;
        CString status;
        StripResponse(header, status);
        if (!IsPositive(status)) throw new CPopMailException(status);
        CString uid;
        unsigned long id = 0;
        GetIDNumeric(GetIDString(n, uid) ? uid : header, id);
        record.SetData(header, id, size, MsgReceived);
        NotifyStatusWindow(status + "\r\n", false);
        return true;
    } catch (CBlockingSocketException* e) {
        Fail(e);
    }
}

bool CPopMail::Retrieve(int n, CString& message) {
    try {
        CString command;
        command.Format("%s %d\r\n", "RETR", n);
        NotifyStatusWindow(command, false);
        if (!MultiLineResponse(command, message)) return false;
        CString status;
        StripResponse(message, status);
        status += "\r\n";
        NotifyStatusWindow(status, false);
        if (!IsPositive(status)) throw new CPopMailException(status);
        return true;
    } catch (CBlockingSocketException* e) {
        Fail(e);
    }
}

bool CPopMail::DeleteMsg(int n) {
    try {
        CString command = Formatted("DELE %d\r\n", n);
        CString reply;
        NotifyStatusWindow(command, false);
        if (!SingleLineResponse(command, reply)) return false;
        if (!IsPositive(reply)) throw new CPopMailException(reply);
        NotifyStatusWindow(reply, false);
        return true;
    } catch (CBlockingSocketException* e) {
        Fail(e);
    }
}

bool CPopMail::ResetMailbox() {
    try {
        CString reply;
        if (!SingleLineResponse("RSET\r\n", reply)) return false;
        if (!IsPositive(reply)) throw new CPopMailException(reply);
        return true;
    } catch (CBlockingSocketException* e) {
        Fail(e);
    }
}

bool CPopMail::KeepAlive() {
    try {
        CString reply;
        if (!SingleLineResponse("NOOP\r\n", reply)) return false;
        if (!IsPositive(reply)) throw new CPopMailException(reply);
        return true;
    } catch (CBlockingSocketException* e) {
        Fail(e);
    }
}

bool CPopMail::Quit() {
    try {
        CString command = "QUIT\r\n";
        CString reply;
        NotifyStatusWindow(command, false);
        if (!SingleLineResponse(command, reply)) {
            Close();
            return false;
        }
        if (!IsPositive(reply)) throw new CPopMailException(reply);
        NotifyStatusWindow(reply, false);
        Close();
        return true;
    } catch (CBlockingSocketException* e) {
        Fail(e);
    }
}
