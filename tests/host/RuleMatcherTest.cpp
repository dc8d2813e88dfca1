// Rules against messages: every tag and action, the body fetched only when asked for, the ignore list,
// "Filter All", and broken rules reported once without stopping anything.
#include "host/RuleMatcher.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "messages/CMessageList.h"
#include "platform/CArray.h"
#include "rules/CSpamBlockProfile.h"

namespace tavik::host {
namespace {

const char kHeader[] =
    "Return-Path: <bounce@lists.example.org>\r\n"
    "Received: from mx.example.org by pop.example.com\r\n"
    "Received: from [10.0.0.1] (helo=spammer.example)\r\n\tby mx.example.org\r\n"
    "From: =?utf-8?q?J=C3=BCrgen_M=C3=BCller?= <Juergen@Example.DE>\r\n"
    "To: Ann <ann@example.com>, \"Lee, Bob\" <bob@example.com>\r\n"
    "Cc: carol@example.net\r\n"
    "Subject: =?ISO-8859-1?Q?Gewinnspiel_f=FCr_Sie?=\r\n"
    "Message-ID: <abc123@example.de>\r\n"
    "Content-Type: multipart/mixed; boundary=\"XX\"\r\n"
    "X-Spam-Flag: YES\r\n";

const char kBody[] =
    "--XX\r\n"
    "Content-Type: text/plain; charset=utf-8\r\n"
    "Content-Transfer-Encoding: quoted-printable\r\n\r\n"
    "Sie haben gewonnen! Klicken Sie hier f=C3=BCr Ihren Preis.\r\n"
    "--XX\r\n"
    "Content-Type: application/octet-stream; name=\"x.exe\"\r\n"
    "Content-Disposition: attachment; filename*=UTF-8''Rechnung%20%E2%82%AC.exe\r\n"
    "Content-Transfer-Encoding: base64\r\n\r\n"
    "TVqQAAMAAAAEAAAA\r\n"
    "--XX--\r\n";

CSpamBlockProfile Rule(const char* tag, const char* action, const char* object, const char* name = "Rule",
                       DWORD filterAll = 0) {
    CSpamBlockProfile rule;
    rule.SetFilterData(name, tag, action, object, "Do Nothing", "All Days", filterAll, 0, 0);
    return rule;
}

class RuleMatcherTest : public ::testing::Test {
protected:
    RuleMatcherTest() {
        m_record.SetData(CString(kHeader), 0x1234, 20480, MsgReceived);
        m_reporter = [this](const std::string& rule, const std::string& problem) {
            m_reports.push_back(rule + ": " + problem);
        };
    }

    RuleMatcher::Outcome Match(const char* tag, const char* action, const char* object,
                               bool withBody = true) {
        MatchMessage message(m_record);
        if (withBody) message.SetMessageText(std::string(kHeader) + "\r\n" + kBody);
        RuleMatcher matcher(m_reporter);
        return matcher.Match(Rule(tag, action, object), message);
    }

    CMessageList m_record;
    RuleMatcher::Reporter m_reporter;
    std::vector<std::string> m_reports;
};

TEST_F(RuleMatcherTest, EveryTagAndAction) {
    struct Case {
        const char* tag;
        const char* action;
        const char* object;
        bool holds;
    };
    const Case cases[] = {
        {"Header", "contains", "x-spam-flag: yes", true},
        {"Header", "equals", "X-SPAM-FLAG: YES", true},
        {"Header", "starts with", "subject: gewinnspiel", true},  // header values decoded
        {"Header", "matches", "^x-spam-[a-z]+: yes$", true},
        {"From", "contains", "müller", true},
        {"From", "equals", "juergen@example.de", true},  // the bare address counts for equals
        {"From", "ends with", "@EXAMPLE.de", true},
        {"From", "starts with", "jürgen", true},
        {"From", "does not contain", "example.de", false},
        {"To", "equals", "bob@example.com", true},  // second mailbox of the list
        {"To", "contains", "lee, bob", true},
        {"To", "equals", "carol@example.net", false},
        {"Cc", "equals", "carol@example.net", true},
        {"Subject", "equals", "gewinnspiel für sie", true},
        {"Subject", "matches", "gewinn(spiel|chance)", true},
        {"Subject", "does not contain", "rechnung", true},
        {"Reply-To", "equals", "juergen@example.de", true},      // no Reply-To: the sender
        {"Received", "contains", "helo=spammer.example", true},  // the second of two, unfolded
        {"Received", "matches", "\\[10\\.0\\.0\\.\\d+\\]", true},
        {"Message-ID", "equals", "<ABC123@example.de>", true},
        {"Size", "greater than", "19K", true},
        {"Size", "greater than", "20K", false},
        {"Size", "less than", "1 MB", true},
        {"Size", "equals", "20480", true},
        {"Body", "contains", "gewonnen", true},
        {"Body", "contains", "für ihren preis", true},  // quoted-printable decoded
        {"Body", "matches", "^sie haben", true},
        {"Body", "contains", "TVqQ", false},  // attachments are not body text
        {"Attachment", "ends with", ".exe", true},
        {"Attachment", "equals", "rechnung €.exe", true},
        {"  header ", "  CONTAINS", "x-spam", true},  // the words' case and blanks do not count
    };
    for (const Case& c : cases)
        EXPECT_EQ(Match(c.tag, c.action, c.object), c.holds ? RuleMatcher::kMatch : RuleMatcher::kNoMatch)
            << c.tag << " " << c.action << " " << c.object;
    EXPECT_TRUE(m_reports.empty());
}

TEST_F(RuleMatcherTest, MissingFieldsAndRecordsWithoutHeaderText) {
    CMessageList bare;
    bare.SetData(CString("Subject: only this\r\n"), 1, 10, MsgReceived);
    MatchMessage message(bare);
    RuleMatcher matcher;
    EXPECT_EQ(matcher.Match(Rule("Cc", "contains", "x"), message), RuleMatcher::kNoMatch);
    EXPECT_EQ(matcher.Match(Rule("Cc", "does not contain", "x"), message), RuleMatcher::kMatch);
    // Not multipart: what the header says about attachments is all there is, and no body is wanted.
    EXPECT_EQ(matcher.Match(Rule("Attachment", "contains", "x"), message), RuleMatcher::kNoMatch);
    EXPECT_FALSE(matcher.NeedsBody(Rule("Attachment", "contains", "x"), message));
    CMessageList pdf;
    pdf.SetData(CString("Content-Type: application/pdf; name=\"scan.pdf\"\r\n"), 2, 10, MsgReceived);
    EXPECT_EQ(matcher.Match(Rule("Attachment", "equals", "scan.pdf"), MatchMessage(pdf)),
              RuleMatcher::kMatch);
}

TEST_F(RuleMatcherTest, TheBodyIsAskedForOnlyByRulesThatNeedIt) {
    MatchMessage message(m_record);
    RuleMatcher matcher;
    const CSpamBlockProfile body = Rule("Body", "contains", "gewonnen");
    const CSpamBlockProfile attachment = Rule("Attachment", "contains", ".exe");
    const CSpamBlockProfile subject = Rule("Subject", "contains", "gewinn");
    EXPECT_TRUE(matcher.NeedsBody(body, message));
    EXPECT_TRUE(matcher.NeedsBody(attachment, message));  // multipart: the parts tell
    EXPECT_FALSE(matcher.NeedsBody(subject, message));
    EXPECT_EQ(matcher.Match(body, message), RuleMatcher::kNeedsBody);
    EXPECT_EQ(matcher.Match(attachment, message), RuleMatcher::kNeedsBody);
    EXPECT_EQ(matcher.Match(subject, message), RuleMatcher::kMatch);
    // Text cut short by TOP is matched on what came.
    message.SetMessageText(std::string(kHeader) +
                           "\r\n--XX\r\nContent-Type: text/plain\r\n\r\nSie haben gew");
    EXPECT_FALSE(matcher.NeedsBody(body, message));
    EXPECT_EQ(matcher.Match(body, message), RuleMatcher::kNoMatch);
    message.SetMessageText(std::string(kHeader) + "\r\n" + kBody);
    EXPECT_EQ(matcher.Match(body, message), RuleMatcher::kMatch);
    EXPECT_EQ(matcher.Match(attachment, message), RuleMatcher::kMatch);
}

TEST_F(RuleMatcherTest, IgnoreListAndFilterAll) {
    MatchMessage message(m_record);
    RuleMatcher matcher;
    CSpamBlockProfile rule = Rule("Subject", "contains", "gewinnspiel");
    CStringArray ignore;
    ignore.Add("");  // empty entries exempt nobody
    ignore.Add("nobody@example.org");
    rule.SetIgnoreList(ignore);
    EXPECT_EQ(matcher.Match(rule, message), RuleMatcher::kMatch);
    ignore.Add("  MÜLLER ");  // anywhere in the decoded sender, case ignored
    rule.SetIgnoreList(ignore);
    EXPECT_EQ(matcher.Match(rule, message), RuleMatcher::kIgnored);

    // Filter All catches every message, broken conditions included, but not the ignored senders.
    EXPECT_EQ(matcher.Match(Rule("Subject", "equals", "no such", "All", 1), message), RuleMatcher::kMatch);
    EXPECT_EQ(matcher.Match(Rule("Nowhere", "sounds like", "", "All", 1), message), RuleMatcher::kMatch);
    EXPECT_FALSE(matcher.NeedsBody(Rule("Body", "contains", "x", "All", 1), message));
    CSpamBlockProfile all = Rule("Subject", "contains", "x", "All", 1);
    all.SetIgnoreList(ignore);
    EXPECT_EQ(matcher.Match(all, message), RuleMatcher::kIgnored);
    EXPECT_TRUE(matcher.Problems().empty());
}

TEST_F(RuleMatcherTest, BrokenRulesAreReportedOncePerRuleAndNeverMatch) {
    RuleMatcher matcher(m_reporter);
    const std::vector<CSpamBlockProfile> rules = {
        Rule("Smell", "contains", "x", "A"),
        Rule("Subject", "sounds like", "x", "B"),
        Rule("Subject", "contains", "  ", "C"),
        Rule("Size", "contains", "10", "D"),
        Rule("Size", "greater than", "big", "E"),
        Rule("Subject", "less than", "10", "F"),
        Rule("Subject", "matches", "(a)\\1", "G"),
        Rule("Smell", "contains", "x", "H"),  // same condition as A: reported for H as well
        Rule("Subject", "contains", std::string(1001, 'x').c_str(), "I"),
    };
    for (int round = 0; round < 3; ++round) {
        MatchMessage message(m_record);
        for (const CSpamBlockProfile& rule : rules) {
            EXPECT_FALSE(matcher.NeedsBody(rule, message));
            EXPECT_EQ(matcher.Match(rule, message), RuleMatcher::kBroken) << rule.GetFilterName().str();
        }
    }
    ASSERT_EQ(m_reports.size(), rules.size());
    EXPECT_EQ(m_reports[0], "A: unknown Mail Tag \"Smell\" (tavik help rules lists them)");
    EXPECT_EQ(m_reports[1], "B: unknown Action \"sounds like\" (tavik help rules lists them)");
    EXPECT_EQ(m_reports[2], "C: no Object to compare with");
    EXPECT_EQ(m_reports[6], "G: its pattern does not compile: back-references (\\1 ...) are not supported");
    EXPECT_EQ(matcher.Problems().size(), rules.size());
    EXPECT_EQ(RuleMatcher::ConditionProblem("Subject", "matches", "^re:"), "");
}

TEST_F(RuleMatcherTest, APatternThatRunsOutOfTimeCountsAsNoMatch) {
    std::string header = "Subject: ";
    header.append(60000, 'a');
    CMessageList record;
    record.SetData(CString(header), 1, 10, MsgReceived);
    RuleMatcher matcher(m_reporter);
    const CSpamBlockProfile rule = Rule("Subject", "matches", "a{0,1000}b", "Slow");
    for (int i = 0; i < 2; ++i) EXPECT_EQ(matcher.Match(rule, MatchMessage(record)), RuleMatcher::kNoMatch);
    ASSERT_EQ(m_reports.size(), 1u);
    EXPECT_EQ(m_reports[0], "Slow: its pattern ran out of time on a message, which counts as not matching");
}

TEST(RuleVocabulary, HelpNamesEveryWordTheMatcherKnows) {
    const std::string help = RulesHelpText();
    for (const VocabularyEntry& e : MailTagWords()) {
        EXPECT_NE(help.find(std::string("  ") + e.word + " "), std::string::npos) << e.word;
        EXPECT_TRUE(ParseMailTag(e.word).has_value());
    }
    for (const VocabularyEntry& e : MatchActionWords()) {
        EXPECT_NE(help.find(std::string("  ") + e.word + " "), std::string::npos) << e.word;
        EXPECT_TRUE(ParseMatchAction(e.word).has_value());
    }
    EXPECT_EQ(MailTagWords().size(), 11u);
    EXPECT_EQ(MatchActionWords().size(), 8u);
    EXPECT_EQ(ParseMatchAction("DOES NOT CONTAIN"), MatchAction::kNotContains);
    EXPECT_FALSE(ParseMailTag("Reply To").has_value());
}

}  // namespace
}  // namespace tavik::host
