#include "transport/CTextPlain.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>

#include "transport/internal/LineBreaks.h"

namespace {

bool IsSpace(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

}  // namespace

int CTextPlain::AppendPart(const char* content, const char* parameters, int encoding, int isPath,
                           CString& destination) {
    destination += build_sub_header(content, parameters, encoding, isPath);
    if (content == nullptr) return 1;
    const std::string_view text(content, std::strlen(content));
    if (!tavik::lib::HasBareLineEnd(text)) {
        WrapInto(destination.str(), text);
    } else {
        std::string lines(text);
        tavik::lib::CrlfLineEnds(lines);
        WrapInto(destination.str(), lines);
    }
    return 1;
}

CString CTextPlain::build_sub_header(const char* content, const char* parameters, int encoding, int isPath) {
    CString header;
    header.Format("Content-Type: %s%s\r\n", GetContentTypeString().GetString(),
                  tavik::lib::OneLine(parameters ? parameters : "").c_str());
    header += "Content-Transfer-Encoding: ";
    header += "7Bit";
    header += "\r\n\r\n";
    return header;
}

CString CTextPlain::wrap_text(const char* text) const {
    std::string out;
    if (text != nullptr) WrapInto(out, std::string_view(text, std::strlen(text)));
    return CString(std::move(out));
}

// The wrapper edits the text it walks: a break replaces the white space around the last space seen by
// CRLF, and the walk goes on at the next index of the edited text. Redoing that on one string would copy
// the whole rest at every break, so the edited text grows in `s` while the untouched rest stays in the
// input, taken a little at a time (an edit moves what lies after it). Edits happen at or behind the walk,
// and an edit that would change nothing is skipped (a long word re-breaks at the same place at every
// width step). The wrapped text goes straight to the end of `s` (a message's body, most often), whose
// earlier content no break reaches into.
void CTextPlain::WrapInto(std::string& s, std::string_view rest) const {
    const size_t base = s.size();
    s.reserve(base + rest.size() + rest.size() / 32 + 16);
    auto has = [&](size_t index) {
        if (index >= s.size() && !rest.empty()) {
            size_t take = std::min(rest.size(), std::max<size_t>(index + 1 - s.size(), 256));
            s.append(rest.substr(0, take));
            rest.remove_prefix(take);
        }
        return index < s.size();
    };
    const size_t width = m_nWrapPos;
    size_t column = 0, lastSpace = base;
    for (size_t i = base; has(i); ++i) {
        if (s[i] == ' ') lastSpace = i;
        size_t here = (s[i] == '\r' && has(i + 1) && s[i + 1] == '\n') ? 0 : column;
        if (here > width) {
            // Left and right of the last space as the string functions clamp them.
            size_t at = lastSpace;
            if (!has(at)) at = s.size();
            size_t lo = at, hi = at;
            while (lo > base && IsSpace(s[lo - 1])) --lo;
            while (has(hi) && IsSpace(s[hi])) ++hi;
            if (!(hi - lo == 2 && s[lo] == '\r' && s[lo + 1] == '\n')) s.replace(lo, hi - lo, "\r\n");
            column = 0;
        } else {
            column = here + 1;
        }
    }
}
