// One socket handle with blocking operations, each waiting at most a given number of seconds. Every
// failure throws a new CBlockingSocketException carrying the operation's label; nothing returns an error
// code. The caller must have started Windows Sockets (WSAStartup) first.
#pragma once

#include "platform/CObject.h"
#include "platform/CString.h"
#include "platform/Winsock.h"
#include "transport/CBlockingSocketException.h"
#include "transport/CSockAddr.h"

class CBlockingSocket : public CObject {
    DECLARE_DYNAMIC(CBlockingSocket)
public:
    CBlockingSocket() : m_hSocket(0) {}
    // Closes a handle that is still open; never throws.
    ~CBlockingSocket() override;

    // Close the handle if there is one (result ignored) and forget it; never throws.
    void Cleanup();
    // A new socket of family AF_INET and the given type (SOCK_STREAM for the mail clients). "Create".
    void Create(int type = SOCK_STREAM);
    // Close the handle and set it to 0; on failure ("Close") the handle is kept.
    void Close();
    void Bind(const sockaddr* address);     // "Bind"
    void Listen();                          // backlog 5; "Listen"
    void Connect(const sockaddr* address);  // "Connect"
    // Waits for a connection and stores its handle in into (peer, when not null, gets its address).
    // Returns FALSE without throwing when the wait was interrupted (WSAEINTR), leaving into alone;
    // any other failure throws "Accept".
    BOOL Accept(CBlockingSocket& into, sockaddr* peer);

    // How the mail clients' Connect secures the session: plain text (the default), plain text upgraded
    // after the greeting (STLS for POP3, STARTTLS for SMTP), or TLS from the first byte (POP3S, SMTPS).
    enum SECURITY { SECURITY_NONE = 0, SECURITY_STARTTLS = 1, SECURITY_TLS = 2 };
    // verifyCertificate false accepts any certificate (encrypted, but open to whoever sits in between);
    // trustFile names a PEM file of authorities trusted beside the system's.
    void SetSecurity(SECURITY security, bool verifyCertificate = true, CString trustFile = CString());
    SECURITY GetSecurity() const { return m_nSecurity; }

    // TLS over the connected socket, the certificate checked against serverName (a host name or dotted
    // address) unless SetSecurity turned that off. The whole handshake gets seconds, and the cancel
    // event ends it as it ends Send and Receive; afterwards Send and Receive carry TLS with their usual
    // behaviour. Throws "TLS handshake timeout" (error 0) when the time runs out, else "TLS handshake" with
    // the reason (a certificate for another name, an unknown authority, an expired certificate, a server that
    // does not speak TLS) as the exception's text.
    void StartTls(const char* serverName, int seconds);
    // True once StartTls succeeded on the current socket.
    bool IsSecure() const;
    // "TLSv1.3, TLS_AES_256_GCM_SHA384, 256-bit key" (with ", certificate not checked" when it was not);
    // empty when the socket is not secure.
    CString GetSecurityDescription() const;

    // An event (may be null) that cancels Send and Receive while they wait: once it is signalled, a
    // wait ends within 100 ms and the call throws with WSAEINTR ("Interrupted function call.."), as a
    // cancelled blocking call does on Windows.
    void SetCancelEvent(void* event) { m_hCancel = event; }

    // The four operations derived clients call through these virtual slots, in this order.
    //
    // One send of size bytes that waits at most seconds for room; returns the bytes sent, fewer when the
    // peer stopped reading before all fitted. "Send timeout" when nothing fitted in time; "Send" when
    // the send fails.
    virtual int Send(const char* data, int size, int seconds);
    // One receive of at most size bytes that waits at most seconds for data; returns the bytes read, 0
    // when the peer has closed. "Receive timeout" when nothing came in time; "Receive" when the receive
    // fails.
    virtual int Receive(char* buffer, int size, int seconds);
    // As Send, to the given address; "Send timeout" / "SendDatagram".
    virtual int SendDatagram(const char* data, int size, const sockaddr* to, int seconds);
    // As Receive, but only a wait that ends with nothing ready is a timeout; "Receive timeout" /
    // "ReceiveDatagram". from (when not null) gets the sender.
    virtual int ReceiveDatagram(char* buffer, int size, sockaddr* from, int seconds);

    // Calls Send on the unsent rest until all size bytes are sent (at least once, even for size 0);
    // returns the total. Throws as Send.
    int Write(const char* data, int size, int seconds);

    void GetPeerAddr(sockaddr* address);  // "GetPeerName"
    void GetSockAddr(sockaddr* address);  // "GetSockName"

    // The first address of the host (a name or dotted text) with the given port; "GetHostByName".
    static CSockAddr GetHostByName(const char* name, USHORT port = 0);
    // The official name of the host at the address; "GetHostByAddr". The text belongs to the calling
    // thread until its next look-up.
    static const char* GetHostByAddr(const sockaddr* address);

    // Never throw. The dotted text of the host's first address, or "Can't resolve <host>".
    static CString ResolveHostToIP(CString host);
    // The official name for the dotted address, or the given text when there is none.
    static CString ResolveIPToHost(CString ip);
    // The local host's name and address. Starts and ends its own use of Windows Sockets. On any failure
    // returns false with "Error Resolving HostName" / "Error Resolving Host IP".
    static bool GetLocalAddress(CString& hostName, CString& hostIP);

    operator SOCKET() const { return m_hSocket; }

    SOCKET m_hSocket;  // 0 when there is no socket

protected:
    // Negative seconds count as 0: no wait here is ever without a limit.
    static long limit(int seconds) { return seconds < 0 ? 0 : seconds; }

private:
    // One blocking transfer (send when data is const) bounded by seconds and the cancel event.
    int Transfer(bool sending, char* data, int size, int seconds);

    void* m_hCancel = nullptr;
    SECURITY m_nSecurity = SECURITY_NONE;
    bool m_bVerify = true;
    CString m_strTrustFile;
};
