// The vCard reader and writer on their own: what address books write (folding, escapes, groups, both
// TYPE forms) and the malformed files they must refuse with the line named.
#include <gtest/gtest.h>

#include "host/VCard.h"

using tavik::host::ParseVCards;
using tavik::host::VCardContact;
using tavik::host::VCardError;
using tavik::host::WriteVCards;

namespace {

std::string ErrorOf(const std::string& text) {
    try {
        ParseVCards(text, "book.vcf");
    } catch (const VCardError& e) {
        return e.what();
    }
    return "(no error)";
}

TEST(VCard, ReadsWhatAddressBooksWrite) {
    const std::string text =
        "BEGIN:VCARD\r\n"
        "VERSION:3.0\r\n"
        "N:Lee;Ann;Marie;Dr;PhD\r\n"
        "FN:Dr Ann Lee\r\n"
        "ORG:Lee\\, Smith & Co;Research\r\n"
        "item1.EMAIL;TYPE=INTERNET;TYPE=WORK:ann@lee.example\r\n"
        "EMAIL;TYPE=INTERNET,HOME,PREF:ann@home.example\r\n"
        "TEL;TYPE=CELL:+1 555 0100\r\n"
        "TEL;TYPE=WORK,FAX:+1 555 0101\r\n"
        "ADR;TYPE=WORK:;Suite 4;1 Main St;Springfield;IL;62701;USA\r\n"
        "NOTE:first line\\nsecond\\; with semicolon and a very long tail that an exporter folded acr\r\n"
        " oss two lines\r\n"
        "X-CUSTOM:ignored\r\n"
        "END:VCARD\r\n"
        "BEGIN:VCARD\n"
        "VERSION:4.0\n"
        "FN:Bob\n"
        "TEL;VALUE=uri;TYPE=\"home,voice\":tel:+44-20-7946-0000\n"
        "END:VCARD\n";
    std::vector<VCardContact> cards = ParseVCards(text, "book.vcf");
    ASSERT_EQ(cards.size(), 2u);
    const VCardContact& ann = cards[0];
    EXPECT_EQ(ann.family, "Lee");
    EXPECT_EQ(ann.given, "Ann");
    EXPECT_EQ(ann.additional, "Marie");
    EXPECT_EQ(ann.prefix, "Dr");
    EXPECT_EQ(ann.suffix, "PhD");
    EXPECT_EQ(ann.organization, "Lee, Smith & Co");
    ASSERT_EQ(ann.emails.size(), 2u);
    EXPECT_EQ(ann.emails[0].value, "ann@lee.example") << "a group prefix is not part of the name";
    EXPECT_EQ(ann.emails[1].types, (std::vector<std::string>{"internet", "home", "pref"}));
    ASSERT_EQ(ann.phones.size(), 2u);
    EXPECT_EQ(ann.phones[1].types, (std::vector<std::string>{"work", "fax"}));
    ASSERT_EQ(ann.addresses.size(), 1u);
    EXPECT_EQ(ann.addresses[0].street, "1 Main St\nSuite 4");
    EXPECT_EQ(ann.addresses[0].postalCode, "62701");
    EXPECT_EQ(
        ann.note,
        "first line\nsecond; with semicolon and a very long tail that an exporter folded across two lines");
    EXPECT_EQ(cards[1].formattedName, "Bob");
    ASSERT_EQ(cards[1].phones.size(), 1u);
    EXPECT_EQ(cards[1].phones[0].value, "+44-20-7946-0000");
    EXPECT_EQ(cards[1].phones[0].types, (std::vector<std::string>{"home", "voice"}));
}

TEST(VCard, WrittenCardsReadBackTheSame) {
    VCardContact c;
    c.given = "Zoë";
    c.family = "O'Brien; Jr";
    c.formattedName = "Zoë O'Brien";
    c.organization = "A, B \\ C";
    c.note = std::string(200, 'n') + "\nend";
    c.emails = {{{"pref"}, "zoe@example.org"}};
    c.addresses = {{{"home"}, "2 Side St", "Dublin", "", "D02", "Ireland"}};
    for (const char* version : {"3.0", "4.0"}) {
        std::string text = WriteVCards({c}, version);
        size_t start = 0;
        for (size_t end; (end = text.find("\r\n", start)) != std::string::npos; start = end + 2)
            EXPECT_LE(end - start, 75u) << "folded at 75 octets";
        EXPECT_NE(text.find(std::string("VERSION:") + version + "\r\n"), std::string::npos);
        std::vector<VCardContact> back = ParseVCards(text, "out.vcf");
        ASSERT_EQ(back.size(), 1u);
        EXPECT_EQ(back[0].family, c.family);
        EXPECT_EQ(back[0].given, c.given);
        EXPECT_EQ(back[0].organization, c.organization);
        EXPECT_EQ(back[0].note, c.note);
        EXPECT_EQ(back[0].emails[0].value, c.emails[0].value);
        EXPECT_EQ(back[0].addresses[0].city, "Dublin");
        EXPECT_EQ(back[0].addresses[0].country, "Ireland");
    }
}

TEST(VCard, MalformedFilesNameTheLine) {
    const std::string head = "BEGIN:VCARD\r\nVERSION:3.0\r\n";
    EXPECT_EQ(ErrorOf(head + "FN:A\r\nno colon here\r\nEND:VCARD\r\n"), "book.vcf:4: expected NAME:VALUE");
    EXPECT_EQ(ErrorOf("FN:A\r\n"), "book.vcf:1: 'FN' outside BEGIN:VCARD ... END:VCARD");
    EXPECT_EQ(ErrorOf(head + "FN:A\r\n"), "book.vcf:1: the card begun here has no END:VCARD");
    EXPECT_EQ(ErrorOf(head + "BEGIN:VCARD\r\n"), "book.vcf:3: BEGIN:VCARD inside the card begun on line 1");
    EXPECT_EQ(ErrorOf("BEGIN:VCARD\r\nVERSION:2.1\r\n"),
              "book.vcf:2: vCard version 2.1 (only 3.0 and 4.0 are read)");
    EXPECT_EQ(ErrorOf(head + "EMAIL:a@b\r\nEND:VCARD\r\n"),
              "book.vcf:4: the card begun on line 1 has neither FN nor N");
    EXPECT_EQ(ErrorOf("BEGIN:VCARD\r\nFN:A\r\nEND:VCARD\r\n"),
              "book.vcf:3: the card begun on line 1 has no VERSION");
    EXPECT_EQ(ErrorOf(""), "book.vcf: no BEGIN:VCARD in the file");
    EXPECT_EQ(ErrorOf(head + std::string("FN:A\0B\r\nEND:VCARD\r\n", 19)), "book.vcf:3: not a text line");
    EXPECT_EQ(ErrorOf("\x89PNG\r\n\x1a\n"), "book.vcf:1: expected NAME:VALUE");
}

}  // namespace
