// What a person sees of a check: a progress bar while it runs (plain lines when the output is not a
// terminal), a table of what was decided for each message, one summary line, and an exit code that tells
// scripts whether there is new mail.
#pragma once

#include <cstddef>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

namespace tavik::host {

// Exit codes of a check: nothing new, new mail, or errors (some account could not be checked, which
// wins over new mail). 2 stays bad usage and 130 a check stopped by Ctrl-C or SIGTERM, as for every
// command.
inline constexpr int kExitNothingNew = 0;
inline constexpr int kExitErrors = 1;
inline constexpr int kExitUsage = 2;
inline constexpr int kExitNewMail = 3;
inline constexpr int kExitStopped = 130;

// UTF-8 text cut to width characters ("..." marks a cut) and, with pad, filled with blanks to width.
std::string FitColumn(std::string_view text, size_t width, bool pad = true);

// Whether out is a terminal that can redraw a line: a character device, and TERM is not "dumb".
bool IsInteractive(FILE* out);

// One bar per account (or any long step). On a terminal the bar is redrawn in place, only when what it
// shows changes (at most about a hundred times however many messages), and lines printed through Line()
// appear above it. Elsewhere Start, every tenth of the way and Finish print plain lines.
class ProgressDisplay {
public:
    ProgressDisplay(FILE* out, bool terminal) : m_out(out), m_terminal(terminal) {}
    ~ProgressDisplay();
    ProgressDisplay(const ProgressDisplay&) = delete;
    ProgressDisplay& operator=(const ProgressDisplay&) = delete;

    // total 0: unknown, the count alone is shown.
    void Start(const std::string& label, size_t total);
    void Advance(size_t done);
    // A line of its own (a status, a problem), above the bar.
    void Line(const std::string& text);
    // Ends the bar; note (may be empty) goes after the count ("12 of 12, 3 junk").
    void Finish(const std::string& note = {});

private:
    void Draw();
    void ClearLine();

    FILE* m_out;
    bool m_terminal;
    bool m_active = false;
    std::string m_label;
    size_t m_total = 0, m_done = 0;
    long m_shown = -1;  // terminal: the percentage last drawn; plain: the tenth last printed
};

// What a check decided for one message.
enum class Verdict {
    kNew,        // no list or rule caught it: kept
    kFriend,     // on the friends list: kept, no rule applied
    kSpammer,    // on the spammers list
    kJunk,       // a spam shield caught it
    kForwarded,  // a redirector forwarded it
    kAnswered,   // an auto-responder answered it
    kJudged,     // judged by an earlier check (its identifier is in a rule's processed list)
    kFailed,     // the action could not be carried out (the action column says which)
};
const char* VerdictWord(Verdict verdict);  // "new", "friend", "spammer", "junk", "forwarded", ...

struct ResultRow {
    std::string account;
    unsigned id = 0;
    std::string sender;
    std::string subject;
    Verdict verdict = Verdict::kNew;
    std::string rule;    // the rule that decided; empty when none did
    std::string action;  // what was done ("Delete", "Move To Folder junk", "Mark"); empty: nothing
};

// The table: account, id, verdict, rule, action, sender, subject, each cut to its column, control
// characters shown as \xNN. In a dry run the action column reads "would ..." and a line says that
// nothing was done.
void PrintResultTable(const std::vector<ResultRow>& rows, bool dryRun, FILE* out);

struct CheckTotals {
    size_t messages = 0;  // in the mailboxes checked
    size_t fresh = 0;     // not judged by an earlier check
    size_t kept = 0;      // fresh and still there for the person: neither junk nor deleted
    size_t junk = 0;      // caught by the spammers list or a shield
    size_t deleted = 0;
    size_t moved = 0;
    size_t forwarded = 0;
    size_t answered = 0;
    size_t errors = 0;  // accounts that could not be checked and actions that failed
};

// "40 messages, 7 new: 3 junk, 2 deleted, 1 forwarded, 1 answered, 4 kept" (counts of 0 left out,
// "1 error" added); a dry run says "would be" before each action.
std::string SummaryLine(const CheckTotals& totals, bool dryRun);
// kExitStopped when stopped, kExitErrors when anything failed, kExitNewMail when mail was kept,
// kExitNothingNew otherwise.
int CheckExitCode(const CheckTotals& totals, bool stopped);

}  // namespace tavik::host
