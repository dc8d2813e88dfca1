#include "platform/Unicode.h"

#include <cstring>
#include <limits>

#include "platform/CString.h"

namespace {

// Decodes one UTF-8 sequence at s[0..n). Returns its code point, or -1 for a malformed part; *used is
// the bytes consumed either way. A malformed part is the longest prefix that could still have begun a
// valid sequence (at least one byte), which is how Windows counts its U+FFFD replacements.
long DecodeOne(const unsigned char* s, size_t n, size_t* used) {
    unsigned char c = s[0];
    *used = 1;
    if (c < 0x80) return c;
    int len;
    unsigned char lo = 0x80, hi = 0xBF;
    long cp;
    if (c >= 0xC2 && c <= 0xDF) {
        len = 2;
        cp = c & 0x1F;
    } else if (c >= 0xE0 && c <= 0xEF) {
        len = 3;
        cp = c & 0x0F;
        if (c == 0xE0) lo = 0xA0;  // overlong
        if (c == 0xED) hi = 0x9F;  // surrogates
    } else if (c >= 0xF0 && c <= 0xF4) {
        len = 4;
        cp = c & 0x07;
        if (c == 0xF0) lo = 0x90;  // overlong
        if (c == 0xF4) hi = 0x8F;  // past U+10FFFF
    } else {
        return -1;
    }
    for (int k = 1; k < len; ++k) {
        if (static_cast<size_t>(k) >= n) return -1;
        unsigned char cc = s[k];
        if (cc < lo || cc > hi) return -1;
        lo = 0x80;
        hi = 0xBF;
        cp = (cp << 6) | (cc & 0x3F);
        *used = k + 1;
    }
    return cp;
}

// Resolves the -1 convention; false for a length Windows rejects.
template <typename Char>
bool InputLength(const Char* text, int count, size_t* length) {
    if (text == nullptr || count == 0 || count < -1) return false;
    if (count == -1) {
        size_t n = 0;
        while (text[n] != 0) ++n;
        *length = n + 1;
    } else {
        *length = static_cast<size_t>(count);
    }
    return true;
}

// The output side shared by both calls: counts when capacity is 0, stops writing once full.
template <typename Char>
struct Sink {
    Char* out;
    size_t capacity;
    size_t written = 0;
    bool overflow = false;
    void Put(Char c) {
        if (capacity != 0) {
            if (written >= capacity) {
                overflow = true;
                return;
            }
            out[written] = c;
        }
        ++written;
    }
};

template <typename Char>
int Finish(const Sink<Char>& sink) {
    if (sink.overflow) {
        SetLastError(ERROR_INSUFFICIENT_BUFFER);
        return 0;
    }
    if (sink.written > static_cast<size_t>(std::numeric_limits<int>::max())) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    return static_cast<int>(sink.written);
}

void PutUtf16(Sink<WCHAR>& sink, long cp) {
    if (cp >= 0x10000) {
        cp -= 0x10000;
        sink.Put(static_cast<WCHAR>(0xD800 + (cp >> 10)));
        sink.Put(static_cast<WCHAR>(0xDC00 + (cp & 0x3FF)));
    } else {
        sink.Put(static_cast<WCHAR>(cp));
    }
}

void PutUtf8(Sink<char>& sink, unsigned long cp) {
    if (cp < 0x80) {
        sink.Put(static_cast<char>(cp));
    } else if (cp < 0x800) {
        sink.Put(static_cast<char>(0xC0 | (cp >> 6)));
        sink.Put(static_cast<char>(0x80 | (cp & 0x3F)));
    } else if (cp < 0x10000) {
        sink.Put(static_cast<char>(0xE0 | (cp >> 12)));
        sink.Put(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        sink.Put(static_cast<char>(0x80 | (cp & 0x3F)));
    } else {
        sink.Put(static_cast<char>(0xF0 | (cp >> 18)));
        sink.Put(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
        sink.Put(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        sink.Put(static_cast<char>(0x80 | (cp & 0x3F)));
    }
}

bool IsAnsi(UINT codePage) { return codePage == CP_ACP || codePage == 1252; }

}  // namespace

int MultiByteToWideChar(UINT CodePage, DWORD dwFlags, LPCSTR lpMultiByteStr, int cbMultiByte,
                        LPWSTR lpWideCharStr, int cchWideChar) {
    size_t length = 0;
    if (!InputLength(lpMultiByteStr, cbMultiByte, &length) || cchWideChar < 0 ||
        (cchWideChar > 0 && lpWideCharStr == nullptr) || (CodePage != CP_UTF8 && !IsAnsi(CodePage))) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    if ((dwFlags & ~MB_ERR_INVALID_CHARS) != 0) {
        SetLastError(ERROR_INVALID_FLAGS);
        return 0;
    }
    Sink<WCHAR> sink{lpWideCharStr, static_cast<size_t>(cchWideChar)};
    const auto* in = reinterpret_cast<const unsigned char*>(lpMultiByteStr);
    if (IsAnsi(CodePage)) {
        // One WCHAR per byte; CString owns the 1252 table.
        for (WCHAR w : AnsiToWide(std::string_view(lpMultiByteStr, length))) {
            sink.Put(w);
            if (sink.overflow) break;
        }
        return Finish(sink);
    }
    for (size_t i = 0; i < length && !sink.overflow;) {
        size_t used = 0;
        long cp = DecodeOne(in + i, length - i, &used);
        if (cp < 0) {
            if (dwFlags & MB_ERR_INVALID_CHARS) {
                SetLastError(ERROR_NO_UNICODE_TRANSLATION);
                return 0;
            }
            cp = 0xFFFD;
        }
        PutUtf16(sink, cp);
        i += used;
    }
    return Finish(sink);
}

int WideCharToMultiByte(UINT CodePage, DWORD dwFlags, LPCWSTR lpWideCharStr, int cchWideChar,
                        LPSTR lpMultiByteStr, int cbMultiByte, LPCSTR lpDefaultChar,
                        LPBOOL lpUsedDefaultChar) {
    size_t length = 0;
    if (!InputLength(lpWideCharStr, cchWideChar, &length) || cbMultiByte < 0 ||
        (cbMultiByte > 0 && lpMultiByteStr == nullptr) || (CodePage != CP_UTF8 && !IsAnsi(CodePage)) ||
        (CodePage == CP_UTF8 && (lpDefaultChar != nullptr || lpUsedDefaultChar != nullptr))) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    const DWORD allowed = IsAnsi(CodePage) ? WC_NO_BEST_FIT_CHARS : WC_ERR_INVALID_CHARS;
    if ((dwFlags & ~allowed) != 0) {
        SetLastError(ERROR_INVALID_FLAGS);
        return 0;
    }
    Sink<char> sink{lpMultiByteStr, static_cast<size_t>(cbMultiByte)};
    if (IsAnsi(CodePage)) {
        std::u16string_view wide(lpWideCharStr, length);
        std::string ansi = WideToAnsi(wide, lpDefaultChar ? *lpDefaultChar : '?');
        // Every WCHAR gives one byte; a byte that does not map back is the default character.
        std::u16string back = AnsiToWide(ansi);
        bool usedDefault = back != wide;
        for (char c : ansi) {
            sink.Put(c);
            if (sink.overflow) break;
        }
        int result = Finish(sink);
        if (result != 0 && lpUsedDefaultChar != nullptr) *lpUsedDefaultChar = usedDefault ? TRUE : FALSE;
        return result;
    }
    for (size_t i = 0; i < length && !sink.overflow; ++i) {
        unsigned long cp = lpWideCharStr[i];
        if (cp >= 0xD800 && cp < 0xDC00 && i + 1 < length && lpWideCharStr[i + 1] >= 0xDC00 &&
            lpWideCharStr[i + 1] < 0xE000) {
            cp = 0x10000 + ((cp - 0xD800) << 10) + (lpWideCharStr[i + 1] - 0xDC00);
            ++i;
        } else if (cp >= 0xD800 && cp < 0xE000) {
            if (dwFlags & WC_ERR_INVALID_CHARS) {
                SetLastError(ERROR_NO_UNICODE_TRANSLATION);
                return 0;
            }
            cp = 0xFFFD;
        }
        PutUtf8(sink, cp);
    }
    return Finish(sink);
}

std::u16string TavikUtf8ToWide(std::string_view text) {
    if (text.empty() || text.size() > static_cast<size_t>(std::numeric_limits<int>::max())) return {};
    int n = static_cast<int>(text.size());
    int needed = MultiByteToWideChar(CP_UTF8, 0, text.data(), n, nullptr, 0);
    std::u16string out(static_cast<size_t>(needed), u'\0');
    if (needed > 0) MultiByteToWideChar(CP_UTF8, 0, text.data(), n, out.data(), needed);
    return out;
}

std::string TavikWideToUtf8(std::u16string_view text) {
    if (text.empty() || text.size() > static_cast<size_t>(std::numeric_limits<int>::max())) return {};
    int n = static_cast<int>(text.size());
    int needed = WideCharToMultiByte(CP_UTF8, 0, text.data(), n, nullptr, 0, nullptr, nullptr);
    std::string out(static_cast<size_t>(needed), '\0');
    if (needed > 0) WideCharToMultiByte(CP_UTF8, 0, text.data(), n, out.data(), needed, nullptr, nullptr);
    return out;
}
