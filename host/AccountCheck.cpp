#include "host/AccountCheck.h"

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <map>
#include <memory>
#include <optional>

#include "accounts/CGlobalProfile.h"
#include "accounts/CMailBoxProfile.h"
#include "host/ActionLog.h"
#include "host/AnswerPolicy.h"
#include "host/CheckDecision.h"
#include "host/CheckMailer.h"
#include "host/ConnectionSecurity.h"
#include "host/HeaderText.h"
#include "host/RuleMatcher.h"
#include "messages/CMessageList.h"
#include "transport/CPopMail.h"

namespace tavik::host {

namespace {

std::string Text(const CString& s) { return std::string(static_cast<const char*>(s)); }

std::string WithoutLineEnd(std::string text) {
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
    return text;
}

// The client with TOP n lines, for rules that look at the body of a message too large to fetch whole.
class CheckPop : public CPopMail {
public:
    using CPopMail::CPopMail;

    bool Top(int n, int lines, CString& text) {
        try {
            CString command;
            command.Format("TOP %d %d\r\n", n, lines);
            if (!MultiLineResponse(command, text)) return false;
            CString status;
            StripResponse(text, status);
            if (Text(status).rfind("+OK", 0) != 0) throw new CPopMailException(status);
            return true;
        } catch (CBlockingSocketException* e) {
            char reason[512] = "the connection failed";
            e->GetErrorMessage(reason, sizeof reason);
            e->Delete();
            throw new CPopMailException(reason);
        }
    }

    // UIDL for the whole mailbox, the listing without its status line and end mark. False for a
    // negative reply.
    bool UidList(CString& listing) {
        try {
            if (!MultiLineResponse("UIDL\r\n", listing)) return false;
            CString status;
            StripResponse(listing, status);
            return Text(status).rfind("+OK", 0) == 0;
        } catch (CBlockingSocketException* e) {
            char reason[512] = "the connection failed";
            e->GetErrorMessage(reason, sizeof reason);
            e->Delete();
            throw new CPopMailException(reason);
        }
    }
};

// The unique identifiers of messages 1 to last from one UIDL listing, by message number ("" for a number
// the listing lacks). False when the server refuses the listing; the session goes on.
bool UidListing(CheckPop& pop, int last, std::vector<std::string>& uids) {
    CString text;
    if (!pop.UidList(text)) return false;
    uids.assign(static_cast<size_t>(last) + 1, std::string());
    const std::string listing = Text(text);
    for (size_t at = 0; at < listing.size();) {
        size_t end = listing.find("\r\n", at);
        if (end == std::string::npos) end = listing.size();
        const std::string line = listing.substr(at, end - at);
        at = end + 2;
        const size_t space = line.find(' ');
        if (space == std::string::npos) continue;
        const int n = std::atoi(line.substr(0, space).c_str());
        const size_t start = line.find_first_not_of(' ', space);
        if (n < 1 || n > last || start == std::string::npos) continue;
        uids[static_cast<size_t>(n)] = line.substr(start, line.find(' ', start) - start);
    }
    return true;
}

// A listing's lines as the message has them: the doubled dot of a line that starts with one undone.
std::string Unstuffed(std::string text) {
    std::string out;
    out.reserve(text.size());
    bool lineStart = true;
    for (size_t i = 0; i < text.size(); ++i) {
        if (lineStart && text[i] == '.' && i + 1 < text.size() && text[i + 1] == '.') continue;
        out += text[i];
        lineStart = text[i] == '\n';
    }
    return out;
}

// A message of the session: record is owned (scanned now) or the account's own (known before, so not
// copied: acting on it changes the account's record, as an action on a known message must).
struct Scanned {
    int number;
    CMessageList* record;
    std::unique_ptr<CMessageList> owned;
};

// A Delete waits for QUIT: only then has the server done it, and only then is the message remembered
// as processed and the action logged.
struct PendingDelete {
    CheckDecision decision;
    DWORD id;
    ActionRecord record;
    size_t row;
};

Verdict RowVerdict(CheckDecision::Verdict verdict) {
    switch (verdict) {
        case CheckDecision::kJudged:
            return Verdict::kJudged;
        case CheckDecision::kFriend:
            return Verdict::kFriend;
        case CheckDecision::kSpammer:
            return Verdict::kSpammer;
        case CheckDecision::kShield:
            return Verdict::kJunk;
        case CheckDecision::kRedirect:
            return Verdict::kForwarded;
        case CheckDecision::kRespond:
            return Verdict::kAnswered;
        default:
            return Verdict::kNew;
    }
}

class AccountChecker {
public:
    AccountChecker(CMailBoxProfile& account, CGlobalProfile& global, const AccountCheckOptions& options,
                   AccountCheckResult& result)
        : m_account(account),
          m_global(global),
          m_o(options),
          m_result(result),
          m_matcher([this](const std::string& rule, const std::string& problem) {
              m_result.notices.push_back("rule \"" + rule + "\": " + problem);
              Note(m_result.notices.back());
          }) {
        account.GetFriendList(m_friends);
        account.GetSpamList(m_spammers);
        m_own = options.ownAddresses;
        m_own.push_back(Text(account.GetEmailAddress()));
        const DWORD timeout = account.GetTimeoutValue();
        m_timeLimit = timeout >= 1 && timeout <= 3600 ? static_cast<int>(timeout) : 90;
    }

    void Run();

private:
    bool Stopping() const { return m_o.stop && m_o.stop->load(); }
    void Scan(CheckPop& pop, std::vector<Scanned>& messages);
    void Handle(CheckPop& pop, CheckDecider& decider, Scanned& message);
    // The message's text as rules and forwards want it: whole within the account's size limit, else
    // the header and the first lines of the body.
    std::string Fetch(CheckPop& pop, const Scanned& message);
    // Carries out the action; false with the reason when it failed.
    bool Act(CheckPop& pop, CheckDecision& decision, Scanned& message, std::optional<std::string>& text,
             ResultRow& row, std::string& failure);
    void ForgetGone(const std::vector<DWORD>& session);
    void Note(const std::string& line) {
        if (m_progress)
            m_progress->Line(m_result.account + ": " + line);
        else if (m_o.out)
            std::fprintf(m_o.out, "%s: %s\n", m_result.account.c_str(), line.c_str());
    }

    CMailBoxProfile& m_account;
    CGlobalProfile& m_global;
    const AccountCheckOptions& m_o;
    AccountCheckResult& m_result;
    RuleMatcher m_matcher;
    CStringArray m_friends, m_spammers;
    std::vector<std::string> m_own;
    int m_timeLimit = 90;
    std::unique_ptr<ProgressDisplay> m_progress;
    std::unique_ptr<CheckMailer> m_mailer;
    std::vector<PendingDelete> m_deletes;
};

void AccountChecker::Scan(CheckPop& pop, std::vector<Scanned>& messages) {
    int count = 0, size = 0;
    if (!pop.MailBoxStats(&count, &size)) throw new CPopMailException("the server closed the connection");
    const DWORD limit = m_account.GetSessionMax();
    const int last = limit > 0 && static_cast<DWORD>(count) > limit ? static_cast<int>(limit) : count;
    m_result.totals.messages = static_cast<size_t>(count);
    if (m_progress) m_progress->Start(m_result.account + ": scanning", static_cast<size_t>(last));
    messages.reserve(static_cast<size_t>(last));
    // Messages the account knows already are not scanned again: one UIDL listing names them, and their
    // records come from the account. The rest (all of them when the listing is refused, or names an
    // identifier twice) are scanned in runs of consecutive numbers.
    std::vector<std::string> uids;
    std::vector<CMessageList*> known(static_cast<size_t>(last) + 1, nullptr);
    // An account that knows no message yet has no use for the listing.
    if (last > 0 && !m_o.dryRun && !m_account.GetMessageList().empty() && UidListing(pop, last, uids)) {
        std::map<DWORD, int> seen;
        std::vector<DWORD> ids(static_cast<size_t>(last) + 1, 0);
        for (int n = 1; n <= last; ++n) {
            if (uids[static_cast<size_t>(n)].empty()) continue;
            unsigned long id = 0;
            pop.GetIDNumeric(uids[static_cast<size_t>(n)].c_str(), id);
            ids[static_cast<size_t>(n)] = static_cast<DWORD>(id);
            ++seen[static_cast<DWORD>(id)];
        }
        for (int n = 1; n <= last; ++n) {
            const DWORD id = ids[static_cast<size_t>(n)];
            if (uids[static_cast<size_t>(n)].empty() || seen[id] != 1) continue;
            auto position = m_account.FindMessage(id, false);
            if (position != m_account.MESSAGE_NOT_FOUND()) known[static_cast<size_t>(n)] = *position;
        }
    }
    bool whole = true;
    for (int n = 1; n <= last && whole && !Stopping();) {
        if (known[static_cast<size_t>(n)]) {
            messages.push_back({n, known[static_cast<size_t>(n)], nullptr});
            if (m_progress) m_progress->Advance(messages.size());
            ++n;
            continue;
        }
        int end = n;
        while (end < last && !known[static_cast<size_t>(end) + 1]) ++end;
        whole = pop.GetHeaders(n, end, [&](int number, std::unique_ptr<CMessageList> record) {
            CMessageList* scanned = record.get();
            messages.push_back({number, scanned, std::move(record)});
            if (m_progress) m_progress->Advance(messages.size());
            return !Stopping();
        });
        n = end + 1;
    }
    if (m_progress) m_progress->Finish();
    if (Stopping()) {
        m_result.stopped = true;
        return;
    }
    if (!whole) throw new CPopMailException("the server closed the connection during the scan");
    if (last < count)
        Note("scanned " + std::to_string(last) + " of " + std::to_string(count) +
             " messages (the account's scan limit)");
}

std::string AccountChecker::Fetch(CheckPop& pop, const Scanned& message) {
    const DWORD limit = m_account.GetMaxBodySize() * 1024;
    CString text;
    bool got;
    if (message.record->GetMsgSize() <= limit) {
        got = pop.Retrieve(message.number, text);
    } else {
        const int lines = static_cast<int>(std::max<DWORD>(limit / 80, 20));
        got = pop.Top(message.number, lines, text);
    }
    if (!got) throw new CPopMailException("the server closed the connection");
    return Unstuffed(Text(text));
}

bool AccountChecker::Act(CheckPop& pop, CheckDecision& decision, Scanned& message,
                         std::optional<std::string>& text, ResultRow& row, std::string& failure) {
    CMessageList& record = *message.record;
    const std::string header = Text(record.GetHeader());
    const std::string& action = decision.action;
    row.action = action == kActionNothing ? "" : action;
    if (action == kActionMove) row.action += " " + decision.folder;
    if (action == kActionNothing) return true;
    if (action == kActionMark) {
        if (!m_o.dryRun) record.SetSpamTag();
        return true;
    }
    if (action == kActionMove) {
        if (!m_o.dryRun) record.SetFolderLocation(decision.folder.c_str());
        return true;
    }
    if (action == kActionDelete) {
        if (!m_o.dryRun && !pop.DeleteMsg(message.number)) {
            failure = "the server closed the connection";
            throw new CPopMailException("the server closed the connection");
        }
        return true;
    }
    if (action == kActionForward) {
        ForwardDecision allowed = DecideForward(header, m_own);
        if (!allowed.forward) {
            row.verdict = Verdict::kNew;
            row.action = "not forwarded: " + allowed.reason;
            return true;
        }
        auto& redirector = static_cast<CForwardMailProfile&>(*decision.rule);
        if (!text && record.GetMsgSize() <= m_account.GetMaxBodySize() * 1024) text = Fetch(pop, message);
        std::string error;
        OutgoingMail mail = ForwardMail(redirector, m_account, text ? *text : header + "\r\n",
                                        DecodeHeaderValue(Text(record.GetSubject())), error);
        if (error.empty() && !m_o.dryRun) {
            if (!m_mailer) m_mailer = std::make_unique<CheckMailer>(m_account, m_o.trustFile, m_timeLimit);
            error = m_mailer->Send(mail);
        }
        if (!error.empty()) failure = "Forward failed: " + error;
        return error.empty();
    }
    if (action == kActionRespond) {
        auto& responder = static_cast<CAutoResponderProfile&>(*decision.rule);
        AnswerDecision allowed = DecideAnswer(header, m_own, &responder);
        if (!allowed.answer) {
            row.verdict = Verdict::kNew;
            row.action = "not answered: " + allowed.reason;
            return true;
        }
        std::string error;
        OutgoingMail mail = AnswerMail(responder, m_account, allowed.recipient, header,
                                       DecodeHeaderValue(Text(record.GetSubject())), error);
        if (error.empty() && !m_o.dryRun) {
            if (!m_mailer) m_mailer = std::make_unique<CheckMailer>(m_account, m_o.trustFile, m_timeLimit);
            error = m_mailer->Send(mail);
            if (error.empty()) RecordAnswer(responder, allowed.recipient);
        }
        if (!error.empty()) failure = "Respond failed: " + error;
        return error.empty();
    }
    Note("rule \"" + decision.ruleName + "\": unknown action \"" + action + "\", nothing done");
    row.action = "";
    return true;
}

void AccountChecker::Handle(CheckPop& pop, CheckDecider& decider, Scanned& message) {
    const DWORD id = message.record->GetID();
    // The account's record stands for the message only while its identifier is unique; else what is
    // done to the message must not reach the record.
    if (!message.owned && decider.IsShared(id)) {
        message.owned = std::make_unique<CMessageList>(*message.record);
        message.record = message.owned.get();
    }
    CMessageList& scanned = *message.record;
    CMessageList* stored = nullptr;
    if (auto position = m_account.FindMessage(id, false); position != m_account.MESSAGE_NOT_FOUND())
        stored = *position;
    // A shared identifier's record may be another message's: such a message is never known.
    CMessageList* known = decider.IsShared(id) ? nullptr : stored;

    CheckTotals& totals = m_result.totals;
    ResultRow row;
    row.account = m_result.account;
    row.id = static_cast<unsigned>(id);
    row.sender = DecodeHeaderValue(Text(scanned.GetSenderName()));
    row.subject = DecodeHeaderValue(Text(scanned.GetSubject()));
    // Judged before: a rule processed it, or no rule decided and the account had it already.
    const auto judged = [&] {
        row.verdict = Verdict::kJudged;
        m_result.rows.push_back(std::move(row));
        if (m_o.onRow) m_o.onRow(m_result.rows.back());
    };
    // Most of a mailbox checked before was processed by a rule: those need no rule asked again.
    if (decider.Judged(id)) return judged();

    MatchMessage match(scanned);
    std::optional<std::string> text;
    CheckDecision decision = decider.Decide(scanned, match);
    if (decision.verdict == CheckDecision::kNeedsBody) {
        text = Fetch(pop, message);
        match.SetMessageText(*text);
        decision = decider.Decide(scanned, match);
        if (decision.verdict == CheckDecision::kNeedsBody) decision = CheckDecision{};
    }
    if (std::string notice = decider.TakeSharedNotice(); !notice.empty()) {
        m_result.notices.push_back(notice);
        Note(notice);
    }

    row.verdict = RowVerdict(decision.verdict);
    row.rule = decision.ruleName;

    if (decision.verdict == CheckDecision::kJudged || (known && !decision.rule)) {
        if (known && decision.verdict == CheckDecision::kSpammer && !m_o.dryRun) known->SetSpamTag();
        return judged();
    }
    ++totals.fresh;
    if (!decision.withheld.empty()) {
        row.action = decision.withheld;
        if (decision.verdict == CheckDecision::kRedirect || decision.verdict == CheckDecision::kRespond)
            row.verdict = Verdict::kNew;
    }
    CMessageList& target = known ? *known : scanned;
    std::string failure;
    bool done;
    try {
        done = decision.withheld.empty() ? Act(pop, decision, message, text, row, failure) : true;
    } catch (CPopMailException*) {
        row.verdict = Verdict::kFailed;
        row.action = decision.action + " failed";
        m_result.rows.push_back(std::move(row));
        throw;
    }
    if (&target != &scanned && done && !m_o.dryRun) {
        if (decision.action == kActionMark) target.SetSpamTag();
        if (decision.action == kActionMove) target.SetFolderLocation(decision.folder.c_str());
    }
    if (!done) {
        row.verdict = Verdict::kFailed;
        row.action = failure;
        ++totals.errors;
        Note(failure);
    } else {
        const bool junk =
            decision.verdict == CheckDecision::kSpammer || decision.verdict == CheckDecision::kShield;
        const bool acted = decision.withheld.empty() && row.action.rfind("not ", 0) != 0;
        if (junk) ++totals.junk;
        if (acted && decision.action == kActionDelete) ++totals.deleted;
        if (acted && decision.action == kActionMove) ++totals.moved;
        if (acted && decision.action == kActionForward) ++totals.forwarded;
        if (acted && decision.action == kActionRespond) ++totals.answered;
        if (!junk && !(acted && decision.action == kActionDelete)) ++totals.kept;
    }

    if (!m_o.dryRun) {
        // Read before the record changes hands: a record the account could not store is gone after it.
        const std::string messageId = Text(target.GetMessageID());
        if (!stored) {
            scanned.SetMailBox(m_account.GetIncomingServerName(), m_account.GetEmailAddress(),
                               m_account.GetOutgoingServer(), m_account.GetAccountName());
            CMessageList* added = message.owned.release();
            if (m_account.AddMessage(added, true) == m_account.MESSAGE_NOT_FOUND()) delete added;
        }
        if (done && decision.withheld.empty()) {
            ActionRecord logged{std::time(nullptr), m_result.account,  row.id,    messageId, row.sender,
                                row.subject,        decision.ruleName, row.action};
            if (decision.action == kActionDelete) {
                m_deletes.push_back({decision, id, std::move(logged), m_result.rows.size()});
            } else {
                CheckDecider::MarkProcessed(decision, id);
                if (m_o.log && !logged.action.empty() && row.action.rfind("not ", 0) != 0) {
                    std::string error;
                    if (!m_o.log->Append(logged, &error)) Note("cannot write the action log: " + error);
                }
            }
        }
    }
    m_result.rows.push_back(std::move(row));
    if (m_o.onRow) m_o.onRow(m_result.rows.back());
}

void AccountChecker::ForgetGone(const std::vector<DWORD>& session) {
    std::vector<DWORD> known;
    for (const CMessageList* record : m_account.GetMessageList())
        if (record->GetMessageType() == MsgReceived) known.push_back(record->GetID());
    auto anyRule = [&](DWORD id) {
        auto in = [id](auto& list) {
            for (const auto& rule : list)
                if (rule.SearchProcessedID(id)) return true;
            return false;
        };
        return in(m_account.GetSpamShields()) || in(m_account.GetRedirectors()) ||
               in(m_account.GetAutoResponders()) || in(m_global.GetSpamShields());
    };
    for (DWORD id : GoneIdentifiers(known, session))
        if (anyRule(id)) m_account.RemoveMessageID(id, &m_global);
}

void AccountChecker::Run() {
    if (m_o.out) m_progress = std::make_unique<ProgressDisplay>(m_o.out, m_o.terminal);
    std::string host;
    int port = 0;
    const std::string serverName = Text(m_account.GetIncomingServerName());
    if (!SplitServerName(serverName, host, port) || host.empty()) {
        m_result.error = "the account has no usable incoming server (\"" + serverName + "\")";
        return;
    }
    CString in, out, inProto, outProto, login, password, outLogin, outPassword;
    m_account.GetServerData(in, out, inProto, outProto, login, password, outLogin, outPassword);

    CheckPop pop(nullptr, nullptr, m_timeLimit);
    SecurityOptions security = AccountSecurityOptions(m_account.GetIncomingSecurity());
    security.trustFile = m_o.trustFile;
    const CBlockingSocket::SECURITY chosen = ChooseSecurity(security, MailProtocol::kPop3, host, port);
    pop.SetSecurity(chosen, true, security.trustFile.c_str());
    if (port == 0) port = DefaultPort(MailProtocol::kPop3, chosen);
    if (!pop.Connect(host.c_str(), port)) {
        m_result.error = "the server's greeting was not positive: " + WithoutLineEnd(Text(pop.GetGreeting()));
        return;
    }
    if (pop.GetGreeting().IsEmpty()) {
        m_result.error = "the server closed the connection without a greeting";
        return;
    }
    if (!pop.Login(login, password)) {
        m_result.error = "the server refused the user name or password";
        return;
    }
    std::vector<Scanned> messages;
    Scan(pop, messages);

    CheckRules rules;
    rules.friends = &m_friends;
    rules.spammers = &m_spammers;
    // "Spam Filter" off: no shield judges this account's mail; its lists, redirectors and responders still
    // do.
    if (m_account.GetFiltering()) {
        rules.globalShields = &m_global.GetSpamShields();
        rules.accountShields = &m_account.GetSpamShields();
    }
    rules.redirectors = &m_account.GetRedirectors();
    rules.responders = &m_account.GetAutoResponders();
    CheckDecider decider(rules, m_matcher);
    std::vector<DWORD> ids;
    ids.reserve(messages.size());
    for (const Scanned& m : messages) ids.push_back(m.record->GetID());
    decider.SetSessionIdentifiers(ids);

    size_t handled = 0;
    if (m_progress && !m_result.stopped) m_progress->Start(m_result.account + ": deciding", messages.size());
    for (Scanned& message : messages) {
        if (m_result.stopped || Stopping()) {
            m_result.stopped = true;
            break;
        }
        Handle(pop, decider, message);
        if (m_progress) m_progress->Advance(++handled);
    }
    if (m_progress) m_progress->Finish();
    m_mailer.reset();

    if (!pop.Quit()) throw new CPopMailException("the server closed the connection before QUIT");
    // The server has done the deletions: now they are remembered and logged.
    for (PendingDelete& d : m_deletes) {
        CheckDecider::MarkProcessed(d.decision, d.id);
        if (m_o.log) {
            std::string error;
            if (!m_o.log->Append(d.record, &error)) Note("cannot write the action log: " + error);
        }
    }
    m_deletes.clear();
    if (!m_o.dryRun && !m_result.stopped && handled == messages.size() &&
        messages.size() == m_result.totals.messages)
        ForgetGone(ids);
}

}  // namespace

bool SplitServerName(const std::string& text, std::string& host, int& port) {
    port = 0;
    std::string rest = text;
    while (!rest.empty() && (rest.back() == ' ' || rest.back() == '\t')) rest.pop_back();
    while (!rest.empty() && (rest.front() == ' ' || rest.front() == '\t')) rest.erase(0, 1);
    std::string portText;
    if (!rest.empty() && rest.front() == '[') {
        const size_t close = rest.find(']');
        if (close == std::string::npos) return false;
        host = rest.substr(1, close - 1);
        if (close + 1 == rest.size()) return true;
        if (rest[close + 1] != ':') return false;
        portText = rest.substr(close + 2);
    } else if (std::count(rest.begin(), rest.end(), ':') == 1) {
        const size_t colon = rest.find(':');
        host = rest.substr(0, colon);
        portText = rest.substr(colon + 1);
    } else {
        host = rest;
        return true;
    }
    if (portText.empty() || portText.size() > 5 ||
        !std::all_of(portText.begin(), portText.end(), [](char c) { return c >= '0' && c <= '9'; }))
        return false;
    port = std::stoi(portText);
    return port >= 1 && port <= 65535;
}

AccountCheckResult CheckAccount(CMailBoxProfile& account, CGlobalProfile& global,
                                const AccountCheckOptions& options) {
    AccountCheckResult result;
    result.account = Text(account.GetAccountName());
    AccountChecker checker(account, global, options, result);
    try {
        checker.Run();
    } catch (CPopMailException* e) {
        result.error = WithoutLineEnd(Text(e->GetErrorMessage()));
        e->Delete();
    } catch (CException* e) {
        char text[512] = "unexpected failure";
        e->GetErrorMessage(text, sizeof text);
        result.error = WithoutLineEnd(text);
        e->Delete();
    }
    if (!result.error.empty()) ++result.totals.errors;
    return result;
}

}  // namespace tavik::host
