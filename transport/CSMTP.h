// The SMTP client: one object is one session with one mail relay. The host creates it, calls Connect,
// then SendMessage once or more, and destroys it, which ends the session with QUIT. Plain SMTP with HELO
// and no authentication, unless the host asks for TLS (SetSecurity) or a login (SetLogin): then the
// session says EHLO, upgrades with STARTTLS or starts in TLS, and logs in with AUTH PLAIN or LOGIN.
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
    //
    // With SECURITY_TLS the TLS handshake comes before the greeting. With TLS or a login the greeting is
    // answered with EHLO (its whole multi-line reply must start with 250); SECURITY_STARTTLS then needs
    // STARTTLS in that reply ("The server does not offer STARTTLS, so the connection cannot be
    // encrypted" otherwise), sends it (220), makes the handshake and says EHLO again. A login follows
    // last (see SetLogin). A server that closes during any of these throws "The server closed the
    // connection"; a handshake failure throws the socket layer's text for it.
    bool Connect(CString host, CString& reply, int port = 25);

    // Logs in after the greeting and encryption: AUTH PLAIN when the server lists it, else AUTH LOGIN;
    // success is 235, anything else throws with the reply. Only over TLS: with SECURITY_NONE, Connect
    // throws "The password is sent only over an encrypted connection" before connecting. A server that
    // offers neither mechanism throws "The server offers no login this client knows (AUTH PLAIN or
    // LOGIN)". An empty user turns the login off (the default).
    void SetLogin(CString user, CString password);
    // While a command carrying the credentials is being sent: the text to show in its place ("AUTH PLAIN
    // xxxxxxx"); empty otherwise. A host that shows the dialogue through Send shows this instead.
    const CString& GetCredentialsMask() const { return m_sMask; }

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
    CString m_sUser;
    CString m_sPassword;
    CString m_sMask;

private:
    void CheckTermination();
    // The session after the greeting when it is not plain HELO: EHLO, STARTTLS, AUTH.
    void Extended(const CString& localName, CString& reply);
    // Sends command and reads a reply of any number of lines (continuation lines "250-..."), which must
    // start with code; throws with it when it does not, and when the server closes first.
    void Expect(const CString& command, int code, CString& reply, bool multiLine = false);
    bool MultiLineResponse(CString command, CString& reply);
    void Authenticate(const CString& extensions, CString& reply);
    // Clears the connected flag and throws the socket exception's text as a CSMTPException.
    [[noreturn]] void Fail(CBlockingSocketException* e);
};
