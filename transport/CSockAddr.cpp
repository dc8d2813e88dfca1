#include "transport/CSockAddr.h"

#include <cstring>

CSockAddr::CSockAddr() : sockaddr_in{} { sin_family = AF_INET; }

CSockAddr::CSockAddr(const sockaddr& sa) : sockaddr_in{} { std::memcpy(this, &sa, sizeof(sockaddr_in)); }

CSockAddr::CSockAddr(const sockaddr_in& sin) : sockaddr_in(sin) {}

CSockAddr::CSockAddr(ULONG addr, USHORT port) : sockaddr_in{} {
    sin_family = AF_INET;
    sin_port = htons(port);
    sin_addr.s_addr = htonl(addr);
}

CSockAddr::CSockAddr(const char* dotted, USHORT port) : sockaddr_in{} {
    sin_family = AF_INET;
    sin_port = htons(port);
    sin_addr.s_addr = inet_addr(dotted);
}

CString CSockAddr::DottedDecimal() const { return CString(inet_ntoa(sin_addr)); }

CSockAddr::operator sockaddr() const {
    sockaddr sa;
    std::memcpy(&sa, this, sizeof sa);
    return sa;
}

CSockAddr& CSockAddr::operator=(const sockaddr& sa) {
    std::memcpy(this, &sa, sizeof(sockaddr_in));
    return *this;
}

CSockAddr& CSockAddr::operator=(const sockaddr_in& sin) {
    sockaddr_in::operator=(sin);
    return *this;
}
