// The decoder's rendering rules as whole outputs, and its quirks.
#include <string>

#include "messages/CMailParser.h"
#include "tests/messages/MimeFixture.h"

namespace tavik::test {
namespace {

std::string Box(const std::string& path, const std::string& name, const std::string& type) {
    return "<br><center><table border=\"0\"><tr><td bgcolor=\"#F4F4F4\" align=\"center\"><font "
           "face=\"verdana, "
           "arial, helvetica, sans-serif\" size=\"1\"><b>MIME ATTACHMENT</b></font></td><td "
           "bgcolor=\"#EEF5FB\"><font face=\"verdana, arial, helvetica, sans-serif\" size=\"1\"><A "
           "HREF=\"file://" +
           path + "\">" + name +
           "</A></font></td><td bgcolor=\"#F4F4F4\" align=\"center\"><font face=\"verdana, arial, helvetica, "
           "sans-serif\" size=\"1\">" +
           type + "</font></td></tr></table></center>";
}

std::string Image(const std::string& path) {
    return "<br><center><img border=0 src=\"file://" + path + "\"></center><br>\r\n";
}

const char kAlternative[] =
    "From: a@example.org\r\n"
    "Content-Type: multipart/alternative; boundary=\"=_XX\"\r\n"
    "\r\n"
    "--=_XX\r\n"
    "Content-Type: text/plain\r\n"
    "\r\n"
    "Hi =3D there\r\n"
    "--=_XX\r\n"
    "Content-Type: text/html; name=\"page.html\"\r\n"
    "\r\n"
    "<html><b>Hi</b></html>\r\n"
    "--=_XX--\r\n";

using MimeDecoder = MimeTest;

TEST_F(MimeDecoder, SinglePlainPartRendersToItsDecodedBody) {
    CMimeDecoder decoder;
    Scan(decoder,
         "Subject: s\r\nContent-Type: text/plain\r\nContent-Transfer-Encoding: quoted-printable\r\n\r\n"
         "caf=E9 a=3Db soft=\r\nbreak, =3d stays, =3D41 twice\r\n");
    ASSERT_EQ(decoder.m_listParts.size(), 1u);
    EXPECT_TRUE(decoder.m_listRemove.empty());
    decoder.ReformatText();
    EXPECT_EQ(decoder.m_strMessage.str(), "caf\xE9 a=b softbreak, =3d stays, A twice\r\n");
}

TEST_F(MimeDecoder, AlternativeRendersAsPlainTextThenABoxForTheHtmlPart) {
    CMimeDecoder decoder;
    Scan(decoder, kAlternative);
    ASSERT_EQ(decoder.m_listParts.size(), 2u);
    EXPECT_EQ(decoder.m_listRemove, (std::list<CString>{"=_XX", "\r\nContent-Type: text/plain",
                                                        "\r\nContent-Type: text/html; name=\"page.html\""}));
    EXPECT_EQ(decoder.m_listParts.back().GetContent(), "<html><b>Hi</b></html>\r\n--");
    decoder.ReformatHtml();
    EXPECT_EQ(decoder.m_strMessage.str(),
              "\r\nHi =3D there\r\n\r\n" + Box(Tmp() + "page.html", "page.html", "text/html"));
    EXPECT_EQ(ReadFile(Tmp() + "page.html"), std::string("<html><b>Hi</b></html>\r\n--\0", 27));

    CMimeDecoder text;
    Scan(text, kAlternative);
    text.ReformatText();
    // The HTML part keeps the delimiter's "\r\n--"; the closing delimiter's "--\r\n" goes.
    EXPECT_EQ(text.m_strMessage.str(), "\r\nHi =3D there\r\n\r\nHi\r\n--");
}

TEST_F(MimeDecoder, MixedMessageInBothRenderings) {
    const std::string message =
        "Content-Type: multipart/mixed;\r\n boundary=\"=_b\"\r\n\r\n"
        "preamble\r\n"
        "--=_b\r\nContent-Type: text/html\r\nContent-Transfer-Encoding: quoted-printable\r\n\r\n"
        "<p>caf=C3=A9</p>\r\n<br>\r\nend\r\n"
        "--=_b\r\nContent-Type: image/gif; name=\"dot.gif\"\r\nContent-Transfer-Encoding: base64\r\n\r\n"
        "R0lGODlh\r\n"
        "--=_b\r\nContent-Type: application/pdf; name=\"my report.pdf\"\r\nContent-Transfer-Encoding: "
        "base64\r\n\r\n"
        "JVBERg==\r\n"
        "--=_b--\r\n";
    CMimeDecoder text;
    Scan(text, message);
    ASSERT_EQ(text.m_listParts.size(), 3u);
    EXPECT_EQ(text.m_listParts.back().GetFileName(), "myreport.pdf");
    text.ReformatText();
    EXPECT_EQ(text.m_strMessage.str(), "preamble\r\n\r\ncaf\xC3\xA9\r\n\r\nend\r\n\r\n\r\n\r\n");

    CMimeDecoder html;
    Scan(html, message);
    html.ReformatHtml();
    // The HTML part is shown as a box like any attachment, under its generated name.
    const std::string generated = html.m_listParts.front().GetFileName().str();
    EXPECT_EQ(generated.substr(0, 3), "mai");
    EXPECT_EQ(generated.substr(generated.size() - 5), ".html");
    EXPECT_EQ(html.m_strMessage.str(), "preamble\r\n\r\n" + Box(Tmp() + generated, generated, "text/html") +
                                           "\r\n\r\n" + Image(Tmp() + "dot.gif") + "\r\n\r\n" +
                                           Box(Tmp() + "myreport.pdf", "myreport.pdf", "application/pdf"));
    // A decoded attachment is one byte longer than its data: the closing zero byte.
    EXPECT_EQ(ReadFile(Tmp() + "dot.gif"), std::string("GIF89a\0", 7));
    EXPECT_EQ(ReadFile(Tmp() + "myreport.pdf"), std::string("%PDF\0", 5));
}

TEST_F(MimeDecoder, HeaderAnalysisQuirks) {
    struct Case {
        const char* header;
        const char* type;
        const char* boundary;
        const char* name;
    } cases[] = {
        // Quotes go, and so do blanks, from every value.
        {"Content-Type: multipart/mixed; boundary=\"a b\"", "multipart/mixed", "ab", ""},
        {"Content-Type: image/gif; name=\"a b.gif\"", "image/gif", "", "ab.gif"},
        // Content fields are found anywhere, so X-Content-Type is a Content-Type; the later one wins.
        {"Content-Type: text/plain\r\nX-Content-Type: image/png; file=x.png", "image/png", "", "x.png"},
        // A value goes on to the next line only after a ';'.
        {"Content-Type: multipart/mixed;\r\n\tboundary=b1", "multipart/mixed", "b1", ""},
        {"Content-Type: multipart/mixed\r\n\tboundary=b1", "multipart/mixed", "", ""},
        {"content-type:TEXT/html;CHARSET=x;filename=f.htm;name=n.htm", "TEXT/html", "", "n.htm"},
        {"Content-Type", "", "", ""},
        {"Content-Disposition: attachment; filename=d.pdf", "", "", ""},
    };
    for (const Case& c : cases) {
        CMimeHeader part;
        XString header(c.header), content("x");
        part.Initialize(header, content);
        EXPECT_EQ(part.GetContentType(), c.type) << c.header;
        EXPECT_EQ(part.GetBoundary(), c.boundary) << c.header;
        if (*c.name) {
            EXPECT_EQ(part.GetFileName(), c.name) << c.header;
        }
    }
}

TEST_F(MimeDecoder, GeneratedNamesComeFromAListedTemporaryFile) {
    CMimeDecoder decoder;
    Scan(decoder,
         "Content-Type: multipart/mixed; boundary=b\r\n\r\n--b\r\nContent-Type: image/gif\r\n\r\nx\r\n"
         "--b\r\nContent-Type: application/x-unknown\r\n\r\ny\r\n--b--\r\n");
    ASSERT_EQ(decoder.m_listParts.size(), 2u);
    const std::string gif = decoder.m_listParts.front().GetFileName().str();
    const std::string unknown = decoder.m_listParts.back().GetFileName().str();
    // "mail" is cut to three characters, then the hexadecimal number; the content type's extension, or
    // the temporary file's own.
    EXPECT_EQ(gif.substr(0, 3), "mai");
    EXPECT_EQ(gif.substr(gif.size() - 4), ".gif");
    EXPECT_EQ(unknown.substr(unknown.size() - 4), ".tmp");
    // Three temporary files: the container's and the two parts', empty, listed in capitals.
    EXPECT_EQ(m_files.GetTempFiles().size(), 3u);
    for (const CString& listed : m_files.GetTempFiles()) {
        std::string path = listed.str();
        EXPECT_EQ(path.substr(path.size() - 4), ".TMP");
    }
    EXPECT_EQ(TmpFiles().size(), 3u);
}

TEST_F(MimeDecoder, WithoutABlankLineOrAContentTypeNothingChanges) {
    for (const char* message : {"Content-Type: text/plain\r\nno blank line",
                                "\r\n\r\nContent-Type: text/plain", "Subject: no type\r\n\r\nbody --\r\n",
                                "Content-Type: multipart/mixed; "
                                "boundary=zz\r\n\r\nno boundary here"}) {
        CMimeDecoder decoder;
        Scan(decoder, message);
        EXPECT_TRUE(decoder.m_listParts.empty()) << message;
        decoder.ReformatText();
        EXPECT_EQ(decoder.m_strMessage, message);
        decoder.ReformatHtml();
        EXPECT_EQ(decoder.m_strMessage, message);
    }
    CMailParser parser;
    EXPECT_TRUE(parser.ScanMail("h\r\n\r\nb"));
    EXPECT_FALSE(parser.ScanMail("\r\n\r\nx"));
    EXPECT_EQ(parser.GetMsgHeaderText(), "h");
    EXPECT_EQ(parser.GetMsgBodyText(), "b");
}

// A zero byte ends a decoded text, and a content with one is searched for up to it.
TEST_F(MimeDecoder, ZeroBytesEndTextsAsCStrings) {
    CMimeDecoder decoder;
    Scan(decoder, std::string("Content-Type: text/plain\r\n\r\nab\0cd", 33));
    decoder.ReformatText();
    EXPECT_EQ(decoder.m_strMessage.str(), "ab");

    CMimeHeader part;
    XString header("Content-Transfer-Encoding: quoted-printable"), content("a=00b");
    part.Initialize(header, content);
    part.GetDecodedContent();
    // "=00" leaves nothing: the zero byte ends the replacement text.
    EXPECT_EQ(std::string(part.GetDecodedBytes().vector().begin(), part.GetDecodedBytes().vector().end()),
              std::string("ab\0", 3));
}

TEST_F(MimeDecoder, NoTemporaryDirectoryShowsTheMessageAndKeepsTheBox) {
    setenv("TMPDIR", (Tmp() + "missing").c_str(), 1);
    CMimeDecoder decoder;
    Scan(decoder, "Content-Type: application/pdf\r\n\r\nbody");
    ASSERT_EQ(decoder.m_listParts.size(), 1u);
    EXPECT_TRUE(decoder.m_listParts.front().GetFileName().IsEmpty());
    decoder.ReformatHtml();
    EXPECT_EQ(Boxes(), std::vector<std::string>{"unable to create temporary file"});
    // The name is the empty temporary name with the content type's extension.
    EXPECT_EQ(decoder.m_strMessage.str(), Box("", ".pdf", "application/pdf"));
}

}  // namespace
}  // namespace tavik::test
