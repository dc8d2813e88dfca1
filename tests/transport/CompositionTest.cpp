// Outgoing composition with time, ticks and the generator pinned: whole header and body texts compared
// as golden text, the wrapper against a literal rendering of its rules, and hostile header values.
#include <gtest/gtest.h>

#include <cstdlib>
#include <random>
#include <regex>
#include <string>

#include "platform/Clock.h"
#include "platform/Registry.h"
#include "tests/support/TempDir.h"
#include "transport/CAppOctetStream.h"
#include "transport/CBase64Coding.h"
#include "transport/CMIMEMessage.h"
#include "transport/CTextPlain.h"

using namespace tavik::test;

namespace {

class Composition : public ::testing::Test {
protected:
    void SetUp() override {
        ::setenv("TZ", "UTC0", 1);
        ::tzset();
        RegSetStorePath(dir.file("registry.db").c_str());
        WriteFile(dir.file("mime.types"), "image/jpeg jpg jpe\ntext/plain txt\n");
        RegSetMimeTypesPath(dir.file("mime.types").c_str());
    }
    void TearDown() override {
        RegCloseStore();
        RegSetStorePath(nullptr);
        RegSetMimeTypesPath(nullptr);
    }

    TempDir dir;
    ScopedClockPin clock{1000, 1000000000};  // 2001-09-09 01:46:40 UTC; srand(1000) draws 3304
};

// Exposes the formatted texts.
template <class Base>
struct Formatted : Base {
    std::string Header() const { return Base::m_sHeader.GetString(); }
    std::string Body() const { return Base::m_sBody.str(); }
};

// The wrapper's rules read literally: edit the whole string at each break, index not adjusted.
std::string LiteralWrap(const std::string& input, unsigned width) {
    CString s(input);
    int column = 0, space = 0;
    for (int i = 0; i < s.GetLength(); ++i) {
        if (s[i] == ' ') space = i;
        int here = (s[i] == '\r' && i + 1 < s.GetLength() && s[i + 1] == '\n') ? 0 : column;
        if (here > static_cast<int>(width)) {
            CString left = s.Left(space), right = s.Mid(space);
            left.TrimRight();
            right.TrimLeft();
            s = left + "\r\n" + right;
            column = 0;
        } else {
            column = here + 1;
        }
    }
    return s.str();
}

}  // namespace

TEST_F(Composition, PlainMessageHasEveryHeaderLineInOrderAndSpelling) {
    Formatted<CMailMessage> m;
    m.m_sFrom = "ann@example.org";
    m.m_sResentFrom = "desk@example.org";
    m.m_sReplyTo = "replies@example.org";
    m.m_sOrganization = "Example Ltd";
    m.m_sSubject = "Hi";
    EXPECT_EQ(m.AddRecipient("carl@example.net", "Carl"), 1);
    m.AddRecipient("eve@example.net");
    m.AddCarbonCopy("cc@example.net");
    m.AddBlindCarbonCopy("bcc@example.net", "Bea");
    EXPECT_EQ(m.AddResentRecipient("rt@example.net"), 1);
    m.AddResentCarbonCopy("rc@example.net");
    m.AddResentBlindCarbonCopy("rb@example.net");
    m.m_sBody = "line one\r\nline two";
    m.FormatMessage();
    EXPECT_EQ(m.Header(),
              "From: ann@example.org\r\n"
              "Resent-From: desk@example.org\r\n"
              "Reply-To: replies@example.org\r\n"
              "Organization: Example Ltd\r\n"
              "To: Carl <carl@example.net>,<eve@example.net>\r\n"
              "cc: <cc@example.net>\r\n"
              "bcc: Bea <bcc@example.net>\r\n"
              "resent-to: <rt@example.net>\r\n"
              "resent-cc: <rc@example.net>\r\n"
              "resent-bcc: <rb@example.net>\r\n"
              "Date: Sun, 09 Sep 01 01:46:40 UTC\r\n"
              "Subject: Hi\r\n"
              "X-Mailer: Tavik Mail\r\n"
              "\r\n");
    EXPECT_EQ(m.Body(), "line one\r\nline two\r\n") << "a final line end is added";
    EXPECT_EQ(m.m_tDateTime.GetTime(), 1000000000);

    // The envelope holds every kind in the order of adding.
    std::string envelope;
    CString address, name;
    for (int i = 0; i < m.GetNumRecipients(); ++i) {
        ASSERT_EQ(m.GetRecipient(address, name, i), 1);
        envelope += std::string(name) + "<" + address.GetString() + ">";
    }
    EXPECT_EQ(envelope,
              "Carl<carl@example.net><eve@example.net><cc@example.net>Bea<bcc@example.net>"
              "<rt@example.net><rc@example.net><rb@example.net>");
    address = "kept";
    EXPECT_EQ(m.GetRecipient(address, name, -1), 0);
    EXPECT_EQ(m.GetRecipient(address, name, 7), 0);
    EXPECT_EQ(address, "kept");

    // The least a message has: From, Date, Subject (even empty) and X-Mailer; a body with its line end
    // is left as it is.
    Formatted<CMailMessage> bare;
    bare.m_sBody = "x\r\n";
    bare.FormatMessage();
    EXPECT_EQ(bare.Header(),
              "From: \r\nDate: Sun, 09 Sep 01 01:46:40 UTC\r\nSubject: \r\nX-Mailer: Tavik Mail\r\n\r\n");
    EXPECT_EQ(bare.Body(), "x\r\n");
}

TEST_F(Composition, MultipleRecipientsAreSplitAtSemicolonsUntrimmed) {
    Formatted<CMailMessage> m;
    EXPECT_EQ(m.AddMultipleRecipients("Carl <c@x>;e@y;;  f@z "), 1);
    EXPECT_EQ(m.GetNumRecipients(), 4);
    CString address, name;
    m.GetRecipient(address, name, 0);
    EXPECT_EQ(name, "Carl ");
    EXPECT_EQ(address, "c@x");
    m.GetRecipient(address, name, 2);
    EXPECT_EQ(address, "") << "an empty piece is an empty recipient";
    m.FormatMessage();
    EXPECT_NE(m.Header().find("To: Carl  <c@x>,<e@y>,<>,<  f@z >\r\n"), std::string::npos) << m.Header();

    // A piece whose '>' is missing or comes first stops the parsing; earlier pieces stay.
    Formatted<CMailMessage> broken;
    EXPECT_EQ(broken.AddMultipleRecipients("a@x;Bob <b@x;c@x"), 0);
    EXPECT_EQ(broken.GetNumRecipients(), 1);
    EXPECT_EQ(broken.AddMultipleRecipients("x> <y"), 0);
    EXPECT_EQ(broken.GetNumRecipients(), 1);
}

TEST_F(Composition, MimeMessageWithTextAttachmentAndMissingFileIsGolden) {
    const std::string photo = dir.file("photo.jpg");
    WriteFile(photo, std::string("\xff\xd8\xff\xe0\x00\x10JFIF", 10));
    Formatted<CMIMEMessage> m;
    m.m_sFrom = "ann@example.org";
    m.AddRecipient("carl@example.net", "Carl");
    m.m_sSubject = "Photos";
    m.m_sBody = "  Hello Carl,\r\nthe photos.\r\n\r\n";
    m.AddMIMEPart(photo.c_str());
    m.AddMIMEPart(dir.file("missing.bin").c_str());
    m.AddMIMEPart("no agent for this", 7);
    m.FormatMessage();
    EXPECT_EQ(m.Header(),
              "From: ann@example.org\r\n"
              "To: Carl <carl@example.net>\r\n"
              "Date: Sun, 09 Sep 01 01:46:40 UTC\r\n"
              "Subject: Photos\r\n"
              "X-Mailer: Tavik Mail\r\n"
              "MIME-Version: 1.0\r\n"
              "Content-Type: multipart/mixed; boundary=TAVIK_MAIL_PaRt_BoUnDaRy_3304\r\n"
              "\r\n");
    EXPECT_EQ(m.Body(),
              "This is a multi-part message in MIME format.\r\n\r\n"
              "--TAVIK_MAIL_PaRt_BoUnDaRy_3304\r\n"
              "Content-Type: text/plain\r\n"
              "Content-Transfer-Encoding: 7Bit\r\n\r\n"
              "Hello Carl,\r\nthe photos.\r\n"
              "--TAVIK_MAIL_PaRt_BoUnDaRy_3304\r\n"
              "Content-Type: image/jpeg; file=photo.jpg\r\n"
              "Content-Transfer-Encoding: base64\r\n"
              "Content-Disposition: attachment; filename=photo.jpg\r\n\r\n"
              "/9j/4AAQSkZJRg==\r\n"
              "--TAVIK_MAIL_PaRt_BoUnDaRy_3304\r\n"
              "--TAVIK_MAIL_PaRt_BoUnDaRy_3304--\r\n");

    // Text parts go before files whatever the order of adding; an unknown extension keeps the generic
    // type, and a part that names no path has no file parameter.
    WriteFile(dir.file("data.XYZ"), "abc");
    Formatted<CMIMEMessage> parts;
    parts.AddMIMEPart(dir.file("data.XYZ").c_str());
    parts.AddMIMEPart("second", CMIMEMessage::TEXT_PLAIN, "; charset=iso-8859-1", 0, 0);
    parts.AddMIMEPart(dir.file("data.XYZ").c_str(), CMIMEMessage::APPLICATION_OCTETSTREAM, "", 4, 0);
    parts.FormatMessage();
    const std::string body = parts.Body();
    EXPECT_NE(body.find("--TAVIK_MAIL_PaRt_BoUnDaRy_3304\r\n"
                        "Content-Type: text/plain; charset=iso-8859-1\r\n"
                        "Content-Transfer-Encoding: 7Bit\r\n\r\n"
                        "second\r\n"
                        "--TAVIK_MAIL_PaRt_BoUnDaRy_3304\r\n"
                        "Content-Type: application/octet-stream; file=data.XYZ\r\n"),
              std::string::npos)
        << body;
    EXPECT_NE(body.find("YWJj=\r\n--TAVIK_MAIL_PaRt_BoUnDaRy_3304\r\n"
                        "Content-Type: application/octet-stream; file=data.XYZ\r\n"),
              std::string::npos)
        << "the attach flag of the part is not what decides: the file agent always reads a path";
}

TEST_F(Composition, WrapFollowsItsRulesLiterallyAtAnySize) {
    CTextPlain agent(0, 10);
    EXPECT_EQ(std::string(agent.wrap_text("one two three four five")), "one two\r\nthree four\r\nfive");
    // The last space is not forgotten at a line end: a long word breaks the line before it again
    // (a no-op once the break is there), and is itself never broken.
    EXPECT_EQ(std::string(agent.wrap_text("ab cdefghijklmnop")), "ab\r\ncdefghijklmnop");
    EXPECT_EQ(std::string(agent.wrap_text(nullptr)), "");

    std::mt19937 rng(17);
    const char* pieces[] = {"a",    "word",     "longerword", " ", "  ",
                            "\r\n", "\r\n\r\n", "\t",         "x", "supercalifragilistic"};
    for (int round = 0; round < 3000; ++round) {
        std::string text;
        const int count = static_cast<int>(rng() % 60);
        for (int i = 0; i < count; ++i) text += pieces[rng() % std::size(pieces)];
        const unsigned width = 1 + rng() % 20;
        CTextPlain w(0, width);
        ASSERT_EQ(std::string(w.wrap_text(text.c_str())), LiteralWrap(text, width))
            << "width " << width << " text '" << text << "'";
    }
}

TEST_F(Composition, HostileHeaderValuesStayOnTheirLine) {
    Formatted<CMIMEMessage> m;
    m.m_sFrom = "ann@example.org\r\nBcc: spy@example.com";
    m.m_sSubject = "Re: a long\r\n\tsubject\nX-Injected: 1";
    m.m_sOrganization = "\r\n";
    m.AddRecipient("carl@example.net\r\n", "Carl\nContent-Type: text/html");
    const std::string oddName = dir.file("a\nb.txt");
    WriteFile(oddName, "x");
    m.AddMIMEPart(oddName.c_str());
    m.m_sBody = "body";
    m.FormatMessage();
    const std::string header = m.Header();
    EXPECT_NE(header.find("From: ann@example.org Bcc: spy@example.com\r\n"), std::string::npos);
    EXPECT_NE(header.find("Subject: Re: a long\tsubject X-Injected: 1\r\n"), std::string::npos);
    EXPECT_NE(header.find("To: Carl Content-Type: text/html <carl@example.net >\r\n"), std::string::npos);
    // Every line of the header is one field (or the final empty line).
    const std::regex field("[A-Za-z-]+: [^\r\n]*");
    size_t start = 0, lines = 0;
    for (size_t end; (end = header.find("\r\n", start)) != std::string::npos; start = end + 2, ++lines) {
        std::string line = header.substr(start, end - start);
        if (end + 2 == header.size())
            EXPECT_EQ(line, "");
        else
            EXPECT_TRUE(std::regex_match(line, field)) << line;
    }
    EXPECT_EQ(lines, 9u);
    EXPECT_NE(m.Body().find("Content-Type: text/plain; file=a b.txt\r\n"
                            "Content-Transfer-Encoding: base64\r\n"
                            "Content-Disposition: attachment; filename=a b.txt\r\n\r\n"),
              std::string::npos)
        << m.Body();
}

TEST_F(Composition, AttachmentIsEncodedAsOneTextWhateverItsSize) {
    // The file is read and encoded in pieces; the text must be the one encoding of the whole file.
    const size_t piece = CAppOctetStream::kReadPiece;
    std::mt19937 rng(5);
    for (size_t size : {size_t(0), size_t(1), size_t(3), size_t(53), size_t(54), size_t(55), piece - 1, piece,
                        piece + 1, 2 * piece, 2 * piece + 2}) {
        std::string bytes(size, '\0');
        for (auto& c : bytes) c = static_cast<char>(rng());
        WriteFile(dir.file("f.bin"), bytes);
        CString whole;
        CBase64Coding().Encode(reinterpret_cast<const unsigned char*>(bytes.data()), whole,
                               static_cast<int>(size));
        CAppOctetStream agent(1);
        CString part = "before";
        ASSERT_EQ(agent.AppendPart(dir.file("f.bin").c_str(), "", 4, 1, part), 1);
        const size_t body = part.str().find("\r\n\r\n") + 4;
        EXPECT_TRUE(part.str().substr(body) == whole.str() + "\r\n") << size;
    }
    // Something that opens but cannot be read leaves the text as it was.
    CAppOctetStream agent(1);
    CString part = "before";
    EXPECT_EQ(agent.AppendPart(dir.path().c_str(), "", 4, 1, part), 0);
    EXPECT_EQ(part, "before");
}
