#include "transport/CBlockingSocket.h"

#include <cstring>

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

int CBlockingSocket::Send(const char* data, int size, int seconds) {
    if (WaitForSocket(m_hSocket, SOCKET_WAIT_WRITE, limit(seconds)) == 0) fail("Send timeout");
    // Writable only means some room: a blocking send of more than fits would wait for the peer to read,
    // for ever if it never does. With the limit the send returns what fitted, and Write's next wait
    // reports the stall as a timeout.
    const DWORD ms = seconds > 0 ? static_cast<DWORD>(seconds) * 1000u : 1u;
    setsockopt(m_hSocket, SOL_SOCKET, SO_SNDTIMEO, reinterpret_cast<const char*>(&ms), sizeof ms);
    const int sent = send(m_hSocket, data, size, 0);
    if (sent == SOCKET_ERROR) fail("Send");
    return sent;
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
    const int ready = WaitForSocket(m_hSocket, SOCKET_WAIT_READ, limit(seconds));
    if (ready == 0 || ready == SOCKET_ERROR) fail("Receive timeout");
    const int got = recv(m_hSocket, buffer, size, 0);
    if (got == SOCKET_ERROR) fail("Receive");
    return got;
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
