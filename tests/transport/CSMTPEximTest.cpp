// The SMTP client against a real mail server: a private Exim delivering into the Maildir of a private
// Dovecot, so that what the library composed and sent is fetched back over POP3 and compared, and read
// by python3's own mail parser.
#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <random>
#include <set>
#include <string>

#include "platform/Registry.h"
#include "tests/support/DovecotServer.h"
#include "tests/support/EximServer.h"
#include "tests/support/TempDir.h"
#include "tests/transport/Pop3TestSupport.h"
#include "transport/CMIMEMessage.h"
#include "transport/CSMTP.h"

using namespace tavik::test;

namespace {

// python3's email parser over a stored message: the defects it finds in the message and each part
// (while parsing, and while decoding a payload), each part's decoded text or, for an attachment, its size
// (the bytes go to a file named by the second argument and the file name), the subject and the date.
// Non-ASCII bytes are shown as \x escapes.
const char* kParse = R"PY(
import email, sys
from email import policy
def shown(b):
    return b.decode('latin-1').encode('unicode_escape').decode()
msg = email.message_from_binary_file(open(sys.argv[1], 'rb'), policy=policy.compat32)
for part in msg.walk():
    for d in part.defects:
        print('defect', part.get_content_type(), type(d).__name__)
    if part.is_multipart():
        continue
    seen = len(part.defects)
    payload = part.get_payload(decode=True)
    for d in part.defects[seen:]:
        print('decoding defect', part.get_content_type(), type(d).__name__)
    if part.get_filename():
        open(sys.argv[2] + part.get_filename(), 'wb').write(payload)
        print('attachment', part.get_content_type(), part.get_filename(), len(payload))
    else:
        print('text', part.get_content_type(), shown(payload))
print('subject', shown(dict(msg.raw_items())['Subject'].encode('ascii', 'surrogateescape')))
print('date', msg['Date'])
)PY";

std::string Output(const std::string& command) {
    std::string out;
    if (FILE* p = ::popen(command.c_str(), "r")) {
        char buf[4096];
        size_t n;
        while ((n = std::fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
        ::pclose(p);
    }
    return out;
}

// The text of a header line of header, without its name.
std::string Field(const std::string& header, const std::string& name) {
    size_t at = header.find(name + ": ");
    if (at == std::string::npos) return "<none>";
    at += name.size() + 2;
    return header.substr(at, header.find("\r\n", at) - at);
}

std::string RandomBytes(size_t n, unsigned seed) {
    std::mt19937 rng(seed);
    std::string s(n, '\0');
    for (auto& c : s) c = static_cast<char>(rng());
    return s;
}

class SmtpExim : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        s_dovecot = new DovecotServer;
        s_dovecot->Start();
        s_exim = new EximServer(s_dovecot->Dir() + "/Maildir");
        s_exim->Start();
    }
    static void TearDownTestSuite() {
        delete s_exim;
        delete s_dovecot;
        s_exim = nullptr;
        s_dovecot = nullptr;
    }
    void SetUp() override {
        RegSetStorePath(dir.file("registry.db").c_str());
        WriteFile(dir.file("mime.types"), "image/png png\napplication/pdf pdf\n");
        RegSetMimeTypesPath(dir.file("mime.types").c_str());
    }
    void TearDown() override {
        RegCloseStore();
        RegSetStorePath(nullptr);
        RegSetMimeTypesPath(nullptr);
        if (HasFailure()) std::cerr << s_exim->Log();
    }
    std::string Address(const char* local) const { return std::string(local) + "@" + s_exim->Domain(); }

    // Every message of the mailbox, in order, as Retrieve gives it.
    std::vector<std::string> Fetch() {
        auto pop = std::make_unique<CPopMail>(nullptr, nullptr, 10);
        EXPECT_TRUE(pop->Connect("127.0.0.1", s_dovecot->Port()));
        EXPECT_TRUE(pop->Login(s_dovecot->User().c_str(), s_dovecot->Password().c_str()));
        int count = 0, size = 0;
        EXPECT_TRUE(pop->MailBoxStats(&count, &size));
        std::vector<std::string> all;
        for (int n = 1; n <= count; ++n) {
            CString text;
            EXPECT_TRUE(pop->Retrieve(n, text));
            all.push_back(text.str());
        }
        pop->Quit();
        return all;
    }

    WinsockSession winsock;
    TempDir dir;
    static DovecotServer* s_dovecot;
    static EximServer* s_exim;
};

DovecotServer* SmtpExim::s_dovecot = nullptr;
EximServer* SmtpExim::s_exim = nullptr;

}  // namespace

TEST_F(SmtpExim, ComposedMessageComesBackWholeOverPop3AndPythonReadsIt) {
    const std::string image = RandomBytes(3 * 1024 * 1024 + 1, 17);  // a few megabytes, not whole groups
    WriteFile(dir.file("chart.png"), image);
    const std::string notes = RandomBytes(3000, 18);  // whole groups: the codec ends them with "="
    WriteFile(dir.file("notes.pdf"), notes);
    const std::string text =
        "Gr\xfc\xdf"
        "e aus K\xf6ln, caf\xc3\xa9 in UTF-8 too.\r\nSecond line.";

    CMIMEMessage m;
    m.m_sFrom = "ann@example.org";
    m.m_sSubject =
        "Zahlen f\xfcr "
        "M\xe4rz";
    m.AddRecipient(Address("alice").c_str(), "Alice");
    m.AddRecipient("someone@elsewhere.example");  // refused by the relay, skipped
    m.AddCarbonCopy(Address("bob").c_str());
    m.m_sBody = text.c_str();
    m.AddMIMEPart(dir.file("chart.png").c_str());
    m.AddMIMEPart(dir.file("notes.pdf").c_str());

    const size_t before = s_exim->MaildirCount();
    {
        CSMTP smtp(nullptr, 30);
        CString reply;
        ASSERT_TRUE(smtp.Connect("127.0.0.1", reply, s_exim->Port()));
        EXPECT_EQ(reply.Left(4), "250 ");
        ASSERT_TRUE(smtp.SendMessage(&m, reply));
        EXPECT_EQ(reply.Left(7), "250 OK ");
    }
    ASSERT_TRUE(s_exim->WaitForMessages(before + 2)) << "one file per accepted recipient";
    std::vector<std::string> stored = Fetch();
    ASSERT_EQ(stored.size(), before + 2);

    for (size_t i = before; i < stored.size(); ++i) {
        const std::string& got = stored[i];
        // Exim prepends its trace lines; from the first of ours on, the message is ours byte for byte.
        const size_t start = got.find("From: ann@example.org\r\n");
        ASSERT_NE(start, std::string::npos);
        EXPECT_EQ(got.substr(start), std::string(m.m_sHeader) + std::string(m.m_sBody));
        EXPECT_NE(got.find("Envelope-to: "), std::string::npos);

        const std::string file = dir.file("message" + std::to_string(i));
        WriteFile(file, got.substr(start));
        WriteFile(dir.file("parse.py"), kParse);
        const std::string report =
            Output("/usr/bin/python3 " + dir.file("parse.py") + " " + file + " " + file + ". 2>&1");
        // The one defect is the "=" that the codec puts after a whole number of groups; the parser takes
        // the two-digit year and the 7Bit label on 8-bit text without complaint. (It gives text with LF
        // line ends, and the line end before a boundary belongs to the boundary.)
        EXPECT_EQ(report,
                  "text text/plain Gr\\xfc\\xdfe aus K\\xf6ln, caf\\xc3\\xa9 in UTF-8 too.\\nSecond line.\n"
                  "attachment image/png chart.png 3145729\n"
                  "decoding defect application/pdf InvalidBase64PaddingDefect\n"
                  "attachment application/pdf notes.pdf 3000\n"
                  "subject Zahlen f\\xfcr M\\xe4rz\n"
                  "date " +
                      Field(m.m_sHeader.str(), "Date") + "\n");
        EXPECT_TRUE(ReadFile(file + ".chart.png") == image) << "attachment bytes differ";
        EXPECT_TRUE(ReadFile(file + ".notes.pdf") == notes) << "attachment bytes differ";
    }
}

TEST_F(SmtpExim, SeveralMessagesOnOneSessionAndTheRelaysOwnRefusals) {
    const size_t before = s_exim->MaildirCount();
    CSMTP smtp(nullptr, 30);
    CString reply;
    ASSERT_TRUE(smtp.Connect("127.0.0.1", reply, s_exim->Port()));
    for (int i = 0; i < 3; ++i) {
        CMailMessage m;
        m.m_sFrom = "ann@example.org";
        m.AddRecipient(Address("alice").c_str());
        m.m_sSubject.Format("number %d", i);
        m.m_sBody = "a line\r\n.\r\nafter a lone dot\r\n";
        ASSERT_TRUE(smtp.SendMessage(&m, reply)) << i;
    }
    // Nobody in the domain: the relay's own text comes back.
    CMailMessage outside;
    outside.m_sFrom = "ann@example.org";
    outside.AddRecipient("carl@elsewhere.example");
    try {
        smtp.SendMessage(&outside, reply);
        ADD_FAILURE() << "no exception";
    } catch (CSMTPException* e) {
        EXPECT_EQ(e->GetErrorMessage(), "550 relay not permitted");
        e->Delete();
    }
    ASSERT_TRUE(s_exim->WaitForMessages(before + 3));
    std::vector<std::string> stored = Fetch();
    ASSERT_EQ(stored.size(), before + 3);
    // Each delivery is a process of its own, so the files need not come in the order sent.
    std::set<std::string> subjects;
    for (size_t i = before; i < stored.size(); ++i) {
        const std::string& got = stored[i];
        const size_t at = got.find("Subject: ");
        subjects.insert(got.substr(at, got.find("\r\n", at) - at));
        // The lone dot arrived single: Dovecot doubles it again on the way out, and the POP3 client keeps
        // what it was sent.
        EXPECT_EQ(got.substr(got.find("\r\n\r\n") + 4), "a line\r\n..\r\nafter a lone dot\r\n");
    }
    EXPECT_EQ(subjects,
              (std::set<std::string>{"Subject: number 0", "Subject: number 1", "Subject: number 2"}));
}
