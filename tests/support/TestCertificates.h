// Certificates for tests, made when the test runs: an authority of its own and the server certificates
// it signs, with any names and any validity (expired, not valid yet). Keys are fresh P-256 keys written
// beside the certificates; they protect nothing and never leave the test's directory.
#pragma once

#include <memory>
#include <string>
#include <vector>

namespace tavik::test {

class TestAuthority {
public:
    // Writes the authority's certificate to dir/<fileStem>-ca.pem.
    TestAuthority(const std::string& dir, const std::string& fileStem, const std::string& commonName);
    ~TestAuthority();
    TestAuthority(const TestAuthority&) = delete;
    TestAuthority& operator=(const TestAuthority&) = delete;

    // The authority's certificate, what a client adds to its trusted ones.
    const std::string& CertificateFile() const { return m_caFile; }

    struct Issued {
        std::string certificateFile;  // the server's certificate (PEM)
        std::string keyFile;          // its private key (PEM, readable by everyone: servers drop root)
    };
    // A server certificate for names (host names or dotted addresses), valid from now + validFrom to
    // now + validTo seconds, written to dir/<fileStem>.pem and dir/<fileStem>.key. Throws
    // std::runtime_error when OpenSSL fails.
    Issued Issue(const std::string& fileStem, const std::vector<std::string>& names, long validFrom = -3600,
                 long validTo = 30L * 24 * 3600);

private:
    struct Keys;
    std::unique_ptr<Keys> m_keys;
    std::string m_dir;
    std::string m_caFile;
    long m_serial = 1;
};

}  // namespace tavik::test
