#include "transport/CPopMail.h"

#include <algorithm>
#include <charconv>
#include <climits>
#include <cstdio>
#include <cstring>
#include <vector>

#include "messages/CMessageList.h"
#include "platform/CTime.h"
#include "platform/Kernel.h"
#include "transport/CRC32i.h"
#include "transport/internal/EndMarkScanner.h"
#include "transport/internal/ReplyParts.h"
#include "transport/internal/ReplyQueue.h"
#include "transport/internal/SocketWait.h"
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

// The whitespace-separated fields of a reply line, as "%s %d %d" reads them, without its overflows.
struct Fields {
    std::string_view word;
    bool hasFirst = false, hasSecond = false;
    long long first = 0, second = 0;
};

// A number field as %d reads one: optional sign, digits, anything after them ignored. Values beyond
// what a long long holds saturate.
bool ParseNumber(std::string_view& text, long long& value) {
    std::size_t at = text.find_first_not_of(" \t\r\n\v\f");
    if (at == std::string_view::npos) return false;
    std::string_view t = text.substr(at);
    bool negative = false;
    if (!t.empty() && (t[0] == '+' || t[0] == '-')) {
        negative = t[0] == '-';
        t.remove_prefix(1);
    }
    unsigned long long magnitude = 0;
    auto [end, ec] = std::from_chars(t.data(), t.data() + t.size(), magnitude);
    if (end == t.data()) return false;
    if (ec == std::errc::result_out_of_range || magnitude > static_cast<unsigned long long>(LLONG_MAX))
        magnitude = static_cast<unsigned long long>(LLONG_MAX);
    value = negative ? -static_cast<long long>(magnitude) : static_cast<long long>(magnitude);
    // Like %d, the field ends where the digits end.
    text = std::string_view(end, static_cast<std::size_t>(t.data() + t.size() - end));
    return true;
}

Fields SplitFields(std::string_view line) {
    Fields f;
    std::size_t begin = line.find_first_not_of(" \t\r\n\v\f");
    if (begin == std::string_view::npos) return f;
    std::size_t end = line.find_first_of(" \t\r\n\v\f", begin);
    if (end == std::string_view::npos) end = line.size();
    f.word = line.substr(begin, end - begin);
    std::string_view rest = line.substr(end);
    f.hasFirst = ParseNumber(rest, f.first);
    if (f.hasFirst) f.hasSecond = ParseNumber(rest, f.second);
    return f;
}

int ClampToInt(long long v) { return static_cast<int>(std::clamp<long long>(v, INT_MIN, INT_MAX)); }

}  // namespace

CPopMail::CPopMail(void* terminationEvent, HWND statusWindow, int timeLimit)
    : m_hStatusWnd(statusWindow), m_nTimeLimit(timeLimit), m_hTerminate(terminationEvent) {
    // A host that gives up must not wait for a silent server's time limit.
    SetCancelEvent(terminationEvent);
}

CPopMail::~CPopMail() {
    // The host learns that the session object is gone even when its window was never checked.
    SendMessage(m_hStatusWnd, WM_POP_FINISHED, 0, 0);
}

void CPopMail::Fail(CBlockingSocketException* e) {
    if (e->m_nError == WSAEINTR && m_hTerminate != nullptr &&
        WaitForSingleObject(m_hTerminate, 0) == WAIT_OBJECT_0) {
        // A wait the termination event cut short.
        e->Delete();
        Terminated();
    }
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

void CPopMail::Terminated() { throw new CPopMailException("Forced Termination by user"); }

void CPopMail::CheckTermination() {
    if (m_hTerminate != nullptr && WaitForSingleObject(m_hTerminate, 0) == WAIT_OBJECT_0) Terminated();
}

int CPopMail::ReceiveUntil(char* buffer, int size, tavik::lib::Deadline deadline) {
    const auto left = std::chrono::ceil<std::chrono::seconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) throw new CBlockingSocketException("Receive timeout");
    return Receive(buffer, size, static_cast<int>(left.count()));
}

bool CPopMail::ReadReply(CString& reply, bool multiLine) {
    tavik::lib::EndMarkScanner mark(multiLine ? std::string_view("\r\n.\r\n") : std::string_view("\r\n"));
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
        if (mark.Find(reply.str()) != tavik::lib::EndMarkScanner::npos) return true;
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
    bool split = tavik::lib::StripReply(reply.str(), &status.str());
    status.FreeExtra();
    return split;
}

void CPopMail::StripResponse(CString& reply) { tavik::lib::StripReply(reply.str(), nullptr); }

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
        m_strGreeting.Empty();
        m_nPipelining = -1;
        NotifyStatusWindow(Formatted("Looking up %s..\r\n", host), true);
        CSockAddr address = GetHostByName(host, static_cast<unsigned short>(port));
        NotifyStatusWindow(Formatted("Connecting to %s..\r\n", host), false);
        // The system's own connect would wait about 21 seconds whatever the host asked for.
        const int connected = tavik::lib::ConnectUntil(m_hSocket, address,
                                                       tavik::lib::DeadlineAfter(m_nTimeLimit), m_hTerminate);
        if (connected == tavik::lib::kStopped) Terminated();
        if (connected != 0) throw new CBlockingSocketException("Connect");
        if (GetSecurity() == SECURITY_TLS) Secure();
        // A greeting may come in pieces; the whole line gets the time limit, so a server dribbling it
        // cannot stretch the wait.
        const tavik::lib::Deadline deadline = tavik::lib::DeadlineAfter(m_nTimeLimit);
        tavik::lib::EndMarkScanner lineEnd("\r\n");
        char buffer[kReceiveSize + 1];
        for (;;) {
            int got = ReceiveUntil(buffer, kReceiveSize, deadline);
            if (got <= 0) break;
            m_strGreeting.Append(buffer, got);
            // The greeting is a read like any other: a host that already gave up stops here.
            CheckTermination();
            if (lineEnd.Find(m_strGreeting.str()) != tavik::lib::EndMarkScanner::npos) break;
            if (m_strGreeting.GetLength() > kMaxLineReply)
                throw new CPopMailException("The server's reply is too long\r\n");
        }
        if (m_strGreeting.IsEmpty()) return true;
        NotifyStatusWindow(m_strGreeting, false);
        if (!IsPositive(m_strGreeting)) return false;
        if (GetSecurity() == SECURITY_STARTTLS) UpgradeWithStls();
        return true;
    } catch (CBlockingSocketException* e) {
        Fail(e);
    }
}

void CPopMail::Secure() {
    StartTls(m_strServer, m_nTimeLimit);
    // What the server said it could do before TLS may have been changed on the way.
    m_nPipelining = -1;
    NotifyStatusWindow("Secure connection: " + GetSecurityDescription() + "\r\n", false);
}

void CPopMail::UpgradeWithStls() {
    XString listing;
    if (ReadCapabilities(listing) != 1 || !Lists(listing, "STLS")) {
        const CString message = "The server does not offer STLS, so the connection cannot be encrypted\r\n";
        NotifyStatusWindow(message, false);
        throw new CPopMailException(message);
    }
    CString reply;
    NotifyStatusWindow("STLS\r\n", false);
    if (!SingleLineResponse("STLS\r\n", reply))
        throw new CPopMailException("The server closed the connection instead of starting TLS\r\n");
    NotifyStatusWindow(reply, false);
    if (!IsPositive(reply)) throw new CPopMailException(reply);
    // Bytes behind the reply were not sent by a server waiting for the handshake: someone on the way
    // wants them read as if they had come encrypted.
    if (reply.Find("\r\n") + 2 != reply.GetLength()) {
        const CString message = "The server sent more than its STLS reply; the connection is not safe\r\n";
        NotifyStatusWindow(message, false);
        throw new CPopMailException(message);
    }
    Secure();
}

bool CPopMail::Login(CString user, CString password) {
    try {
        if (GetSecurity() != SECURITY_NONE && !IsSecure()) {
            const CString message =
                "The connection is not encrypted, so the user name and password were not sent\r\n";
            NotifyStatusWindow(message, false);
            throw new CPopMailException(message);
        }
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
        const Fields f = SplitFields(reply.str());
        if (f.hasFirst && (f.first < 0 || f.first > INT_MAX)) {
            CString message;
            message.Format("The server reported an impossible message count: %s\r\n", reply.GetString());
            throw new CPopMailException(message);
        }
        if (f.hasFirst) *count = static_cast<int>(f.first);
        if (f.hasSecond) *size = ClampToInt(f.second);
        return true;
    } catch (CBlockingSocketException* e) {
        Fail(e);
    }
}

long CPopMail::ParseListReply(const CString& listReply) {
    if (!IsPositive(listReply)) throw new CPopMailException(listReply);
    CString reply = listReply;
    reply.TrimRight();
    const Fields f = SplitFields(reply.str());
    // The word field of "%99s" holds at most 99 characters.
    if (f.word.substr(0, 99).find("-ERR") != std::string_view::npos) return -1;
    return f.hasSecond ? ClampToInt(f.second) : 0;
}

bool CPopMail::ParseUidlReply(const CString& reply, CString& id) {
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
}

long CPopMail::GetMsgSize(int n) {
    try {
        CString reply;
        if (!SingleLineResponse(Formatted("LIST %d\r\n", n), reply)) return 0;
        return ParseListReply(reply);
    } catch (CBlockingSocketException* e) {
        Fail(e);
    }
}

bool CPopMail::GetIDString(int n, CString& id) {
    try {
        CString reply;
        if (!SingleLineResponse(Formatted("UIDL %d\r\n", n), reply)) return false;
        return ParseUidlReply(reply, id);
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
        const bool haveUid = GetIDString(n, uid);
        FinishHeader(header, status, size, haveUid, uid, record);
        return true;
    } catch (CBlockingSocketException* e) {
        Fail(e);
    }
}

void CPopMail::FinishHeader(CString& header, const CString& status, long size, bool haveUid,
                            const CString& uid, CMessageList& record) {
    unsigned long id = 0;
    GetIDNumeric(haveUid ? uid : header, id);
    record.SetData(header, id, static_cast<DWORD>(size), MsgReceived);
    NotifyStatusWindow(status + "\r\n", false);
}

bool CPopMail::PipeliningOffered() {
    if (m_nPipelining >= 0) return m_nPipelining == 1;
    XString listing;
    const int capabilities = ReadCapabilities(listing);
    if (capabilities < 0) return false;
    m_nPipelining = capabilities == 1 && Lists(listing, "PIPELINING") ? 1 : 0;
    return m_nPipelining == 1;
}

int CPopMail::ReadCapabilities(XString& listing) {
    CString reply;
    if (!SingleLineResponse("CAPA\r\n", reply)) return -1;
    if (!IsPositive(reply.Left(std::max(reply.Find("\r\n"), 0)))) return 0;
    // The listing may already be whole in what the first read brought.
    tavik::lib::EndMarkScanner end("\r\n.\r\n");
    char buffer[kReceiveSize + 1];
    while (end.Find(reply.str()) == tavik::lib::EndMarkScanner::npos) {
        int got = Receive(buffer, kReceiveSize, m_nTimeLimit);
        if (got <= 0) break;
        reply.Append(buffer, got);
        CheckTermination();
        if (reply.GetLength() > kMaxLineReply)
            throw new CPopMailException("The server's reply is too long\r\n");
    }
    listing = XString(reply).Upper();
    return 1;
}

// One capability a line, its name first, letter case ignored.
bool CPopMail::Lists(const XString& listing, const char* name) {
    const size_t length = std::strlen(name);
    for (int at = listing.Find("\r\n"); at >= 0; at = listing.Find("\r\n", at + 2)) {
        const char* line = listing.GetString() + at + 2;
        if (std::strncmp(line, name, length) == 0 && std::strchr(" \t\r", line[length]) != nullptr)
            return true;
    }
    return false;
}

bool CPopMail::GetHeaders(int first, int last, const HeaderSink& sink) {
    try {
        if (first > last) return true;
        if (PipeliningOffered()) return ScanPipelined(first, last, sink);
        for (int n = first; n <= last; ++n) {
            auto record = std::make_unique<CMessageList>();
            if (!GetHeader(n, *record)) return false;
            if (!sink(n, std::move(record))) return true;
        }
        return true;
    } catch (CBlockingSocketException* e) {
        Fail(e);
    }
}

namespace {

CString ScanCommands(int n) {
    CString c;
    c.Format("LIST %d\r\nTOP %d %d\r\nUIDL %d\r\n", n, n, 0, n);
    return c;
}

}  // namespace

// Replies are taken apart exactly as the one-message readers would have seen them alone: a line reply
// through its first "\r\n", a TOP reply through its first "\r\n.\r\n". Only a negative TOP status
// differs: alone it would wait for an end mark that never comes; here it ends at its line, so that the
// replies behind it stay in step.
bool CPopMail::ScanPipelined(int first, int last, const HeaderSink& sink) {
    tavik::lib::ReplyQueue replies;
    bool closed = false;
    std::vector<char> buffer(4 * kReceiveSize);
    // Reads until `length` finds a whole reply at the front; npos once the server has closed.
    auto whole = [&](auto length, int limit) {
        for (;;) {
            std::size_t n = length();
            if (n != tavik::lib::ReplyQueue::npos || closed) return n;
            if (replies.Size() > static_cast<std::size_t>(limit))
                throw new CPopMailException("The server's reply is too long\r\n");
            int got = Receive(buffer.data(), static_cast<int>(buffer.size()), m_nTimeLimit);
            if (got <= 0) {
                closed = true;
                continue;
            }
            replies.Append(buffer.data(), static_cast<std::size_t>(got));
            CheckTermination();
        }
    };
    auto line = [&](CString& reply) {
        std::size_t n = whole([&] { return replies.LineLength(); }, kMaxLineReply);
        if (n == tavik::lib::ReplyQueue::npos) return false;
        reply.str().assign(replies.Front(n));
        replies.Consume(n);
        return true;
    };
    // A TOP reply: false when the server closed before it ended. A close inside the listing keeps what
    // came, as the one-message reader does.
    auto listing = [&](CString& reply) {
        std::size_t status = whole([&] { return replies.LineLength(); }, kMaxLineReply);
        if (status == tavik::lib::ReplyQueue::npos) {
            if (replies.Size() == 0) return false;
            status = replies.Size();
        }
        std::size_t n = status;
        if (IsPositive(CString(replies.Front(status).data(), static_cast<int>(status)))) {
            n = whole([&] { return replies.ListingLength(); }, kMaxMultiLineReply);
            if (n == tavik::lib::ReplyQueue::npos) n = replies.Size();
        }
        reply.str().assign(replies.Front(n));
        replies.Consume(n);
        return true;
    };

    int sendBuffer = 0, length = sizeof sendBuffer;
    if (getsockopt(m_hSocket, SOL_SOCKET, SO_SNDBUF, reinterpret_cast<char*>(&sendBuffer), &length) != 0)
        sendBuffer = 0;
    const int budget = std::clamp(sendBuffer / 4, 256, kPipelineBytes);
    int inFlight = 0;  // bytes of the commands sent whose replies are not read yet
    int next = first;  // first message whose commands are not sent
    auto topUp = [&] {
        // Refill once a quarter of the window is read: commands go out in a few large sends, and the
        // server never runs dry while the replies of the last send travel back.
        if (inFlight > budget - budget / 4 || next > last || closed) return;
        CString batch;
        for (; next <= last; ++next) {
            CString commands = ScanCommands(next);
            if (inFlight + commands.GetLength() > budget && inFlight > 0) break;
            batch += commands;
            inFlight += commands.GetLength();
        }
        Write(batch, batch.GetLength(), m_nTimeLimit);
    };

    for (int n = first; n <= last; ++n) {
        topUp();
        CString top;
        top.Format("TOP %d %d\r\n", n, 0);
        NotifyStatusWindow(top, false);
        CString reply;
        // As GetMsgSize: a LIST reply that never came leaves the size 0.
        long size = line(reply) ? ParseListReply(reply) : 0;
        CString header;
        if (!listing(header)) return false;
        CString status;
        StripResponse(header, status);
        if (!IsPositive(status)) throw new CPopMailException(status);
        CString uid;
        const bool haveUid = line(reply) && ParseUidlReply(reply, uid);
        auto record = std::make_unique<CMessageList>();
        FinishHeader(header, status, size, haveUid, uid, *record);
        inFlight -= ScanCommands(n).GetLength();
        if (!sink(n, std::move(record))) {
            // Read and drop the replies already asked for, so the next command's reply is its own.
            for (int m = n + 1; m < next; ++m)
                if (!line(reply) || !listing(reply) || !line(reply)) return false;
            return true;
        }
        if (closed && replies.Size() == 0 && n < last) return false;
    }
    return true;
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
