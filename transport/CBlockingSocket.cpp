#include "transport/CBlockingSocket.h"

#include <algorithm>
#include <chrono>
#include <cstring>

#include "platform/Kernel.h"
#include "platform/WinsockTls.h"

IMPLEMENT_DYNAMIC(CBlockingSocket, CObject)

namespace {

constexpr int kAddressLength = sizeof(sockaddr_in);

[[noreturn]] void fail(const char* label) { throw new CBlockingSocketException(label); }

}  // namespace

CBlockingSocket::~CBlockingSocket() { Cleanup(); }

void CBlockingSocket::Cleanup() {
    if (m_hSocket == 0) return;
    // Closing must not disturb the error a caller may still be about to report.
    const int saved = WSAGetLastError();
    closesocket(m_hSocket);
    WSASetLastError(saved);
    m_hSocket = 0;
}

void CBlockingSocket::Create(int type) {
    SOCKET s = socket(AF_INET, type, 0);
    if (s == INVALID_SOCKET) fail("Create");
    m_hSocket = s;
}

void CBlockingSocket::Close() {
    if (closesocket(m_hSocket) == SOCKET_ERROR) fail("Close");
    m_hSocket = 0;
}

void CBlockingSocket::Bind(const sockaddr* address) {
    if (bind(m_hSocket, address, kAddressLength) == SOCKET_ERROR) fail("Bind");
}

void CBlockingSocket::Listen() {
    if (listen(m_hSocket, 5) == SOCKET_ERROR) fail("Listen");
}

void CBlockingSocket::Connect(const sockaddr* address) {
    if (connect(m_hSocket, address, kAddressLength) == SOCKET_ERROR) fail("Connect");
}

BOOL CBlockingSocket::Accept(CBlockingSocket& into, sockaddr* peer) {
    int length = kAddressLength;
    SOCKET s = accept(m_hSocket, peer, peer ? &length : nullptr);
    if (s == INVALID_SOCKET) {
        if (WSAGetLastError() != WSAEINTR) fail("Accept");
        return FALSE;
    }
    into.m_hSocket = s;
    return TRUE;
}

// Both directions are one blocking call under a socket time-out rather than a readiness wait followed by
// the call: half the system calls, which is what a mail check pays per command. With a cancel event the
// time-out is cut into slices so that the event is looked at in between.
int CBlockingSocket::Transfer(bool sending, char* data, int size, int seconds) {
    using Clock = std::chrono::steady_clock;
    constexpr auto kSlice = std::chrono::milliseconds(100);
    const auto deadline = Clock::now() + std::chrono::seconds(limit(seconds));
    const int option = sending ? SO_SNDTIMEO : SO_RCVTIMEO;
    // A time-out is reported with the last error the caller had, as a readiness wait that ran out
    // leaves it.
    const int before = WSAGetLastError();
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (m_hCancel != nullptr && left > kSlice) left = kSlice;
        // 0 would mean no limit at all.
        const DWORD ms = static_cast<DWORD>(std::max<long long>(left.count(), 1));
        setsockopt(m_hSocket, SOL_SOCKET, option, reinterpret_cast<const char*>(&ms), sizeof ms);
        const int moved = sending ? send(m_hSocket, data, size, 0) : recv(m_hSocket, data, size, 0);
        if (moved != SOCKET_ERROR) {
            WSASetLastError(before);
            return moved;
        }
        if (WSAGetLastError() != WSAETIMEDOUT) fail(sending ? "Send" : "Receive");
        if (m_hCancel != nullptr && WaitForSingleObject(m_hCancel, 0) == WAIT_OBJECT_0) {
            WSASetLastError(WSAEINTR);
            fail(sending ? "Send" : "Receive");
        }
        if (Clock::now() >= deadline) {
            WSASetLastError(before);
            fail(sending ? "Send timeout" : "Receive timeout");
        }
    }
}

int CBlockingSocket::Send(const char* data, int size, int seconds) {
    return Transfer(true, const_cast<char*>(data), size, seconds);
}

int CBlockingSocket::Write(const char* data, int size, int seconds) {
    int total = 0;
    do {
        const int sent = Send(data + total, size - total, seconds);
        total += sent;
    } while (total < size);
    return total;
}

int CBlockingSocket::Receive(char* buffer, int size, int seconds) {
    return Transfer(false, buffer, size, seconds);
}

int CBlockingSocket::SendDatagram(const char* data, int size, const sockaddr* to, int seconds) {
    if (WaitForSocket(m_hSocket, SOCKET_WAIT_WRITE, limit(seconds)) == 0) fail("Send timeout");
    const int sent = sendto(m_hSocket, data, size, 0, to, kAddressLength);
    if (sent == SOCKET_ERROR) fail("SendDatagram");
    return sent;
}

int CBlockingSocket::ReceiveDatagram(char* buffer, int size, sockaddr* from, int seconds) {
    if (WaitForSocket(m_hSocket, SOCKET_WAIT_READ, limit(seconds)) == 0) fail("Receive timeout");
    int length = kAddressLength;
    const int got = recvfrom(m_hSocket, buffer, size, 0, from, from ? &length : nullptr);
    if (got == SOCKET_ERROR) fail("ReceiveDatagram");
    return got;
}

void CBlockingSocket::GetPeerAddr(sockaddr* address) {
    int length = kAddressLength;
    if (getpeername(m_hSocket, address, &length) == SOCKET_ERROR) fail("GetPeerName");
}

void CBlockingSocket::GetSockAddr(sockaddr* address) {
    int length = kAddressLength;
    if (getsockname(m_hSocket, address, &length) == SOCKET_ERROR) fail("GetSockName");
}

void CBlockingSocket::SetSecurity(SECURITY security, bool verifyCertificate, CString trustFile) {
    m_nSecurity = security;
    m_bVerify = verifyCertificate;
    m_strTrustFile = trustFile;
}

// The same slicing as Transfer: the handshake is resumable, so each slice is one call bounded by the
// receive time-out, with the cancel event looked at in between.
void CBlockingSocket::StartTls(const char* serverName, int seconds) {
    using Clock = std::chrono::steady_clock;
    constexpr auto kSlice = std::chrono::milliseconds(100);
    const auto deadline = Clock::now() + std::chrono::seconds(limit(seconds));
    WSATLS_SETTINGS settings{serverName, m_bVerify ? TRUE : FALSE,
                             m_strTrustFile.IsEmpty() ? nullptr : m_strTrustFile.GetString()};
    const int before = WSAGetLastError();
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (m_hCancel != nullptr && left > kSlice) left = kSlice;
        const DWORD ms = static_cast<DWORD>(std::max<long long>(left.count(), 1));
        setsockopt(m_hSocket, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&ms), sizeof ms);
        if (WSATlsConnect(m_hSocket, &settings) == 0) {
            WSASetLastError(before);
            return;
        }
        if (WSAGetLastError() != WSAETIMEDOUT) fail("TLS handshake");
        if (m_hCancel != nullptr && WaitForSingleObject(m_hCancel, 0) == WAIT_OBJECT_0) {
            WSASetLastError(WSAEINTR);
            fail("TLS handshake");
        }
        if (Clock::now() >= deadline) {
            // Reported by its label alone: the last error says nothing about a server that went quiet.
            WSASetLastError(0);
            fail("TLS handshake timeout");
        }
    }
}

bool CBlockingSocket::IsSecure() const {
    WSATLS_INFO info;
    const int saved = WSAGetLastError();
    const bool secure = m_hSocket != 0 && WSATlsGetInfo(m_hSocket, &info) == 0;
    WSASetLastError(saved);
    return secure;
}

CString CBlockingSocket::GetSecurityDescription() const {
    WSATLS_INFO info;
    const int saved = WSAGetLastError();
    CString text;
    if (m_hSocket != 0 && WSATlsGetInfo(m_hSocket, &info) == 0)
        text.Format("%s, %s, %d-bit key%s", info.protocol, info.cipher, info.bits,
                    info.verified ? "" : ", certificate not checked");
    WSASetLastError(saved);
    return text;
}

CSockAddr CBlockingSocket::GetHostByName(const char* name, USHORT port) {
    hostent* host = gethostbyname(name);
    if (!host) fail("GetHostByName");
    CSockAddr result;
    result.sin_port = htons(port);
    std::memcpy(&result.sin_addr, host->h_addr_list[0], 4);
    return result;
}

const char* CBlockingSocket::GetHostByAddr(const sockaddr* address) {
    const auto* in = reinterpret_cast<const sockaddr_in*>(address);
    hostent* host = gethostbyaddr(reinterpret_cast<const char*>(&in->sin_addr.s_addr), 4, AF_INET);
    if (!host) fail("GetHostByAddr");
    return host->h_name;
}

CString CBlockingSocket::ResolveHostToIP(CString host) {
    hostent* entry = gethostbyname(host);
    if (!entry) {
        CString text;
        text.Format("Can't resolve %s", host.GetString());
        return text;
    }
    in_addr first;
    std::memcpy(&first, entry->h_addr_list[0], 4);
    return CString(inet_ntoa(first));
}

CString CBlockingSocket::ResolveIPToHost(CString ip) {
    ULONG address = inet_addr(ip);
    hostent* entry = gethostbyaddr(reinterpret_cast<const char*>(&address), 4, AF_INET);
    return entry ? CString(entry->h_name) : ip;
}

bool CBlockingSocket::GetLocalAddress(CString& hostName, CString& hostIP) {
    hostName = "Error Resolving HostName";
    hostIP = "Error Resolving Host IP";
    WSADATA data;
    if (WSAStartup(0x0101, &data) != 0) return false;
    bool ok = false;
    char name[255];
    if (gethostname(name, static_cast<int>(sizeof name)) == 0) {
        if (hostent* entry = gethostbyname(name)) {
            in_addr first;
            std::memcpy(&first, entry->h_addr_list[0], 4);
            const CString ip(inet_ntoa(first));
            hostName = ResolveIPToHost(ip);
            hostIP = ip;
            ok = true;
        }
    }
    WSACleanup();
    return ok;
}
