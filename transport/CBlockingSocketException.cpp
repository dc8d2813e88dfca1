#include "transport/CBlockingSocketException.h"

#include <cstdio>
#include <cstring>

#include "platform/Winsock.h"
#include "platform/WinsockTls.h"

IMPLEMENT_DYNAMIC(CBlockingSocketException, CException)

namespace {

constexpr size_t kWorkBuffer = 1024;

struct Sentence {
    int code;
    const char* text;
};

// The users of these texts match some of them word for word, spelling included.
constexpr Sentence kSentences[] = {
    {10004, "Interrupted function call.."},
    {10013, "An attempt was made to access a socket in a way forbidden by its access permissions"},
    {10014, "The nSockAddrLen argument is incorrect"},
    {10022, "The socket has not been bound with Bind"},
    {10024, "Too many open sockets"},
    {10035, "The socket is marked as nonblocking and the Receive operation would block"},
    {10036, "A blocking Windows Sockets operation is in progress"},
    {10037, "Operation already in progress"},
    {10038, "The descriptor is not a socket"},
    {10039, "Destination address required."},
    {10040, "The datagram was too large to fit into the specified buffer and was truncated"},
    {10041, "Protocol wrong type for socket"},
    {10042, "An unknown, invalid or unsupported option or level was specified in a socket option call"},
    {10043, "Protocol not supported"},
    {10044, "The support for the specified socket type does not exist in this address family"},
    {10045, "The attempted operation is not supported for the type of object referenced"},
    {10047, "An address incompatible with the requested protocol was used"},
    {10048, "The specified address is already in use"},
    {10049, "The specified address is not available from the local machine"},
    {10050, "A socket operation encountered a dead network"},
    {10051, "A socket operation was attempted to an unreachable network"},
    {10052, "The host you were connected to crashed and rebooted"},
    {10053, "An established connection was aborted by the software in your host machine"},
    {10054, "A existing connection was forcibly closed by the remote host"},
    {10055, "The Windows Sockets implementation reports a buffer deadlock"},
    {10056, "The socket is already connected"},
    {10057, "The socket is not connected"},
    {10058, "The socket has been shut down; it is not possible to call Receive on a socket after ShutDown"},
    {10060, "Attempt to connect timed out without establishing a connection"},
    {10061, "The attempt to connect was rejected"},
    {10064, "The socket operation failed because the destination host was down."},
    {10065, "A socket operation was attempted to an unreachable host"},
    {10067, "Too many processes"},
    {10091, "Network subsystem is unavailable"},
    {10092, "WINSOCK.DLL version out of range"},
    {10093, "Successful WSAStartup not yet performed"},
    {10101, "Graceful shutdown in progress"},
    {11001, "Host not found. No such host is known"},
    {11002, "Non-authoritative host not found. Please Retry"},
    {11003, "A non-recoverable error occurred"},
    {11004, "Valid name, no data record of requested type"},
    // TLS, for the encrypted connections.
    {SEC_E_UNSUPPORTED_FUNCTION, "The TLS operation is not supported"},
    {SEC_E_INTERNAL_ERROR, "TLS could not be set up"},
    {SEC_E_WRONG_PRINCIPAL, "The server's certificate does not name the server"},
    {SEC_E_UNTRUSTED_ROOT, "The server's certificate is not signed by a trusted authority"},
    {SEC_E_ILLEGAL_MESSAGE, "The TLS handshake with the server failed"},
    {SEC_E_CERT_UNKNOWN, "The server's certificate was refused"},
    {SEC_E_CERT_EXPIRED, "The server's certificate has expired or is not valid yet"},
    {SEC_E_DECRYPT_FAILURE, "The encrypted data from the server is damaged"},
    {SEC_E_ALGORITHM_MISMATCH, "The server and the client have no TLS version or cipher in common"},
};

}  // namespace

CBlockingSocketException::CBlockingSocketException(const char* operation)
    : m_nError(WSAGetLastError()), m_strMessage(operation) {
    if (IsTlsError(m_nError)) m_strDetail = WSATlsGetLastFailure();
}

int CBlockingSocketException::GetErrorDescription(char* buffer) const {
    for (const Sentence& s : kSentences) {
        if (s.code == m_nError) {
            if (m_strDetail.IsEmpty())
                std::snprintf(buffer, kWorkBuffer, "%s", s.text);
            else
                std::snprintf(buffer, kWorkBuffer, "%s: %s", s.text, m_strDetail.GetString());
            return 1;
        }
    }
    return 0;
}

BOOL CBlockingSocketException::GetErrorMessage(LPTSTR buf, UINT max, UINT* helpContext) const {
    char work[kWorkBuffer];
    if (m_nError == 0)
        std::snprintf(work, sizeof work, "%s error", m_strMessage.GetString());
    else if (!GetErrorDescription(work))
        std::snprintf(work, sizeof work, "%s error #%d", m_strMessage.GetString(), m_nError);
    if (buf && max > 0) {
        size_t n = std::strlen(work);
        if (n > max - 1) n = max - 1;
        std::memcpy(buf, work, n);
        buf[n] = '\0';
    }
    if (helpContext) *helpContext = 0;
    return TRUE;
}

CString CBlockingSocketException::GetErrorMessage() {
    char text[kWorkBuffer];
    GetErrorMessage(text, sizeof text, nullptr);
    m_strMessage = text;
    return m_strMessage;
}
