#include "util/CStringEx.h"

#include <string>

namespace {

std::string lowerCopy(const std::string& s) {
    std::string r(s);
    for (char& c : r) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return r;
}

char lowerChar(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }
char upperChar(char c) { return (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c; }

// Shared by the exact and case-free forms: they differ only in the copies they search.
int replaceIn(std::string& text, const std::string& searched, const std::string& what,
              const std::string& with, int all) {
    if (what.empty()) return 0;
    std::string out;
    size_t pos = 0;
    int n = 0;
    for (size_t hit; (hit = searched.find(what, pos)) != std::string::npos;) {
        out.append(text, pos, hit - pos);
        out.append(with);
        pos = hit + what.size();
        ++n;
        if (!all) break;
    }
    if (n == 0) return 0;
    out.append(text, pos, std::string::npos);
    text.swap(out);
    return n;
}

int reverseFindIn(const std::string& text, const std::string& s, int start) {
    if (s.empty() || text.empty()) return -1;
    int last = static_cast<int>(text.size()) - 1;
    if (start < 0 || start > last) start = last;
    for (int p = start; p >= 0; --p) {
        if (text.compare(static_cast<size_t>(p), s.size(), s) == 0) return p;
    }
    return -1;
}

}  // namespace

CStringEx& CStringEx::Insert(int pos, const char* s) {
    if (s == nullptr || *s == '\0') return *this;
    if (pos < 0) pos = 0;
    if (pos >= GetLength()) {
        str().append(static_cast<size_t>(pos - GetLength()), ' ');
        str().append(s);
    } else {
        str().insert(static_cast<size_t>(pos), s);
    }
    return *this;
}

CStringEx& CStringEx::Insert(int pos, char c) {
    const char text[2] = {c, '\0'};
    return Insert(pos, text);
}

CStringEx& CStringEx::Delete(int pos, int count) {
    int len = GetLength();
    if (pos < 0 || pos >= len) return *this;
    if (count < 0 || count > len - pos) count = len - pos;
    str().erase(static_cast<size_t>(pos), static_cast<size_t>(count));
    return *this;
}

CStringEx& CStringEx::Replace(int pos, int count, const char* s) {
    Delete(pos, count);
    return Insert(pos, s);
}

int CStringEx::FindNoCase(char c, int start) const {
    int lower = Find(lowerChar(c), start);
    int upper = Find(upperChar(c), start);
    if (lower < 0) return upper;
    if (upper < 0) return lower;
    return lower < upper ? lower : upper;
}

int CStringEx::FindNoCase(const char* s, int start) const {
    if (s == nullptr || start < 0 || start > GetLength()) return -1;
    size_t hit = lowerCopy(str()).find(lowerCopy(s), static_cast<size_t>(start));
    return hit == std::string::npos ? -1 : static_cast<int>(hit);
}

int CStringEx::FindReplace(const char* what, const char* with, int all) {
    if (what == nullptr) return 0;
    std::string key(what);
    return replaceIn(str(), std::string(str()), key, with ? with : "", all);
}

int CStringEx::FindReplaceNoCase(const char* what, const char* with, int all) {
    if (what == nullptr) return 0;
    return replaceIn(str(), lowerCopy(str()), lowerCopy(what), with ? with : "", all);
}

int CStringEx::ReverseFind(const char* s, int start) const { return reverseFindIn(str(), s ? s : "", start); }

int CStringEx::ReverseFindNoCase(const char* s, int start) const {
    return reverseFindIn(lowerCopy(str()), lowerCopy(s ? s : ""), start);
}

int CStringEx::ReverseFindNoCase(char c, int start) const {
    const char text[2] = {c, '\0'};
    return ReverseFindNoCase(text, start);
}

CStringEx CStringEx::GetField(const char* delim, int n) const {
    std::string d(delim ? delim : "");
    if (n < 0) return CStringEx();
    if (d.empty()) return n == 0 ? *this : CStringEx();
    size_t begin = 0;
    for (int k = 0; k < n; ++k) {
        size_t hit = str().find(d, begin);
        if (hit == std::string::npos) return CStringEx();
        begin = hit + d.size();
    }
    size_t end = str().find(d, begin);
    if (end == std::string::npos) end = str().size();
    return CStringEx(CString(str().substr(begin, end - begin)));
}

CStringEx CStringEx::GetField(char delim, int n) const {
    const char text[2] = {delim, '\0'};
    return GetField(text, n);
}

int CStringEx::GetFieldCount(char delim) const {
    const char text[2] = {delim, '\0'};
    return GetFieldCount(text);
}

int CStringEx::GetFieldCount(const char* delim) const {
    std::string d(delim ? delim : "");
    if (d.empty()) return 1;
    int n = 1;
    for (size_t pos = 0; (pos = str().find(d, pos)) != std::string::npos; pos += d.size()) ++n;
    return n;
}

CStringEx CStringEx::GetDelimitedField(const char* open, const char* close, int n) const {
    std::string o(open ? open : ""), c(close ? close : "");
    if (o.empty() || c.empty() || n < 0) return CStringEx();
    size_t at = std::string::npos;
    size_t from = 0;
    for (int k = 0; k <= n; ++k) {
        at = str().find(o, from);
        if (at == std::string::npos) return CStringEx();
        from = at + o.size();
    }
    size_t end = str().find(c, from);
    if (end == std::string::npos) return CStringEx();
    return CStringEx(CString(str().substr(from, end - from)));
}
