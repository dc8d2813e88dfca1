// One client TLS session over byte buffers, with no socket of its own: ciphertext from the peer goes in
// with Input, ciphertext for the peer comes out of Output. The socket side (WinsockTls.cpp) moves the
// bytes and keeps the time limits. Only plain types cross this header, so OpenSSL stays in its file.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

namespace tavik::platform::net {

// Schannel's SEC_E_* values (platform/WinsockTls.h names them), for files that cannot see that header.
constexpr int kSecUnsupportedFunction = static_cast<int>(0x80090302u);
constexpr int kSecInternalError = static_cast<int>(0x80090304u);
constexpr int kSecWrongPrincipal = static_cast<int>(0x80090322u);
constexpr int kSecUntrustedRoot = static_cast<int>(0x80090325u);
constexpr int kSecIllegalMessage = static_cast<int>(0x80090326u);
constexpr int kSecCertUnknown = static_cast<int>(0x80090327u);
constexpr int kSecCertExpired = static_cast<int>(0x80090328u);
constexpr int kSecDecryptFailure = static_cast<int>(0x80090330u);
constexpr int kSecAlgorithmMismatch = static_cast<int>(0x80090331u);

struct TlsSettings {
    std::string serverName;
    bool verify = true;
    std::string trustFile;
};

// A failure: a SEC_E_* (or Windows Sockets) code and a sentence of detail, possibly empty.
struct TlsFailure {
    int code = 0;
    std::string detail;
};

class TlsEngine {
public:
    // Null with failure filled when the settings cannot be used (an unreadable trust file).
    static std::unique_ptr<TlsEngine> NewClient(const TlsSettings& settings, TlsFailure& failure);
    virtual ~TlsEngine() = default;

    enum Status { kDone, kWantInput, kFailed };

    // Moves the handshake on as far as the input allows.
    virtual Status Handshake(TlsFailure& failure) = 0;
    // Encrypts all n bytes into the output (the handshake must be done).
    virtual bool Encrypt(const char* data, size_t n, TlsFailure& failure) = 0;
    // Decrypts into buffer: the byte count (> 0), 0 once the peer has closed TLS (close_notify), -1 when
    // more input is needed, -2 on failure.
    virtual long Decrypt(char* buffer, size_t n, TlsFailure& failure) = 0;
    // Queues close_notify.
    virtual void Close() = 0;

    // Ciphertext from the peer.
    virtual void Input(const char* data, size_t n) = 0;
    // Ciphertext received but not yet taken apart: a partial record, or records behind the plaintext
    // already handed out.
    virtual bool InputPending() const = 0;
    // Plaintext decrypted and not handed out yet.
    virtual bool PlaintextPending() const = 0;
    // Ciphertext waiting to be sent; Sent drops its first n bytes.
    virtual std::string_view Output() = 0;
    virtual void Sent(size_t n) = 0;

    // The agreed version and cipher, after the handshake.
    virtual std::string Protocol() const = 0;
    virtual std::string Cipher() const = 0;
    virtual int Bits() const = 0;
    virtual bool Verified() const = 0;
};

}  // namespace tavik::platform::net
