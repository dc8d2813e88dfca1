// TLS under the socket calls: each TLS socket has a channel holding its session, and the channel moves
// ciphertext with transfers that never wait, waiting itself (for readiness) only until the call's own
// deadline. That is what keeps the Windows time-outs whole: one recv on a TLS socket lasts at most its
// SO_RCVTIMEO however the server dribbles its records, where a loop of system calls each with that
// time-out would not.
#include "platform/WinsockTls.h"

#include <atomic>
#include <chrono>
#include <climits>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/net/internal/SocketOps.h"
#include "platform/net/internal/TlsChannel.h"
#include "platform/net/internal/TlsEngine.h"

static_assert(SEC_E_UNSUPPORTED_FUNCTION == tavik::platform::net::kSecUnsupportedFunction);
static_assert(SEC_E_INTERNAL_ERROR == tavik::platform::net::kSecInternalError);
static_assert(SEC_E_WRONG_PRINCIPAL == tavik::platform::net::kSecWrongPrincipal);
static_assert(SEC_E_UNTRUSTED_ROOT == tavik::platform::net::kSecUntrustedRoot);
static_assert(SEC_E_ILLEGAL_MESSAGE == tavik::platform::net::kSecIllegalMessage);
static_assert(SEC_E_CERT_UNKNOWN == tavik::platform::net::kSecCertUnknown);
static_assert(SEC_E_CERT_EXPIRED == tavik::platform::net::kSecCertExpired);
static_assert(SEC_E_DECRYPT_FAILURE == tavik::platform::net::kSecDecryptFailure);
static_assert(SEC_E_ALGORITHM_MISMATCH == tavik::platform::net::kSecAlgorithmMismatch);

namespace tavik::platform::net {
namespace {

using Clock = std::chrono::steady_clock;

// Ciphertext read from the socket at a time, and plaintext encrypted per send: a few records, so that
// large transfers take few system calls while a send never holds much that the peer has not taken.
constexpr size_t kReadChunk = 64 * 1024;
constexpr int kSendChunk = 256 * 1024;

thread_local std::string t_lastFailure;

struct Channel {
    std::unique_ptr<TlsEngine> engine;
    bool established = false;
    bool peerClosed = false;
    TlsFailure failure;  // code 0 while the channel is usable
    std::vector<char> buffer = std::vector<char>(kReadChunk);
};

std::mutex g_mutex;
std::unordered_map<int, std::shared_ptr<Channel>> g_channels;
std::atomic<int> g_count{0};

std::shared_ptr<Channel> Find(int fd) {
    if (g_count.load(std::memory_order_acquire) == 0) return nullptr;
    std::lock_guard lock(g_mutex);
    auto it = g_channels.find(fd);
    return it == g_channels.end() ? nullptr : it->second;
}

std::shared_ptr<Channel> Remove(int fd) {
    if (g_count.load(std::memory_order_acquire) == 0) return nullptr;
    std::lock_guard lock(g_mutex);
    auto it = g_channels.find(fd);
    if (it == g_channels.end()) return nullptr;
    auto channel = it->second;
    g_channels.erase(it);
    g_count.fetch_sub(1, std::memory_order_release);
    return channel;
}

// The end of one call: `forever` when the socket has no time-out.
struct Deadline {
    explicit Deadline(int milliseconds)
        : forever(milliseconds <= 0), at(Clock::now() + std::chrono::milliseconds(milliseconds)) {}
    static Deadline Now() { return Deadline(true); }
    bool forever;
    Clock::time_point at;

private:
    explicit Deadline(bool) : forever(false), at(Clock::now()) {}
};

// 1 ready, 0 the deadline passed, -1 failed.
int Wait(int fd, bool forWrite, const Deadline& d, int& error) {
    if (d.forever) return OsWait(fd, forWrite, -1, 0, error);
    const auto left = std::chrono::duration_cast<std::chrono::microseconds>(d.at - Clock::now()).count();
    if (left <= 0) return 0;
    return OsWait(fd, forWrite, static_cast<long>(left / 1000000), static_cast<long>(left % 1000000), error);
}

// Sends the channel's pending ciphertext: 1 all gone, 0 the deadline passed first, -1 failed.
int Flush(int fd, Channel& c, const Deadline& d, int& error) {
    for (std::string_view out = c.engine->Output(); !out.empty(); out = c.engine->Output()) {
        int e = 0;
        const long n =
            OsSend(fd, out.data(), static_cast<int>(std::min<size_t>(out.size(), INT_MAX)), kMsgDontWait, e);
        if (n > 0) {
            c.engine->Sent(static_cast<size_t>(n));
            continue;
        }
        if (n < 0 && e != 10035) {
            error = e;
            return -1;
        }
        const int w = Wait(fd, true, d, error);
        if (w <= 0) return w;
    }
    return 1;
}

// Reads ciphertext into the engine: 1 some came, 2 the peer closed, 0 the deadline passed, -1 failed.
int Fill(int fd, Channel& c, const Deadline& d, int& error) {
    for (;;) {
        int e = 0;
        const long n = OsRecv(fd, c.buffer.data(), static_cast<int>(c.buffer.size()), kMsgDontWait, e);
        if (n > 0) {
            c.engine->Input(c.buffer.data(), static_cast<size_t>(n));
            return 1;
        }
        if (n == 0) return 2;
        if (e != 10035) {
            error = e;
            return -1;
        }
        const int w = Wait(fd, false, d, error);
        if (w <= 0) return w;
    }
}

int Failed(Channel& c, TlsFailure failure, int& error) {
    c.failure = std::move(failure);
    t_lastFailure = c.failure.detail;
    error = c.failure.code;
    return -1;
}

int Refused(const Channel& c, int& error) {
    t_lastFailure = c.failure.detail;
    error = c.failure.code;
    return -1;
}

int TimedOut(int& error) {
    error = 10060;
    return -1;
}

int Handshake(int fd, const WSATLS_SETTINGS& settings, int& error) {
    std::shared_ptr<Channel> c = Find(fd);
    if (!c) {
        TlsSettings s;
        s.serverName = settings.serverName;
        s.verify = settings.verifyCertificate != FALSE;
        if (settings.trustFile) s.trustFile = settings.trustFile;
        TlsFailure failure;
        c = std::make_shared<Channel>();
        c->engine = TlsEngine::NewClient(s, failure);
        if (!c->engine) {
            t_lastFailure = failure.detail;
            error = failure.code;
            return -1;
        }
        std::lock_guard lock(g_mutex);
        if (g_channels.emplace(fd, c).second) g_count.fetch_add(1, std::memory_order_release);
    }
    if (c->failure.code != 0) return Refused(*c, error);
    if (c->established) return 0;
    const Deadline d(CachedTimeout(fd, false));
    for (;;) {
        TlsFailure failure;
        const TlsEngine::Status status = c->engine->Handshake(failure);
        if (status == TlsEngine::kFailed) {
            int ignored = 0;
            Flush(fd, *c, Deadline::Now(), ignored);  // the alert that says why, if it fits
            return Failed(*c, failure, error);
        }
        const int flushed = Flush(fd, *c, d, error);
        if (flushed < 0) return Failed(*c, {error, "the connection failed during the TLS handshake"}, error);
        if (flushed == 0) return TimedOut(error);
        if (status == TlsEngine::kDone) {
            c->established = true;
            return 0;
        }
        const int filled = Fill(fd, *c, d, error);
        if (filled == 0) return TimedOut(error);
        // A reset is how a server that refuses the handshake often hangs up; other failures are the
        // socket's own.
        if (filled < 0 && error != 10053 && error != 10054)
            return Failed(*c, {error, "the connection failed during the TLS handshake"}, error);
        if (filled != 1) {
            // Whatever came before the close may say why (a server that speaks plain text here).
            if (c->engine->Handshake(failure) == TlsEngine::kFailed) return Failed(*c, failure, error);
            return Failed(
                *c, {kSecIllegalMessage, "the server closed the connection during the TLS handshake"}, error);
        }
    }
}

}  // namespace

bool TlsAttached(int fd) { return Find(fd) != nullptr; }

long TlsSend(int fd, const char* data, int length, int& error) {
    std::shared_ptr<Channel> c = Find(fd);
    if (!c) return OsSend(fd, data, length, 0, error);
    if (c->failure.code != 0) return Refused(*c, error);
    if (!c->established) {
        error = 10057;  // WSAENOTCONN: no plaintext before the handshake is through
        return -1;
    }
    // What an earlier send left must go first; nothing new is taken until it has.
    const int flushed = Flush(fd, *c, Deadline(CachedTimeout(fd, true)), error);
    if (flushed < 0) return -1;
    if (flushed == 0) return TimedOut(error);
    if (length == 0) return 0;
    const int n = std::min(length, kSendChunk);
    TlsFailure failure;
    if (!c->engine->Encrypt(data, static_cast<size_t>(n), failure)) return Failed(*c, failure, error);
    // The bytes are taken: what the system cannot take now goes out with the next call on the socket.
    int ignored = 0;
    if (Flush(fd, *c, Deadline::Now(), ignored) < 0) {
        error = ignored;
        return -1;
    }
    return n;
}

long TlsRecv(int fd, char* data, int length, int& error) {
    std::shared_ptr<Channel> c = Find(fd);
    if (!c) return OsRecv(fd, data, length, 0, error);
    if (c->failure.code != 0) return Refused(*c, error);
    if (!c->established) {
        error = 10057;
        return -1;
    }
    if (length == 0) return 0;
    const Deadline d(CachedTimeout(fd, false));
    for (;;) {
        TlsFailure failure;
        const long n = c->engine->Decrypt(data, static_cast<size_t>(length), failure);
        if (n >= 0) {
            int ignored = 0;
            Flush(fd, *c, Deadline::Now(), ignored);  // an answer the peer's records asked for
            return n;
        }
        if (n == -2) return Failed(*c, failure, error);
        if (c->peerClosed) {
            // A close between records is an ordinary end; one inside a record cut the data short.
            if (!c->engine->InputPending()) return 0;
            error = 10054;
            return -1;
        }
        // A reply cannot come before the request has gone out whole.
        const int flushed = Flush(fd, *c, d, error);
        if (flushed < 0) return -1;
        if (flushed == 0) return TimedOut(error);
        const int filled = Fill(fd, *c, d, error);
        if (filled < 0) return -1;
        if (filled == 0) return TimedOut(error);
        if (filled == 2) c->peerClosed = true;
    }
}

bool TlsReadable(int fd) {
    std::shared_ptr<Channel> c = Find(fd);
    // Records already read from the system count: the socket itself may have nothing more to say.
    return c && c->established && c->failure.code == 0 &&
           (c->engine->PlaintextPending() || c->engine->InputPending());
}

void TlsClose(int fd) {
    std::shared_ptr<Channel> c = Remove(fd);
    if (!c || !c->established || c->failure.code != 0) return;
    c->engine->Close();
    int ignored = 0;
    Flush(fd, *c, Deadline::Now(), ignored);
}

void TlsForget(int fd) { Remove(fd); }

}  // namespace tavik::platform::net

bool IsTlsError(int error) {
    switch (error) {
        case SEC_E_UNSUPPORTED_FUNCTION:
        case SEC_E_INTERNAL_ERROR:
        case SEC_E_WRONG_PRINCIPAL:
        case SEC_E_UNTRUSTED_ROOT:
        case SEC_E_ILLEGAL_MESSAGE:
        case SEC_E_CERT_UNKNOWN:
        case SEC_E_CERT_EXPIRED:
        case SEC_E_DECRYPT_FAILURE:
        case SEC_E_ALGORITHM_MISMATCH:
            return true;
        default:
            return false;
    }
}

int WSATlsConnect(SOCKET s, const WSATLS_SETTINGS* settings) {
    int fd = 0, error = 0;
    tavik::platform::net::t_lastFailure.clear();
    if (!tavik::platform::net::UsableSocket(s, fd)) return SOCKET_ERROR;
    if (!settings || !settings->serverName) {
        WSASetLastError(WSAEFAULT);
        return SOCKET_ERROR;
    }
    if (!*settings->serverName) {
        WSASetLastError(WSAEINVAL);
        return SOCKET_ERROR;
    }
    if (tavik::platform::net::Handshake(fd, *settings, error) == 0) return 0;
    WSASetLastError(error);
    return SOCKET_ERROR;
}

int WSATlsGetInfo(SOCKET s, WSATLS_INFO* info) {
    int fd = 0;
    if (!tavik::platform::net::UsableSocket(s, fd)) return SOCKET_ERROR;
    if (!info) {
        WSASetLastError(WSAEFAULT);
        return SOCKET_ERROR;
    }
    std::shared_ptr<tavik::platform::net::Channel> c = tavik::platform::net::Find(fd);
    if (!c || !c->established || c->failure.code != 0) {
        WSASetLastError(WSAENOTCONN);
        return SOCKET_ERROR;
    }
    std::memset(info, 0, sizeof *info);
    std::strncpy(info->protocol, c->engine->Protocol().c_str(), sizeof info->protocol - 1);
    std::strncpy(info->cipher, c->engine->Cipher().c_str(), sizeof info->cipher - 1);
    info->bits = c->engine->Bits();
    info->verified = c->engine->Verified() ? TRUE : FALSE;
    return 0;
}

BOOL WSATlsActive(SOCKET s) {
    int fd = 0;
    if (!tavik::platform::net::UsableSocket(s, fd)) return FALSE;
    return tavik::platform::net::Find(fd) ? TRUE : FALSE;
}

const char* WSATlsGetLastFailure() { return tavik::platform::net::t_lastFailure.c_str(); }
