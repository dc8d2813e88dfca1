#include "host/CheckDecision.h"

#include <gtest/gtest.h>

#include <string>

#include "messages/CMessageList.h"
#include "rules/CAutoResponderProfile.h"
#include "rules/CForwardMailProfile.h"
#include "rules/CSpamBlockProfile.h"

namespace tavik::host {
namespace {

CMessageList Record(DWORD id, const char* from, const char* subject) {
    CMessageList record;
    std::string header =
        std::string("From: ") + from + "\r\nSubject: " + subject + "\r\nContent-Type: text/plain\r\n";
    record.SetData(CString(header.c_str()), id, 1000, MsgReceived);
    return record;
}

template <class Rule>
void Condition(Rule& rule, const char* name, const char* tag, const char* action, const char* object,
               DWORD active = 1) {
    rule.SetFilterData(name, tag, action, object, "Do Nothing", "All Days", 0, 0, 0);
    rule.SetActiveEntry(active);
}

CSpamBlockProfile Shield(const char* name, const char* object, const char* spamAction, DWORD active = 1,
                         const char* tag = "Subject") {
    CSpamBlockProfile shield;
    shield.SetSpamOptions("", spamAction, 0, 0, 0, 0, active, 0, 0);
    shield.SetFilterData(name, tag, "contains", object, "Do Nothing", "All Days", 0, 0, 0);
    return shield;
}

class CheckDecisionTest : public ::testing::Test {
protected:
    CheckDecisionTest() {
        m_friends.Add("ann@example.com");
        m_spammers.Add("@spam.example");
        m_global.push_back(Shield("Global", "viagra", "Delete"));
        m_account.push_back(Shield("Offers", "offer", "Move To Folder"));
        m_account.back().SetMailBoxFolder("Junk");
        m_redirectors.emplace_back();
        Condition(m_redirectors.back(), "Invoices", "Subject", "contains", "invoice");
        m_responders.emplace_back();
        Condition(m_responders.back(), "Away", "To", "contains", "me@example.com");
        m_rules = {&m_friends, &m_spammers, &m_global, &m_account, &m_redirectors, &m_responders};
    }

    CheckDecision Decide(CheckDecider& decider, const CMessageList& record) {
        MatchMessage message(record);
        return decider.Decide(record, message);
    }

    CStringArray m_friends, m_spammers;
    std::list<CSpamBlockProfile> m_global, m_account;
    std::list<CForwardMailProfile> m_redirectors;
    std::list<CAutoResponderProfile> m_responders;
    CheckRules m_rules;
    RuleMatcher m_matcher;
};

TEST_F(CheckDecisionTest, TheFirstThatHoldsDecidesInOrder) {
    CheckDecider decider(m_rules, m_matcher);
    // A friend's message naming every rule's word is still a friend's.
    auto d = Decide(decider, Record(1, "Ann <ANN@Example.com>", "viagra offer invoice"));
    EXPECT_EQ(d.verdict, CheckDecision::kFriend);
    EXPECT_EQ(d.action, kActionNothing);
    d = Decide(decider, Record(2, "x@Spam.Example", "viagra offer"));
    EXPECT_EQ(d.verdict, CheckDecision::kSpammer);
    EXPECT_EQ(d.action, kActionMark);
    d = Decide(decider, Record(3, "bob@example.org", "Offer: viagra"));
    EXPECT_EQ(d.verdict, CheckDecision::kShield);
    EXPECT_EQ(d.ruleName, "Global");
    EXPECT_EQ(d.action, kActionDelete);
    d = Decide(decider, Record(4, "bob@example.org", "special offer and invoice"));
    EXPECT_EQ(d.ruleName, "Offers");
    EXPECT_EQ(d.action, kActionMove);
    EXPECT_EQ(d.folder, "Junk");
    d = Decide(decider, Record(5, "bob@example.org", "Your invoice"));
    EXPECT_EQ(d.verdict, CheckDecision::kRedirect);
    EXPECT_EQ(d.action, kActionForward);
    d = Decide(decider, Record(6, "bob@example.org", "hello"));
    EXPECT_EQ(d.verdict, CheckDecision::kClean);
}

TEST_F(CheckDecisionTest, InactiveRulesAreNotAsked) {
    m_global.front().SetSpamOptions("", "Delete", 0, 0, 0, 0, 0, 0, 0);
    DWORD off = 0;
    m_redirectors.front().SetActiveEntry(off);
    CheckDecider decider(m_rules, m_matcher);
    EXPECT_EQ(Decide(decider, Record(1, "bob@example.org", "viagra")).verdict, CheckDecision::kClean);
    EXPECT_EQ(Decide(decider, Record(2, "bob@example.org", "invoice")).verdict, CheckDecision::kClean);
    // A schedule that is never open (an unknown day word) switches a rule off as well.
    m_account.front().SetFilterData("Offers", "Subject", "contains", "offer", "Do Nothing", "Someday", 0, 0,
                                    0);
    EXPECT_EQ(Decide(decider, Record(3, "bob@example.org", "offer")).verdict, CheckDecision::kClean);
}

TEST_F(CheckDecisionTest, ABodyIsAskedForOnlyWhenTheNextRuleNeedsIt) {
    m_account.push_front(Shield("Body", "winner", "Delete", 1, "Body"));
    CheckDecider decider(m_rules, m_matcher);
    // The global shield decides first: no body needed.
    EXPECT_EQ(Decide(decider, Record(1, "bob@example.org", "viagra")).verdict, CheckDecision::kShield);
    CMessageList record = Record(2, "bob@example.org", "hello");
    MatchMessage message(record);
    EXPECT_EQ(decider.Decide(record, message).verdict, CheckDecision::kNeedsBody);
    message.SetMessageText(std::string(static_cast<const char*>(record.GetHeader())) +
                           "\r\nYou are a WINNER\r\n");
    auto d = decider.Decide(record, message);
    EXPECT_EQ(d.ruleName, "Body");
    EXPECT_EQ(d.action, kActionDelete);
}

TEST_F(CheckDecisionTest, AProcessedMessageIsJudgedOnceUnlessItsIdentifierIsShared) {
    CheckDecider decider(m_rules, m_matcher);
    decider.SetSessionIdentifiers({7, 8, 8});
    auto d = Decide(decider, Record(7, "bob@example.org", "viagra"));
    ASSERT_EQ(d.action, kActionDelete);
    CheckDecider::MarkProcessed(d, 7);
    EXPECT_TRUE(m_global.front().SearchProcessedID(7));
    EXPECT_EQ(Decide(decider, Record(7, "bob@example.org", "viagra")).verdict, CheckDecision::kJudged);
    EXPECT_TRUE(decider.TakeSharedNotice().empty());

    // Two messages share 8: the first was answered before; the second is judged, and nothing is deleted,
    // forwarded or answered on a shared identifier.
    m_responders.front().AddProcessedID(8);
    d = Decide(decider, Record(8, "bob@example.org", "viagra"));
    EXPECT_EQ(d.verdict, CheckDecision::kShield);
    EXPECT_TRUE(d.sharedIdentifier);
    EXPECT_EQ(d.action, kActionNothing);
    EXPECT_NE(d.withheld.find("Delete"), std::string::npos);
    d = Decide(decider, Record(8, "bob@example.org", "invoice"));
    EXPECT_EQ(d.verdict, CheckDecision::kRedirect);
    EXPECT_EQ(d.action, kActionNothing);
    EXPECT_FALSE(decider.TakeSharedNotice().empty());
    EXPECT_TRUE(decider.TakeSharedNotice().empty());  // once per session
}

TEST_F(CheckDecisionTest, EmptyListsAndRulesDecideNothing) {
    RuleMatcher matcher;
    CheckDecider decider(CheckRules{}, matcher);
    auto d = Decide(decider, Record(1, "", ""));
    EXPECT_EQ(d.verdict, CheckDecision::kClean);
    CheckDecider::MarkProcessed(d, 1);  // no rule: nothing to record, no crash
    CStringArray blank;
    blank.Add("");
    CheckDecider blanks(CheckRules{&blank, &blank}, matcher);
    EXPECT_EQ(Decide(blanks, Record(2, "anyone@example.org", "x")).verdict, CheckDecision::kClean);
}

TEST(CheckDecisionText, DescriptionsAndGoneIdentifiers) {
    CheckDecision d;
    EXPECT_EQ(DescribeDecision(d), "clean");
    d.verdict = CheckDecision::kShield;
    d.ruleName = "Offers";
    d.action = kActionMove;
    d.folder = "Junk";
    EXPECT_EQ(DescribeDecision(d), "junk (Offers): Move To Folder \"Junk\"");
    d.withheld = "Delete: withheld";
    EXPECT_EQ(DescribeDecision(d), "junk (Offers): Delete: withheld");

    EXPECT_EQ(GoneIdentifiers({5, 3, 9, 3, 1}, {9, 1, 1}), (std::vector<DWORD>{3, 5}));
    EXPECT_TRUE(GoneIdentifiers({}, {1}).empty());
    EXPECT_TRUE(GoneIdentifiers({2, 2}, {2}).empty());
}

}  // namespace
}  // namespace tavik::host
