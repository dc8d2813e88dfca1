// TLS under send and recv, against a server made here with OpenSSL on the other end of a loopback pair,
// so that the server can do what no mail server does on demand: dribble a record, cut one in half, go
// silent, close with or without saying so.
#include "platform/WinsockTls.h"

#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/ssl.h>

#include <chrono>
#include <functional>
#include <string>
#include <thread>

#include "tests/support/TempDir.h"
#include "tests/support/TestCertificates.h"

using namespace tavik::test;

namespace {

double SecondsSince(std::chrono::steady_clock::time_point t) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t).count();
}

void SetReceiveLimit(SOCKET s, DWORD ms) {
    ASSERT_EQ(setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&ms), sizeof ms), 0);
}

// Ciphertext the server's session produced without sending it, for the test to send its own way.
std::string Sealed(SSL* ssl, const std::string& plain) {
    BIO* mem = BIO_new(BIO_s_mem());
    BIO* socketBio = SSL_get_wbio(ssl);
    BIO_up_ref(socketBio);
    SSL_set0_wbio(ssl, mem);
    SSL_write(ssl, plain.data(), static_cast<int>(plain.size()));
    char* data = nullptr;
    const long n = BIO_get_mem_data(mem, &data);
    std::string bytes(data, static_cast<size_t>(n));
    SSL_set0_wbio(ssl, socketBio);
    return bytes;
}

class WinsockTls : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        s_dir = new TempDir;
        s_authority = new TestAuthority(s_dir->path().string(), "net", "Tavik Net Test Authority");
        s_certificate =
            new TestAuthority::Issued(s_authority->Issue("peer", {"peer.tavik.test", "127.0.0.1"}));
    }
    static void TearDownTestSuite() {
        delete s_certificate;
        delete s_authority;
        delete s_dir;
    }
    void SetUp() override { ASSERT_EQ(WSAStartup(0x0101, nullptr), 0); }
    void TearDown() override {
        if (m_server.joinable()) m_server.join();
        if (m_client) closesocket(m_client);
        WSACleanup();
    }

    // A loopback pair whose server end runs script on a thread after its TLS handshake (which fails
    // quietly when the client gives up on it).
    SOCKET Connect(std::function<void(SSL*, SOCKET)> script) {
        SOCKET l = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in sa{};
        sa.sin_family = AF_INET;
        sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(bind(l, reinterpret_cast<sockaddr*>(&sa), sizeof sa), 0);
        EXPECT_EQ(listen(l, 1), 0);
        int len = sizeof sa;
        getsockname(l, reinterpret_cast<sockaddr*>(&sa), &len);
        m_client = socket(AF_INET, SOCK_STREAM, 0);
        EXPECT_EQ(connect(m_client, reinterpret_cast<sockaddr*>(&sa), sizeof sa), 0);
        SOCKET server = accept(l, nullptr, nullptr);
        closesocket(l);
        m_server = std::thread([server, script = std::move(script)] {
            SSL_CTX* ctx = SSL_CTX_new(TLS_server_method());
            SSL_CTX_use_certificate_file(ctx, s_certificate->certificateFile.c_str(), SSL_FILETYPE_PEM);
            SSL_CTX_use_PrivateKey_file(ctx, s_certificate->keyFile.c_str(), SSL_FILETYPE_PEM);
            SSL* ssl = SSL_new(ctx);
            SSL_set_fd(ssl, static_cast<int>(server));
            if (SSL_accept(ssl) == 1) script(ssl, server);
            SSL_free(ssl);
            SSL_CTX_free(ctx);
            ERR_clear_error();
            closesocket(server);
        });
        return m_client;
    }

    int Handshake(SOCKET s, const char* name = "peer.tavik.test", bool verify = true) {
        WSATLS_SETTINGS settings{name, verify ? TRUE : FALSE, s_authority->CertificateFile().c_str()};
        return WSATlsConnect(s, &settings);
    }

    SOCKET m_client = 0;
    std::thread m_server;
    static TempDir* s_dir;
    static TestAuthority* s_authority;
    static TestAuthority::Issued* s_certificate;
};

TempDir* WinsockTls::s_dir = nullptr;
TestAuthority* WinsockTls::s_authority = nullptr;
TestAuthority::Issued* WinsockTls::s_certificate = nullptr;

}  // namespace

TEST_F(WinsockTls, MegabytesBothWaysThroughSendAndRecv) {
    const size_t kSize = 5 * 1000 * 1000 + 17;
    SOCKET s = Connect([&](SSL* ssl, SOCKET) {
        // Reads everything before answering, so the client's sends pile up against a full window.
        std::string got;
        char buf[16384];
        while (got.size() < kSize) {
            int n = SSL_read(ssl, buf, sizeof buf);
            if (n <= 0) return;
            got.append(buf, static_cast<size_t>(n));
        }
        for (size_t at = 0; at < got.size();)
            at += static_cast<size_t>(
                SSL_write(ssl, got.data() + at, static_cast<int>(std::min<size_t>(got.size() - at, 100000))));
        SSL_shutdown(ssl);
    });
    ASSERT_EQ(Handshake(s), 0);
    ASSERT_EQ(Handshake(s), 0) << "again on a secured socket is no error";
    WSATLS_INFO info;
    ASSERT_EQ(WSATlsGetInfo(s, &info), 0);
    EXPECT_EQ(std::string(info.protocol), "TLSv1.3");
    EXPECT_GE(info.bits, 128);
    EXPECT_TRUE(info.verified);

    std::string data(kSize, '\0');
    for (size_t i = 0; i < kSize; ++i) data[i] = static_cast<char>(i * 7 + i / 4099);
    DWORD ms = 10000;
    setsockopt(s, SOL_SOCKET, SO_SNDTIMEO, reinterpret_cast<const char*>(&ms), sizeof ms);
    SetReceiveLimit(s, 10000);
    for (size_t at = 0; at < kSize;) {
        int n = send(s, data.data() + at, static_cast<int>(kSize - at), 0);
        ASSERT_GT(n, 0) << WSAGetLastError();
        at += static_cast<size_t>(n);
    }
    std::string back;
    std::vector<char> buf(70000);
    for (int n; (n = recv(s, buf.data(), static_cast<int>(buf.size()), 0)) > 0;)
        back.append(buf.data(), static_cast<size_t>(n));
    EXPECT_EQ(back.size(), kSize);
    EXPECT_TRUE(back == data);
    EXPECT_EQ(recv(s, buf.data(), 10, 0), 0) << "close_notify reads as a closed connection";
}

TEST_F(WinsockTls, EachRecvLastsItsTimeOutHoweverTheServerDribbles) {
    std::string record;
    SOCKET s = Connect([&](SSL* ssl, SOCKET server) {
        record = Sealed(ssl, "dribbled");
        for (char c : record) {
            std::this_thread::sleep_for(std::chrono::milliseconds(40));
            send(server, &c, 1, 0);
        }
        // A record cut in half, then the connection closed.
        const std::string cut = Sealed(ssl, "never whole");
        send(server, cut.data(), static_cast<int>(cut.size() / 2), 0);
    });
    SetReceiveLimit(s, 5000);
    ASSERT_EQ(Handshake(s), 0);
    SetReceiveLimit(s, 300);
    char buf[64] = {};
    const auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(recv(s, buf, sizeof buf, 0), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), WSAETIMEDOUT);
    const double took = SecondsSince(t0);
    EXPECT_GT(took, 0.25);
    EXPECT_LT(took, 0.9) << "bytes arriving within the limit must not stretch the call";
    // The record goes on where it stopped.
    int n = SOCKET_ERROR;
    for (int tries = 0; tries < 20 && n == SOCKET_ERROR; ++tries) n = recv(s, buf, sizeof buf, 0);
    ASSERT_EQ(n, 8);
    EXPECT_EQ(std::string(buf, 8), "dribbled");
    SetReceiveLimit(s, 5000);
    EXPECT_EQ(recv(s, buf, sizeof buf, 0), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), WSAECONNRESET) << "a record cut short is no orderly close";
}

TEST_F(WinsockTls, AClosedConnectionBetweenRecordsReadsAsZero) {
    SOCKET s = Connect([&](SSL* ssl, SOCKET) { SSL_write(ssl, "ab", 2); });
    SetReceiveLimit(s, 5000);
    ASSERT_EQ(Handshake(s), 0);
    char buf[8];
    ASSERT_EQ(recv(s, buf, 1, 0), 1);
    EXPECT_EQ(WaitForSocket(s, SOCKET_WAIT_READ, 0), 1) << "the rest of the record is already here";
    ASSERT_EQ(recv(s, buf, 8, 0), 1);
    EXPECT_EQ(buf[0], 'b');
    EXPECT_EQ(recv(s, buf, 8, 0), 0);
}

TEST_F(WinsockTls, AFailedHandshakeStaysFailedAndMisuseIsRefused) {
    SOCKET s = Connect([](SSL*, SOCKET) {});
    SetReceiveLimit(s, 5000);
    EXPECT_EQ(WSATlsConnect(s, nullptr), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), WSAEFAULT);
    WSATLS_SETTINGS unnamed{"", TRUE, nullptr};
    EXPECT_EQ(WSATlsConnect(s, &unnamed), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), WSAEINVAL);
    WSATLS_INFO info;
    EXPECT_EQ(WSATlsGetInfo(s, &info), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), WSAENOTCONN);
    EXPECT_FALSE(WSATlsActive(s));

    EXPECT_EQ(Handshake(s, "other.tavik.test"), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), SEC_E_WRONG_PRINCIPAL);
    EXPECT_EQ(std::string(WSATlsGetLastFailure()),
              "it is for peer.tavik.test, 127.0.0.1, not other.tavik.test");
    EXPECT_TRUE(IsTlsError(SEC_E_WRONG_PRINCIPAL));
    EXPECT_FALSE(IsTlsError(WSAECONNRESET));
    EXPECT_TRUE(WSATlsActive(s));
    // Nothing goes through a socket whose handshake failed, not even in plain text.
    EXPECT_EQ(send(s, "USER x\r\n", 8, 0), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), SEC_E_WRONG_PRINCIPAL);
    char buf[4];
    EXPECT_EQ(recv(s, buf, 4, 0), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), SEC_E_WRONG_PRINCIPAL);
    EXPECT_EQ(Handshake(s), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), SEC_E_WRONG_PRINCIPAL);
}

TEST_F(WinsockTls, FlagsAndNonBlockingModeAreNotForTlsSockets) {
    SOCKET s = Connect([](SSL* ssl, SOCKET) {
        char buf[4];
        SSL_read(ssl, buf, sizeof buf);
    });
    SetReceiveLimit(s, 5000);
    ASSERT_EQ(Handshake(s, "127.0.0.1"), 0) << "an address is checked against the certificate's addresses";
    char buf[4];
    EXPECT_EQ(recv(s, buf, 4, MSG_PEEK), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), WSAEOPNOTSUPP);
    EXPECT_EQ(send(s, "x", 1, MSG_OOB), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), WSAEOPNOTSUPP);
    ULONG on = 1;
    EXPECT_EQ(ioctlsocket(s, FIONBIO, &on), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), WSAEOPNOTSUPP);
    EXPECT_EQ(send(s, "bye", 3, 0), 3);
}
