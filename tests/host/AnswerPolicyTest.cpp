// Answers and forwards that do no harm: every reason not to answer, once per sender per period, the
// fields an answer carries, and forwards that cannot loop between accounts.
#include "host/AnswerPolicy.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "rules/CAutoResponderProfile.h"

namespace tavik::host {
namespace {

const std::vector<std::string> kOwn = {"Me@Example.com", "alias@example.com"};

std::string Header(const std::string& extra, const std::string& from = "Ann <ann@example.org>") {
    return "Return-Path: <ann@example.org>\r\nFrom: " + from + "\r\nSubject: hi\r\n" + extra;
}

TEST(AnswerPolicy, EveryReasonNotToAnswer) {
    struct Case {
        std::string header;
        std::string reason;  // empty: answered
    };
    const Case cases[] = {
        {Header(""), ""},
        {Header("Auto-Submitted: no\r\n"), ""},
        {Header("Auto-Submitted: No (a person wrote this)\r\n"), ""},
        {Header("Auto-Submitted: auto-replied\r\n"), "it is automatic (Auto-Submitted: auto-replied)"},
        {Header("AUTO-SUBMITTED: Auto-Generated; owner=x\r\n"),
         "it is automatic (Auto-Submitted: Auto-Generated; owner=x)"},
        {Header("Auto-Submitted:\r\n"), "it is automatic (Auto-Submitted: )"},
        {Header("Precedence: bulk\r\n"), "it is bulk mail (Precedence: bulk)"},
        {Header("Precedence: LIST\r\n"), "it is bulk mail (Precedence: list)"},
        {Header("Precedence: junk\r\n"), "it is bulk mail (Precedence: junk)"},
        {Header("Precedence: first-class\r\n"), ""},
        {Header("List-Id: <news.example.org>\r\n"), "it comes from a mailing list (List-Id)"},
        {Header("List-Unsubscribe: <mailto:u@example.org>\r\n"),
         "it comes from a mailing list (List-Unsubscribe)"},
        {Header("X-Auto-Response-Suppress: OOF, DR\r\n"),
         "it asks for no automatic answer (X-Auto-Response-Suppress)"},
        {"Return-Path: <>\r\nFrom: ann@example.org\r\n", "its return path is empty (a delivery report)"},
        {"Return-Path:\r\nFrom: ann@example.org\r\n", "its return path is empty (a delivery report)"},
        {"Subject: nobody\r\n", "it names no sender to answer"},
        {"From: ann@example.org\r\n", ""},  // no return path: the sender
        {Header("", "MAILER-DAEMON@mx.example.org"),
         "it comes from a mail system (MAILER-DAEMON@mx.example.org)"},
        {"Return-Path: <no-reply@shop.example>\r\nFrom: Shop <shop@shop.example>\r\n",
         "it comes from a mail system (no-reply@shop.example)"},
        {Header("", "DoNotReply@bank.example"), "it comes from a mail system (DoNotReply@bank.example)"},
        {"Return-Path: <news-request@lists.example>\r\n",
         "it comes from a mail system (news-request@lists.example)"},
        {"Return-Path: <owner-news@lists.example>\r\n",
         "it comes from a mail system (owner-news@lists.example)"},
        {"Return-Path: <bounces+123@mail.example>\r\n",
         "it comes from a mail system (bounces+123@mail.example)"},
        {"Return-Path: <listserv@lists.example>\r\n", "it comes from a mail system (listserv@lists.example)"},
        {"Return-Path: <ME@example.COM>\r\nFrom: me@example.com\r\n",
         "it comes from this account's own address"},
        {"From: Alias <alias@example.com>\r\n", "it comes from this account's own address"},
        {"Return-Path: <replyto@example.org>\r\n", ""},  // "reply" alone is a person's word
    };
    for (const Case& c : cases) {
        const AnswerDecision d = DecideAnswer(c.header, kOwn);
        EXPECT_EQ(d.answer, c.reason.empty()) << c.header;
        EXPECT_EQ(d.reason, c.reason) << c.header;
        EXPECT_EQ(d.recipient.empty(), !d.answer) << c.header;
    }
    // The answer goes to the return path, not to From or Reply-To.
    const AnswerDecision d = DecideAnswer(
        "Return-Path: <env@example.org>\r\nFrom: a@example.org\r\n"
        "Reply-To: r@example.org\r\n",
        kOwn);
    EXPECT_EQ(d.recipient, "env@example.org");
}

TEST(AnswerPolicy, OncePerSenderPerPeriod) {
    CAutoResponderProfile responder;
    const std::string header = Header("");
    EXPECT_TRUE(DecideAnswer(header, kOwn, &responder).answer);
    RecordAnswer(responder, "ANN@example.org ");
    const AnswerDecision again = DecideAnswer(header, kOwn, &responder);
    EXPECT_FALSE(again.answer);
    EXPECT_EQ(again.reason, "its sender was answered already in this period");
    EXPECT_TRUE(DecideAnswer("Return-Path: <bob@example.org>\r\n", kOwn, &responder).answer);
    CStringArray stored;
    responder.GetDuplicates(stored);
    ASSERT_EQ(stored.GetSize(), 1);
    EXPECT_EQ(stored[0].str(), "ann@example.org");
    // "Ignore Duplicates" answers every time.
    CString textFile, attachFile, subject, duplicateAction;
    DWORD ignore = 0, useDefault = 0, active = 0;
    responder.GetAutoResponderOptions(textFile, attachFile, subject, duplicateAction, ignore, useDefault,
                                      active);
    responder.SetAutoResponderOptions(textFile, attachFile, subject, duplicateAction, 1, useDefault, active);
    EXPECT_TRUE(DecideAnswer(header, kOwn, &responder).answer);
}

TEST(AnswerPolicy, AnswerFieldsAndSubject) {
    auto find = [](const std::vector<HeaderLine>& lines, const std::string& name) {
        for (const HeaderLine& l : lines)
            if (l.name == name) return l.value;
        return std::string("(none)");
    };
    std::vector<HeaderLine> lines = AnswerHeaders("Message-ID: <m3@x>\r\nReferences: <m1@x>\r\n <m2@x>\r\n");
    EXPECT_EQ(find(lines, "Auto-Submitted"), "auto-replied");
    EXPECT_EQ(find(lines, "In-Reply-To"), "<m3@x>");
    EXPECT_EQ(find(lines, "References"), "<m1@x> <m2@x> <m3@x>");
    lines = AnswerHeaders("Message-ID: <m2@x>\r\nIn-Reply-To: <m1@x> (earlier)\r\n");
    EXPECT_EQ(find(lines, "References"), "<m1@x> <m2@x>");
    // No identifier: nothing to refer to.
    lines = AnswerHeaders("Message-ID: broken\r\n");
    EXPECT_EQ(find(lines, "In-Reply-To"), "(none)");
    EXPECT_EQ(find(lines, "Auto-Submitted"), "auto-replied");
    // A long chain keeps its first and its latest identifiers.
    std::string refs = "References:";
    for (int i = 0; i < 50; ++i) refs += " <r" + std::to_string(i) + "@x>";
    lines = AnswerHeaders("Message-ID: <last@x>\r\n" + refs + "\r\n");
    const std::string chain = find(lines, "References");
    EXPECT_EQ(chain.rfind("<r0@x> <r32@x> <r33@x> ", 0), 0u) << chain;
    EXPECT_EQ(chain.substr(chain.size() - 16), "<r49@x> <last@x>");

    EXPECT_EQ(FillSubjectTemplate("AUTO-RESPONSE: %SUBJECT%", "Grüße"), "AUTO-RESPONSE: Grüße");
    EXPECT_EQ(FillSubjectTemplate("%subject% / %Subject%", "x"), "x / x");
    EXPECT_EQ(FillSubjectTemplate("Away", "x"), "Away");
    // A decoded subject cannot add header fields.
    EXPECT_EQ(FillSubjectTemplate("Re: %SUBJECT%", "hi\r\nBcc: victim@example.org"),
              "Re: hi  Bcc: victim@example.org");
}

TEST(AnswerPolicy, ForwardsCannotLoop) {
    const std::string original = "From: ann@example.org\r\nSubject: hi\r\n";
    ASSERT_TRUE(DecideForward(original, {"a@example.com"}).forward);
    // Account A forwards to B: the forward carries A's mark.
    std::string atB = original;
    for (const HeaderLine& l : ForwardHeaders(original, "A@Example.com"))
        atB += l.name + ": " + l.value + "\r\n";
    EXPECT_NE(atB.find("Auto-Submitted: auto-generated\r\n"), std::string::npos);
    EXPECT_NE(atB.find("X-Tavik-Forwarded-By: a@example.com\r\n"), std::string::npos);
    // B may forward it (back to A); its forward carries both marks.
    ASSERT_TRUE(DecideForward(atB, {"b@example.com"}).forward);
    std::string backAtA = original;
    for (const HeaderLine& l : ForwardHeaders(atB, "b@example.com"))
        backAtA += l.name + ": " + l.value + "\r\n";
    // A does not forward it again.
    const ForwardDecision stop = DecideForward(backAtA, {"x@example.com", "a@example.com"});
    EXPECT_FALSE(stop.forward);
    EXPECT_EQ(stop.reason, "this account has forwarded it before");
    // A chain through many accounts ends too.
    std::string chain = original;
    for (int i = 0; i < kMaxForwards; ++i)
        chain += "X-Tavik-Forwarded-By: hop" + std::to_string(i) + "@example.net\r\n";
    EXPECT_FALSE(DecideForward(chain, {"new@example.com"}).forward);
    EXPECT_LE(ForwardHeaders(chain + chain, "new@example.com").size(), static_cast<size_t>(kMaxForwards) + 2);
}

}  // namespace
}  // namespace tavik::host
