// `tavik send` as a new user runs it (the program itself, a fresh home directory, the text on standard
// input) against a private Exim, the message then fetched from the private Dovecot it delivers to.
#include <gtest/gtest.h>

#include <sys/wait.h>

#include <cstdio>
#include <memory>
#include <random>
#include <string>

#include "tests/support/DovecotServer.h"
#include "tests/support/EximServer.h"
#include "tests/support/TempDir.h"
#include "transport/CBase64Coding.h"
#include "transport/CPopMail.h"

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

}  // namespace

TEST(SendExim, DeliversWhatANewUserSendsFromTheCommandLine) {
    DovecotServer dovecot;
    dovecot.Start();
    EximServer exim(dovecot.Dir() + "/Maildir");
    exim.Start();
    TempDir home;

    std::mt19937 rng(7);
    std::string report(200000, '\0');
    for (auto& c : report) c = static_cast<char>(rng());
    WriteFile(home.file("report.bin"), report);
    WriteFile(home.file("text"), "Hello Alice,\nthe report, with a caf\xc3\xa9 on the side.\n");

    const std::string command =
        "cd " + home.path().string() + " && env -u TAVIK_REGISTRY HOME=" + home.path().string() +
        " " TAVIK_PROGRAM " send --server 127.0.0.1 --port " + std::to_string(exim.Port()) +
        " --from ann@example.org --to 'Alice <alice@tavik.test>' --subject Report"
        " --attach report.bin < text 2>&1";
    ShellRun sent = Shell(command);
    ASSERT_EQ(sent.rc, 0) << sent.output << exim.Log();
    EXPECT_NE(sent.output.find("\n< 250 OK id="), std::string::npos) << sent.output;
    EXPECT_NE(sent.output.find("\n> QUIT\n< 221 "), std::string::npos) << sent.output;

    ASSERT_TRUE(exim.WaitForMessages(1)) << exim.Log();
    WSAStartup(0x0101, nullptr);
    CString message;
    {
        CPopMail pop(nullptr, nullptr, 10);
        ASSERT_TRUE(pop.Connect("127.0.0.1", dovecot.Port()));
        ASSERT_TRUE(pop.Login(dovecot.User().c_str(), dovecot.Password().c_str()));
        ASSERT_TRUE(pop.Retrieve(1, message));
        pop.Quit();
    }
    WSACleanup();
    const std::string got = message.str();
    EXPECT_NE(got.find("\r\nTo: Alice <alice@tavik.test>\r\n"), std::string::npos) << got.substr(0, 2000);
    EXPECT_NE(got.find("Content-Type: text/plain; charset=utf-8\r\nContent-Transfer-Encoding: 7Bit\r\n\r\n"
                       "Hello Alice,\r\nthe report, with a caf\xc3\xa9 on the side.\r\n--"),
              std::string::npos)
        << got.substr(0, 2000);
    const std::string mark = "Content-Disposition: attachment; filename=report.bin\r\n\r\n";
    const size_t start = got.find(mark);
    ASSERT_NE(start, std::string::npos);
    const size_t end = got.find("\r\n--", start);
    CByteArray bytes;
    CBase64Coding().Decode(CString(got.substr(start + mark.size(), end - start - mark.size())), bytes);
    EXPECT_TRUE(std::string(bytes.GetData(), bytes.GetData() + bytes.GetSize()) == report)
        << "the attachment came back changed";
}
