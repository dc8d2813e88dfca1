#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <fstream>
#include <random>
#include <string>

#include "messages/CMessageList.h"
#include "platform/CFile.h"
#include "platform/CMemFile.h"
#include "tests/support/TempDir.h"

namespace {

void put32(std::string& out, std::uint32_t v) {
    for (int i = 0; i < 4; ++i) out += static_cast<char>((v >> (8 * i)) & 0xFF);
}

struct FlatRecord {
    std::uint32_t type = 0, id = 0, size = 0, spam = 0;
    bool seen = false, read = false;
    std::string email, server, outgoing, folder, header, body;
    bool extension = false;
    std::string account, skipped;

    std::string bytes() const {
        std::string out;
        put32(out, type);
        out += static_cast<char>(seen);
        out += static_cast<char>(read);
        out += "\x55\x55";
        put32(out, id);
        put32(out, size);
        put32(out, spam);
        for (const std::string* s : {&email, &server, &outgoing, &folder, &header, &body})
            put32(out, static_cast<std::uint32_t>(s->size()));
        put32(out, extension ? 1 : 0);
        out += email + server + outgoing + folder + header + body;
        if (extension) {
            put32(out, static_cast<std::uint32_t>(account.size()));
            put32(out, static_cast<std::uint32_t>(skipped.size()));
            out += account + skipped;
        }
        return out;
    }
};

class FlatRecordTest : public ::testing::Test {
protected:
    std::string write(const std::string& bytes) {
        std::string path = m_dir.file("records.bin");
        std::ofstream(path, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        return path;
    }
    tavik::test::TempDir m_dir;
};

TEST_F(FlatRecordTest, ReadsRecordsOneAfterAnother) {
    const FlatRecord a{.type = 1,
                       .id = 0xDEADBEEF,
                       .size = 2048,
                       .spam = 1,
                       .seen = true,
                       .email = "me@example.org",
                       .server = "pop.example.org",
                       .outgoing = "smtp.example.org",
                       .folder = "Archive",
                       .header = "From: Jane <jane@x>\r\nSubject: first\r\nMessage-ID: <1@x>\r\n",
                       .body = "Hello body text"};
    const FlatRecord b{.id = 2,
                       .read = true,
                       .header = "Subject: second\r\n",
                       .extension = true,
                       .account = "Work",
                       .skipped = "12345"};
    const std::string first = a.bytes();
    const std::string path = write(first + b.bytes() + "tail");

    CFile file(path.c_str(), CFile::modeRead | CFile::typeBinary);
    CMessageList ra;
    EXPECT_EQ(ra.LoadMessage(file), first.size());
    EXPECT_EQ(ra.GetMessageType(), MsgSent);
    EXPECT_TRUE(ra.IsSeen() && !ra.IsRead());
    EXPECT_EQ(ra.GetID(), 0xDEADBEEFu);
    EXPECT_EQ(ra.GetMsgSize(), 2048u);
    EXPECT_EQ(ra.GetSpamTag(), 1u);
    EXPECT_EQ(ra.GetEmailAddress(), "me@example.org");
    EXPECT_EQ(ra.GetServerName(), "pop.example.org");
    EXPECT_EQ(ra.GetOutgoingServer(), "smtp.example.org");
    EXPECT_EQ(ra.GetFolderLocation(), "Archive");
    EXPECT_EQ(ra.GetMessageID(), "<1@x>");  // the header is scanned
    EXPECT_TRUE(ra.IsDirty());
    ASSERT_TRUE(ra.HasBody());
    CString body;
    EXPECT_TRUE(ra.GetBody(body));
    EXPECT_EQ(body, "Hello body text");
    // With a body, the search looks there and no longer in the header.
    EXPECT_TRUE(ra.Find("BODY", false, CMessageList::FindPhrase));
    EXPECT_FALSE(ra.Find("first", false, CMessageList::FindPhrase));

    CMessageList rb;
    rb.SetMailBox("kept-server", "kept@x", "kept-out", "old name");
    ULONGLONG end = rb.LoadMessage(file);
    EXPECT_EQ(end, file.GetLength() - 4);  // the trailing bytes are not part of the record
    EXPECT_EQ(rb.GetAccountName(), "Work");
    EXPECT_EQ(rb.GetServerName(), "kept-server");  // absent texts keep their value
    EXPECT_EQ(rb.GetEmailAddress(), "kept@x");
    EXPECT_EQ(rb.GetFolderLocation(), "inbox");
    EXPECT_TRUE(rb.IsRead());
    EXPECT_FALSE(rb.HasBody());
}

// A record whose lengths claim more than the file holds is refused quickly and changes nothing.
TEST_F(FlatRecordTest, RefusesLengthsBeyondTheFile) {
    auto expectRefused = [&](const std::string& bytes, const char* what) {
        const std::string path = write(bytes);
        CFile file(path.c_str(), CFile::modeRead | CFile::typeBinary);
        CMessageList m;
        m.SetMailBox("srv", "addr", "out", "acct");
        const CString storage = m.GetStorageName();
        auto started = std::chrono::steady_clock::now();
        try {
            m.LoadMessage(file);
            ADD_FAILURE() << what << ": no exception";
        } catch (CFileException* e) {
            EXPECT_EQ(e->m_cause, CFileException::endOfFile) << what;
            EXPECT_EQ(e->m_strFileName, CString(path.c_str())) << what;
            e->Delete();
        }
        EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(2)) << what;
        EXPECT_EQ(m.GetID(), 0u) << what;
        EXPECT_EQ(m.GetEmailAddress(), "addr") << what;
        EXPECT_EQ(m.GetAccountName(), "acct") << what;
        EXPECT_EQ(m.GetStorageName(), storage) << what;
        EXPECT_FALSE(m.HasBody()) << what;
        EXPECT_FALSE(m.IsDirty()) << what;
    };

    FlatRecord r{.id = 9, .header = "Subject: x\r\n"};
    std::string hostile = r.bytes();
    for (int field = 0; field < 6; ++field) {
        std::string bytes = hostile;
        bytes.replace(20 + 4 * field, 4, "\xFF\xFF\xFF\xFF");
        expectRefused(bytes, "one length 0xFFFFFFFF");
    }
    std::string all = hostile;
    all.replace(20, 24, std::string(24, '\xFF'));
    expectRefused(all, "every length 0xFFFFFFFF");
    expectRefused(hostile.substr(0, 30), "fixed part cut short");
    expectRefused(hostile.substr(0, hostile.size() - 1), "header cut short by one byte");

    r.extension = true;
    r.account = "acct2";
    std::string ext = r.bytes();
    expectRefused(ext.substr(0, ext.size() - 5), "extension without its account name");
    std::string hugeAccount = ext;
    hugeAccount.replace(hugeAccount.size() - 13, 4, "\xFF\xFF\xFF\xFF");
    expectRefused(hugeAccount, "account length 0xFFFFFFFF");
    std::string hugeSkip = ext;
    hugeSkip.replace(hugeSkip.size() - 9, 4, "\xFF\xFF\xFF\x7F");
    expectRefused(hugeSkip, "skip count beyond the file");
}

TEST_F(FlatRecordTest, EmptyHeaderMarksTheRecordDeleted) {
    const std::string path = write(FlatRecord{.id = 3}.bytes());
    CFile file(path.c_str(), CFile::modeRead | CFile::typeBinary);
    CMessageList m;
    EXPECT_EQ(m.LoadMessage(file), 48u);
    EXPECT_TRUE(m.IsDeleted());
    EXPECT_EQ(m.GetMessageID().GetLength(), 20);
}

// Random damage to a valid record: every outcome is a clean load or a CFileException, never a crash,
// and a load never claims to end past the data.
TEST(FlatRecordDamage, RandomBytesLoadOrThrowCleanly) {
    const std::string good =
        FlatRecord{
            .header = "From: a@x\r\nSubject: s\r\n", .body = "body", .extension = true, .account = "acct"}
            .bytes();
    std::mt19937 rng(20240305);
    int loaded = 0, refused = 0;
    for (int round = 0; round < 3000; ++round) {
        std::string bytes = good;
        for (int k = 0, n = 1 + static_cast<int>(rng() % 4); k < n; ++k) {
            bytes[rng() % bytes.size()] = static_cast<char>(rng());
        }
        if (rng() % 4 == 0) bytes.resize(rng() % bytes.size());
        CMemFile file(reinterpret_cast<BYTE*>(bytes.data()), static_cast<UINT>(bytes.size()), 0);
        CMessageList m;
        try {
            EXPECT_LE(m.LoadMessage(file), bytes.size());
            ++loaded;
        } catch (CFileException* e) {
            e->Delete();
            ++refused;
        }
    }
    EXPECT_GT(loaded, 0);
    EXPECT_GT(refused, 0);
}

}  // namespace
