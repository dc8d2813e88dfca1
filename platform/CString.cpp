#include "platform/CString.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace {

bool isSpaceC(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }
char upperC(char c) { return (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c; }
char lowerC(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

// Code points of Windows-1252 bytes 0x80..0x9F; 0 where the code page leaves the byte undefined
// (Windows maps those to the same-numbered C1 control).
const char16_t kCp1252High[32] = {0x20AC, 0,      0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021,
                                  0x02C6, 0x2030, 0x0160, 0x2039, 0x0152, 0,      0x017D, 0,
                                  0,      0x2018, 0x2019, 0x201C, 0x201D, 0x2022, 0x2013, 0x2014,
                                  0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0,      0x017E, 0x0178};

}  // namespace

std::u16string AnsiToWide(std::string_view text) {
    std::u16string out;
    out.reserve(text.size());
    for (char ch : text) {
        auto b = static_cast<unsigned char>(ch);
        char16_t w = b;
        if (b >= 0x80 && b <= 0x9F && kCp1252High[b - 0x80] != 0) w = kCp1252High[b - 0x80];
        out.push_back(w);
    }
    return out;
}

std::string WideToAnsi(std::u16string_view text, char unmappable) {
    std::string out;
    out.reserve(text.size());
    for (char16_t w : text) {
        if (w < 0x80 || (w >= 0xA0 && w <= 0xFF)) {
            out.push_back(static_cast<char>(w));
            continue;
        }
        char mapped = unmappable;
        for (int i = 0; i < 32; ++i) {
            if (kCp1252High[i] == w || (kCp1252High[i] == 0 && w == 0x80 + i)) {
                mapped = static_cast<char>(0x80 + i);
                break;
            }
        }
        out.push_back(mapped);
    }
    return out;
}

CString::CString(const char* text) : m_str(text ? text : "") {}
CString::CString(const char* text, int length) {
    if (text != nullptr && length > 0) m_str.assign(text, static_cast<size_t>(length));
}
CString::CString(const unsigned char* text) : CString(reinterpret_cast<const char*>(text)) {}
CString::CString(const WCHAR* text) {
    if (text == nullptr) return;
    std::u16string_view view(text);
    m_str = WideToAnsi(view);
}
CString::CString(char ch, int repeat) {
    if (repeat > 0) m_str.assign(static_cast<size_t>(repeat), ch);
}

CString& CString::operator=(const char* text) {
    m_str = text ? text : "";
    return *this;
}
CString& CString::operator=(const unsigned char* text) { return *this = reinterpret_cast<const char*>(text); }
CString& CString::operator=(char ch) {
    m_str.assign(1, ch);
    return *this;
}

CString& CString::operator+=(const CString& other) {
    m_str += other.m_str;
    return *this;
}
CString& CString::operator+=(const char* text) {
    if (text) m_str += text;
    return *this;
}
CString& CString::operator+=(char ch) {
    m_str += ch;
    return *this;
}
void CString::Append(const char* text, int length) {
    if (text != nullptr && length > 0) m_str.append(text, static_cast<size_t>(length));
}

CString operator+(const CString& a, const CString& b) { return CString(a.m_str + b.m_str); }
CString operator+(const CString& a, const char* b) {
    CString r(a);
    r += b;
    return r;
}
CString operator+(const char* a, const CString& b) {
    CString r(a);
    r += b;
    return r;
}
CString operator+(const CString& a, char b) {
    CString r(a);
    r += b;
    return r;
}
CString operator+(char a, const CString& b) {
    CString r(a, 1);
    r += b;
    return r;
}

int CString::Compare(const char* text) const { return std::strcmp(m_str.c_str(), text ? text : ""); }

int CString::CompareNoCase(const char* text) const {
    const unsigned char* a = reinterpret_cast<const unsigned char*>(m_str.c_str());
    const unsigned char* b = reinterpret_cast<const unsigned char*>(text ? text : "");
    for (;; ++a, ++b) {
        int ca = static_cast<unsigned char>(lowerC(static_cast<char>(*a)));
        int cb = static_cast<unsigned char>(lowerC(static_cast<char>(*b)));
        if (ca != cb || ca == 0) return ca - cb;
    }
}

CString CString::Mid(int first) const {
    if (first < 0) first = 0;
    return Mid(first, first >= GetLength() ? 0 : GetLength() - first);
}

CString CString::Mid(int first, int count) const {
    if (first < 0) first = 0;
    if (count < 0) count = 0;
    int len = GetLength();
    if (first > len) first = len;
    if (count > len - first) count = len - first;
    return CString(m_str.substr(static_cast<size_t>(first), static_cast<size_t>(count)));
}

CString CString::Left(int count) const {
    if (count < 0) count = 0;
    return CString(m_str.substr(0, static_cast<size_t>(std::min(count, GetLength()))));
}

CString CString::Right(int count) const {
    if (count < 0) count = 0;
    int len = GetLength();
    if (count > len) count = len;
    return CString(m_str.substr(static_cast<size_t>(len - count)));
}

CString CString::SpanIncluding(const char* set) const {
    size_t n = m_str.find_first_not_of(set ? set : "");
    return CString(m_str.substr(0, n));
}

CString CString::SpanExcluding(const char* set) const {
    size_t n = m_str.find_first_of(set ? set : "");
    return CString(m_str.substr(0, n));
}

void CString::MakeUpper() { std::transform(m_str.begin(), m_str.end(), m_str.begin(), upperC); }
void CString::MakeLower() { std::transform(m_str.begin(), m_str.end(), m_str.begin(), lowerC); }
void CString::MakeReverse() { std::reverse(m_str.begin(), m_str.end()); }

int CString::Replace(char oldCh, char newCh) {
    int n = 0;
    if (oldCh == newCh) return 0;
    for (char& c : m_str) {
        if (c == oldCh) {
            c = newCh;
            ++n;
        }
    }
    return n;
}

int CString::Replace(const char* oldText, const char* newText) {
    if (oldText == nullptr || *oldText == '\0') return 0;
    std::string_view from(oldText);
    std::string_view to(newText ? newText : "");
    std::string out;
    int n = 0;
    size_t pos = 0;
    for (;;) {
        size_t hit = m_str.find(from, pos);
        if (hit == std::string::npos) break;
        out.append(m_str, pos, hit - pos);
        out.append(to);
        pos = hit + from.size();
        ++n;
    }
    if (n == 0) return 0;
    out.append(m_str, pos, std::string::npos);
    m_str.swap(out);
    return n;
}

int CString::Remove(char ch) {
    auto end = std::remove(m_str.begin(), m_str.end(), ch);
    int n = static_cast<int>(m_str.end() - end);
    m_str.erase(end, m_str.end());
    return n;
}

int CString::Insert(int index, char ch) {
    index = std::clamp(index, 0, GetLength());
    m_str.insert(static_cast<size_t>(index), 1, ch);
    return GetLength();
}

int CString::Insert(int index, const char* text) {
    index = std::clamp(index, 0, GetLength());
    if (text) m_str.insert(static_cast<size_t>(index), text);
    return GetLength();
}

int CString::Delete(int index, int count) {
    if (index < 0) index = 0;
    int len = GetLength();
    if (count > 0 && index < len) {
        count = std::min(count, len - index);
        m_str.erase(static_cast<size_t>(index), static_cast<size_t>(count));
    }
    return GetLength();
}

void CString::TrimLeft() {
    size_t i = 0;
    while (i < m_str.size() && isSpaceC(m_str[i])) ++i;
    m_str.erase(0, i);
}

void CString::TrimRight() {
    size_t n = m_str.size();
    while (n > 0 && isSpaceC(m_str[n - 1])) --n;
    m_str.resize(n);
}

void CString::TrimLeft(char target) {
    size_t i = 0;
    while (i < m_str.size() && m_str[i] == target) ++i;
    m_str.erase(0, i);
}

void CString::TrimRight(char target) {
    size_t n = m_str.size();
    while (n > 0 && m_str[n - 1] == target) --n;
    m_str.resize(n);
}

void CString::TrimLeft(const char* targets) {
    if (targets == nullptr || *targets == '\0') return;
    size_t i = m_str.find_first_not_of(targets);
    m_str.erase(0, i == std::string::npos ? m_str.size() : i);
}

void CString::TrimRight(const char* targets) {
    if (targets == nullptr || *targets == '\0') return;
    size_t i = m_str.find_last_not_of(targets);
    m_str.resize(i == std::string::npos ? 0 : i + 1);
}

int CString::Find(char ch, int start) const {
    if (start < 0 || start >= GetLength()) return -1;
    size_t hit = m_str.find(ch, static_cast<size_t>(start));
    return hit == std::string::npos ? -1 : static_cast<int>(hit);
}

int CString::Find(const char* sub, int start) const {
    if (sub == nullptr || start < 0 || start > GetLength()) return -1;
    size_t hit = m_str.find(sub, static_cast<size_t>(start));
    return hit == std::string::npos ? -1 : static_cast<int>(hit);
}

int CString::ReverseFind(char ch) const {
    size_t hit = m_str.rfind(ch);
    return hit == std::string::npos ? -1 : static_cast<int>(hit);
}

int CString::FindOneOf(const char* set) const {
    if (set == nullptr) return -1;
    size_t hit = m_str.find_first_of(set);
    return hit == std::string::npos ? -1 : static_cast<int>(hit);
}

void CString::FormatV(const char* format, va_list args) {
    va_list copy;
    va_copy(copy, args);
    char small[256];
    int n = std::vsnprintf(small, sizeof small, format, copy);
    va_end(copy);
    if (n < 0) {
        m_str.clear();
        return;
    }
    if (static_cast<size_t>(n) < sizeof small) {
        m_str.assign(small, static_cast<size_t>(n));
        return;
    }
    std::string out(static_cast<size_t>(n) + 1, '\0');
    std::vsnprintf(out.data(), out.size(), format, args);
    out.resize(static_cast<size_t>(n));
    m_str.swap(out);
}

void CString::Format(const char* format, ...) {
    va_list args;
    va_start(args, format);
    FormatV(format, args);
    va_end(args);
}

void CString::AppendFormat(const char* format, ...) {
    va_list args;
    va_start(args, format);
    CString tail;
    tail.FormatV(format, args);
    va_end(args);
    m_str += tail.m_str;
}

char* CString::GetBuffer(int minLength) {
    if (minLength > GetLength()) m_str.resize(static_cast<size_t>(minLength), '\0');
    return m_str.data();
}

char* CString::GetBufferSetLength(int length) {
    m_str.resize(static_cast<size_t>(std::max(length, 0)), '\0');
    return m_str.data();
}

void CString::ReleaseBuffer(int newLength) {
    if (newLength < 0) newLength = static_cast<int>(std::strlen(m_str.c_str()));
    m_str.resize(static_cast<size_t>(std::min(newLength, GetLength())));
}

bool operator==(const CString& a, const CString& b) { return a.str() == b.str(); }
bool operator==(const CString& a, const char* b) { return a.Compare(b) == 0; }
bool operator==(const char* a, const CString& b) { return b.Compare(a) == 0; }
bool operator!=(const CString& a, const CString& b) { return !(a == b); }
bool operator!=(const CString& a, const char* b) { return !(a == b); }
bool operator!=(const char* a, const CString& b) { return !(a == b); }
bool operator<(const CString& a, const CString& b) { return a.str() < b.str(); }
bool operator<(const CString& a, const char* b) { return a.Compare(b) < 0; }
bool operator<(const char* a, const CString& b) { return b.Compare(a) > 0; }
bool operator>(const CString& a, const CString& b) { return b < a; }
bool operator>(const CString& a, const char* b) { return a.Compare(b) > 0; }
bool operator>(const char* a, const CString& b) { return b.Compare(a) < 0; }
bool operator<=(const CString& a, const CString& b) { return !(b < a); }
bool operator>=(const CString& a, const CString& b) { return !(a < b); }
