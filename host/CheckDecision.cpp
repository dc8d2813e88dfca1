#include "host/CheckDecision.h"

#include <algorithm>

#include "messages/CMessageList.h"
#include "rules/CAutoResponderProfile.h"
#include "rules/CForwardMailProfile.h"
#include "rules/CSpamBlockProfile.h"

namespace tavik::host {
namespace {

bool Destructive(const std::string& action) {
    return action == kActionDelete || action == kActionForward || action == kActionRespond;
}

}  // namespace

const char* VerdictWord(CheckDecision::Verdict verdict) {
    switch (verdict) {
        case CheckDecision::kJudged:
            return "judged before";
        case CheckDecision::kFriend:
            return "friend";
        case CheckDecision::kSpammer:
            return "spammer";
        case CheckDecision::kShield:
            return "junk";
        case CheckDecision::kRedirect:
            return "forward";
        case CheckDecision::kRespond:
            return "answer";
        case CheckDecision::kClean:
            return "clean";
        case CheckDecision::kNeedsBody:
            return "needs body";
    }
    return "";
}

std::string DescribeDecision(const CheckDecision& decision) {
    std::string line = VerdictWord(decision.verdict);
    if (!decision.ruleName.empty()) line += " (" + decision.ruleName + ")";
    if (!decision.withheld.empty()) return line + ": " + decision.withheld;
    if (decision.action != kActionNothing) {
        line += ": " + decision.action;
        if (!decision.folder.empty()) line += " \"" + decision.folder + "\"";
    }
    return line;
}

std::vector<DWORD> GoneIdentifiers(const std::vector<DWORD>& known, const std::vector<DWORD>& session) {
    const std::set<DWORD> present(session.begin(), session.end());
    std::set<DWORD> gone;
    for (DWORD id : known)
        if (!present.count(id)) gone.insert(id);
    return {gone.begin(), gone.end()};
}

CheckDecider::CheckDecider(CheckRules rules, RuleMatcher& matcher)
    : m_rules(rules), m_matcher(matcher), m_friends(rules.friends), m_spammers(rules.spammers) {}

void CheckDecider::SetSessionIdentifiers(const std::vector<DWORD>& ids) {
    std::set<DWORD> seen;
    m_shared.clear();
    for (DWORD id : ids)
        if (!seen.insert(id).second) m_shared.insert(id);
}

std::string CheckDecider::TakeSharedNotice() {
    if (!m_sharedSeen || m_noticeGiven) return {};
    m_noticeGiven = true;
    return "Some messages share an identifier with another message of this mailbox; they are judged afresh "
           "and are never deleted, forwarded or answered.";
}

bool CheckDecider::ProcessedByAny(DWORD id) const {
    auto in = [id](auto* list) {
        if (!list) return false;
        for (const auto& rule : *list)
            if (rule.SearchProcessedID(id)) return true;
        return false;
    };
    return in(m_rules.globalShields) || in(m_rules.accountShields) || in(m_rules.redirectors) ||
           in(m_rules.responders);
}

RuleMatcher::Outcome CheckDecider::Ask(CBaseFilter& rule, DWORD active, const MatchMessage& message) {
    if (!active || rule.GetDeleted()) return RuleMatcher::kNoMatch;
    RuleMatcher::Outcome outcome = m_matcher.Match(rule, message);
    if (outcome == RuleMatcher::kMatch || outcome == RuleMatcher::kNeedsBody) return outcome;
    return RuleMatcher::kNoMatch;
}

void CheckDecider::Withhold(CheckDecision& decision, DWORD id) {
    if (!IsShared(id) || !Destructive(decision.action)) return;
    m_sharedSeen = true;
    decision.sharedIdentifier = true;
    decision.withheld = decision.action + ": withheld, the identifier is shared with another message";
    decision.action = kActionNothing;
}

CheckDecision CheckDecider::Decide(const CMessageList& record, const MatchMessage& message) {
    CheckDecision decision;
    const DWORD id = record.GetID();
    decision.sharedIdentifier = IsShared(id);
    if (ProcessedByAny(id)) {
        if (!decision.sharedIdentifier) {
            decision.verdict = CheckDecision::kJudged;
            return decision;
        }
        m_sharedSeen = true;
    }

    const std::string_view sender(record.GetSenderName(),
                                  static_cast<size_t>(record.GetSenderName().GetLength()));
    if (m_friends.Holds(sender)) {
        decision.verdict = CheckDecision::kFriend;
        decision.ruleName = "Friends";
        return decision;
    }
    if (m_spammers.Holds(sender)) {
        decision.verdict = CheckDecision::kSpammer;
        decision.ruleName = "Spammers";
        decision.action = kActionMark;
        return decision;
    }

    auto settle = [&](CBaseFilter& rule, CheckDecision::Verdict verdict, std::string action) {
        decision.verdict = verdict;
        decision.rule = &rule;
        decision.ruleName = static_cast<const char*>(rule.GetFilterName());
        decision.action = action.empty() ? kActionNothing : std::move(action);
        if (decision.action == kActionMove)
            decision.folder = static_cast<const char*>(rule.GetMailBoxFolder());
        Withhold(decision, id);
    };
    for (auto* shields : {m_rules.globalShields, m_rules.accountShields}) {
        if (!shields) continue;
        for (CSpamBlockProfile& shield : *shields) {
            switch (Ask(shield, shield.GetActiveEntry(), message)) {
                case RuleMatcher::kNeedsBody:
                    decision.verdict = CheckDecision::kNeedsBody;
                    return decision;
                case RuleMatcher::kMatch: {
                    CString complainTo, spamAction;
                    DWORD a, b, c, d, e, f, g;
                    shield.GetSpamOptions(complainTo, spamAction, a, b, c, d, e, f, g);
                    settle(shield, CheckDecision::kShield, static_cast<const char*>(spamAction));
                    return decision;
                }
                default:
                    break;
            }
        }
    }
    if (m_rules.redirectors) {
        for (CForwardMailProfile& redirector : *m_rules.redirectors) {
            switch (Ask(redirector, redirector.GetActiveEntry(), message)) {
                case RuleMatcher::kNeedsBody:
                    decision.verdict = CheckDecision::kNeedsBody;
                    return decision;
                case RuleMatcher::kMatch:
                    settle(redirector, CheckDecision::kRedirect, kActionForward);
                    return decision;
                default:
                    break;
            }
        }
    }
    if (m_rules.responders) {
        for (CAutoResponderProfile& responder : *m_rules.responders) {
            switch (Ask(responder, responder.GetActiveEntry(), message)) {
                case RuleMatcher::kNeedsBody:
                    decision.verdict = CheckDecision::kNeedsBody;
                    return decision;
                case RuleMatcher::kMatch:
                    settle(responder, CheckDecision::kRespond, kActionRespond);
                    return decision;
                default:
                    break;
            }
        }
    }
    return decision;
}

void CheckDecider::MarkProcessed(const CheckDecision& decision, DWORD id) {
    if (decision.rule) decision.rule->AddProcessedID(id);
}

}  // namespace tavik::host
