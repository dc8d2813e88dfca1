// `tavik send` command lines run whole through the dispatch against the scripted server, with the clock,
// ticks and media-type list pinned, so that the message on the wire and the dialogue shown are golden.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "host/Dispatch.h"
#include "host/MailSend.h"
#include "platform/Clock.h"
#include "platform/FileSystem.h"
#include "platform/Registry.h"
#include "tests/support/ScriptedServer.h"
#include "tests/support/TempDir.h"
#include "transport/CBlockingSocket.h"

using namespace tavik::test;

namespace {

struct Outcome {
    int rc;
    std::string out, err;
};

std::string Drain(FILE* f) {
    std::string text;
    std::rewind(f);
    char buf[4096];
    for (size_t n; (n = std::fread(buf, 1, sizeof buf, f)) > 0;) text.append(buf, n);
    std::fclose(f);
    return text;
}

class Send : public ::testing::Test {
protected:
    void SetUp() override {
        ::setenv("TZ", "UTC0", 1);
        ::tzset();
        ::setenv("TAVIK_REGISTRY", dir.file("registry.db").c_str(), 1);
        ::setenv("TAVIK_DATA", dir.file("data").c_str(), 1);
        RegSetStorePath(nullptr);
        WriteFile(dir.file("mime.types"), "text/csv csv\n");
        RegSetMimeTypesPath(dir.file("mime.types").c_str());
        WSAStartup(0x0101, nullptr);
        CString name, ip;
        CBlockingSocket::GetLocalAddress(name, ip);
        helo = "HELO " + std::string(name) + "\r\n";
        WSACleanup();
    }
    void TearDown() override {
        RegCloseStore();
        ::unsetenv("TAVIK_REGISTRY");
        ::unsetenv("TAVIK_DATA");
        TavikSetApplicationDirectory(nullptr);
        RegSetStorePath(nullptr);
        RegSetMimeTypesPath(nullptr);
    }
    Outcome Tavik(std::vector<std::string> args) {
        args.insert(args.begin(), "send");
        FILE* out = std::tmpfile();
        FILE* err = std::tmpfile();
        int rc = tavik::host::RunTavik(args, out, err);
        return {rc, Drain(out), Drain(err)};
    }

    TempDir dir;
    ScopedClockPin clock{1000, 1000000000};  // 2001-09-09 01:46:40 UTC; the boundary number 3304
    std::string helo;
};

}  // namespace

TEST_F(Send, SendsTheComposedMessageAndShowsTheDialogue) {
    WriteFile(dir.file("text"), "Hello Carl,\nthe figures.\n");
    WriteFile(dir.file("figures.csv"), "a,b\n1,2\n");
    const std::string data =
        "From: ann@example.org\r\n"
        "To: Carl <carl@example.net>,<eve@example.net>\r\n"
        "Date: Sun, 09 Sep 01 01:46:40 UTC\r\n"
        "Subject: Figures\r\n"
        "X-Mailer: Tavik Mail\r\n"
        "MIME-Version: 1.0\r\n"
        "Content-Type: multipart/mixed; boundary=TAVIK_MAIL_PaRt_BoUnDaRy_3304\r\n"
        "\r\n"
        "This is a multi-part message in MIME format.\r\n\r\n"
        "--TAVIK_MAIL_PaRt_BoUnDaRy_3304\r\n"
        "Content-Type: text/plain\r\n"
        "Content-Transfer-Encoding: 7Bit\r\n\r\n"
        "Hello Carl,\r\nthe figures.\r\n"
        "--TAVIK_MAIL_PaRt_BoUnDaRy_3304\r\n"
        "Content-Type: text/csv; file=figures.csv\r\n"
        "Content-Transfer-Encoding: base64\r\n"
        "Content-Disposition: attachment; filename=figures.csv\r\n\r\n"
        "YSxiCjEsMgo=\r\n"
        "--TAVIK_MAIL_PaRt_BoUnDaRy_3304--\r\n";
    ScriptedServer s;
    s.Send("220 mx.test ESMTP\r\n")
        .Expect(helo)
        .Send("250 mx.test\r\n")
        .Expect("MAIL From: <ann@example.org>\r\n")
        .Send("250 OK\r\n")
        .Expect("RCPT TO: <carl@example.net>\r\n")
        .Send("250 OK\r\n")
        .Expect("RCPT TO: <eve@example.net>\r\n")
        .Send("550 no such user\r\n")
        .Expect("DATA\r\n")
        .Send("354 go ahead\r\n")
        .ExpectData(data + "\r\n.\r\n")
        .Send("250 OK queued\r\n")
        .Expect("QUIT\r\n")
        .Send("221 bye\r\n");
    s.Start();
    Outcome o =
        Tavik({"--server", "127.0.0.1", "--port", std::to_string(s.Port()), "--from", "ann@example.org",
               "--to", " Carl <carl@example.net> ", "--to", "eve@example.net", "--subject", "Figures",
               "--body", dir.file("text"), "--attach", dir.file("figures.csv")});
    EXPECT_EQ(s.Finish(), "");
    EXPECT_EQ(o.rc, 0) << o.err;
    EXPECT_EQ(o.err, "");
    EXPECT_EQ(o.out, "< 220 mx.test ESMTP\n> " + helo.substr(0, helo.size() - 2) +
                         "\n< 250 mx.test\n"
                         "> MAIL From: <ann@example.org>\n< 250 OK\n"
                         "> RCPT TO: <carl@example.net>\n< 250 OK\n"
                         "> RCPT TO: <eve@example.net>\n< 550 no such user\n"
                         "> DATA\n< 354 go ahead\n"
                         "> (the message, " +
                         std::to_string(data.size()) +
                         " bytes)\n> .\n< 250 OK queued\n"
                         "> QUIT\n< 221 bye\n");
}

TEST_F(Send, FailuresAreClearAndNothingGoesOutHalfDone) {
    WriteFile(dir.file("text"), "caf\xc3\xa9\n");
    // A refusal by the server: its reply is the error, and the session still ends with QUIT.
    ScriptedServer s;
    s.Send("220 mx.test\r\n")
        .Expect(helo)
        .Send("250 mx.test\r\n")
        .Expect("MAIL From: <ann@example.org>\r\n")
        .Send("250 OK\r\n")
        .Expect("RCPT TO: <carl@example.net>\r\n")
        .Send("250 OK\r\n")
        .Expect("DATA\r\n")
        .Send("554 no data today\r\n")
        .Expect("QUIT\r\n")
        .Send("221 bye\r\n");
    s.Start();
    const std::vector<std::string> common = {"--from",           "ann@example.org", "--to",
                                             "carl@example.net", "--body",          dir.file("text")};
    auto with = [&](std::vector<std::string> extra) {
        extra.insert(extra.end(), common.begin(), common.end());
        return extra;
    };
    Outcome refused = Tavik(with({"--server", "127.0.0.1", "--port", std::to_string(s.Port())}));
    EXPECT_EQ(s.Finish(), "");
    EXPECT_EQ(refused.rc, 1);
    EXPECT_EQ(refused.err, "tavik send: 554 no data today\n");

    // Checked before connecting: a missing attachment, an unreadable recipient.
    Outcome missing = Tavik(with({"--server", "127.0.0.1", "--port", "1", "--attach", dir.file("none.pdf")}));
    EXPECT_EQ(missing.rc, 1);
    EXPECT_EQ(missing.err, "tavik send: no file to attach at " + dir.file("none.pdf") + "\n");
    EXPECT_EQ(missing.out, "");
    Outcome badRecipient = Tavik({"--server", "x", "--from", "a@x", "--to", "Carl <carl@example.net"});
    EXPECT_EQ(badRecipient.rc, 2);
    EXPECT_NE(badRecipient.err.find("cannot read the recipient \"Carl <carl@example.net\""),
              std::string::npos)
        << badRecipient.err;
    Outcome noText = Tavik({"--server", "x", "--from", "a@x", "--to", "b@x", "--body", dir.file("absent")});
    EXPECT_EQ(noText.rc, 1);
    EXPECT_EQ(noText.err, "tavik send: cannot read the message text from " + dir.file("absent") + "\n");

    // Nobody listening: the socket's own sentence.
    std::string port;
    {
        ScriptedServer gone;
        port = std::to_string(gone.Port());
    }
    Outcome nobody = Tavik(with({"--server", "127.0.0.1", "--port", port}));
    EXPECT_EQ(nobody.rc, 1);
    EXPECT_EQ(nobody.err, "tavik send: The attempt to connect was rejected\n");
}

TEST(SendRecipients, NameAndAddressAreSplitAndTrimmed) {
    struct Row {
        const char* text;
        bool ok;
        const char* address;
        const char* name;
    };
    for (const Row& row :
         {Row{"carl@example.net", true, "carl@example.net", ""},
          Row{"  Carl Example <carl@example.net>  ", true, "carl@example.net", "Carl Example"},
          Row{"<carl@example.net>", true, "carl@example.net", ""},
          Row{"Carl <carl@example.net", false, "", ""}, Row{"Carl <>", false, "", ""},
          Row{"Carl <c@x> trailing", false, "", ""}, Row{"  ", false, "", ""}}) {
        std::string address, name;
        EXPECT_EQ(tavik::host::SplitRecipient(row.text, address, name), row.ok) << row.text;
        if (row.ok) {
            EXPECT_EQ(address, row.address);
            EXPECT_EQ(name, row.name);
        }
    }
}
