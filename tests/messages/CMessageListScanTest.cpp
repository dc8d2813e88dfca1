#include <gtest/gtest.h>

#include <cstdio>

#include "messages/CMessageList.h"
#include "platform/Clock.h"
#include "util/XString.h"

namespace {

const char* const kHeader =
    "Return-Path: <bounce@example.org>\r\n"
    "Received: from mx1.example.org by mail.example.net\r\n"
    "Received: from relay.example.com by mx1.example.org\r\n"
    "Sender: list-owner@example.org\r\n"
    "From:   \"Jane Doe\" <jane@example.org>  \r\n"
    "To: bob@example.net\r\n"
    "Subject: Re: meeting: 10:30 today\r\n"
    " (continued)\r\n"
    "X-Subject: not this one\r\n"
    "date : not a date line\r\n"
    "Date: Tue, 5 Mar 2024 10:15:30 +0100\r\n"
    "\r\n"
    "Message-ID: <abc@example.org>\n"
    "content-type: text/plain;\r\n"
    "\tcharset=us-ascii\r\n"
    "MIME-Version: 1.0\r\n"
    "Organization: Example: Inc\r\n"
    "Status: RO\r\n"
    "Content-Transfer-Encoding: 7bit\r\n"
    "UIDL: 12345\r\n";

CMessageList scanned(const CString& header) {
    CMessageList m;
    m.SetData(header, 1, 1, MsgReceived);
    return m;
}

TEST(MessageScan, FillsEachFieldFromTheFirstMatchingLine) {
    CMessageList m;
    m.SetData(kHeader, 77, 1234, MsgReceived);
    EXPECT_EQ(m.GetReturnPath(), "<bounce@example.org>");
    EXPECT_EQ(m.GetReceivedFrom(), "from mx1.example.org by mail.example.net");  // the topmost
    EXPECT_EQ(m.GetSenderName(), "list-owner@example.org");                      // Sender came first
    EXPECT_EQ(m.GetReciepient(), "bob@example.net");
    EXPECT_EQ(m.GetSubject(), "Re: meeting: 10:30 today");  // whole, later colons included
    EXPECT_EQ(m.GetMessageDate(), "Tue, 5 Mar 2024 10:15:30 +0100");
    EXPECT_EQ(m.GetMessageID(), "<abc@example.org>");
    EXPECT_EQ(m.GetContentType(), "text/plain;");  // a lower-case name matches; the folded line does not
    EXPECT_EQ(m.GetOrganization(), "Example: Inc");
    EXPECT_EQ(m.GetContentTransferEncoding(), "7bit");
    EXPECT_EQ(m.GetXUIDL(), "12345");
    EXPECT_EQ(m.GetReplyTo(), "list-owner@example.org");
    EXPECT_EQ(XString::GetSeparator(), ':');  // the scan leaves the shared separator set
}

TEST(MessageScan, NamesMustMatchWhole) {
    EXPECT_EQ(
        scanned("X-From: a@x\r\nFrom : b@x\r\n From: c@x\r\nFROMAGE: d@x\r\nfrom:e@x\r\n").GetSenderName(),
        "e@x");
    CMessageList m = scanned("Subject\r\nTo:\r\nTo: second@x\r\n");
    EXPECT_EQ(m.GetSubject(), "");
    EXPECT_EQ(m.GetReciepient(), "second@x");  // an empty value leaves the field open for a later line
    // Lines ending inside a keyword, or holding one only as a prefix of a longer name, match nothing.
    m = scanned("Fro\r\nFrom\r\nSubj: a\r\nSubjects: b\r\nSUBJECT:c: d \r\n");
    EXPECT_EQ(m.GetSenderName(), "");
    EXPECT_EQ(m.GetSubject(), "c: d");
}

TEST(MessageScan, DefaultsForMissingFields) {
    ScopedClockPin pin(1000);
    CMessageList m;
    EXPECT_FALSE(m.IsDirty());
    EXPECT_EQ(m.GetStorageName(), "8KeBVj3GZEReyBV9MatE");
    m.SetData("From: Jane Doe <jane@example.org>\r\nReply-To: \r\n", 5, 10, MsgReceived);
    EXPECT_EQ(m.GetReplyTo(), "jane@example.org");  // the bare address, brackets stripped
    EXPECT_EQ(m.GetMessageID(), "8KeBVj3GZEReyBV9MatE");
    EXPECT_TRUE(m.IsDirty());

    // A second scan keeps what the first found; the header text is replaced.
    m.SetData("From: other@x\r\nMessage-ID: <late@x>\r\n", 6, 11, MsgReceived);
    EXPECT_EQ(m.GetSenderName(), "Jane Doe <jane@example.org>");
    EXPECT_EQ(m.GetMessageID(), "8KeBVj3GZEReyBV9MatE");
    EXPECT_EQ(m.GetHeader(), "From: other@x\r\nMessage-ID: <late@x>\r\n");

    CMessageList empty = scanned("");
    EXPECT_TRUE(empty.IsDeleted());
    EXPECT_EQ(empty.GetMessageID().GetLength(), 20);
}

TEST(MessageScan, HostileHeadersStayBounded) {
    // One very long line without a colon, many empty lines and a stray zero byte.
    CString header(std::string(200000, 'A') + "\r\n" + std::string(100000, '\n') + "Subject: ok\r\n");
    header += CString(std::string("From: a@x") + '\0' + "To: hidden@x\r\n");
    CMessageList m = scanned(header);
    EXPECT_EQ(m.GetSubject(), "ok");
    EXPECT_EQ(m.GetSenderName(), "a@x");  // the scan reads lines as C text
    EXPECT_EQ(m.GetReciepient(), "");
    EXPECT_EQ(m.GetHeader().GetLength(), header.GetLength());
}

TEST(MessageAddresses, BracketsAndFallbacks) {
    EXPECT_EQ(scanned("From: Jane <jane@x>\r\n").GetFormattedSenderName(), "jane@x");
    EXPECT_EQ(scanned("From: Jane <>\r\n").GetFormattedSenderName(), "Jane <>");
    EXPECT_EQ(scanned("From: a> b <c\r\n").GetFormattedSenderName(), "a> b <c");
    EXPECT_EQ(scanned("From: \t \"Jane Doe\" <jane@x> \t\r\n").GetSenderName(), "\"Jane Doe\" <jane@x>");

    CMessageList team = scanned("From: Jane <jane@x>\r\nReply-To: Team <team@x>\r\n");
    EXPECT_EQ(team.GetFormattedReplyTo(), "team@x");
    EXPECT_EQ(scanned("From: Jane <jane@x>\r\nReply-To: Nobody <>\r\n").GetFormattedReplyTo(),
              "Jane <jane@x>");
    EXPECT_EQ(scanned("From: Jane <jane@x>\r\nReply-To: plain@x\r\n").GetFormattedReplyTo(), "plain@x");
}

TEST(MessageDate, ParsesTheUsualForms) {
    const std::pair<const char*, const char*> cases[] = {
        {"Tue, 5 Mar 24 10:15:30 +0100", "2024-03-05 10:15:30"},
        {"5 Mar 69 10:15:30", "2069-03-05 10:15:30"},
        {"Fri, 5 Dec 75 23:59:01 GMT", "1975-12-05 23:59:01"},
        {"5 oct 1999 08:07", "1999-10-05 08:07:00"},
        {"Wed, 17 Jul 2024 9 (no minutes)", "2024-07-17 09:00:00"},
    };
    for (auto [text, expected] : cases) {
        CTime when;
        ASSERT_TRUE(scanned(CString("Date: ") + text + "\r\n").GetMessageDate(when)) << text;
        char got[32];
        std::snprintf(got, sizeof got, "%04d-%02d-%02d %02d:%02d:%02d", when.GetYear(), when.GetMonth(),
                      when.GetDay(), when.GetHour(), when.GetMinute(), when.GetSecond());
        EXPECT_STREQ(got, expected) << text;
    }
}

TEST(MessageDate, RefusesUnknownMonthsAndLeavesTheArgument) {
    for (const char* text :
         {"Tue, 5 Mars 2024 10:00", "5 mai 2024 10:00", "Tue,  5 Mar 2024 10:00", "garbage"}) {
        CTime when(12345);
        EXPECT_FALSE(scanned(CString("Date: ") + text + "\r\n").GetMessageDate(when)) << text;
        EXPECT_EQ(when.GetTime(), 12345) << text;
    }
    CMessageList none;
    CTime when(12345);
    EXPECT_FALSE(none.GetMessageDate(when));
    // Absurd numbers must not overflow on the way to the calendar.
    EXPECT_TRUE(
        scanned("Date: 99999999999 Jan -99999999999 99999999999:-99999999999:1\r\n").GetMessageDate(when));
}

TEST(MessageFind, SearchesTheHeaderByPhraseOrWords) {
    CMessageList m = scanned(kHeader);
    EXPECT_TRUE(m.Find("MEETING: 10", false, CMessageList::FindPhrase));
    EXPECT_FALSE(m.Find("MEETING", true, CMessageList::FindPhrase));
    EXPECT_TRUE(m.Find("meeting", true, CMessageList::FindPhrase));
    EXPECT_TRUE(m.Find("jane  meeting", false, CMessageList::FindAllWords));
    EXPECT_FALSE(m.Find("jane absent", false, CMessageList::FindAllWords));
    EXPECT_TRUE(m.Find("absent JANE", false, CMessageList::FindAnyWord));
    EXPECT_FALSE(m.Find("absent JANE", true, CMessageList::FindAnyWord));
    EXPECT_FALSE(m.Find("   ", false, CMessageList::FindAnyWord));
    EXPECT_FALSE(m.Find("jane", false, static_cast<CMessageList::FindType>(7)));
}

}  // namespace
