// `tavik check` and `tavik send` over TLS as a new user runs them (the program itself, a fresh home
// directory, the password in a file) against a private Dovecot and an Exim that wants a login, both with
// a certificate from an authority the test makes.
#include <gtest/gtest.h>

#include <sys/wait.h>

#include <cstdio>
#include <string>

#include "tests/support/DovecotServer.h"
#include "tests/support/EximServer.h"
#include "tests/support/TempDir.h"
#include "tests/support/TestCertificates.h"

using namespace tavik::test;

namespace {

struct ShellRun {
    int rc;
    std::string output;
};

ShellRun Shell(const std::string& command) {
    ShellRun r{-1, ""};
    if (FILE* p = ::popen(command.c_str(), "r")) {
        char buf[4096];
        for (size_t n; (n = std::fread(buf, 1, sizeof buf, p)) > 0;) r.output.append(buf, n);
        int status = ::pclose(p);
        r.rc = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    return r;
}

class TlsProgram : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        s_pki = new TempDir;
        s_authority = new TestAuthority(s_pki->path().string(), "tavik", "Tavik Test Authority");
        const auto certificate = s_authority->Issue("mail", {"localhost"});
        s_dovecot = new DovecotServer;
        for (int i = 1; i <= 3; ++i) s_dovecot->AddMessage(MakeTestMessage(i).text);
        s_dovecot->EnableTls(certificate.certificateFile, certificate.keyFile);
        s_dovecot->Start();
        s_exim = new EximServer(s_dovecot->Dir() + "/Maildir");
        s_exim->EnableTls(certificate.certificateFile, certificate.keyFile);
        s_exim->AddMainOptions("acl_smtp_mail = accept authenticated = *\n");
        s_exim->SetAuthenticators(
            "plain:\n  driver = plaintext\n  public_name = PLAIN\n  server_prompts = :\n"
            "  server_advertise_condition = ${if def:tls_in_cipher}\n"
            "  server_condition = ${if and{{eq{$auth2}{carol}}{eq{$auth3}{Carol's pass}}}}\n"
            "  server_set_id = $auth2\n");
        s_exim->Start();
    }
    static void TearDownTestSuite() {
        delete s_exim;
        delete s_dovecot;
        delete s_authority;
        delete s_pki;
    }
    void SetUp() override { WriteFile(home.file("password"), s_dovecot->Password() + "\n"); }

    // tavik with its arguments, from a fresh home directory, standard error joined to the output.
    ShellRun Tavik(const std::string& arguments) {
        return Shell("cd " + home.path().string() + " && env -u TAVIK_REGISTRY -u TAVIK_PASSWORD HOME=" +
                     home.path().string() + " " TAVIK_PROGRAM " " + arguments + " 2>&1");
    }
    std::string Check(const std::string& more) {
        return "check --server localhost --user alice --password-file password " + more;
    }

    TempDir home;
    static TempDir* s_pki;
    static TestAuthority* s_authority;
    static DovecotServer* s_dovecot;
    static EximServer* s_exim;
};

TempDir* TlsProgram::s_pki = nullptr;
TestAuthority* TlsProgram::s_authority = nullptr;
DovecotServer* TlsProgram::s_dovecot = nullptr;
EximServer* TlsProgram::s_exim = nullptr;

}  // namespace

TEST_F(TlsProgram, CheckOverStlsAndPop3sShowsWhatWasAgreed) {
    const std::string ca = " --ca-file " + s_authority->CertificateFile();
    for (const std::string& how : {"--tls starttls --port " + std::to_string(s_dovecot->Port()),
                                   "--tls implicit --port " + std::to_string(s_dovecot->TlsPort())}) {
        SCOPED_TRACE(how);
        const ShellRun run = Tavik(Check(how + ca));
        ASSERT_EQ(run.rc, 0) << run.output;
        EXPECT_NE(run.output.find("] Secure connection: TLSv1.3, TLS_"), std::string::npos) << run.output;
        EXPECT_NE(run.output.find("] PASS xxxxxxx\n"), std::string::npos) << run.output;
        EXPECT_NE(run.output.find("Message 3: cheap watches!!!"), std::string::npos) << run.output;
        EXPECT_NE(run.output.find("\n3 messages\n"), std::string::npos) << run.output;
        EXPECT_EQ(run.output.find(s_dovecot->Password()), std::string::npos);
    }
}

TEST_F(TlsProgram, AnUntrustedCertificateStopsTheCheckUntilTheUserSaysOtherwise) {
    const std::string port = " --tls implicit --port " + std::to_string(s_dovecot->TlsPort());
    const ShellRun refused = Tavik(Check(port));
    EXPECT_EQ(refused.rc, 1);
    EXPECT_NE(
        refused.output.find("tavik: check failed: The server's certificate is not signed by a trusted "
                            "authority: it was issued by O = Tavik tests, CN = Tavik Test Authority, which "
                            "is not trusted here\ntavik: --ca-file FILE trusts"),
        std::string::npos)
        << refused.output;
    EXPECT_EQ(refused.output.find("USER"), std::string::npos) << refused.output;

    const ShellRun insecure = Tavik(Check(port + " --insecure"));
    ASSERT_EQ(insecure.rc, 0) << insecure.output;
    EXPECT_NE(insecure.output.find("-bit key, certificate not checked\n"), std::string::npos)
        << insecure.output;

    const ShellRun bad = Tavik(Check("--tls sometimes"));
    EXPECT_EQ(bad.rc, 2);
    EXPECT_NE(bad.output.find("--tls takes none, starttls or implicit, not 'sometimes'"), std::string::npos);
}

TEST_F(TlsProgram, SendLogsInOverStartTlsWithoutShowingThePassword) {
    WriteFile(home.file("smtp-password"), "Carol's pass\n");
    WriteFile(home.file("text"), "Over TLS, with a login.\n");
    const std::string send = "send --server localhost --port " + std::to_string(s_exim->Port()) +
                             " --tls starttls --ca-file " + s_authority->CertificateFile() +
                             " --from carol@example.org --to alice@tavik.test --subject Login --body text";
    const ShellRun sent = Tavik(send + " --user carol --password-file smtp-password");
    ASSERT_EQ(sent.rc, 0) << sent.output << s_exim->Log();
    EXPECT_NE(sent.output.find("\n> STARTTLS\n< 220 "), std::string::npos) << sent.output;
    EXPECT_NE(sent.output.find("\n* Secure connection: TLSv1.3, TLS_"), std::string::npos) << sent.output;
    EXPECT_NE(sent.output.find("\n> AUTH PLAIN xxxxxxx\n< 235 "), std::string::npos) << sent.output;
    EXPECT_EQ(sent.output.find("Carol's pass"), std::string::npos) << sent.output;
    EXPECT_EQ(sent.output.find("AGNhcm9s"), std::string::npos) << "the credentials in Base64";
    EXPECT_TRUE(s_exim->WaitForMessages(1));

    const ShellRun refused = Tavik(send);
    EXPECT_EQ(refused.rc, 1);
    EXPECT_NE(refused.output.find("tavik send: 550 Administrative prohibition"), std::string::npos)
        << refused.output;

    const ShellRun plain = Tavik("send --server localhost --port " + std::to_string(s_exim->Port()) +
                                 " --from carol@example.org --to alice@tavik.test --body text"
                                 " --user carol --password-file smtp-password");
    EXPECT_EQ(plain.rc, 1);
    EXPECT_NE(plain.output.find("tavik send: The password is sent only over an encrypted connection"),
              std::string::npos)
        << plain.output;
}
