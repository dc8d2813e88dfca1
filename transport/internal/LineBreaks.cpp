#include "transport/internal/LineBreaks.h"

namespace tavik::lib {

namespace {
bool IsBreak(char c) { return c == '\r' || c == '\n'; }
}  // namespace

std::string OneLine(std::string_view text) {
    if (text.find_first_of("\r\n") == std::string_view::npos) return std::string(text);
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size();) {
        if (!IsBreak(text[i])) {
            out += text[i++];
            continue;
        }
        while (i < text.size() && IsBreak(text[i])) ++i;
        if (i < text.size() && (text[i] == ' ' || text[i] == '\t')) continue;
        out += ' ';
    }
    return out;
}

namespace {
size_t CountBare(std::string_view text) {
    size_t bare = 0;
    for (size_t i = text.find_first_of("\r\n"); i != std::string_view::npos;
         i = text.find_first_of("\r\n", i + 1)) {
        if (text[i] == '\r' && (i + 1 == text.size() || text[i + 1] != '\n')) ++bare;
        if (text[i] == '\n' && (i == 0 || text[i - 1] != '\r')) ++bare;
    }
    return bare;
}
}  // namespace

bool HasBareLineEnd(std::string_view text) { return CountBare(text) > 0; }

void CrlfLineEnds(std::string& text) {
    const size_t bare = CountBare(text);
    if (bare == 0) return;
    std::string out;
    out.reserve(text.size() + bare);
    for (size_t i = 0; i < text.size(); ++i) {
        char c = text[i];
        if (c == '\r') {
            out += "\r\n";
            if (i + 1 < text.size() && text[i + 1] == '\n') ++i;
        } else if (c == '\n') {
            out += "\r\n";
        } else {
            out += c;
        }
    }
    text.swap(out);
}

bool NeedsWireFixes(std::string_view text) {
    return text.starts_with(".\r\n") || text.find("\r\n.\r\n") != std::string_view::npos ||
           HasBareLineEnd(text);
}

std::string DoubleLoneDots(std::string_view text) {
    std::string out;
    out.reserve(text.size() + 16);
    size_t line = 0;  // start of the current line
    while (line < text.size()) {
        size_t end = text.find("\r\n", line);
        if (end == std::string_view::npos) {
            out.append(text.substr(line));
            break;
        }
        if (end == line + 1 && text[line] == '.') out += '.';
        out.append(text.substr(line, end + 2 - line));
        line = end + 2;
    }
    return out;
}

}  // namespace tavik::lib
