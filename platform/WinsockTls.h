// TLS on a connected stream socket of this layer, for the mail clients' encrypted connections.
//
// Windows puts TLS behind SSPI (Schannel), where a program encrypts and decrypts every buffer itself;
// here the layer does it under the socket: once WSATlsConnect has completed on a socket, send and recv
// on that socket carry plaintext over TLS and keep their Windows behaviour (the SO_SNDTIMEO /
// SO_RCVTIMEO limits, WSAETIMEDOUT when they run out, 0 from recv once the peer has closed). Failures of
// TLS itself are the SEC_E_* codes Schannel reports, left for WSAGetLastError like any other code, with
// a sentence of detail (names, dates) from WSATlsGetLastFailure.
//
// Certificates are checked by default against the system's trust store (plus an optional file of
// authorities) and against the server's name. TLS 1.2 is the oldest version offered; renegotiation is
// refused. Only blocking use is supported: FIONBIO on a TLS socket fails with WSAEOPNOTSUPP, and send
// and recv with flags (MSG_PEEK, MSG_OOB) fail the same way.
#pragma once

#include "platform/Winsock.h"

// Schannel's codes for what can go wrong in TLS (HRESULTs, negative as int).
constexpr int SEC_E_UNSUPPORTED_FUNCTION = static_cast<int>(0x80090302u);
constexpr int SEC_E_INTERNAL_ERROR = static_cast<int>(0x80090304u);
constexpr int SEC_E_WRONG_PRINCIPAL = static_cast<int>(0x80090322u);
constexpr int SEC_E_UNTRUSTED_ROOT = static_cast<int>(0x80090325u);
constexpr int SEC_E_ILLEGAL_MESSAGE = static_cast<int>(0x80090326u);
constexpr int SEC_E_CERT_UNKNOWN = static_cast<int>(0x80090327u);
constexpr int SEC_E_CERT_EXPIRED = static_cast<int>(0x80090328u);
constexpr int SEC_E_DECRYPT_FAILURE = static_cast<int>(0x80090330u);
constexpr int SEC_E_ALGORITHM_MISMATCH = static_cast<int>(0x80090331u);

// True for the codes above.
bool IsTlsError(int error);

struct WSATLS_SETTINGS {
    // The name the server's certificate must carry: a host name (also sent as the server name
    // indication) or a dotted address. Required.
    const char* serverName;
    // FALSE accepts any certificate; the connection is still encrypted, but anyone on the way can read it.
    BOOL verifyCertificate;
    // A PEM file of further trusted authorities, or null for the system's store alone.
    const char* trustFile;
};

// Starts TLS as the client on s, which must be connected (after STLS or STARTTLS, no plaintext byte may
// be left unread between the server's reply and the handshake). The handshake may take several calls:
// each call lasts at most the socket's SO_RCVTIMEO (0: no limit) and fails with WSAETIMEDOUT when that
// runs out, and a later call on the same socket goes on where it stopped (settings are read on the first
// call only). Returns 0 once the handshake is complete (again 0 on later calls). A failed handshake
// leaves one of the SEC_E_* codes (or a socket code such as WSAECONNRESET), and every later call on the
// socket, send and recv included, fails with the same code until it is closed.
int WSATlsConnect(SOCKET s, const WSATLS_SETTINGS* settings);

struct WSATLS_INFO {
    char protocol[32];  // "TLSv1.3"
    char cipher[64];    // "TLS_AES_256_GCM_SHA384"
    int bits;           // the cipher's key length
    BOOL verified;      // the certificate was checked (FALSE when verification was turned off)
};

// What the completed handshake on s agreed. Fails with WSAENOTCONN when s has no completed TLS.
int WSATlsGetInfo(SOCKET s, WSATLS_INFO* info);

// True when s carries TLS (its handshake begun, whether or not it completed).
BOOL WSATlsActive(SOCKET s);

// The calling thread's detail for its last TLS failure: what was wrong with the certificate ("it is for
// mail.example.org, not pop.example.org"), or what the server sent instead of TLS. Empty when the last
// failure had none; valid until the thread's next TLS call.
const char* WSATlsGetLastFailure();
