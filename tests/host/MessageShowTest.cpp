// tavik show through the whole command line: message files and cached records, the terminal-safe text,
// the HTML page with its attachments, and saved attachments.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "host/Dispatch.h"
#include "host/MessageShow.h"
#include "messages/CMessageList.h"
#include "messages/CStorageManager.h"
#include "platform/Registry.h"
#include "tests/support/TempDir.h"

namespace {

namespace fs = std::filesystem;
using tavik::test::ReadFile;
using tavik::test::WriteFile;

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

Outcome Tavik(const std::vector<std::string>& args) {
    FILE* out = std::tmpfile();
    FILE* err = std::tmpfile();
    int rc = tavik::host::RunTavik(args, out, err);
    return {rc, Drain(out), Drain(err)};
}

// Saved by a mail program with bare line ends; a hostile subject, a hostile attachment name.
const char kMessage[] =
    "From: Ann <ann@example.org>\n"
    "To: bob@example.net\n"
    "Subject: Hello \x1b[31mred\n"
    "Date: Mon, 2 Jun 2025 10:00:00 +0200\n"
    "Content-Type: multipart/mixed; boundary=\"=_b\"\n"
    "\n"
    "--=_b\n"
    "Content-Type: text/plain; charset=utf-8\n"
    "Content-Transfer-Encoding: quoted-printable\n"
    "\n"
    "Caf=C3=A9 =1B[2J, caf\xe9\n"
    "--=_b\n"
    "Content-Type: application/pdf; name=\"../../my report.pdf\"\n"
    "Content-Transfer-Encoding: base64\n"
    "\n"
    "JVBERi0xLjQK\n"
    "--=_b\n"
    "Content-Type: image/gif; name=dot.gif\n"
    "Content-Transfer-Encoding: base64\n"
    "\n"
    "R0lGODlh\n"
    "--=_b--\n";

class MessageShow : public ::testing::Test {
protected:
    void SetUp() override {
        setenv("TAVIK_REGISTRY", m_dir.file("registry.db").c_str(), 1);
        RegSetStorePath(nullptr);
        fs::create_directory(m_dir.path() / "tmp");
        setenv("TMPDIR", m_dir.file("tmp").c_str(), 1);
        WriteFile(m_dir.file("m.eml"), kMessage);
    }
    void TearDown() override {
        RegCloseStore();
        unsetenv("TAVIK_REGISTRY");
        unsetenv("TMPDIR");
        RegSetStorePath(nullptr);
    }
    tavik::test::TempDir m_dir;
};

TEST_F(MessageShow, TerminalTextEscapesControlsAndReadsEitherCharacterSet) {
    using tavik::host::TerminalText;
    EXPECT_EQ(TerminalText("a\r\nb\rc\nd\te"), "a\nb\nc\nd\te");
    EXPECT_EQ(TerminalText("\x1b[2J\x07\x7f"), "\\x1b[2J\\x07\\x7f");
    // UTF-8 stays, C1 controls in it do not; other bytes are Windows-1252.
    EXPECT_EQ(TerminalText("caf\xc3\xa9 \xe2\x82\xac \xc2\x9b"), "caf\xc3\xa9 \xe2\x82\xac \\xc2\\x9b");
    EXPECT_EQ(TerminalText("caf\xe9 \x80 \x81"), "caf\xc3\xa9 \xe2\x82\xac \\x81");
}

TEST_F(MessageShow, AMessageFileShowsItsFieldsTextAndAttachments) {
    Outcome shown = Tavik({"show", m_dir.file("m.eml")});
    EXPECT_EQ(shown.rc, 0) << shown.err;
    EXPECT_EQ(shown.out,
              "From:    Ann <ann@example.org>\n"
              "To:      bob@example.net\n"
              "Date:    Mon, 2 Jun 2025 10:00:00 +0200\n"
              "Subject: Hello \\x1b[31mred\n"
              "\n"
              "Caf\xc3\xa9 \\x1b[2J, caf\xc3\xa9\n"
              "\n"
              "Attachments:\n"
              "  ../../myreport.pdf  application/pdf  9 bytes\n"
              "  dot.gif  image/gif  6 bytes\n");
    // The decoder's placeholder files are gone with the command.
    EXPECT_TRUE(fs::is_empty(m_dir.path() / "tmp"));

    Outcome raw = Tavik({"show", "--raw", m_dir.file("m.eml")});
    EXPECT_EQ(raw.rc, 0);
    EXPECT_NE(raw.out.find("Subject: Hello \\x1b[31mred\n"), std::string::npos);
    EXPECT_NE(raw.out.find("Caf=C3=A9 =1B[2J, caf\xc3\xa9\n"), std::string::npos);
}

TEST_F(MessageShow, AttachmentsAreSavedAsTheirBytesUnderCleanNamesBesideExistingFiles) {
    const std::string dir = m_dir.file("saved");
    fs::create_directory(dir);
    WriteFile(dir + "/dot.gif", "mine");
    Outcome saved = Tavik({"show", "--save-attachments", dir, m_dir.file("m.eml")});
    EXPECT_EQ(saved.rc, 0) << saved.err;
    EXPECT_NE(saved.out.find("saved " + dir + "/___.._myreport.pdf\n"), std::string::npos) << saved.out;
    EXPECT_EQ(ReadFile(dir + "/___.._myreport.pdf"), "%PDF-1.4\n");
    EXPECT_EQ(ReadFile(dir + "/dot.gif"), "mine");
    EXPECT_EQ(ReadFile(dir + "/dot-1.gif"), "GIF89a");
    EXPECT_EQ(fs::status(dir + "/dot-1.gif").permissions() & fs::perms::all,
              fs::perms::owner_read | fs::perms::owner_write);
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(dir)) names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"___.._myreport.pdf", "dot-1.gif", "dot.gif"}));

    Outcome notDir = Tavik({"show", "--save-attachments", m_dir.file("m.eml"), m_dir.file("m.eml")});
    EXPECT_EQ(notDir.rc, 1);
    EXPECT_EQ(notDir.err, "tavik show: " + m_dir.file("m.eml") + " is not a directory\n");
    // Refused before anything is shown or written.
    EXPECT_EQ(notDir.out, "");
}

TEST_F(MessageShow, TheHtmlPageLinksToItsAttachmentsAndLoadsNothingElse) {
    const std::string page = m_dir.file("page.html");
    Outcome shown = Tavik({"show", "--html", page, m_dir.file("m.eml")});
    EXPECT_EQ(shown.rc, 0) << shown.err;
    const std::string html = ReadFile(page);
    EXPECT_NE(html.find("Content-Security-Policy\" content=\"default-src 'none'"), std::string::npos);
    EXPECT_NE(html.find("<title>Hello \\x1b[31mred</title>"), std::string::npos);
    const std::string files = (fs::absolute(m_dir.path()) / "page.html_files").string();
    EXPECT_NE(html.find("<img border=0 src=\"file://" + files + "/dot.gif\">"), std::string::npos);
    EXPECT_NE(html.find("<A HREF=\"file://" + files + "/___.._myreport.pdf\">"), std::string::npos);
    // Only the linked files are kept, owner-only, in a directory of their own.
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(files)) names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"___.._myreport.pdf", "dot.gif"}));
    EXPECT_EQ(fs::status(files).permissions() & fs::perms::all, fs::perms::owner_all);

    Outcome again = Tavik({"show", "--html", page, m_dir.file("m.eml")});
    EXPECT_EQ(again.rc, 1);
    EXPECT_NE(again.err.find("exists and is not empty"), std::string::npos) << again.err;
    EXPECT_EQ(again.out, "");
}

TEST_F(MessageShow, CachedMessagesAreListedAndShownWithoutChangingTheStore) {
    const std::string store = m_dir.file("mail.tvd");
    CString fetched, headerOnly;
    {
        CStorageManager file(store.c_str(), false);
        CMessageList full(file.GetStorage());
        std::string text = kMessage;
        std::string crlf;
        for (char c : text) crlf += c == '\n' ? std::string("\r\n") : std::string(1, c);
        full.SetData(CString(crlf.substr(0, crlf.find("\r\n\r\n"))), 7, static_cast<DWORD>(crlf.size()),
                     MsgReceived);
        full.SaveMessage(file.GetStorage());
        CString body(crlf.c_str());
        full.SetBody(body);
        fetched = full.GetStorageName();
        CMessageList header(file.GetStorage());
        header.SetData("From: carl@example.com\r\nSubject: Later", 8, 500, MsgReceived);
        header.SaveMessage(file.GetStorage());
        headerOnly = header.GetStorageName();
    }
    const std::string before = ReadFile(store);

    Outcome list = Tavik({"show", store});
    EXPECT_EQ(list.rc, 0) << list.err;
    EXPECT_NE(
        list.out.find(std::string(fetched) + "           7  Ann <ann@example.org>  Hello \\x1b[31mred\n"),
        std::string::npos)
        << list.out;
    EXPECT_NE(list.out.find(std::string(headerOnly) + "           8  carl@example.com  Later\n"),
              std::string::npos);
    EXPECT_NE(list.out.find("2 messages\n"), std::string::npos);

    Outcome one = Tavik({"show", store, fetched.GetString()});
    EXPECT_EQ(one.rc, 0) << one.err;
    EXPECT_EQ(one.out, Tavik({"show", m_dir.file("m.eml")}).out);
    Outcome bare = Tavik({"show", store, std::string("/") + headerOnly.GetString()});
    EXPECT_EQ(bare.rc, 0) << bare.err;
    EXPECT_EQ(
        bare.out,
        "From:    carl@example.com\nSubject: Later\n\n(the body of this message has not been fetched)\n");

    Outcome missing = Tavik({"show", store, "nothere"});
    EXPECT_EQ(missing.rc, 1);
    EXPECT_EQ(missing.err, "tavik show: no message nothere in " + store + "\n");
    EXPECT_EQ(ReadFile(store), before);
}

TEST_F(MessageShow, WrongUsesSayWhatIsWrong) {
    Outcome absent = Tavik({"show", m_dir.file("none.eml")});
    EXPECT_EQ(absent.rc, 1);
    EXPECT_EQ(absent.err, "tavik show: cannot open " + m_dir.file("none.eml") + "\n");
    Outcome record = Tavik({"show", m_dir.file("m.eml"), "x"});
    EXPECT_EQ(record.rc, 1);
    EXPECT_NE(record.err.find("is a message file, not a store"), std::string::npos);
    EXPECT_EQ(Tavik({"show", "--raw", "--html", m_dir.file("p.html"), m_dir.file("m.eml")}).rc, 2);
    EXPECT_EQ(Tavik({"show"}).rc, 2);
}

}  // namespace
