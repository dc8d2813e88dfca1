// An IPv4 socket address with exactly the layout of SOCKADDR_IN (16 bytes, port and address in network
// order), so it can be handed to every socket call as it is.
#pragma once

#include "platform/CString.h"
#include "platform/Winsock.h"

class CSockAddr : public sockaddr_in {
public:
    // Family AF_INET, port 0, address 0.
    CSockAddr();
    // Copy all 16 bytes, family included.
    CSockAddr(const sockaddr& sa);
    CSockAddr(const sockaddr_in& sin);
    CSockAddr(const CSockAddr& other) = default;
    // Address and port in host order.
    CSockAddr(ULONG addr, USHORT port = 0);
    // Dotted-decimal address; text that does not parse gives the all-ones address (INADDR_NONE).
    CSockAddr(const char* dotted, USHORT port = 0);

    CString DottedDecimal() const;
    // Host order.
    USHORT Port() const { return ntohs(sin_port); }
    ULONG IPAddr() const { return ntohl(sin_addr.s_addr); }

    operator sockaddr() const;
    operator sockaddr*() { return reinterpret_cast<sockaddr*>(this); }
    operator const sockaddr*() const { return reinterpret_cast<const sockaddr*>(this); }
    operator sockaddr_in*() { return this; }
    operator const sockaddr_in*() const { return this; }
    CSockAddr& operator=(const CSockAddr& other) = default;
    CSockAddr& operator=(const sockaddr& sa);
    CSockAddr& operator=(const sockaddr_in& sin);
};

static_assert(sizeof(CSockAddr) == 16);
