#include "host/ActionLog.h"

#include <cctype>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <fstream>

#include "host/CheckReport.h"
#include "host/MessageShow.h"
#include "platform/CException.h"
#include "platform/CFile.h"
#include "platform/CTime.h"

namespace tavik::host {

namespace {

namespace fs = std::filesystem;

void AppendEscaped(std::string& out, std::string_view field) {
    for (char ch : field) {
        const auto c = static_cast<unsigned char>(ch);
        if (c == '\\') {
            out += "\\\\";
        } else if (c < 0x20 || c == 0x7F) {
            char hex[8];
            std::snprintf(hex, sizeof hex, "\\x%02X", c);
            out += hex;
        } else {
            out += ch;
        }
    }
}

std::string OsErrorText(LONG code, const std::string& path) {
    char why[512] = "";
    CFileException(CFileException::OsErrorToException(code), code, path.c_str())
        .GetErrorMessage(why, sizeof why);
    return why;
}

bool SameAccount(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i)
        if (std::tolower(static_cast<unsigned char>(a[i])) != std::tolower(static_cast<unsigned char>(b[i])))
            return false;
    return true;
}

}  // namespace

std::string ActionLogPath() {
    if (const char* state = std::getenv("XDG_STATE_HOME"); state && *state == '/')
        return std::string(state) + "/tavikmail/actions.log";
    if (const char* home = std::getenv("HOME"); home && *home)
        return std::string(home) + "/.local/state/tavikmail/actions.log";
    return {};
}

std::string FormatActionLine(const ActionRecord& r) {
    char id[16];
    std::snprintf(id, sizeof id, "%08X", r.id);
    const std::string fields[kActionFields] = {CTime(r.when).Format("%Y-%m-%d %H:%M:%S %z").str(),
                                               r.account,
                                               id,
                                               r.messageId,
                                               r.sender,
                                               r.subject,
                                               r.rule,
                                               r.action};
    std::string line;
    for (size_t i = 0; i < kActionFields; ++i) {
        if (i) line += '\t';
        AppendEscaped(line, fields[i]);
    }
    return line;
}

std::optional<std::vector<std::string>> SplitActionLine(std::string_view line) {
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    std::vector<std::string> fields;
    for (size_t at = 0;;) {
        const size_t tab = line.find('\t', at);
        fields.emplace_back(
            line.substr(at, tab == std::string_view::npos ? std::string_view::npos : tab - at));
        if (tab == std::string_view::npos) break;
        at = tab + 1;
    }
    if (fields.size() != kActionFields) return std::nullopt;
    return fields;
}

std::string UnescapeField(std::string_view field) {
    std::string out;
    for (size_t i = 0; i < field.size(); ++i) {
        if (field[i] == '\\' && i + 1 < field.size() && field[i + 1] == '\\') {
            out += '\\';
            ++i;
        } else if (field[i] == '\\' && i + 3 < field.size() && field[i + 1] == 'x' &&
                   std::isxdigit(static_cast<unsigned char>(field[i + 2])) &&
                   std::isxdigit(static_cast<unsigned char>(field[i + 3]))) {
            out += static_cast<char>(std::stoi(std::string(field.substr(i + 2, 2)), nullptr, 16));
            i += 3;
        } else {
            out += field[i];
        }
    }
    return out;
}

void ActionLog::Close() {
    if (m_file) std::fclose(m_file);
    m_file = nullptr;
    m_end = 0;
}

bool ActionLog::Append(const ActionRecord& record, std::string* error) {
    const auto fail = [&](std::string why) {
        if (error) *error = std::move(why);
        return false;
    };
    if (m_path.empty()) return fail("no place for the action log: set XDG_STATE_HOME or HOME");
    std::error_code ec;
    const fs::path file(m_path);
    // A check appends a line per action to the file it keeps open. It opens the file again (seeing to
    // the directory and the mode) when the file has gone, moved aside here or elsewhere, or was cut
    // short: each of these leaves the path shorter than the open file's last line ended.
    const auto size = fs::file_size(file, ec);
    if (ec || size < m_end) Close();
    if (!ec && size > kRotateBytes) {
        Close();
        fs::rename(file, m_path + ".1", ec);
    }
    if (!m_file) {
        const fs::path dir = file.parent_path();
        if (!dir.empty() && !fs::is_directory(dir, ec)) {
            fs::create_directories(dir, ec);
            if (ec) return fail("cannot create " + dir.string() + ": " + ec.message());
            fs::permissions(dir, fs::perms::owner_all, ec);
        }
        // Created owner-only; an existing file is left as it is here and narrowed below.
        CFile create;
        CFileException why;
        if (!create.Open(m_path.c_str(), CFile::modeCreate | CFile::modeNoTruncate | CFile::modeWrite, &why))
            return fail("cannot open " + m_path + ": " + OsErrorText(why.m_lOsError, m_path));
        create.Close();
        fs::permissions(file, fs::perms::owner_read | fs::perms::owner_write, ec);
        // Appending mode: each line lands at the end whoever else writes. Unbuffered: a line is one
        // write, done before Append returns.
        m_file = std::fopen(m_path.c_str(), "ab");
        if (!m_file) return fail("cannot open " + m_path);
        std::setvbuf(m_file, nullptr, _IONBF, 0);
    }
    const std::string line = FormatActionLine(record) + "\n";
    if (std::fwrite(line.data(), 1, line.size(), m_file) != line.size()) {
        Close();
        return fail("cannot write " + m_path);
    }
    const long end = std::ftell(m_file);
    m_end = end > 0 ? static_cast<unsigned long long>(end) : 0;
    return true;
}

int ShowActionLog(const LogQuery& query, FILE* out, FILE* err) {
    if (query.path.empty()) {
        std::fprintf(err, "tavik log: no place for the action log: set XDG_STATE_HOME or HOME\n");
        return 1;
    }
    std::deque<std::string> lines;
    bool any = false;
    for (const std::string& path : {query.path + ".1", query.path}) {
        std::error_code ec;
        if (!fs::exists(path, ec)) continue;
        std::ifstream in(path, std::ios::binary);
        if (!in) {
            std::fprintf(err, "tavik log: cannot read %s\n", TerminalText(path).c_str());
            return 1;
        }
        any = true;
        for (std::string line; std::getline(in, line);) {
            const auto fields = SplitActionLine(line);
            if (!query.account.empty() &&
                (!fields || !SameAccount(UnescapeField((*fields)[1]), query.account)))
                continue;
            lines.push_back(std::move(line));
            if (query.last && lines.size() > query.last) lines.pop_front();
        }
    }
    if (!any) {
        std::fprintf(out, "nothing logged yet (%s)\n", TerminalText(query.path).c_str());
        return 0;
    }
    if (!query.raw)
        std::fprintf(out, "%-25s  %s  %-8s  %s  %s  %s  %s\n", "time", FitColumn("account", 12).c_str(), "id",
                     FitColumn("action", 14).c_str(), FitColumn("rule", 16).c_str(),
                     FitColumn("sender", 28).c_str(), "subject");
    for (const std::string& line : lines) {
        const auto fields = SplitActionLine(line);
        if (query.raw || !fields) {
            std::fprintf(out, "%s\n", TerminalText(line).c_str());
            continue;
        }
        const auto& f = *fields;
        std::fprintf(out, "%-25s  %s  %-8s  %s  %s  %s  %s\n", TerminalText(f[0]).c_str(),
                     FitColumn(TerminalText(f[1]), 12).c_str(), TerminalText(f[2]).c_str(),
                     FitColumn(TerminalText(f[7]), 14).c_str(), FitColumn(TerminalText(f[6]), 16).c_str(),
                     FitColumn(TerminalText(f[4]), 28).c_str(),
                     FitColumn(TerminalText(f[5]), 60, false).c_str());
    }
    return 0;
}

}  // namespace tavik::host
