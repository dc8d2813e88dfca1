// What the check does with one message, decided from its record and the rules alone (no server): the
// friends, the spammers, the global shields, the account's shields, the redirectors and the
// auto-responders, in that order, each rule only while GetActiveEntry says it is active. The first that
// holds decides. A message any rule has processed before is judged once: it is skipped.
//
// Identifiers can collide (a server's UIDLs that hash alike, or a server that gives every message the
// same UIDL). An identifier seen more than once in this session is not trusted: a processed match on it
// does not skip the message, and such a message is never deleted, forwarded or answered.
#pragma once

#include <list>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "host/RuleMatcher.h"
#include "host/SenderListMatcher.h"
#include "platform/CArray.h"

class CAutoResponderProfile;
class CBaseFilter;
class CForwardMailProfile;
class CMessageList;
class CSpamBlockProfile;

namespace tavik::host {

// The actions, as rules spell them.
inline constexpr const char* kActionNothing = "Do Nothing";
inline constexpr const char* kActionMark = "Mark";
inline constexpr const char* kActionDelete = "Delete";
inline constexpr const char* kActionMove = "Move To Folder";
inline constexpr const char* kActionForward = "Forward";
inline constexpr const char* kActionRespond = "Respond";

// What decides, in the order it is asked. Null lists are empty.
struct CheckRules {
    const CStringArray* friends = nullptr;
    const CStringArray* spammers = nullptr;
    std::list<CSpamBlockProfile>* globalShields = nullptr;
    std::list<CSpamBlockProfile>* accountShields = nullptr;
    std::list<CForwardMailProfile>* redirectors = nullptr;
    std::list<CAutoResponderProfile>* responders = nullptr;
};

struct CheckDecision {
    enum Verdict {
        kJudged,     // a rule processed it before: nothing to do
        kFriend,     // never junk
        kSpammer,    // on the spammer list
        kShield,     // a global or account shield holds
        kRedirect,   // a redirector holds
        kRespond,    // an auto-responder holds
        kClean,      // nothing holds
        kNeedsBody,  // a rule that would be asked next looks at the body: fetch it and decide again
    };
    Verdict verdict = kClean;
    CBaseFilter* rule = nullptr;  // the rule that decided (shields, redirectors, responders, kJudged)
    std::string ruleName;         // also "Friends" / "Spammers"
    std::string action = kActionNothing;
    std::string folder;             // for "Move To Folder"
    bool sharedIdentifier = false;  // the identifier is not unique in this session
    std::string withheld;           // an action not taken, and why (empty when none)
};

const char* VerdictWord(CheckDecision::Verdict verdict);

// One line of what a decision does, as --dry-run shows it and the result table's rule column reads:
// "junk (Global): Delete", "friend", "answer (Away): withheld ...".
std::string DescribeDecision(const CheckDecision& decision);

// The identifiers the account knew that the mailbox no longer holds, each once, ascending: the rules
// forget them (RemoveMessageID) so that their lists do not grow without end.
std::vector<DWORD> GoneIdentifiers(const std::vector<DWORD>& known, const std::vector<DWORD>& session);

class CheckDecider {
public:
    CheckDecider(CheckRules rules, RuleMatcher& matcher);

    // The identifiers of every message of this session's mailbox, before deciding any of them.
    void SetSessionIdentifiers(const std::vector<DWORD>& ids);
    bool IsShared(DWORD id) const { return m_shared.count(id) != 0; }
    // What Decide says first and alone: a rule processed the id, which is not shared. Cheap.
    bool Judged(DWORD id) const { return !IsShared(id) && ProcessedByAny(id); }
    // Called once per session, the first time a shared identifier matters; the text says so.
    std::string TakeSharedNotice();

    // The message's text is set on message when it was fetched (after kNeedsBody).
    CheckDecision Decide(const CMessageList& record, const MatchMessage& message);

    // Records the decision's rule as having processed the id (after the action was done).
    static void MarkProcessed(const CheckDecision& decision, DWORD id);

private:
    bool ProcessedByAny(DWORD id) const;
    // kMatch, kNoMatch (also ignored/broken) or kNeedsBody.
    RuleMatcher::Outcome Ask(CBaseFilter& rule, DWORD active, const MatchMessage& message);
    void Withhold(CheckDecision& decision, DWORD id);

    CheckRules m_rules;
    RuleMatcher& m_matcher;
    SenderListMatcher m_friends, m_spammers;  // built once: the lists are read for every message
    std::set<DWORD> m_shared;
    bool m_sharedSeen = false;
    bool m_noticeGiven = false;
};

}  // namespace tavik::host
