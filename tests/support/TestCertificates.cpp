#include "tests/support/TestCertificates.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>

#include <cstdio>
#include <stdexcept>

namespace tavik::test {

namespace {

[[noreturn]] void Fail(const std::string& what) { throw std::runtime_error("test certificates: " + what); }

EVP_PKEY* NewKey() {
    EVP_PKEY* key = EVP_EC_gen("P-256");
    if (!key) Fail("cannot make a key");
    return key;
}

void AddExtension(X509* cert, X509* issuer, int nid, const char* value) {
    X509V3_CTX ctx;
    X509V3_set_ctx_nodb(&ctx);
    X509V3_set_ctx(&ctx, issuer, cert, nullptr, nullptr, 0);
    X509_EXTENSION* ext = X509V3_EXT_conf_nid(nullptr, &ctx, nid, value);
    if (!ext) Fail(std::string("bad extension ") + value);
    X509_add_ext(cert, ext, -1);
    X509_EXTENSION_free(ext);
}

X509* NewCertificate(EVP_PKEY* key, const std::string& commonName, long serial, long validFrom,
                     long validTo) {
    X509* cert = X509_new();
    if (!cert) Fail("cannot make a certificate");
    X509_set_version(cert, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(cert), serial);
    X509_gmtime_adj(X509_getm_notBefore(cert), validFrom);
    X509_gmtime_adj(X509_getm_notAfter(cert), validTo);
    X509_set_pubkey(cert, key);
    X509_NAME* name = X509_get_subject_name(cert);
    X509_NAME_add_entry_by_txt(name, "O", MBSTRING_ASC, reinterpret_cast<const unsigned char*>("Tavik tests"),
                               -1, -1, 0);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>(commonName.c_str()), -1, -1, 0);
    return cert;
}

void Write(const std::string& path, X509* cert, EVP_PKEY* key) {
    FILE* f = std::fopen(path.c_str(), "wb");
    if (!f) Fail("cannot write " + path);
    const bool ok = cert ? PEM_write_X509(f, cert) == 1
                         : PEM_write_PrivateKey(f, key, nullptr, nullptr, 0, nullptr, nullptr) == 1;
    std::fclose(f);
    if (!ok) Fail("cannot write " + path);
    ::chmod(path.c_str(), 0644);
}

bool IsAddress(const std::string& name) {
    ASN1_OCTET_STRING* ip = a2i_IPADDRESS(name.c_str());
    ASN1_OCTET_STRING_free(ip);
    return ip != nullptr;
}

}  // namespace

struct TestAuthority::Keys {
    EVP_PKEY* key = nullptr;
    X509* cert = nullptr;
    ~Keys() {
        X509_free(cert);
        EVP_PKEY_free(key);
    }
};

TestAuthority::TestAuthority(const std::string& dir, const std::string& fileStem,
                             const std::string& commonName)
    : m_keys(std::make_unique<Keys>()), m_dir(dir), m_caFile(dir + "/" + fileStem + "-ca.pem") {
    m_keys->key = NewKey();
    m_keys->cert = NewCertificate(m_keys->key, commonName, m_serial++, -24L * 3600, 3650L * 24 * 3600);
    X509_set_issuer_name(m_keys->cert, X509_get_subject_name(m_keys->cert));
    AddExtension(m_keys->cert, m_keys->cert, NID_basic_constraints, "critical,CA:TRUE");
    AddExtension(m_keys->cert, m_keys->cert, NID_key_usage, "critical,keyCertSign,cRLSign");
    AddExtension(m_keys->cert, m_keys->cert, NID_subject_key_identifier, "hash");
    if (X509_sign(m_keys->cert, m_keys->key, EVP_sha256()) == 0) Fail("cannot sign the authority");
    Write(m_caFile, m_keys->cert, nullptr);
}

TestAuthority::~TestAuthority() = default;

TestAuthority::Issued TestAuthority::Issue(const std::string& fileStem, const std::vector<std::string>& names,
                                           long validFrom, long validTo) {
    if (names.empty()) Fail("a certificate needs a name");
    EVP_PKEY* key = NewKey();
    X509* cert = NewCertificate(key, names.front(), m_serial++, validFrom, validTo);
    X509_set_issuer_name(cert, X509_get_subject_name(m_keys->cert));
    std::string alt;
    for (const std::string& n : names)
        alt += (alt.empty() ? "" : ",") + std::string(IsAddress(n) ? "IP:" : "DNS:") + n;
    AddExtension(cert, m_keys->cert, NID_subject_alt_name, alt.c_str());
    AddExtension(cert, m_keys->cert, NID_basic_constraints, "critical,CA:FALSE");
    AddExtension(cert, m_keys->cert, NID_ext_key_usage, "serverAuth");
    AddExtension(cert, m_keys->cert, NID_authority_key_identifier, "keyid");
    Issued issued{m_dir + "/" + fileStem + ".pem", m_dir + "/" + fileStem + ".key"};
    const bool signedOk = X509_sign(cert, m_keys->key, EVP_sha256()) != 0;
    if (signedOk) {
        Write(issued.certificateFile, cert, nullptr);
        Write(issued.keyFile, nullptr, key);
    }
    X509_free(cert);
    EVP_PKEY_free(key);
    if (!signedOk) Fail("cannot sign " + fileStem);
    return issued;
}

}  // namespace tavik::test
