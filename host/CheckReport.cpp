#include "host/CheckReport.h"

#include <cstdlib>
#include <cstring>

#include "host/MessageShow.h"
#include "platform/FileSystem.h"

namespace tavik::host {

namespace {

constexpr size_t kBarWidth = 30;
constexpr size_t kLabelWidth = 24;

// Terminal text on one line: line ends and tabs become blanks.
std::string OneLine(std::string_view text) {
    std::string out = TerminalText(text);
    for (char& c : out)
        if (c == '\n' || c == '\t') c = ' ';
    return out;
}

}  // namespace

std::string FitColumn(std::string_view text, size_t width, bool pad) {
    std::vector<size_t> starts;
    for (size_t at = 0; at < text.size() && starts.size() <= width;) {
        starts.push_back(at);
        ++at;
        while (at < text.size() && (static_cast<unsigned char>(text[at]) & 0xC0) == 0x80) ++at;
    }
    std::string out;
    size_t shown;
    if (starts.size() <= width) {
        out = text;
        shown = starts.size();
    } else {
        const size_t keep = width >= 3 ? width - 3 : 0;
        out = text.substr(0, starts[keep]);
        out += std::string("...").substr(0, width - keep);
        shown = width;
    }
    if (pad && shown < width) out.append(width - shown, ' ');
    return out;
}

bool IsInteractive(FILE* out) {
    const char* term = std::getenv("TERM");
    if (term && std::strcmp(term, "dumb") == 0) return false;
    return _isatty(_fileno(out)) != 0;
}

ProgressDisplay::~ProgressDisplay() {
    if (m_active) Finish();
}

void ProgressDisplay::Start(const std::string& label, size_t total) {
    if (m_active) Finish();
    m_label = OneLine(label);
    m_total = total;
    m_done = 0;
    m_shown = -1;
    m_active = true;
    if (m_terminal) {
        Draw();
    } else {
        if (total)
            std::fprintf(m_out, "%s: %zu message%s\n", m_label.c_str(), total, total == 1 ? "" : "s");
        else
            std::fprintf(m_out, "%s\n", m_label.c_str());
        m_shown = 0;
    }
    std::fflush(m_out);
}

void ProgressDisplay::Advance(size_t done) {
    if (!m_active) return;
    m_done = m_total && done > m_total ? m_total : done;
    if (m_terminal) {
        const long now = m_total ? static_cast<long>(m_done * 100 / m_total) : static_cast<long>(m_done);
        // Unknown totals redraw on each of the first hundred, then every hundredth.
        if (now == m_shown || (!m_total && m_done > 100 && m_done % 100 != 0)) return;
        Draw();
    } else if (m_total) {
        const long tenth = static_cast<long>(m_done * 10 / m_total);
        if (tenth == m_shown || m_done == m_total) return;  // the last one is Finish's
        m_shown = tenth;
        std::fprintf(m_out, "%s: %zu of %zu\n", m_label.c_str(), m_done, m_total);
    }
    std::fflush(m_out);
}

void ProgressDisplay::Line(const std::string& text) {
    if (m_active && m_terminal) ClearLine();
    std::fprintf(m_out, "%s\n", OneLine(text).c_str());
    if (m_active && m_terminal) Draw();
    std::fflush(m_out);
}

void ProgressDisplay::Finish(const std::string& note) {
    if (!m_active) return;
    if (m_total) m_done = m_total;
    std::string end =
        m_total ? std::to_string(m_done) + " of " + std::to_string(m_total) : std::to_string(m_done);
    if (!note.empty()) end += ", " + OneLine(note);
    if (m_terminal) {
        ClearLine();
        std::fprintf(m_out, "%s %s\n", FitColumn(m_label, kLabelWidth).c_str(), end.c_str());
    } else {
        std::fprintf(m_out, "%s: %s\n", m_label.c_str(), end.c_str());
    }
    m_active = false;
    std::fflush(m_out);
}

void ProgressDisplay::Draw() {
    std::string bar;
    if (m_total) {
        const size_t filled = m_done * kBarWidth / m_total;
        bar = "[" + std::string(filled, '#') + std::string(kBarWidth - filled, '.') + "] " +
              std::to_string(m_done) + "/" + std::to_string(m_total);
        m_shown = static_cast<long>(m_done * 100 / m_total);
    } else {
        bar = std::to_string(m_done);
        m_shown = static_cast<long>(m_done);
    }
    // \r and erase-to-end: the bar replaces itself; nothing else on the line survives.
    std::fprintf(m_out, "\r%s %s\x1b[K", FitColumn(m_label, kLabelWidth).c_str(), bar.c_str());
}

void ProgressDisplay::ClearLine() { std::fputs("\r\x1b[K", m_out); }

const char* VerdictWord(Verdict verdict) {
    switch (verdict) {
        case Verdict::kNew:
            return "new";
        case Verdict::kFriend:
            return "friend";
        case Verdict::kSpammer:
            return "spammer";
        case Verdict::kJunk:
            return "junk";
        case Verdict::kForwarded:
            return "forwarded";
        case Verdict::kAnswered:
            return "answered";
        case Verdict::kJudged:
            return "judged before";
        case Verdict::kFailed:
            return "failed";
    }
    return "?";
}

void PrintResultTable(const std::vector<ResultRow>& rows, bool dryRun, FILE* out) {
    if (dryRun) std::fprintf(out, "dry run: nothing below was done\n");
    std::fprintf(out, "%s  %-8s  %s  %s  %s  %s  %s\n", FitColumn("account", 12).c_str(), "id",
                 FitColumn("verdict", 13).c_str(), FitColumn("rule", 16).c_str(),
                 FitColumn("action", 18).c_str(), FitColumn("sender", 26).c_str(), "subject");
    for (const ResultRow& r : rows) {
        std::string action = r.action.empty() ? "-" : r.action;
        if (dryRun && !r.action.empty()) action = "would " + action;
        std::fprintf(out, "%s  %08X  %s  %s  %s  %s  %s\n", FitColumn(OneLine(r.account), 12).c_str(), r.id,
                     FitColumn(VerdictWord(r.verdict), 13).c_str(),
                     FitColumn(r.rule.empty() ? "-" : OneLine(r.rule), 16).c_str(),
                     FitColumn(OneLine(action), 18).c_str(), FitColumn(OneLine(r.sender), 26).c_str(),
                     FitColumn(OneLine(r.subject), 40, false).c_str());
    }
}

std::string SummaryLine(const CheckTotals& t, bool dryRun) {
    std::string line = std::to_string(t.messages) + (t.messages == 1 ? " message" : " messages");
    line += ", " + std::to_string(t.fresh) + " new";
    std::vector<std::string> parts;
    const auto count = [&](size_t n, const char* what, bool action) {
        if (n == 0) return;
        parts.push_back(std::to_string(n) + " " + (dryRun && action ? "would be " : "") + what);
    };
    count(t.junk, "junk", false);
    count(t.deleted, "deleted", true);
    count(t.moved, "moved", true);
    count(t.forwarded, "forwarded", true);
    count(t.answered, "answered", true);
    count(t.kept, "kept", false);
    for (size_t i = 0; i < parts.size(); ++i) line += (i == 0 ? ": " : ", ") + parts[i];
    if (t.errors) line += "; " + std::to_string(t.errors) + (t.errors == 1 ? " error" : " errors");
    return line;
}

int CheckExitCode(const CheckTotals& totals, bool stopped) {
    if (stopped) return kExitStopped;
    if (totals.errors) return kExitErrors;
    return totals.kept ? kExitNewMail : kExitNothingNew;
}

}  // namespace tavik::host
