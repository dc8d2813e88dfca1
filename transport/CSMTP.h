// The SMTP client: one object is one session with one mail relay. The host creates it, calls Connect,
// then SendMessage once or more, and destroys it, which ends the session with QUIT. Plain SMTP with HELO;
// no authentication.
//
// Every reply line goes back to the caller in the reply argument (line end trimmed). Failures are thrown
// as `CSMTPException*` (the catcher calls Delete()):
// - any socket failure (look-up, connect, send, receive, time-out): the socket exception's text; the
//   session then counts as broken and destruction sends no QUIT;
// - the termination event found signalled after a read that returned data: "Forced Termination by user";
// - an unexpected reply code: the reply;
// - a reply line longer than kMaxReply: "The server's reply is too long" (the session is broken too).
// A reply that never comes because the server closed the connection is no failure: the operation ends
// quietly (false).
//
// A reply counts only when it is exactly one line in the bytes read so far. A multi-line reply that
// arrives in one piece therefore runs into the time limit ("Receive timeout"), and one whose first line
// arrives alone is taken as that line, its other lines becoming the start of the next reply: the original
// client did the same, and the server it spoke to answered HELO with a single line.
//
// Hostile content: the envelope addresses are kept on one line (as header values are, see CMailMessage),
// the body is sent with CRLF line ends only (a bare CR or LF becomes CRLF), and a body line holding a lone
// dot goes out doubled. A line that starts with a dot followed by other text is sent unchanged, so the
// receiving server drops that first dot. For ordinary text (CRLF line ends) the bytes on the wire are
// exactly the message's.
//
// One thread uses an object at a time; only the termination event may be signalled from elsewhere.
#pragma once

#include "platform/CException.h"
#include "platform/CString.h"
#include "transport/CBlockingSocket.h"

class CMailMessage;

class CSMTPException : public CException {
public:
    explicit CSMTPException(const CString& message) : m_sMessage(message) {}

    // The framework's buffer form and ReportError stay the base class's.
    using CException::GetErrorMessage;
    CString GetErrorMessage() const { return m_sMessage; }

    CString m_sMessage;
};

class CSMTP : public CBlockingSocket {
    DECLARE_DYNAMIC(CSMTP)
public:
    // terminationEvent may be null (never aborts). timeLimit is the seconds each single socket wait may
    // last, not a limit for a whole reply.
    CSMTP(void* terminationEvent, int timeLimit);
    // QUIT and close when the session is still usable; never throws.
    ~CSMTP() override;

    // Resolves and connects, reads the greeting (one receive; it must start with 220) and sends
    // "HELO <local host name>", whose reply, when one comes, must start with 250. Returns false without
    // sending HELO when the server closed before greeting (reply empty).
    bool Connect(CString host, CString& reply, int port = 25);

    // One mail transaction: MAIL From (again with the Resent-From address when the first is refused and
    // there is one), RCPT TO for each envelope recipient (refusals 450-452 and 550-553 skip a recipient;
    // no recipient left throws with the last reply), DATA, the header and body texts, the end mark.
    // True when the server accepted the message (250); false when it closed without answering DATA or
    // the end mark. "INTERNAL ERROR: Message is Invalid" for a null message, "INTERNAL ERROR: No
    // Recipients Specified" for one without recipients.
    bool SendMessage(CMailMessage* message, CString& reply);

    static constexpr int kReceiveSize = 1024;
    static constexpr int kMaxReply = 1 << 20;

protected:
    // QUIT (a reply must start with 221) and close; only closes when the session is broken.
    void Disconnect(CString& reply);
    // The body as it goes on the wire: CRLF line ends, lone dot lines doubled.
    CString PrepareBody(CMailMessage* message);
    // Sends command, then reads until the text read is exactly one line; false when the server closes
    // first. Trailing white space is trimmed from reply.
    bool SingleLineResponse(CString command, CString& reply);

    CString m_sMailerName;  // the host given to Connect
    int m_nTimeLimit;
    void* m_hTerminate;
    bool m_bConnected = true;

private:
    void CheckTermination();
    // Clears the connected flag and throws the socket exception's text as a CSMTPException.
    [[noreturn]] void Fail(CBlockingSocketException* e);
};
