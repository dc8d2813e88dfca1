#include "host/DemoCheck.h"

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "host/CheckReport.h"
#include "host/DemoPop3Server.h"
#include "host/DemoSmtpServer.h"
#include "host/DemoUser.h"
#include "host/HeaderText.h"
#include "host/SampleMailbox.h"
#include "host/UserCheck.h"
#include "host/UserSession.h"

namespace tavik::host {

namespace {

std::string Field(const std::string& message, const char* name) {
    const std::vector<HeaderField> fields = ParseHeaderFields(message);
    const HeaderField* field = FindField(fields, name);
    return field ? DecodeHeaderValue(field->value) : std::string();
}

std::set<std::string> Subjects(const std::vector<DemoPop3Server::Message>& mailbox) {
    std::set<std::string> subjects;
    for (const auto& m : mailbox) subjects.insert(Field(m.text, "Subject"));
    return subjects;
}

// One check of the demo user, with its table and summary, as `tavik check` shows them.
UserCheckResult Check(const DemoWorkspace& workspace, FILE* out, FILE* err) {
    UserCheckOptions options;
    options.out = out;
    options.err = err;
    options.actionLog = workspace.Path("actions.log");
    UserCheckResult result = CheckUser(options);
    std::vector<ResultRow> rows;
    for (const AccountCheckResult& account : result.accounts)
        for (const ResultRow& row : account.rows)
            if (row.verdict != Verdict::kJudged) rows.push_back(row);
    if (!rows.empty()) PrintResultTable(rows, false, out);
    std::fprintf(out, "%s\n", SummaryLine(result.totals, false).c_str());
    return result;
}

std::vector<const ResultRow*> RowsWith(const UserCheckResult& result, Verdict verdict) {
    std::vector<const ResultRow*> rows;
    for (const AccountCheckResult& account : result.accounts)
        for (const ResultRow& row : account.rows)
            if (row.verdict == verdict) rows.push_back(&row);
    return rows;
}

bool Failed(const UserCheckResult& result, FILE* err) {
    bool failed = !result.error.empty();
    if (failed) std::fprintf(err, "tavik demo: %s\n", result.error.c_str());
    for (const AccountCheckResult& account : result.accounts)
        if (!account.error.empty()) failed = true;  // CheckUser has shown it
    return failed;
}

class Demo {
public:
    Demo(FILE* out, FILE* err) : m_out(out), m_err(err) {}

    int Run() {
        std::vector<std::string> texts;
        for (const SampleMessage& m : MakeSampleMailbox()) texts.push_back(m.text);
        DemoPop3Server pop3(texts, "demo", "demo-password");
        DemoSmtpServer smtp;
        if (!pop3.Start() || !smtp.Start()) {
            std::fprintf(m_err, "tavik demo: cannot start the demo's servers on 127.0.0.1\n");
            return 1;
        }
        DemoWorkspace workspace;
        DemoUserSetup setup = CreateDemoUser(workspace, pop3.Port(), smtp.Port());
        Introduce(setup, pop3, smtp, workspace);

        Heading("First check");
        const auto before = pop3.Mailbox();
        UserCheckResult first = Check(workspace, m_out, m_err);
        if (Failed(first, m_err)) return 1;
        const auto after = pop3.Mailbox();
        const auto answers = smtp.Deliveries();
        Heading("What the check did");
        bool ok = ShowServer(first, before, after);
        ok = ShowAnswers(first, answers) && ok;

        Heading("Second check of the same mailbox");
        UserCheckResult second = Check(workspace, m_out, m_err);
        if (Failed(second, m_err)) return 1;
        ok = ShowSecond(second, after, pop3.Mailbox(), answers.size(), smtp.Deliveries().size()) && ok;
        std::fflush(m_out);
        return ok ? 0 : 1;
    }

private:
    void Heading(const char* text) {
        std::fprintf(m_out, "\n== %s\n", text);
        std::fflush(m_out);
    }

    // A fact the demo promises; a broken one is said and makes the demo fail.
    bool Fact(bool holds, const std::string& broken) {
        if (!holds) std::fprintf(m_out, "  NOT AS EXPECTED: %s\n", broken.c_str());
        return holds;
    }

    void Introduce(const DemoUserSetup& setup, const DemoPop3Server& pop3, const DemoSmtpServer& smtp,
                   const DemoWorkspace& workspace) {
        auto join = [](const std::vector<std::string>& items) {
            std::string text;
            for (const std::string& item : items) text += (text.empty() ? "" : ", ") + item;
            return text;
        };
        std::fprintf(m_out,
                     "tavik demo: the junk-mail check of a sample mailbox, with nothing to set up\n"
                     "  POP3 server 127.0.0.1:%u holds %zu messages; SMTP server 127.0.0.1:%u takes what the "
                     "check sends\n"
                     "  a demo user in %s (removed afterwards; your own accounts are not touched):\n"
                     "    account %s <%s>\n"
                     "    friends: %s\n"
                     "    spammers: %s\n",
                     pop3.Port(), pop3.Mailbox().size(), smtp.Port(), workspace.Dir().c_str(),
                     setup.account.c_str(), setup.address.c_str(), join(setup.friends).c_str(),
                     join(setup.spammers).c_str());
        for (const std::string& rule : setup.rules) std::fprintf(m_out, "    %s\n", rule.c_str());
    }

    bool ShowServer(const UserCheckResult& result, const std::vector<DemoPop3Server::Message>& before,
                    const std::vector<DemoPop3Server::Message>& after) {
        const std::set<std::string> left = Subjects(after);
        std::fprintf(m_out, "  the POP3 server holds %zu of its %zu messages now\n", after.size(),
                     before.size());
        bool ok = true;
        size_t deleted = 0;
        for (Verdict verdict : {Verdict::kJunk, Verdict::kSpammer})
            for (const ResultRow* row : RowsWith(result, verdict)) {
                const bool gone = !left.count(row->subject);
                if (row->action == "Delete") {
                    ++deleted;
                    std::fprintf(m_out, "  deleted on the server: \"%s\" (%s)\n", row->subject.c_str(),
                                 row->rule.c_str());
                    ok = Fact(gone, "\"" + row->subject + "\" is still on the server") && ok;
                } else {
                    std::fprintf(m_out, "  kept, tagged as spam: \"%s\" (%s)\n", row->subject.c_str(),
                                 row->rule.c_str());
                }
            }
        ok = Fact(deleted > 0 && before.size() - after.size() == deleted,
                  std::to_string(before.size() - after.size()) + " messages left the server, " +
                      std::to_string(deleted) + " were to be deleted") &&
             ok;
        const auto friends = RowsWith(result, Verdict::kFriend);
        for (const ResultRow* row : friends) {
            std::fprintf(m_out, "  a friend's mail, kept: \"%s\" from %s\n", row->subject.c_str(),
                         row->sender.c_str());
            ok = Fact(left.count(row->subject) != 0, "\"" + row->subject + "\" is gone") && ok;
        }
        return Fact(!friends.empty(), "no message came from a friend") && ok;
    }

    bool ShowAnswers(const UserCheckResult& result, const std::vector<DemoSmtpServer::Delivery>& answers) {
        for (const DemoSmtpServer::Delivery& d : answers) {
            std::string to;
            for (const std::string& r : d.recipients) to += (to.empty() ? "" : ", ") + r;
            std::fprintf(m_out,
                         "  delivered by SMTP to %s: \"%s\"\n    (Auto-Submitted: %s, In-Reply-To: %s)\n",
                         to.c_str(), Field(d.text, "Subject").c_str(),
                         Field(d.text, "Auto-Submitted").c_str(), Field(d.text, "In-Reply-To").c_str());
        }
        // A rule that held without acting says why in its action column ("not answered: it is bulk mail").
        for (const ResultRow* row : RowsWith(result, Verdict::kNew))
            if (!row->action.empty())
                std::fprintf(m_out, "  %s: \"%s\"\n", row->action.c_str(), row->subject.c_str());
        const auto answered = RowsWith(result, Verdict::kAnswered);
        return Fact(!answers.empty() && answers.size() == answered.size(),
                    std::to_string(answered.size()) + " messages answered, " +
                        std::to_string(answers.size()) + " delivered");
    }

    bool ShowSecond(const UserCheckResult& result, const std::vector<DemoPop3Server::Message>& before,
                    const std::vector<DemoPop3Server::Message>& after, size_t answersBefore,
                    size_t answersAfter) {
        size_t judged = RowsWith(result, Verdict::kJudged).size();
        std::fprintf(m_out,
                     "  %zu messages, every one judged by the first check: nothing deleted, nothing sent\n",
                     judged);
        bool ok = Fact(result.totals.fresh == 0 && judged == before.size(),
                       std::to_string(result.totals.fresh) + " messages were judged again");
        ok = Fact(after.size() == before.size(), "the second check deleted mail") && ok;
        return Fact(answersAfter == answersBefore, "the second check sent mail") && ok;
    }

    FILE* m_out;
    FILE* m_err;
};

}  // namespace

int RunDemo(FILE* out, FILE* err) {
    try {
        return Demo(out, err).Run();
    } catch (const SessionError& e) {
        std::fprintf(err, "tavik demo: %s\n", e.what());
        return 1;
    }
}

}  // namespace tavik::host
