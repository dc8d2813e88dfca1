// The POP3 client: one object is one session with one mailbox server, driven operation by operation by
// the host (Connect, Login, MailBoxStats, GetHeader/Retrieve/DeleteMsg..., Quit).
//
// Failures reach the caller as a thrown `CPopMailException*` (the catcher calls Delete()) or a false
// result:
// - any socket failure (look-up, connect, send, receive, time-out): the socket exception's text plus
//   "\r\n", shown in the status window first;
// - the termination event found signalled after a read that returned data, or while waiting for a
//   server that is slow to connect or answer (it is looked at every 100 ms): "Forced Termination by
//   user", not shown;
// - a reply without "+OK" (letter case ignored, anywhere in the text): the reply itself, not shown
//   (except where an operation below says otherwise);
// - no complete reply line because the server closed the connection: false.
// After an exception the object keeps its socket; destroy the object to close it.
//
// Status lines go to the status window as window message 1001 (lParam: the zero-terminated text, valid
// during the call only), sent synchronously, so the window's thread must keep pumping messages.
// Destruction sends message 1002. The password never reaches the window ("PASS xxxxxxx").
//
// One thread uses an object at a time; only the termination event may be signalled from elsewhere.
#pragma once

#include <chrono>
#include <functional>
#include <memory>

#include "platform/CException.h"
#include "platform/CString.h"
#include "platform/WindowMessages.h"
#include "transport/CBlockingSocket.h"

class CMessageList;
class XString;

class CPopMailException : public CException {
public:
    explicit CPopMailException(const CString& message) : m_strMessage(message) {}

    // The framework's buffer form and ReportError stay the base class's.
    using CException::GetErrorMessage;
    CString GetErrorMessage() const { return m_strMessage; }

    CString m_strMessage;
};

class CPopMail : public CBlockingSocket {
    DECLARE_DYNAMIC(CPopMail)
public:
    static constexpr UINT WM_POP_STATUS = 1001;    // lParam: const char* line
    static constexpr UINT WM_POP_FINISHED = 1002;  // sent by the destructor

    // terminationEvent may be null (never aborts); statusWindow may be null or stale (nothing is shown).
    // timeLimit is the seconds each single socket wait may last, not a limit for a whole reply.
    CPopMail(void* terminationEvent, HWND statusWindow, int timeLimit);
    ~CPopMail() override;

    void SetStatusWindow(HWND window) { m_hStatusWnd = window; }

    // Resolves, connects and reads the greeting up to its line end: true when it contains +OK, or when
    // the server closed without sending anything; false for a negative greeting (GetGreeting has it).
    // Connecting and the whole greeting each get the time limit; a connect that runs out of it throws
    // the socket layer's "Attempt to connect timed out..." text.
    // With SetSecurity: SECURITY_TLS makes the TLS handshake before the greeting; SECURITY_STARTTLS
    // asks CAPA after a positive greeting and upgrades with STLS, throwing "The server does not offer
    // STLS, so the connection cannot be encrypted" when the listing lacks it (never going on in plain
    // text). A handshake failure throws the socket layer's text for it. Either shows "Secure
    // connection: <protocol, cipher>" in the status window.
    bool Connect(const CString& host, int port);
    // The greeting Connect read, as it came (with its line end); empty before.
    const CString& GetGreeting() const { return m_strGreeting; }
    // USER then PASS. A negative USER reply throws with the reply; a refused password returns false.
    // When SetSecurity asked for TLS and the connection is not encrypted, nothing is sent: "The
    // connection is not encrypted, so the user name and password were not sent".
    bool Login(CString user, CString password);
    // STAT. Fills count and size from "+OK count size" (left as they were when the reply lacks them).
    // A count that is negative or does not fit an int throws "The server reported an impossible message
    // count: <reply>"; a size beyond an int is cut to the largest int (a mailbox can pass 2 GiB).
    bool MailBoxStats(int* count, int* size);
    // LIST n: the size in octets; 0 when no reply line came; -1 when the reply's first word holds -ERR.
    long GetMsgSize(int n);
    // UIDL n. A negative reply is shown and thrown as "<reply>\r\nThis server does not support the UIDL
    // command. TavikMail cannot work with this server\r\n".
    bool GetIDString(int n, CString& id);
    // The CRC-32 of the identifier's bytes. Always true.
    bool GetIDNumeric(CString id, unsigned long& number);
    // LIST n, TOP n 0, UIDL n, in this order, then record.SetData(header, id, size, 0). The identifier is
    // the CRC-32 of the unique id, or of the header text when the UIDL reply never came. A negative TOP
    // status throws with the status line (without its line end).
    bool GetHeader(int n, CMessageList& record);
    // Called for each message of a GetHeaders scan, in message order, after its status line was shown;
    // it owns the record from then on. Returning false ends the scan early.
    using HeaderSink = std::function<bool(int n, std::unique_ptr<CMessageList> record)>;
    // GetHeader for every message from first to last: the same commands, records, status lines and
    // failures, in the same order. When the server lists PIPELINING in its CAPA reply (asked once per
    // session), the commands of up to a hundred messages or so go out ahead of their replies, so a distant
    // server costs one round trip per window instead of three per message; otherwise it is GetHeader
    // one message after the other. False when the server closed the connection before the last message
    // (the messages before it were delivered). When the sink ends the scan, the replies already asked for
    // are read and dropped first, so the session can go on; after an exception they may still be coming,
    // and the object is best destroyed.
    bool GetHeaders(int first, int last, const HeaderSink& sink);
    // RETR n into message (without status line and end mark; dot-stuffed lines keep their doubled dot).
    // A negative status never ends the listing, so it surfaces as the socket time-out.
    bool Retrieve(int n, CString& message);
    bool DeleteMsg(int n);
    bool ResetMailbox();
    bool KeepAlive();
    // QUIT; closes the socket unless the reply was negative (then it throws with the reply).
    bool Quit();

    // Longest reply the readers accept before giving up with "The server's reply is too long\r\n":
    // a server that never ends its reply must not exhaust memory.
    static constexpr int kMaxLineReply = 1 << 20;
    static constexpr int kMaxMultiLineReply = 256 << 20;
    // Most command bytes a pipelined scan has in flight. Far below any send buffer, so a server that
    // stops reading commands until its replies are read can never leave us blocked in a send.
    static constexpr int kPipelineBytes = 4096;

protected:
    // Send command, read until "\r\n": false when the server closes first.
    bool SingleLineResponse(CString command, CString& reply);
    // Send command, read until "\r\n.\r\n" anywhere in the reply (the status line's own line end and a
    // lone dot line end an empty listing); a close by the server ends it too (true).
    bool MultiLineResponse(CString command, CString& reply);
    // Splits off the status line and cuts the end mark; true when a status line was split off.
    bool StripResponse(CString& reply, CString& status);
    void StripResponse(CString& reply);
    // Time-stamped status line to the window; connected first adds the "Connected to" banner.
    void NotifyStatusWindow(CString text, bool connected);

    CString m_strServer;
    CString m_strUser;
    CString m_strPassword;
    HWND m_hStatusWnd;
    int m_nTimeLimit;
    void* m_hTerminate;

private:
    bool ReadReply(CString& reply, bool multiLine);
    // Receive that waits no later than the deadline (rounded up to whole seconds).
    int ReceiveUntil(char* buffer, int size, std::chrono::steady_clock::time_point deadline);
    // Throws "Forced Termination by user" when the termination event is signalled.
    void CheckTermination();
    [[noreturn]] void Terminated();
    static void ReserveForListing(CString& reply, const char* first, int size);
    [[noreturn]] void Fail(CBlockingSocketException* e);

    // Reply handling GetHeader and the pipelined scan share.
    long ParseListReply(const CString& reply);
    bool ParseUidlReply(const CString& reply, CString& id);
    // Checks the TOP status (throws with it when negative), fills the record and shows the status line.
    void FinishHeader(CString& header, const CString& status, long size, bool haveUid, const CString& uid,
                      CMessageList& record);

    bool PipeliningOffered();
    // CAPA: 1 with the listing (upper case) in listing, 0 when the server refused it, -1 when it closed.
    int ReadCapabilities(XString& listing);
    static bool Lists(const XString& listing, const char* name);
    // TLS on the connected socket, with its status line; STLS first, for a session that starts plain.
    void Secure();
    void UpgradeWithStls();
    bool ScanPipelined(int first, int last, const HeaderSink& sink);

    CString m_strGreeting;
    int m_nPipelining = -1;  // -1 not asked yet, 0 no, 1 yes
};
