// Where Winsock.cpp and WinsockTls.cpp meet: the calls on a socket that carries TLS go to its channel,
// and the channel asks the Windows side for what only it knows (the start-up count, the time-outs last
// set on a socket).
#pragma once

#include <cstdint>

namespace tavik::platform::net {

// Winsock.cpp: the checks every call makes on its handle (last error set when it fails), and the
// SO_SNDTIMEO (sending) or SO_RCVTIMEO value last set on fd in milliseconds, 0 when never set.
bool UsableSocket(std::uintptr_t s, int& fd);
int CachedTimeout(int fd, bool sending);

// WinsockTls.cpp. TlsAttached is cheap while no socket carries TLS.
bool TlsAttached(int fd);
// send and recv on a TLS socket: the same results and codes as the plain calls.
long TlsSend(int fd, const char* data, int length, int& error);
long TlsRecv(int fd, char* data, int length, int& error);
// Bytes already taken from the system wait to be read (decrypted, or records not yet decrypted), so a
// readiness wait need not ask the system.
bool TlsReadable(int fd);
// Before the descriptor is closed: tells the peer (close_notify, if it fits without waiting) and forgets
// the channel.
void TlsClose(int fd);
// A new descriptor with this number: a channel left behind is dropped without a word.
void TlsForget(int fd);

}  // namespace tavik::platform::net
