// The TLS session over OpenSSL, with memory buffers on both sides so that the socket side alone decides
// when to wait and for how long. OpenSSL's error queue is per thread: every operation starts from an
// empty queue and reads its own failure from it.
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <climits>
#include <cstring>
#include <map>
#include <mutex>
#include <utility>

#include "platform/net/internal/TlsEngine.h"

namespace tavik::platform::net {
namespace {

// One context per way of checking certificates, made once: loading the system's trust store takes
// milliseconds that a connection should not pay.
SSL_CTX* SharedContext(const TlsSettings& settings, TlsFailure& failure) {
    static std::mutex mutex;
    // Never destroyed: OpenSSL cleans itself up at exit before a static map could free its contexts.
    static auto& contexts = *new std::map<std::pair<bool, std::string>, SSL_CTX*>;
    std::lock_guard lock(mutex);
    const auto key = std::make_pair(settings.verify, settings.verify ? settings.trustFile : std::string());
    if (auto it = contexts.find(key); it != contexts.end()) return it->second;
    SSL_CTX* ctx = SSL_CTX_new(TLS_client_method());
    if (!ctx) {
        failure = {kSecInternalError, "OpenSSL cannot make a TLS context"};
        return nullptr;
    }
    SSL_CTX_set_min_proto_version(ctx, TLS1_2_VERSION);
    SSL_CTX_set_options(ctx, SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_COMPRESSION);
    if (settings.verify) {
        SSL_CTX_set_default_verify_paths(ctx);
        if (!key.second.empty() && SSL_CTX_load_verify_locations(ctx, key.second.c_str(), nullptr) != 1) {
            SSL_CTX_free(ctx);
            ERR_clear_error();
            failure = {kSecInternalError, "cannot read trusted authorities from " + key.second};
            return nullptr;
        }
        SSL_CTX_set_verify(ctx, SSL_VERIFY_PEER, nullptr);
    } else {
        SSL_CTX_set_verify(ctx, SSL_VERIFY_NONE, nullptr);
    }
    ERR_clear_error();
    contexts.emplace(key, ctx);
    return ctx;
}

std::string FromBio(BIO* bio) {
    char* data = nullptr;
    long n = BIO_get_mem_data(bio, &data);
    std::string text = n > 0 ? std::string(data, static_cast<size_t>(n)) : std::string();
    BIO_free(bio);
    return text;
}

std::string TimeText(const ASN1_TIME* t) {
    BIO* bio = BIO_new(BIO_s_mem());
    if (!bio) return "?";
    ASN1_TIME_print(bio, t);
    return FromBio(bio);
}

std::string NameText(const X509_NAME* name) {
    BIO* bio = BIO_new(BIO_s_mem());
    if (!bio) return "?";
    X509_NAME_print_ex(bio, name, 0, XN_FLAG_ONELINE & ~ASN1_STRFLGS_ESC_MSB);
    return FromBio(bio);
}

// The names a certificate is for: its alternative names, else its common name.
std::string CertificateNames(X509* cert) {
    std::string names;
    auto add = [&](const std::string& n) { names += (names.empty() ? "" : ", ") + n; };
    if (auto* alt =
            static_cast<GENERAL_NAMES*>(X509_get_ext_d2i(cert, NID_subject_alt_name, nullptr, nullptr))) {
        for (int i = 0; i < sk_GENERAL_NAME_num(alt); ++i) {
            const GENERAL_NAME* g = sk_GENERAL_NAME_value(alt, i);
            if (g->type == GEN_DNS) {
                add(std::string(reinterpret_cast<const char*>(ASN1_STRING_get0_data(g->d.dNSName)),
                                static_cast<size_t>(ASN1_STRING_length(g->d.dNSName))));
            } else if (g->type == GEN_IPADD && ASN1_STRING_length(g->d.iPAddress) == 4) {
                const unsigned char* a = ASN1_STRING_get0_data(g->d.iPAddress);
                add(std::to_string(a[0]) + "." + std::to_string(a[1]) + "." + std::to_string(a[2]) + "." +
                    std::to_string(a[3]));
            }
        }
        GENERAL_NAMES_free(alt);
    }
    if (names.empty()) {
        char cn[256] = {};
        if (X509_NAME_get_text_by_NID(X509_get_subject_name(cert), NID_commonName, cn, sizeof cn) > 0)
            add(cn);
    }
    return names.empty() ? "no name at all" : names;
}

// The first bytes of a reply that is not TLS, as text a user can recognise ("+OK Dovecot ready.").
std::string Printable(const std::string& bytes) {
    std::string shown;
    for (char c : bytes) {
        if (c == '\r' || c == '\n') break;
        shown += (c >= 0x20 && c < 0x7f) ? c : '?';
    }
    return shown;
}

class OpenSslEngine final : public TlsEngine {
public:
    OpenSslEngine(SSL* ssl, BIO* in, BIO* out, const TlsSettings& settings)
        : m_ssl(ssl), m_in(in), m_out(out), m_settings(settings) {}
    ~OpenSslEngine() override {
        SSL_free(m_ssl);  // frees both buffers too
        X509_free(m_leaf);
        X509_free(m_failed);
    }

    Status Handshake(TlsFailure& failure) override {
        ERR_clear_error();
        const int r = SSL_do_handshake(m_ssl);
        Drain();
        if (r == 1) return kDone;
        const int e = SSL_get_error(m_ssl, r);
        if (e == SSL_ERROR_WANT_READ) return kWantInput;
        failure = HandshakeFailure();
        ERR_clear_error();
        return kFailed;
    }

    bool Encrypt(const char* data, size_t n, TlsFailure& failure) override {
        while (n > 0) {
            ERR_clear_error();
            const int chunk = static_cast<int>(std::min<size_t>(n, 1 << 20));
            const int r = SSL_write(m_ssl, data, chunk);
            Drain();
            if (r <= 0) {
                failure = RecordFailure("cannot encrypt");
                return false;
            }
            data += r;
            n -= static_cast<size_t>(r);
        }
        return true;
    }

    long Decrypt(char* buffer, size_t n, TlsFailure& failure) override {
        ERR_clear_error();
        const int r = SSL_read(m_ssl, buffer, static_cast<int>(std::min<size_t>(n, INT_MAX)));
        Drain();  // an alert or a key update answer
        if (r > 0) return r;
        const int e = SSL_get_error(m_ssl, r);
        if (e == SSL_ERROR_ZERO_RETURN) return 0;
        if (e == SSL_ERROR_WANT_READ) return -1;
        failure = RecordFailure("the data received cannot be decrypted");
        return -2;
    }

    void Close() override {
        ERR_clear_error();
        SSL_shutdown(m_ssl);
        Drain();
        ERR_clear_error();
    }

    void Input(const char* data, size_t n) override {
        if (m_firstInput.size() < 80) m_firstInput.append(data, std::min(n, 80 - m_firstInput.size()));
        BIO_write(m_in, data, static_cast<int>(n));
    }
    bool InputPending() const override {
        // SSL_has_pending counts decrypted bytes too; only undecrypted ones matter here.
        return BIO_ctrl_pending(m_in) > 0 || (SSL_has_pending(m_ssl) && SSL_pending(m_ssl) == 0);
    }
    bool PlaintextPending() const override { return SSL_pending(m_ssl) > 0; }

    std::string_view Output() override { return std::string_view(m_pending).substr(m_sent); }
    void Sent(size_t n) override {
        m_sent += n;
        if (m_sent >= m_pending.size()) {
            m_pending.clear();
            m_sent = 0;
        }
    }

    std::string Protocol() const override { return SSL_get_version(m_ssl); }
    std::string Cipher() const override {
        const char* name = SSL_get_cipher_name(m_ssl);
        return name ? name : "";
    }
    int Bits() const override { return SSL_get_cipher_bits(m_ssl, nullptr); }
    bool Verified() const override { return m_settings.verify; }

private:
    // Moves what OpenSSL wrote into the output, dropping what was sent already.
    void Drain() {
        const size_t waiting = BIO_ctrl_pending(m_out);
        if (waiting == 0) return;
        if (m_sent > 0) {
            m_pending.erase(0, m_sent);
            m_sent = 0;
        }
        const size_t at = m_pending.size();
        m_pending.resize(at + waiting);
        const int got = BIO_read(m_out, m_pending.data() + at, static_cast<int>(waiting));
        m_pending.resize(at + static_cast<size_t>(std::max(got, 0)));
    }

    TlsFailure RecordFailure(const char* what) {
        const unsigned long e = ERR_peek_error();
        const char* reason = e ? ERR_reason_error_string(e) : nullptr;
        ERR_clear_error();
        return {kSecDecryptFailure, reason ? std::string(what) + " (" + reason + ")" : what};
    }

    TlsFailure HandshakeFailure() {
        const long verify = SSL_get_verify_result(m_ssl);
        if (m_settings.verify && verify != X509_V_OK && m_leaf) return CertificateFailure(verify);
        // A server that answers in plain text: the wrong port for this kind of security.
        if (!m_firstInput.empty() && m_firstInput[0] != 0x16 && m_firstInput[0] != 0x15)
            return {kSecIllegalMessage,
                    "the server did not answer in TLS; it sent \"" + Printable(m_firstInput) + "\""};
        const unsigned long e = ERR_peek_error();
        const char* reason = e ? ERR_reason_error_string(e) : nullptr;
        const std::string text = reason ? reason : "the handshake failed";
        if (e && ERR_GET_LIB(e) == ERR_LIB_SSL) {
            switch (ERR_GET_REASON(e)) {
                case SSL_R_SSLV3_ALERT_HANDSHAKE_FAILURE:
                case SSL_R_TLSV1_ALERT_PROTOCOL_VERSION:
                case SSL_R_TLSV1_ALERT_INSUFFICIENT_SECURITY:
                case SSL_R_NO_SHARED_CIPHER:
                case SSL_R_NO_CIPHERS_AVAILABLE:
                case SSL_R_NO_PROTOCOLS_AVAILABLE:
                case SSL_R_UNSUPPORTED_PROTOCOL:
                case SSL_R_NO_SUITABLE_SIGNATURE_ALGORITHM:
                case SSL_R_WRONG_SSL_VERSION:
                    return {kSecAlgorithmMismatch, text};
                default:
                    break;
            }
        }
        return {kSecIllegalMessage, text};
    }

    TlsFailure CertificateFailure(long verify) {
        X509* cert = m_leaf;
        X509* failed = m_failed ? m_failed : m_leaf;
        switch (verify) {
            case X509_V_ERR_HOSTNAME_MISMATCH:
            case X509_V_ERR_IP_ADDRESS_MISMATCH:
                return {kSecWrongPrincipal,
                        "it is for " + CertificateNames(cert) + ", not " + m_settings.serverName};
            case X509_V_ERR_CERT_HAS_EXPIRED:
                return {kSecCertExpired,
                        Whose(failed) + "expired on " + TimeText(X509_get0_notAfter(failed))};
            case X509_V_ERR_CERT_NOT_YET_VALID:
                return {kSecCertExpired,
                        Whose(failed) + "is valid only from " + TimeText(X509_get0_notBefore(failed))};
            case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
                return {kSecUntrustedRoot,
                        "it is self-signed (" + NameText(X509_get_subject_name(cert)) + ")"};
            case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
            case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
            case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
            case X509_V_ERR_CERT_UNTRUSTED:
            case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
                // The certificate the check stopped at names the authority nobody here trusts.
                return {kSecUntrustedRoot, "it was issued by " + NameText(X509_get_issuer_name(failed)) +
                                               ", which is not trusted here"};
            default:
                return {kSecCertUnknown, X509_verify_cert_error_string(verify)};
        }
    }

    // "it " for the server's own certificate, else the authority's in the chain.
    std::string Whose(X509* failed) const {
        if (failed == m_leaf) return "it ";
        return "the certificate of " + NameText(X509_get_subject_name(failed)) +
               ", an authority in its chain, ";
    }

public:
    // Keeps the certificates where the check failed, which OpenSSL no longer hands out afterwards.
    static int Remember(int ok, X509_STORE_CTX* store) {
        if (ok) return ok;
        auto* ssl =
            static_cast<SSL*>(X509_STORE_CTX_get_ex_data(store, SSL_get_ex_data_X509_STORE_CTX_idx()));
        auto* self = ssl ? static_cast<OpenSslEngine*>(SSL_get_ex_data(ssl, Index())) : nullptr;
        if (self && !self->m_leaf) {
            self->m_leaf = X509_STORE_CTX_get0_cert(store);
            self->m_failed = X509_STORE_CTX_get_current_cert(store);
            if (self->m_leaf) X509_up_ref(self->m_leaf);
            if (self->m_failed) X509_up_ref(self->m_failed);
        }
        return ok;
    }
    static int Index() {
        static const int index = SSL_get_ex_new_index(0, nullptr, nullptr, nullptr, nullptr);
        return index;
    }

private:
    SSL* m_ssl;
    BIO* m_in;
    BIO* m_out;
    TlsSettings m_settings;
    std::string m_pending;  // ciphertext to send, from m_sent on
    size_t m_sent = 0;
    std::string m_firstInput;
    X509* m_leaf = nullptr;
    X509* m_failed = nullptr;
};

}  // namespace

std::unique_ptr<TlsEngine> TlsEngine::NewClient(const TlsSettings& settings, TlsFailure& failure) {
    SSL_CTX* ctx = SharedContext(settings, failure);
    if (!ctx) return nullptr;
    SSL* ssl = SSL_new(ctx);
    BIO* in = BIO_new(BIO_s_mem());
    BIO* out = BIO_new(BIO_s_mem());
    if (!ssl || !in || !out) {
        SSL_free(ssl);
        BIO_free(in);
        BIO_free(out);
        ERR_clear_error();
        failure = {kSecInternalError, "OpenSSL cannot make a TLS session"};
        return nullptr;
    }
    BIO_set_mem_eof_return(in, -1);  // no input yet means "wait", not "closed"
    SSL_set_bio(ssl, in, out);
    SSL_set_connect_state(ssl);
    if (settings.verify) SSL_set_verify(ssl, SSL_VERIFY_PEER, &OpenSslEngine::Remember);
    const char* name = settings.serverName.c_str();
    if (ASN1_OCTET_STRING* ip = a2i_IPADDRESS(name)) {
        ASN1_OCTET_STRING_free(ip);
        X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(ssl), name);
    } else {
        SSL_set_tlsext_host_name(ssl, name);
        SSL_set_hostflags(ssl, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
        SSL_set1_host(ssl, name);
    }
    ERR_clear_error();
    auto engine = std::make_unique<OpenSslEngine>(ssl, in, out, settings);
    SSL_set_ex_data(ssl, OpenSslEngine::Index(), engine.get());
    return engine;
}

}  // namespace tavik::platform::net
