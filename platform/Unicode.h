// Code page conversions under their Win32 names. The ANSI code page (CP_ACP) is Windows-1252 here.
#pragma once

#include <string>
#include <string_view>

#include "platform/WinTypes.h"

using LPBOOL = BOOL*;

constexpr UINT CP_ACP = 0;
constexpr UINT CP_UTF8 = 65001;

constexpr DWORD MB_ERR_INVALID_CHARS = 0x08;
constexpr DWORD WC_ERR_INVALID_CHARS = 0x80;
constexpr DWORD WC_NO_BEST_FIT_CHARS = 0x400;  // accepted for CP_ACP; best fit is never done anyway

constexpr LONG ERROR_INVALID_FLAGS = 1004;
constexpr LONG ERROR_NO_UNICODE_TRANSLATION = 1113;

// Converts cbMultiByte bytes of lpMultiByteStr (-1: up to and including its NUL) to UTF-16 and returns
// the number of WCHARs written; with cchWideChar 0 it writes nothing and returns the number needed.
// Returns 0 with the last error set on failure: ERROR_INVALID_PARAMETER for a null string, a zero or
// negative length other than -1, or an unknown code page; ERROR_INVALID_FLAGS for flags other than
// MB_ERR_INVALID_CHARS; ERROR_INSUFFICIENT_BUFFER when the output does not fit (its contents are then
// unspecified); ERROR_NO_UNICODE_TRANSLATION for malformed UTF-8 under MB_ERR_INVALID_CHARS. Without that
// flag each malformed part becomes one U+FFFD, as Windows does. 1252's unassigned bytes 0x81, 0x8D, 0x8F,
// 0x90 and 0x9D become the C1 controls of the same number, as on Windows.
int MultiByteToWideChar(UINT CodePage, DWORD dwFlags, LPCSTR lpMultiByteStr, int cbMultiByte,
                        LPWSTR lpWideCharStr, int cchWideChar);

// The reverse, with the same length, size-query and failure rules. For CP_UTF8 a lone surrogate becomes
// U+FFFD (fails with ERROR_NO_UNICODE_TRANSLATION under WC_ERR_INVALID_CHARS), and lpDefaultChar and
// lpUsedDefaultChar must be null (ERROR_INVALID_PARAMETER otherwise). For CP_ACP a character 1252 lacks
// becomes *lpDefaultChar (or '?') and sets *lpUsedDefaultChar; there is no best-fit mapping.
int WideCharToMultiByte(UINT CodePage, DWORD dwFlags, LPCWSTR lpWideCharStr, int cchWideChar,
                        LPSTR lpMultiByteStr, int cbMultiByte, LPCSTR lpDefaultChar,
                        LPBOOL lpUsedDefaultChar);

// Beyond Windows: whole-string UTF-8 forms of the two calls (no flags, no NUL added); malformed parts
// become U+FFFD. Text past INT_MAX units, which the calls cannot take, gives an empty result.
std::u16string TavikUtf8ToWide(std::string_view text);
std::string TavikWideToUtf8(std::u16string_view text);
