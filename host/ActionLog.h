// The action log: one line for everything the checker did to a message (deleted, moved, marked,
// forwarded, answered), so that a person can find out afterwards where a message went. `tavik log`
// shows it.
//
// A line holds, separated by tabs: the local time ("2024-05-01 10:00:00 +0200"), the account, the
// message's identifier (8 hexadecimal digits, as the tables show it), its Message-ID, the sender, the
// subject, the rule and the action. In every field a backslash is written "\\" and each control
// character (tabs and line ends included) "\xNN", so a message cannot break a line or drive a terminal.
// The file is owner-only (0600) in an owner-only directory; past kRotateBytes it moves to
// "actions.log.1" (replacing the one before) and a new file starts.
#pragma once

#include <cstdio>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tavik::host {

struct ActionRecord {
    std::time_t when = 0;
    std::string account;
    unsigned id = 0;
    std::string messageId;
    std::string sender;
    std::string subject;
    std::string rule;
    std::string action;  // as the rule names it ("Delete", "Move To Folder", "Forward", ...)
};

inline constexpr size_t kActionFields = 8;

// $XDG_STATE_HOME/tavikmail/actions.log when XDG_STATE_HOME is an absolute path, else
// $HOME/.local/state/tavikmail/actions.log; empty when neither can be named.
std::string ActionLogPath();

// The line for a record, without its line end.
std::string FormatActionLine(const ActionRecord& record);
// The fields of a line, still escaped (what `tavik log` shows), or nothing when the line does not have
// the eight fields.
std::optional<std::vector<std::string>> SplitActionLine(std::string_view line);
// A field as it was before escaping.
std::string UnescapeField(std::string_view field);

class ActionLog {
public:
    static constexpr unsigned long long kRotateBytes = 1024 * 1024;

    explicit ActionLog(std::string path = ActionLogPath()) : m_path(std::move(path)) {}
    ~ActionLog() { Close(); }
    ActionLog(const ActionLog&) = delete;
    ActionLog& operator=(const ActionLog&) = delete;
    const std::string& Path() const { return m_path; }

    // Appends the record's line (one write, so lines of checks running at once do not mix; on the disk
    // before it returns, so a crash keeps it). Creates the directory (0700) and the file (0600) when
    // missing, and makes an existing file owner-only. The file stays open between lines. False, with
    // the reason in *error, when the line cannot be written.
    bool Append(const ActionRecord& record, std::string* error = nullptr);

private:
    void Close();

    std::string m_path;
    FILE* m_file = nullptr;        // open for appending while the file stays where it is
    unsigned long long m_end = 0;  // the file's size after this log's last line
};

struct LogQuery {
    std::string path = ActionLogPath();
    size_t last = 0;      // only the last lines (after the account filter); 0: all
    std::string account;  // only this account's lines (case ignored); empty: all
    bool raw = false;     // the lines as stored, instead of the table
};

// `tavik log`: the lines of the rotated file and then the current one, as a table (time, account, id,
// action, rule, sender, subject) or raw. A missing log is no error: it says that nothing was logged.
// Returns 0, or 1 (with the reason on err) when the log cannot be read.
int ShowActionLog(const LogQuery& query, FILE* out, FILE* err);

}  // namespace tavik::host
