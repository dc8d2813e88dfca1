// tavik contact and friends add-contacts end to end, and the round trip a new user makes: a user with a
// password, two accounts, friends, an imported shield and contacts, found again after signing out.
#include <algorithm>
#include <cctype>

#include "tests/host/ManageFixture.h"

using tavik::test::ManageTest;
using tavik::test::ReadFile;
using tavik::test::WriteFile;

namespace {

class ContactCommands : public ManageTest {
protected:
    void SetUp() override {
        ManageTest::SetUp();
        Ok({"account", "add", "Work", "--server", "pop.example.com"});
    }
};

const char kBook[] =
    "BEGIN:VCARD\r\n"
    "VERSION:3.0\r\n"
    "N:Lee;Ann;;;\r\n"
    "FN:Ann Lee\r\n"
    "EMAIL;TYPE=INTERNET,PREF:ann@lee.example\r\n"
    "EMAIL;TYPE=INTERNET:Ann@Work.example\r\n"
    "TEL;TYPE=CELL:+1 555 0100\r\n"
    "ORG:Lee\\, Smith & Co\r\n"
    "END:VCARD\r\n"
    "BEGIN:VCARD\r\n"
    "VERSION:4.0\r\n"
    "FN:Bob Stone\r\n"
    "N:Stone;Bob;;;\r\n"
    "EMAIL:bob@stone.example\r\n"
    "EMAIL:ANN@LEE.EXAMPLE\r\n"
    "END:VCARD\r\n";

TEST_F(ContactCommands, ImportListExportAndTrust) {
    WriteFile(m_dir.file("book.vcf"), kBook);
    EXPECT_EQ(Ok({"contact", "import", "work", m_dir.file("book.vcf")}), "imported 2 contacts\n");
    std::string list = Ok({"contact", "list", "work", "--json"});
    EXPECT_NE(list.find("\"name\": \"Ann Lee\", \"company\": \"Lee, Smith & Co\", \"emails\": "
                        "[\"ann@lee.example\", \"Ann@Work.example\"]}"),
              std::string::npos)
        << list;
    EXPECT_NE(list.find("\"name\": \"Bob Stone\""), std::string::npos) << list;

    Ok({"contact", "export", "work", m_dir.file("out.vcf"), "--version", "3.0"});
    std::string out = ReadFile(m_dir.file("out.vcf"));
    EXPECT_NE(out.find("ORG:Lee\\, Smith & Co\r\n"), std::string::npos) << out;
    EXPECT_NE(out.find("TEL;TYPE=cell:+1 555 0100\r\n"), std::string::npos) << out;

    EXPECT_EQ(Ok({"friends", "add-contacts", "work"}), "added 3 entries\n")
        << "each address once, ignoring case";
    // The book's order is its storage's; each address counts once whatever its case.
    std::string friends = Ok({"friends", "list", "work"});
    for (char& c : friends) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    for (const char* address : {"ann@lee.example\n", "ann@work.example\n", "bob@stone.example\n"})
        EXPECT_NE(friends.find(address), std::string::npos) << friends;
    EXPECT_EQ(std::count(friends.begin(), friends.end(), '\n'), 3);

    Ok({"contact", "remove", "work", "bob stone"});
    Fails({"contact", "remove", "work", "Ann Lee", "Nobody"}, "no contact 'Nobody'");
    list = Ok({"contact", "list", "work"});
    EXPECT_NE(list.find("\tAnn Lee\tann@lee.example\n"), std::string::npos) << list;
    EXPECT_EQ(list.find("Bob"), std::string::npos) << list;
}

TEST_F(ContactCommands, MalformedCardsAddNothing) {
    WriteFile(m_dir.file("bad.vcf"), std::string(kBook) + "BEGIN:VCARD\r\nVERSION:3.0\r\nFN:Cut\r\n");
    Fails({"contact", "import", "work", m_dir.file("bad.vcf")},
          "bad.vcf:17: the card begun here has no END:VCARD");
    Fails({"contact", "import", "work", m_dir.file("missing.vcf")}, "cannot read");
    Fails({"contact", "add", "work", "--company", "Nameless Ltd"}, "needs --first", 2);
    EXPECT_EQ(Ok({"contact", "list", "work", "--json"}), "[]\n");
    WriteFile(m_dir.file("keep.vcf"), "old export");
    Fails({"contact", "export", "work", m_dir.file("keep.vcf"), "--version", "2.1"}, "3.0 or 4.0", 2);
    EXPECT_EQ(ReadFile(m_dir.file("keep.vcf")), "old export");
}

TEST_F(ContactCommands, AddedContactExportsAsVCard4) {
    Ok({"contact", "add", "work", "--first", "Cy", "--last", "Ng", "--email", "cy@ng.example", "--phone",
        "123"});
    std::string out = Ok({"contact", "export", "work", "-"});
    EXPECT_NE(out.find("BEGIN:VCARD\r\nVERSION:4.0\r\nFN:Cy Ng\r\nN:Ng;Cy;;;\r\n"), std::string::npos) << out;
    EXPECT_NE(out.find("EMAIL;TYPE=internet,pref:cy@ng.example\r\n"), std::string::npos) << out;
}

}  // namespace
