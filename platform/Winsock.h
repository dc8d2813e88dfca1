// Windows Sockets 1.1, the part the library uses, over the host's own sockets.
//
// Names, layouts and error codes are the Windows ones: a SOCKADDR_IN is 16 bytes with port and address in
// network order, every failing call returns SOCKET_ERROR (or INVALID_SOCKET / null) and leaves a WSAE*
// code for WSAGetLastError on the calling thread. Socket calls made before WSAStartup (or after the last
// WSACleanup) fail with WSANOTINITIALISED, as on Windows. No call ever raises SIGPIPE.
//
// The system's own socket declarations never meet these in one translation unit: library code sees only
// this header, and the implementation of the system calls lives in a file that does not include it.
// Types that glibc's <cstdlib> already drags in (fd_set, timeval, u_long) are deliberately not declared;
// readiness waits are the fd_set-free WaitForSocket below.
#pragma once

#include <bit>

#include "platform/WinTypes.h"

using SOCKET = UINT_PTR;
constexpr SOCKET INVALID_SOCKET = ~static_cast<SOCKET>(0);
constexpr int SOCKET_ERROR = -1;

constexpr int AF_UNSPEC = 0;
constexpr int AF_INET = 2;
constexpr int PF_INET = AF_INET;
constexpr int SOCK_STREAM = 1;
constexpr int SOCK_DGRAM = 2;
constexpr int IPPROTO_TCP = 6;
constexpr int IPPROTO_UDP = 17;

constexpr ULONG INADDR_ANY = 0x00000000u;
constexpr ULONG INADDR_LOOPBACK = 0x7f000001u;
constexpr ULONG INADDR_BROADCAST = 0xffffffffu;
constexpr ULONG INADDR_NONE = 0xffffffffu;

// Shutdown directions.
constexpr int SD_RECEIVE = 0;
constexpr int SD_SEND = 1;
constexpr int SD_BOTH = 2;

// send/recv flags.
constexpr int MSG_OOB = 0x1;
constexpr int MSG_PEEK = 0x2;

struct in_addr {
    union {
        struct {
            BYTE s_b1, s_b2, s_b3, s_b4;
        } S_un_b;
        struct {
            USHORT s_w1, s_w2;
        } S_un_w;
        ULONG S_addr;
    } S_un;
};
#define s_addr S_un.S_addr

struct sockaddr {
    USHORT sa_family;
    char sa_data[14];
};

struct sockaddr_in {
    SHORT sin_family;
    USHORT sin_port;   // network order
    in_addr sin_addr;  // network order
    char sin_zero[8];
};

static_assert(sizeof(in_addr) == 4);
static_assert(sizeof(sockaddr) == 16);
static_assert(sizeof(sockaddr_in) == 16);

using SOCKADDR = sockaddr;
using SOCKADDR_IN = sockaddr_in;
using LPSOCKADDR = sockaddr*;
using LPSOCKADDR_IN = sockaddr_in*;
using IN_ADDR = in_addr;

// Host entry as gethostbyname returns it; points into storage owned by the calling thread that the next
// look-up on the same thread overwrites.
struct hostent {
    char* h_name;
    char** h_aliases;
    SHORT h_addrtype;
    SHORT h_length;
    char** h_addr_list;  // null-terminated list of h_length-byte addresses in network order
};
#define h_addr h_addr_list[0]
using HOSTENT = hostent;
using LPHOSTENT = hostent*;

constexpr int WSADESCRIPTION_LEN = 256;
constexpr int WSASYS_STATUS_LEN = 128;
struct WSADATA {
    WORD wVersion;
    WORD wHighVersion;
    char szDescription[WSADESCRIPTION_LEN + 1];
    char szSystemStatus[WSASYS_STATUS_LEN + 1];
    USHORT iMaxSockets;
    USHORT iMaxUdpDg;
    char* lpVendorInfo;
};
using LPWSADATA = WSADATA*;

// Windows Sockets error codes.
constexpr int WSABASEERR = 10000;
constexpr int WSAEINTR = 10004;
constexpr int WSAEBADF = 10009;
constexpr int WSAEACCES = 10013;
constexpr int WSAEFAULT = 10014;
constexpr int WSAEINVAL = 10022;
constexpr int WSAEMFILE = 10024;
constexpr int WSAEWOULDBLOCK = 10035;
constexpr int WSAEINPROGRESS = 10036;
constexpr int WSAEALREADY = 10037;
constexpr int WSAENOTSOCK = 10038;
constexpr int WSAEDESTADDRREQ = 10039;
constexpr int WSAEMSGSIZE = 10040;
constexpr int WSAEPROTOTYPE = 10041;
constexpr int WSAENOPROTOOPT = 10042;
constexpr int WSAEPROTONOSUPPORT = 10043;
constexpr int WSAESOCKTNOSUPPORT = 10044;
constexpr int WSAEOPNOTSUPP = 10045;
constexpr int WSAEPFNOSUPPORT = 10046;
constexpr int WSAEAFNOSUPPORT = 10047;
constexpr int WSAEADDRINUSE = 10048;
constexpr int WSAEADDRNOTAVAIL = 10049;
constexpr int WSAENETDOWN = 10050;
constexpr int WSAENETUNREACH = 10051;
constexpr int WSAENETRESET = 10052;
constexpr int WSAECONNABORTED = 10053;
constexpr int WSAECONNRESET = 10054;
constexpr int WSAENOBUFS = 10055;
constexpr int WSAEISCONN = 10056;
constexpr int WSAENOTCONN = 10057;
constexpr int WSAESHUTDOWN = 10058;
constexpr int WSAETOOMANYREFS = 10059;
constexpr int WSAETIMEDOUT = 10060;
constexpr int WSAECONNREFUSED = 10061;
constexpr int WSAELOOP = 10062;
constexpr int WSAENAMETOOLONG = 10063;
constexpr int WSAEHOSTDOWN = 10064;
constexpr int WSAEHOSTUNREACH = 10065;
constexpr int WSAENOTEMPTY = 10066;
constexpr int WSAEPROCLIM = 10067;
constexpr int WSAEUSERS = 10068;
constexpr int WSAEDQUOT = 10069;
constexpr int WSAESTALE = 10070;
constexpr int WSAEREMOTE = 10071;
constexpr int WSASYSNOTREADY = 10091;
constexpr int WSAVERNOTSUPPORTED = 10092;
constexpr int WSANOTINITIALISED = 10093;
constexpr int WSAEDISCON = 10101;
constexpr int WSASYSCALLFAILURE = 10107;
constexpr int WSATYPE_NOT_FOUND = 10109;
constexpr int WSAHOST_NOT_FOUND = 11001;
constexpr int WSATRY_AGAIN = 11002;
constexpr int WSANO_RECOVERY = 11003;
constexpr int WSANO_DATA = 11004;

// Start and end the caller's use of the layer. Counted: every successful WSAStartup needs one WSACleanup,
// and sockets work while the count is above zero. WSAStartup accepts versions from 1.1 up (anything below
// gives WSAVERNOTSUPPORTED, returned rather than stored); data may be null. WSACleanup without a matching
// start fails with WSANOTINITIALISED.
int WSAStartup(WORD versionRequested, WSADATA* data);
int WSACleanup();

// The calling thread's last error; the same value GetLastError sees.
int WSAGetLastError();
void WSASetLastError(int error);

// Handles are never 0, so a 0 handle can mean "no socket" to callers.
SOCKET socket(int af, int type, int protocol);
int closesocket(SOCKET s);
int shutdown(SOCKET s, int how);
int bind(SOCKET s, const sockaddr* name, int namelen);
int listen(SOCKET s, int backlog);
// addr and addrlen may both be null; otherwise *addrlen must be at least 16 and receives 16.
SOCKET accept(SOCKET s, sockaddr* addr, int* addrlen);
// An unanswered connect gives up after about 21 seconds with WSAETIMEDOUT, as on Windows. On a
// non-blocking socket (ioctlsocket FIONBIO) it fails with WSAEWOULDBLOCK while the connection is made.
int connect(SOCKET s, const sockaddr* name, int namelen);
// Return the byte count, or SOCKET_ERROR. recv returns 0 once the peer has closed its side.
int send(SOCKET s, const char* buf, int len, int flags);
int recv(SOCKET s, char* buf, int len, int flags);
int sendto(SOCKET s, const char* buf, int len, int flags, const sockaddr* to, int tolen);
int recvfrom(SOCKET s, char* buf, int len, int flags, sockaddr* from, int* fromlen);
int getpeername(SOCKET s, sockaddr* name, int* namelen);
int getsockname(SOCKET s, sockaddr* name, int* namelen);

// Boolean and integer options at SOL_SOCKET level. SO_SNDTIMEO / SO_RCVTIMEO take a DWORD of
// milliseconds (0 is no limit); a blocking call that runs out of time returns what it has moved so far,
// or fails with WSAETIMEDOUT when that is nothing.
constexpr int SOL_SOCKET = 0xffff;
constexpr int SO_REUSEADDR = 0x0004;
constexpr int SO_KEEPALIVE = 0x0008;
constexpr int SO_BROADCAST = 0x0020;
constexpr int SO_SNDBUF = 0x1001;
constexpr int SO_RCVBUF = 0x1002;
constexpr int SO_SNDTIMEO = 0x1005;
constexpr int SO_RCVTIMEO = 0x1006;
constexpr int SO_ERROR = 0x1007;
constexpr int SO_TYPE = 0x1008;
int setsockopt(SOCKET s, int level, int optname, const char* optval, int optlen);
int getsockopt(SOCKET s, int level, int optname, char* optval, int* optlen);

// Socket modes, the one command the library needs. FIONBIO with *argp non-zero makes the socket
// non-blocking: a connect then fails at once with WSAEWOULDBLOCK and goes on in the background (the
// socket turns writable when it is done and SO_ERROR gives its outcome, 0 for success), and a transfer
// that would have to wait fails with WSAEWOULDBLOCK. *argp zero makes it blocking again. Other commands
// fail with WSAEINVAL.
constexpr long FIONBIO = 0x8004667E;
int ioctlsocket(SOCKET s, long cmd, ULONG* argp);

// select on one socket without fd_set: waits until s is readable (or, with SOCKET_WAIT_WRITE, writable)
// or the limit passes. Returns 1 when ready, 0 when the limit passed (the last error is left as it was,
// as select leaves it), SOCKET_ERROR on failure. A negative seconds waits without limit. A peer's close
// or reset counts as readable, so the following recv reports it.
constexpr int SOCKET_WAIT_READ = 1;
constexpr int SOCKET_WAIT_WRITE = 2;
int WaitForSocket(SOCKET s, int what, long seconds, long microseconds = 0);

// Look-ups. The returned entry belongs to the calling thread until its next look-up. gethostbyname
// takes a name or a dotted address and returns IPv4 addresses only (the system's first address first);
// names under the reserved top-level domain "invalid" fail at once with WSAHOST_NOT_FOUND.
hostent* gethostbyname(const char* name);
// addr points at len bytes in network order; only AF_INET with len 4 is supported.
hostent* gethostbyaddr(const char* addr, int len, int type);
// Fails with WSAEFAULT when the name does not fit in namelen bytes with its terminator. In a file that
// also sees <unistd.h>, pass an int length: a size_t one picks the system's overload.
int gethostname(char* name, int namelen);

// Dotted text to a network-order address; INADDR_NONE when the text does not parse. Accepts the
// classic forms a, a.b, a.b.c and a.b.c.d with decimal, octal (leading 0) or hex (0x) parts.
ULONG inet_addr(const char* cp);
// Dotted text of a network-order address, in a buffer owned by the calling thread.
char* inet_ntoa(in_addr in);

constexpr USHORT htons(USHORT v) {
    if constexpr (std::endian::native == std::endian::big) return v;
    return static_cast<USHORT>((v << 8) | (v >> 8));
}
constexpr USHORT ntohs(USHORT v) { return htons(v); }
constexpr ULONG htonl(ULONG v) {
    if constexpr (std::endian::native == std::endian::big) return v;
    return (v >> 24) | ((v >> 8) & 0x0000ff00u) | ((v << 8) & 0x00ff0000u) | (v << 24);
}
constexpr ULONG ntohl(ULONG v) { return htonl(v); }

// Symbolic name of a Windows Sockets code ("WSAECONNREFUSED"), or null for a code outside the set above.
const char* WSAErrorName(int error);
