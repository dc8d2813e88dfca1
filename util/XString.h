// A CString with value-returning edits, case-insensitive search, and a view of the text as a list of
// elements separated by one process-wide separator character.
//
// Unless noted, an operation leaves the object unchanged and returns a new XString. Positions are 0-based
// byte indexes; letter case is ASCII only (the C locale).
//
// The separator is shared by the whole process (initially '|', with one saved level, also '|'). It is
// kept in atomics, so concurrent use is not undefined behaviour, but a thread that changes it changes it
// for everyone: code that needs a particular separator sets it before use. The overloads taking a
// separator argument use it for that call only and leave the shared one alone.
#pragma once

#include "platform/CString.h"

class XString : public CString {
public:
    XString() = default;
    XString(const XString&) = default;
    XString(XString&&) noexcept = default;
    XString(const CString& s) : CString(s) {}
    XString(char c, int n) : CString(c, n) {}
    XString(const char* s, int n) : CString(s, n) {}
    XString(const unsigned char* s) : CString(s) {}
    XString(const char* s) : CString(s) {}
    XString(const WCHAR* s) : CString(s) {}
    // Numbers as "%d", "%u" and "%g". Explicit, so a char or a number never turns into text by accident.
    explicit XString(int v);
    explicit XString(unsigned int v);
    explicit XString(double v);

    XString& operator=(const XString&) = default;
    XString& operator=(XString&&) noexcept = default;
    XString& operator=(const CString& s) {
        CString::operator=(s);
        return *this;
    }
    XString& operator=(const char* s) {
        CString::operator=(s);
        return *this;
    }

    // The whole text read as atof, atoi, its first character (0 when empty), atoi != 0.
    double Double() const;
    int Int() const;
    char Char() const;
    bool Bool() const;
    bool operator!() const { return IsEmpty(); }

    XString Reverse() const;
    XString Trim() const;  // white space at both ends
    XString Lower() const;
    XString Upper() const;
    XString Left(int n) const { return CString::Left(n); }
    XString Mid(int i) const { return CString::Mid(i); }
    XString Mid(int i, int n) const { return CString::Mid(i, n); }
    XString Right(int n) const { return CString::Right(n); }
    XString FromTo(int i, int j) const;  // i..j inclusive, that is Mid(i, j - i + 1)

    // Remove the last character from the object (nothing when empty).
    XString& operator--();
    XString operator--(int);

    // -1 when not found or when start lies outside the text.
    int Find(char c, int start = 0) const { return CString::Find(c, start); }
    int Find(const char* s, int start = 0) const { return CString::Find(s, start); }
    int NCFind(const XString& s, int start = 0) const;
    int NCFind(char c, int start = 0) const;

    // Characters [from, to) removed. A negative to, a negative from or to < from: unchanged copy.
    XString Remove(int from, int to) const;
    XString Remove(const XString& s) const;  // first occurrence
    XString Remove(char c) const;
    XString NCRemove(const XString& s) const;
    XString NCRemove(char c) const;
    // Repeat the removal, searching again from the start each time, until none is left.
    XString RemoveAll(const XString& s) const;
    XString RemoveAll(char c) const;
    XString NCRemoveAll(const XString& s) const;
    XString NCRemoveAll(char c) const;

    // s before pos when 0 <= pos <= length, else an unchanged copy.
    XString Insert(const XString& s, int pos) const;
    // Note the order: the new text comes first. Unchanged when what does not occur.
    XString Replace(const XString& with, const XString& what) const;
    XString Replace(const XString& with, int from, int to) const;  // Remove(from, to), then insert at from
    XString NCReplace(const XString& with, const XString& what) const;
    // These change the object: every occurrence, left to right, not overlapping, inserted text not searched
    // again. Return the number replaced (0 for an empty what).
    int ReplaceAll(const XString& with, const XString& what);
    int NCReplaceAll(const XString& with, const XString& what);

    // Each '*' filled, in order, by the elements of values up to the first empty one; then every 0xA7 byte
    // becomes '*', so templates and values write a literal asterisk as 0xA7.
    XString ReplaceText(const XString& values) const;

    int Count(char c) const;
    int Count(const XString& s) const;    // not overlapping; 0 for an empty s
    XString Fill(int n) const;            // padded with blanks on the right to length n
    XString ReplaceTabs(int size) const;  // tab stops every size columns; size <= 0 gives an unchanged copy
    // Index of the n-th (from 1) c; 0 when n <= 0; -1 when c occurs fewer than n times.
    int FindIndex(char c, int n) const;
    // "%W.Dlf" with W the text's length and D the number of characters after its first '.'.
    XString GetDoubleFormatString() const;

    // --- elements
    static char SetSeparator(char c);  // saves the current one (one level), returns c
    static char RestoreSeparator();    // makes the saved one current, returns it
    static char GetSeparator();

    XString Element(int i) const;
    XString Element(int i, char sep) const;
    XString operator()(int i) const { return Element(i); }
    using CString::GetString;  // the whole text as a C string
    XString GetString(int i) const { return Element(i); }
    XString GetString(int i, char sep) const { return Element(i, sep); }
    // Elements from..to inclusive (to < 0: the last), joined by the separator, padded with separators to
    // exactly to - from + 1 elements. Empty when from < 0 or to < from.
    XString operator()(int from, int to) const { return Elements(from, to); }
    XString Elements(int from, int to) const;
    XString Elements(int from, int to, char sep) const;

    double GetDouble(int i) const { return Element(i).Double(); }
    double GetDouble(int i, char sep) const { return Element(i, sep).Double(); }
    char GetChar(int i) const { return Element(i).Char(); }
    char GetChar(int i, char sep) const { return Element(i, sep).Char(); }
    int GetInt(int i) const { return Element(i).Int(); }
    int GetInt(int i, char sep) const { return Element(i, sep).Int(); }
    bool GetBool(int i) const { return Element(i).Bool(); }
    bool GetBool(int i, char sep) const { return Element(i, sep).Bool(); }
    void Get(XString& v, int i) const { v = Element(i); }
    void Get(double& v, int i) const { v = GetDouble(i); }
    void Get(char& v, int i) const { v = GetChar(i); }
    void Get(int& v, int i) const { v = GetInt(i); }
    void Get(bool& v, int i) const { v = GetBool(i); }

    // Element i replaced by v; when the text has fewer elements, empty ones are added so that v becomes
    // element i. A negative i gives an unchanged copy. Numbers as "%g"/"%d", a truth value as 1 or 0.
    // (Texts take CString and const char*: a pointer would otherwise pick the bool overload.)
    XString SetElement(int i, const CString& v) const;
    XString SetElement(int i, const char* v) const { return SetElement(i, CString(v)); }
    XString SetElement(int i, double v) const;
    XString SetElement(int i, char v) const;
    XString SetElement(int i, int v) const;
    XString SetElement(int i, bool v) const;

    // Index of the first element equal to v (texts exactly, the others as the element read as that
    // type); -1 when none.
    int ElementIndex(const CString& v) const;
    int ElementIndex(const char* v) const { return ElementIndex(CString(v)); }
    int ElementIndex(double v) const;
    int ElementIndex(int v) const;
    int ElementIndex(char v) const;
    int ElementIndex(bool v) const;

    // Elements in ascending order, joined by the separator. Texts byte-wise and kept as they are; the
    // others read as that type and written back ("%g", the one character as a signed byte, "%d").
    XString ElementSort() const { return ElementSortString(); }
    XString ElementSortString() const;
    XString ElementSortDouble() const;
    XString ElementSortChar() const;
    XString ElementSortInt() const;

private:
    int CountSeparators(char sep) const { return Count(sep); }
    XString SetElementText(int i, const CString& v, char sep) const;
};
