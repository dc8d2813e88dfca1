// A CString with in-place insert, delete and replace, searches with a start position, reverse searches
// and field extraction. Edits change the object and return it; searches return an index or -1.
// Letter case is ASCII only (the C locale).
#pragma once

#include "platform/CString.h"

class CStringEx : public CString {
public:
    CStringEx() = default;
    CStringEx(const CStringEx&) = default;
    CStringEx(CStringEx&&) noexcept = default;
    CStringEx(const CString& s) : CString(s) {}
    CStringEx(const char* s) : CString(s) {}
    CStringEx(const char* s, int n) : CString(s, n) {}
    CStringEx(const unsigned char* s) : CString(s) {}
    CStringEx(const WCHAR* s) : CString(s) {}
    CStringEx(char c, int n = 1) : CString(c, n) {}

    CStringEx& operator=(const CStringEx&) = default;
    CStringEx& operator=(CStringEx&&) noexcept = default;
    CStringEx& operator=(const CString& s) {
        CString::operator=(s);
        return *this;
    }
    CStringEx& operator=(const char* s) {
        CString::operator=(s);
        return *this;
    }

    // An empty s changes nothing. pos at or past the end pads the text with blanks up to pos, then
    // appends s; a negative pos counts as 0.
    CStringEx& Insert(int pos, const char* s);
    CStringEx& Insert(int pos, char c);
    // pos outside the text: nothing. A negative count, or one reaching past the end, deletes to the end.
    CStringEx& Delete(int pos, int count);
    CStringEx& Replace(int pos, int count, const char* s);  // Delete, then Insert at pos
    using CString::Replace;

    using CString::Find;  // Find(char, start) and Find(const char*, start): first at or after start
    int FindNoCase(char c, int start = 0) const;
    int FindNoCase(const char* s, int start = 0) const;
    // Replaces the first occurrence of what, and every later one when all is not 0, resuming after the
    // inserted text. Returns the number replaced (0 for an empty what).
    int FindReplace(const char* what, const char* with, int all = 1);
    int FindReplaceNoCase(const char* what, const char* with, int all = 1);

    int ReverseFind(char c) const { return CString::ReverseFind(c); }
    // Last position at or before start (start < 0 or past the end: the last character) where s begins;
    // -1 for an empty s or text.
    int ReverseFind(const char* s, int start) const;
    int ReverseFindNoCase(const char* s, int start = -1) const;
    int ReverseFindNoCase(char c, int start = -1) const;

    // Field n (from 0) of the text cut at every delim; a field past the last, or a negative n, is empty.
    // An empty delim leaves the whole text as field 0.
    CStringEx GetField(const char* delim, int n) const;
    CStringEx GetField(char delim, int n) const;
    int GetFieldCount(char delim) const;         // 1 + occurrences of delim
    int GetFieldCount(const char* delim) const;  // not overlapping
    // The text between the n-th (from 0) open and the next close after it; empty when either is missing.
    CStringEx GetDelimitedField(const char* open, const char* close, int n) const;
};
