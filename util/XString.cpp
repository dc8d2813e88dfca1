#include "util/XString.h"

#include <algorithm>
#include <atomic>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

namespace {

// Process-wide on purpose: callers set it and later calls in any thread see it.
std::atomic<char> g_separator{'|'};
std::atomic<char> g_savedSeparator{'|'};

XString upperCopy(const CString& s) {
    XString u(s);
    u.MakeUpper();
    return u;
}

std::vector<std::string> splitElements(const std::string& text, char sep) {
    std::vector<std::string> out;
    size_t begin = 0;
    for (;;) {
        size_t hit = text.find(sep, begin);
        if (hit == std::string::npos) {
            out.emplace_back(text, begin);
            return out;
        }
        out.emplace_back(text, begin, hit - begin);
        begin = hit + 1;
    }
}

XString joinElements(const std::vector<std::string>& parts, char sep) {
    std::string out;
    for (size_t i = 0; i < parts.size(); ++i) {
        if (i) out += sep;
        out += parts[i];
    }
    return XString(CString(std::move(out)));
}

CString formatted(const char* format, double v) {
    CString s;
    s.Format(format, v);
    return s;
}

CString formatted(const char* format, int v) {
    CString s;
    s.Format(format, v);
    return s;
}

}  // namespace

XString::XString(int v) { Format("%d", v); }
XString::XString(unsigned int v) { Format("%u", v); }
XString::XString(double v) { Format("%g", v); }

double XString::Double() const { return std::atof(GetString()); }
int XString::Int() const { return std::atoi(GetString()); }
char XString::Char() const { return IsEmpty() ? '\0' : GetAt(0); }
bool XString::Bool() const { return Int() != 0; }

XString XString::Reverse() const {
    XString r(*this);
    r.MakeReverse();
    return r;
}

XString XString::Trim() const {
    XString r(*this);
    r.CString::Trim();
    return r;
}

XString XString::Lower() const {
    XString r(*this);
    r.MakeLower();
    return r;
}

XString XString::Upper() const { return upperCopy(*this); }

XString XString::FromTo(int i, int j) const {
    // Worked out wide: the count of j - i + 1 overflows for positions far apart.
    long long n = static_cast<long long>(j) - i + 1;
    return Mid(i, static_cast<int>(std::clamp<long long>(n, 0, INT_MAX)));
}

XString& XString::operator--() {
    if (!IsEmpty()) str().pop_back();
    return *this;
}

XString XString::operator--(int) {
    XString old(*this);
    --*this;
    return old;
}

int XString::NCFind(const XString& s, int start) const { return Upper().Find(s.Upper(), start); }

int XString::NCFind(char c, int start) const {
    char u = (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c;
    return Upper().Find(u, start);
}

XString XString::Remove(int from, int to) const {
    if (to < 0 || from < 0 || to < from) return *this;
    XString r(*this);
    r.Delete(from, to - from);
    return r;
}

XString XString::Remove(const XString& s) const {
    int at = Find(s);
    return at < 0 ? *this : Remove(at, at + s.GetLength());
}

XString XString::Remove(char c) const {
    int at = Find(c);
    return at < 0 ? *this : Remove(at, at + 1);
}

XString XString::NCRemove(const XString& s) const {
    int at = NCFind(s);
    return at < 0 ? *this : Remove(at, at + s.GetLength());
}

XString XString::NCRemove(char c) const {
    int at = NCFind(c);
    return at < 0 ? *this : Remove(at, at + 1);
}

namespace {
// Removing the leftmost occurrence and searching again from the start, until none is left, is the same
// as one pass that drops the pattern whenever the text kept so far ends with it (the leftmost occurrence
// of a fixed-length pattern is also the one that ends first). The pass keeps hostile input linear.
std::string removeRepeatedly(const std::string& text, const std::string& pattern, bool noCase) {
    auto same = [noCase](char a, char b) {
        if (noCase) {
            if (a >= 'a' && a <= 'z') a = static_cast<char>(a - 'a' + 'A');
            if (b >= 'a' && b <= 'z') b = static_cast<char>(b - 'a' + 'A');
        }
        return a == b;
    };
    std::string kept;
    kept.reserve(text.size());
    const size_t m = pattern.size();
    for (char c : text) {
        kept += c;
        if (kept.size() < m) continue;
        size_t base = kept.size() - m;
        size_t i = 0;
        while (i < m && same(kept[base + i], pattern[i])) ++i;
        if (i == m) kept.resize(base);
    }
    return kept;
}
}  // namespace

XString XString::RemoveAll(const XString& s) const {
    if (s.IsEmpty()) return *this;
    return XString(CString(removeRepeatedly(str(), s.str(), false)));
}

XString XString::RemoveAll(char c) const {
    XString r(*this);
    r.CString::Remove(c);
    return r;
}

XString XString::NCRemoveAll(const XString& s) const {
    if (s.IsEmpty()) return *this;
    return XString(CString(removeRepeatedly(str(), s.str(), true)));
}

XString XString::NCRemoveAll(char c) const {
    return XString(CString(removeRepeatedly(str(), std::string(1, c), true)));
}

XString XString::Insert(const XString& s, int pos) const {
    if (pos < 0 || pos > GetLength()) return *this;
    XString r(*this);
    r.str().insert(static_cast<size_t>(pos), s.str());
    return r;
}

XString XString::Replace(const XString& with, const XString& what) const {
    int at = Find(what);
    if (at < 0) return *this;
    return Remove(at, at + what.GetLength()).Insert(with, at);
}

XString XString::Replace(const XString& with, int from, int to) const {
    return Remove(from, to).Insert(with, from);
}

XString XString::NCReplace(const XString& with, const XString& what) const {
    int at = NCFind(what);
    if (at < 0) return *this;
    return Remove(at, at + what.GetLength()).Insert(with, at);
}

int XString::ReplaceAll(const XString& with, const XString& what) {
    if (what.IsEmpty()) return 0;
    return CString::Replace(what, with);
}

int XString::NCReplaceAll(const XString& with, const XString& what) {
    if (what.IsEmpty()) return 0;
    // Search an upper-cased copy so the text between the matches keeps its case.
    const std::string upper = Upper().str();
    const std::string key = what.Upper().str();
    std::string out;
    int n = 0;
    size_t pos = 0;
    for (size_t hit; (hit = upper.find(key, pos)) != std::string::npos; pos = hit + key.size(), ++n) {
        out.append(str(), pos, hit - pos);
        out.append(with.str());
    }
    if (n == 0) return 0;
    out.append(str(), pos, std::string::npos);
    str().swap(out);
    return n;
}

XString XString::ReplaceText(const XString& values) const {
    // Filling the first '*' again and again, each time reading the next element from the start of values,
    // is quadratic in the number of values. The same result in one pass: the text still to be written is
    // a stack of pieces (a value just filled in, then what followed its '*', and so on), and the first '*'
    // left is always in the top piece or below it, never in what was already written.
    const std::vector<std::string> parts = splitElements(values.str(), GetSeparator());
    std::string out;
    std::vector<std::string_view> pending{std::string_view(str())};
    size_t next = 0;
    while (!pending.empty()) {
        std::string_view top = pending.back();
        size_t star = next < parts.size() && !parts[next].empty() ? top.find('*') : std::string_view::npos;
        if (star == std::string_view::npos) {
            out.append(top);
            pending.pop_back();
            continue;
        }
        out.append(top.substr(0, star));
        pending.back() = top.substr(star + 1);
        pending.emplace_back(parts[next++]);
    }
    for (char& c : out) {
        if (c == '\xA7') c = '*';
    }
    return XString(CString(std::move(out)));
}

int XString::Count(char c) const { return static_cast<int>(std::count(str().begin(), str().end(), c)); }

int XString::Count(const XString& s) const {
    if (s.IsEmpty()) return 0;
    int n = 0;
    for (size_t pos = 0; (pos = str().find(s.str(), pos)) != std::string::npos; pos += s.str().size()) ++n;
    return n;
}

XString XString::Fill(int n) const {
    XString r(*this);
    if (n > r.GetLength()) r.str().append(static_cast<size_t>(n - r.GetLength()), ' ');
    return r;
}

XString XString::ReplaceTabs(int size) const {
    if (size <= 0) return *this;
    // One pass: the position of a tab in the text being built is the length of what was written before
    // it, so replacing the first tab over and over (quadratic on a line of tabs) is not needed.
    std::string out;
    out.reserve(str().size());
    for (char c : str()) {
        if (c == '\t') {
            out.append(static_cast<size_t>(size) - out.size() % static_cast<size_t>(size), ' ');
        } else {
            out += c;
        }
    }
    return XString(CString(std::move(out)));
}

int XString::FindIndex(char c, int n) const {
    if (n <= 0) return 0;
    int at = -1;
    for (int k = 0; k < n; ++k) {
        at = Find(c, at + 1);
        if (at < 0) return -1;
    }
    return at;
}

XString XString::GetDoubleFormatString() const {
    int dot = Find('.');
    int decimals = dot < 0 ? 0 : GetLength() - dot - 1;
    XString r;
    r.Format("%%%d.%dlf", GetLength(), decimals);
    return r;
}

// --- elements

char XString::SetSeparator(char c) {
    g_savedSeparator.store(g_separator.exchange(c));
    return c;
}

char XString::RestoreSeparator() {
    char c = g_savedSeparator.load();
    g_separator.store(c);
    return c;
}

char XString::GetSeparator() { return g_separator.load(); }

XString XString::Element(int i) const { return Elements(i, i, GetSeparator()); }
XString XString::Element(int i, char sep) const { return Elements(i, i, sep); }
XString XString::Elements(int from, int to) const { return Elements(from, to, GetSeparator()); }

XString XString::Elements(int from, int to, char sep) const {
    if (to < 0) to = CountSeparators(sep);
    if (from < 0) return XString();
    // Wide, as 0..INT_MAX would overflow; no text holds more elements than that anyway.
    const int wanted = static_cast<int>(std::min<long long>(static_cast<long long>(to) - from + 1, INT_MAX));
    if (wanted <= 0) return XString();
    const std::string& s = str();
    size_t begin = 0;
    for (int k = 0; k < from; ++k) {
        size_t hit = s.find(sep, begin);
        if (hit == std::string::npos) {
            begin = std::string::npos;
            break;
        }
        begin = hit + 1;
    }
    if (begin == std::string::npos || begin >= s.size()) return XString(sep, wanted - 1);
    size_t end = begin;
    int passed = 0;
    for (;;) {
        size_t hit = s.find(sep, end);
        if (hit == std::string::npos) {
            end = s.size();
            break;
        }
        if (++passed == wanted) {
            end = hit;
            break;
        }
        end = hit + 1;
    }
    XString r(CString(s.substr(begin, end - begin)));
    if (end == s.size() && passed < wanted) r.str().append(static_cast<size_t>(wanted - 1 - passed), sep);
    return r;
}

XString XString::SetElementText(int i, const CString& v, char sep) const {
    if (i < 0) return *this;
    const std::string& s = str();
    int seps = CountSeparators(sep);
    if (seps < i) {
        XString r(*this);
        r.str().append(static_cast<size_t>(i - seps), sep);
        r.str().append(v.str());
        return r;
    }
    size_t begin = 0;
    for (int k = 0; k < i; ++k) begin = s.find(sep, begin) + 1;
    size_t end = s.find(sep, begin);
    if (end == std::string::npos) end = s.size();
    XString r(*this);
    r.str().replace(begin, end - begin, v.str());
    return r;
}

XString XString::SetElement(int i, const CString& v) const { return SetElementText(i, v, GetSeparator()); }
XString XString::SetElement(int i, double v) const { return SetElement(i, formatted("%g", v)); }
XString XString::SetElement(int i, char v) const { return SetElement(i, CString(v, 1)); }
XString XString::SetElement(int i, int v) const { return SetElement(i, formatted("%d", v)); }
XString XString::SetElement(int i, bool v) const { return SetElement(i, formatted("%d", v ? 1 : 0)); }

namespace {
template <class Pred>
int firstElement(const XString& text, char sep, Pred match) {
    std::vector<std::string> parts = splitElements(text.str(), sep);
    for (size_t i = 0; i < parts.size(); ++i) {
        if (match(XString(CString(parts[i])))) return static_cast<int>(i);
    }
    return -1;
}
}  // namespace

int XString::ElementIndex(const CString& v) const {
    return firstElement(*this, GetSeparator(), [&](const XString& e) { return e.str() == v.str(); });
}
int XString::ElementIndex(double v) const {
    return firstElement(*this, GetSeparator(), [&](const XString& e) { return e.Double() == v; });
}
int XString::ElementIndex(int v) const {
    return firstElement(*this, GetSeparator(), [&](const XString& e) { return e.Int() == v; });
}
int XString::ElementIndex(char v) const {
    return firstElement(*this, GetSeparator(), [&](const XString& e) { return e.Char() == v; });
}
int XString::ElementIndex(bool v) const {
    return firstElement(*this, GetSeparator(), [&](const XString& e) { return e.Bool() == v; });
}

XString XString::ElementSortString() const {
    char sep = GetSeparator();
    std::vector<std::string> parts = splitElements(str(), sep);
    std::sort(parts.begin(), parts.end());
    return joinElements(parts, sep);
}

XString XString::ElementSortDouble() const {
    char sep = GetSeparator();
    std::vector<std::string> parts = splitElements(str(), sep);
    std::vector<double> values;
    for (const auto& p : parts) values.push_back(std::atof(p.c_str()));
    // An element reading "nan" would break the sort's ordering (undefined behaviour): such elements go last.
    std::sort(values.begin(), values.end(), [](double a, double b) {
        if (std::isnan(a) || std::isnan(b)) return !std::isnan(a) && std::isnan(b);
        return a < b;
    });
    for (size_t i = 0; i < parts.size(); ++i) parts[i] = formatted("%g", values[i]).str();
    return joinElements(parts, sep);
}

XString XString::ElementSortChar() const {
    char sep = GetSeparator();
    std::vector<std::string> parts = splitElements(str(), sep);
    std::vector<signed char> values;
    for (const auto& p : parts) values.push_back(static_cast<signed char>(p.empty() ? '\0' : p[0]));
    std::sort(values.begin(), values.end());
    // An empty element reads as character 0 and is written back empty, as text ends at a zero byte.
    for (size_t i = 0; i < parts.size(); ++i) {
        parts[i] = values[i] == 0 ? std::string() : std::string(1, static_cast<char>(values[i]));
    }
    return joinElements(parts, sep);
}

XString XString::ElementSortInt() const {
    char sep = GetSeparator();
    std::vector<std::string> parts = splitElements(str(), sep);
    std::vector<int> values;
    for (const auto& p : parts) values.push_back(std::atoi(p.c_str()));
    std::sort(values.begin(), values.end());
    for (size_t i = 0; i < parts.size(); ++i) parts[i] = formatted("%d", values[i]).str();
    return joinElements(parts, sep);
}
