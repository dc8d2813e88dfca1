// The framework's single-byte string. Zero bytes inside a string are kept; the C-style searches
// (Find, ReverseFind, FindOneOf) work on the whole stored text.
#pragma once

#include <cstdarg>
#include <string>
#include <string_view>

#include "platform/WinTypes.h"

class CString {
public:
    CString() = default;
    CString(const CString&) = default;
    CString(CString&&) noexcept = default;
    CString(const char* text);  // null gives the empty string
    CString(const char* text, int length);
    CString(const unsigned char* text);
    CString(const WCHAR* text);  // UTF-16 to Windows-1252; characters outside it become '?'
    CString(char ch, int repeat = 1);
    explicit CString(std::string text) : m_str(std::move(text)) {}
    explicit CString(std::string_view text) : m_str(text) {}

    CString& operator=(const CString&) = default;
    CString& operator=(CString&&) noexcept = default;
    CString& operator=(const char* text);
    CString& operator=(const unsigned char* text);
    CString& operator=(char ch);

    int GetLength() const { return static_cast<int>(m_str.size()); }
    bool IsEmpty() const { return m_str.empty(); }
    void Empty() { m_str.clear(); }

    char GetAt(int index) const { return m_str[static_cast<size_t>(index)]; }
    char operator[](int index) const { return m_str[static_cast<size_t>(index)]; }
    void SetAt(int index, char ch) { m_str[static_cast<size_t>(index)] = ch; }
    operator const char*() const { return m_str.c_str(); }
    const char* GetString() const { return m_str.c_str(); }

    const std::string& str() const { return m_str; }
    std::string& str() { return m_str; }

    CString& operator+=(const CString& other);
    CString& operator+=(const char* text);
    CString& operator+=(char ch);
    void Append(const char* text, int length);
    friend CString operator+(const CString& a, const CString& b);
    friend CString operator+(const CString& a, const char* b);
    friend CString operator+(const char* a, const CString& b);
    friend CString operator+(const CString& a, char b);
    friend CString operator+(char a, const CString& b);

    // strcmp/_stricmp-style results: negative, zero or positive.
    int Compare(const char* text) const;
    int CompareNoCase(const char* text) const;  // ASCII letters only, as the C locale
    int Collate(const char* text) const { return Compare(text); }
    int CollateNoCase(const char* text) const { return CompareNoCase(text); }

    // Out-of-range arguments are clamped, never an error.
    CString Mid(int first) const;
    CString Mid(int first, int count) const;
    CString Left(int count) const;
    CString Right(int count) const;
    CString SpanIncluding(const char* set) const;
    CString SpanExcluding(const char* set) const;

    void MakeUpper();  // ASCII letters only
    void MakeLower();
    void MakeReverse();

    int Replace(char oldCh, char newCh);                    // returns the number replaced
    int Replace(const char* oldText, const char* newText);  // empty oldText replaces nothing
    int Remove(char ch);                                    // returns the number removed
    int Insert(int index, char ch);                         // returns the new length; index clamped
    int Insert(int index, const char* text);
    int Delete(int index, int count = 1);  // returns the new length

    void TrimLeft();  // white space as isspace in the C locale
    void TrimRight();
    void TrimLeft(char target);
    void TrimRight(char target);
    void TrimLeft(const char* targets);
    void TrimRight(const char* targets);
    void Trim() {
        TrimRight();
        TrimLeft();
    }
    void Trim(char target) {
        TrimRight(target);
        TrimLeft(target);
    }
    void Trim(const char* targets) {
        TrimRight(targets);
        TrimLeft(targets);
    }

    // -1 when not found, or when start lies outside the text.
    int Find(char ch, int start = 0) const;
    int Find(const char* sub, int start = 0) const;
    int ReverseFind(char ch) const;
    int FindOneOf(const char* set) const;

    void Format(const char* format, ...) __attribute__((format(printf, 2, 3)));
    void FormatV(const char* format, va_list args);
    void AppendFormat(const char* format, ...) __attribute__((format(printf, 2, 3)));

    // Writable buffer of at least minLength characters plus a terminator; ReleaseBuffer(-1) takes the
    // length up to the first zero byte.
    char* GetBuffer(int minLength = 0);
    char* GetBufferSetLength(int length);
    void ReleaseBuffer(int newLength = -1);
    char* LockBuffer() { return GetBuffer(0); }
    void UnlockBuffer() {}
    void FreeExtra() { m_str.shrink_to_fit(); }
    void Preallocate(int length) { m_str.reserve(static_cast<size_t>(length)); }

    // Text of a string resource registered by the library; false (and empty) when there is none.
    BOOL LoadString(UINT id);

private:
    std::string m_str;
};

bool operator==(const CString& a, const CString& b);
bool operator==(const CString& a, const char* b);
bool operator==(const char* a, const CString& b);
bool operator!=(const CString& a, const CString& b);
bool operator!=(const CString& a, const char* b);
bool operator!=(const char* a, const CString& b);
bool operator<(const CString& a, const CString& b);
bool operator<(const CString& a, const char* b);
bool operator<(const char* a, const CString& b);
bool operator>(const CString& a, const CString& b);
bool operator>(const CString& a, const char* b);
bool operator>(const char* a, const CString& b);
bool operator<=(const CString& a, const CString& b);
bool operator>=(const CString& a, const CString& b);

// Windows-1252 <-> UTF-16, as the system's ANSI code page on a Western Windows.
std::u16string AnsiToWide(std::string_view text);
std::string WideToAnsi(std::u16string_view text, char unmappable = '?');
