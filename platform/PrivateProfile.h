// Reading INI files as Windows reads them (GetPrivateProfileString / GetPrivateProfileInt, ANSI forms).
//
// Matched on purpose: section and key names compare ignoring case (ASCII letters); blanks (space, tab,
// vertical tab, form feed, ^Z) around names and values are trimmed, the arguments' too; after trimming,
// a value in one pair of matching double or single quotes loses them; the first of duplicate keys wins
// and only the first section of a name counts; a line whose first non-blank character is ';' is a
// comment, which enumeration skips (a lookup of the key ";Name" still finds it); '#' starts no comment
// and no end-of-line comment exists; a line is split at its first '='; a section header runs from '[' to
// the last ']' of its line (without one, the line is an ordinary line); keys before any section belong
// to the section ""; lines end with CRLF, LF or CR. A leading UTF-8 byte-order mark is skipped; UTF-16
// files are not understood (nothing is found in them).
//
// A bare file name (no '/' at all) means that file in the application's directory (GetModuleFileName),
// where Windows would take its Windows directory; "./name" is the current directory.
//
// The file is read through CFile in pieces and never held whole: memory stays within a few buffers of
// the caller's size, whatever the length of the file or of its lines.
#pragma once

#include "platform/WinTypes.h"

// Copies the value of key in section into returned, cut to size - 1 characters plus a terminator, and
// returns the number of characters copied. A missing file, section or key (or a key line without '=')
// gives the default with its trailing spaces cut and one pair of double quotes removed (null: the empty
// text); a missing or unreadable file also sets the last error (ERROR_FILE_NOT_FOUND for a missing one).
// A null key lists the keys of the section, a null section the names of all sections (the nameless top
// one excepted), each name followed by a zero and the list by one more; a list that does not fit is cut,
// still ends in two zeros, and size - 2 is returned. A null buffer or a size of 0 returns 0.
DWORD GetPrivateProfileString(LPCSTR section, LPCSTR key, LPCSTR defaultValue, LPSTR returned, DWORD size,
                              LPCSTR fileName);

// The value read as an integer: an optional sign, then "0x" (hexadecimal), "0o" (octal), "0b" (binary)
// or decimal digits, up to the first character that is not a digit; no digits gives 0; values wrap
// modulo 2^32 and a negative one is returned as its unsigned form. A missing key or an empty value gives
// defaultValue. Values longer than 29 characters are read from their first 29.
UINT GetPrivateProfileInt(LPCSTR section, LPCSTR key, INT defaultValue, LPCSTR fileName);
