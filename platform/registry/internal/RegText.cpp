#include "platform/registry/internal/RegText.h"

#include <algorithm>
#include <cstdio>
#include <limits>

#include "platform/CString.h"
#include "platform/Registry.h"
#include "platform/Unicode.h"
#include "platform/registry/internal/StoreDatabase.h"

namespace tavik::platform {

namespace {

const char kHeader5[] = "Windows Registry Editor Version 5.00";
const char kHeader4[] = "REGEDIT4";

std::u16string Widen(std::string_view ascii) { return std::u16string(ascii.begin(), ascii.end()); }

bool IsSpace(char16_t c) { return c == u' ' || c == u'\t'; }

std::u16string_view Trim(std::u16string_view s) {
    while (!s.empty() && (IsSpace(s.front()) || s.front() == 0xFEFF)) s.remove_prefix(1);
    while (!s.empty() && (IsSpace(s.back()) || s.back() == u'\r')) s.remove_suffix(1);
    return s;
}

// Windows-1252 text of s; false when a character has no single-byte form.
bool ToAnsi(std::u16string_view s, std::string* out) {
    out->clear();
    if (s.empty()) return true;
    if (s.size() > static_cast<size_t>(std::numeric_limits<int>::max())) return false;
    out->resize(s.size());
    BOOL usedDefault = FALSE;
    int n = WideCharToMultiByte(CP_ACP, 0, s.data(), static_cast<int>(s.size()), out->data(),
                                static_cast<int>(out->size()), nullptr, &usedDefault);
    return n == static_cast<int>(s.size()) && !usedDefault;
}

// Decodes strict UTF-8 a line at a time (no multi-byte sequence holds a '\n'); false with the number of
// the first line holding a bad sequence.
bool DecodeUtf8(std::string_view in, std::u16string* out, int* badLine) {
    out->clear();
    int line = 1;
    for (size_t start = 0; start < in.size(); ++line) {
        size_t end = std::min(in.find('\n', start), in.size() - 1) + 1;
        std::string_view chunk = in.substr(start, end - start);
        start = end;
        if (chunk.size() > static_cast<size_t>(std::numeric_limits<int>::max()))
            return *badLine = line, false;
        int n = static_cast<int>(chunk.size());
        int needed = MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, chunk.data(), n, nullptr, 0);
        if (needed == 0) return *badLine = line, false;
        size_t at = out->size();
        out->resize(at + static_cast<size_t>(needed));
        MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, chunk.data(), n, out->data() + at, needed);
    }
    return true;
}

int LineOfOffset(std::string_view bytes, size_t offset) {
    int line = 1;
    for (size_t i = 0; i < offset && i < bytes.size(); ++i)
        if (bytes[i] == '\n') ++line;
    return line;
}

int HexDigit(char16_t c) {
    if (c >= u'0' && c <= u'9') return c - u'0';
    if (c >= u'a' && c <= u'f') return c - u'a' + 10;
    if (c >= u'A' && c <= u'F') return c - u'A' + 10;
    return -1;
}

bool ParseHexNumber(std::u16string_view s, DWORD* value) {
    if (s.empty() || s.size() > 8) return false;
    DWORD v = 0;
    for (char16_t c : s) {
        int d = HexDigit(c);
        if (d < 0) return false;
        v = (v << 4) | static_cast<DWORD>(d);
    }
    *value = v;
    return true;
}

// A quoted string at the start of s with \\ and \" escapes; on success s is left after the closing quote.
bool ParseQuoted(std::u16string_view& s, std::u16string* text) {
    if (s.empty() || s.front() != u'"') return false;
    text->clear();
    for (size_t i = 1; i < s.size(); ++i) {
        char16_t c = s[i];
        if (c == u'\\') {
            if (i + 1 >= s.size() || (s[i + 1] != u'\\' && s[i + 1] != u'"')) return false;
            text->push_back(s[++i]);
        } else if (c == u'"') {
            s.remove_prefix(i + 1);
            return true;
        } else {
            text->push_back(c);
        }
    }
    return false;
}

bool ParseHexBytes(std::u16string_view s, std::string* bytes) {
    bytes->clear();
    s = Trim(s);
    if (s.empty()) return true;
    size_t start = 0;
    while (true) {
        size_t comma = s.find(u',', start);
        std::u16string_view token =
            Trim(s.substr(start, comma == std::u16string_view::npos ? s.npos : comma - start));
        DWORD v;
        if (token.size() > 2 || !ParseHexNumber(token, &v)) return false;
        bytes->push_back(static_cast<char>(v));
        if (comma == std::u16string_view::npos) return true;
        start = comma + 1;
    }
}

std::u16string Escape(std::u16string_view text) {
    std::u16string out;
    for (char16_t c : text) {
        if (c == u'\\' || c == u'"') out.push_back(u'\\');
        out.push_back(c);
    }
    return out;
}

bool HasLineBreak(std::string_view s) { return s.find_first_of("\r\n") != std::string_view::npos; }

}  // namespace

const char* RootName(int root) {
    return root == StoreDatabase::kClassesRoot ? "HKEY_CLASSES_ROOT" : "HKEY_CURRENT_USER";
}

bool ParseKeyPath(std::string_view text, int* root, std::vector<std::string>* path, std::string* error) {
    path->clear();
    size_t slash = text.find('\\');
    std::string rootName = FoldName(std::string(text.substr(0, slash)));
    if (rootName == "HKEY_CURRENT_USER" || rootName == "HKCU") {
        *root = StoreDatabase::kCurrentUser;
    } else if (rootName == "HKEY_CLASSES_ROOT" || rootName == "HKCR") {
        *root = StoreDatabase::kClassesRoot;
    } else if (rootName == "HKEY_LOCAL_MACHINE" || rootName == "HKLM" || rootName == "HKEY_USERS" ||
               rootName == "HKU" || rootName == "HKEY_CURRENT_CONFIG" || rootName == "HKCC") {
        *error = "the root " + std::string(text.substr(0, slash)) +
                 " is not kept here (only HKEY_CURRENT_USER and HKEY_CLASSES_ROOT)";
        return false;
    } else {
        *error = "unknown root key \"" + std::string(text.substr(0, slash)) + "\"";
        return false;
    }
    if (slash == std::string_view::npos) return true;
    std::string_view rest = text.substr(slash + 1);
    if (!rest.empty() && rest.back() == '\\') rest.remove_suffix(1);
    if (rest.empty()) return true;
    size_t start = 0;
    while (true) {
        size_t next = rest.find('\\', start);
        std::string_view part = rest.substr(start, next == std::string_view::npos ? rest.npos : next - start);
        if (part.empty()) {
            *error = "empty key name in \"" + std::string(text) + "\"";
            return false;
        }
        if (part.size() > 255) {
            *error = "a key name longer than 255 characters in \"" + std::string(text) + "\"";
            return false;
        }
        path->emplace_back(part);
        if (next == std::string_view::npos) return true;
        start = next + 1;
    }
}

bool ParseRegText(std::string_view bytes, std::vector<RegTextKey>* keys, std::string* error) {
    keys->clear();
    std::u16string text;
    bool version5 = true;
    if (bytes.size() >= 2 && static_cast<unsigned char>(bytes[0]) == 0xFF &&
        static_cast<unsigned char>(bytes[1]) == 0xFE) {
        if (bytes.size() % 2 != 0) {
            *error = "line " + std::to_string(LineOfOffset(bytes, bytes.size())) +
                     ": the file ends inside a character";
            return false;
        }
        for (size_t i = 2; i + 1 < bytes.size(); i += 2)
            text.push_back(static_cast<char16_t>(static_cast<unsigned char>(bytes[i]) |
                                                 (static_cast<unsigned char>(bytes[i + 1]) << 8)));
    } else if (bytes.size() >= 2 && static_cast<unsigned char>(bytes[0]) == 0xFE &&
               static_cast<unsigned char>(bytes[1]) == 0xFF) {
        *error = "line 1: big-endian UTF-16 is not a registry file encoding";
        return false;
    } else if (bytes.substr(0, 8) == kHeader4) {
        // The old format is in the system's code page.
        text = AnsiToWide(bytes);
        version5 = false;
    } else {
        int badLine = 0;
        if (bytes.substr(0, 3) == "\xEF\xBB\xBF") bytes.remove_prefix(3);
        if (!DecodeUtf8(bytes, &text, &badLine)) {
            *error = "line " + std::to_string(badLine) + ": not UTF-8 text";
            return false;
        }
    }

    std::vector<std::u16string_view> lines;
    for (size_t start = 0; start <= text.size();) {
        size_t nl = text.find(u'\n', start);
        if (nl == std::u16string::npos) nl = text.size();
        lines.push_back(std::u16string_view(text).substr(start, nl - start));
        start = nl + 1;
    }
    auto fail = [&](size_t index, const std::string& why) {
        *error = "line " + std::to_string(index + 1) + ": " + why;
        return false;
    };

    size_t i = 0;
    while (i < lines.size() && Trim(lines[i]).empty()) ++i;
    if (i == lines.size()) return fail(0, "empty file");
    std::u16string_view header = Trim(lines[i]);
    if (header == Widen(kHeader4))
        version5 = false;
    else if (header != Widen(kHeader5))
        return fail(i, std::string("not a registry file (the first line must be \"") + kHeader5 + "\")");
    ++i;

    for (; i < lines.size(); ++i) {
        std::u16string_view line = Trim(lines[i]);
        if (line.empty() || line.front() == u';') continue;
        if (line.front() == u'[') {
            if (line.back() != u']') return fail(i, "a key line must end with ']'");
            std::u16string_view inner = line.substr(1, line.size() - 2);
            RegTextKey key;
            key.line = static_cast<int>(i + 1);
            if (!inner.empty() && inner.front() == u'-') {
                key.remove = true;
                inner.remove_prefix(1);
            }
            std::string ansi, why;
            if (!ToAnsi(inner, &ansi)) return fail(i, "the key name has characters this system cannot keep");
            if (HasLineBreak(ansi) || !ParseKeyPath(ansi, &key.root, &key.path, &why)) return fail(i, why);
            keys->push_back(std::move(key));
            continue;
        }
        if (line.front() != u'"' && line.front() != u'@')
            return fail(i, "expected a [key] or a \"name\"=value line");
        if (keys->empty()) return fail(i, "a value before the first [key]");
        if (keys->back().remove) return fail(i, "a value under a key that is being deleted");

        RegTextValue value;
        value.line = static_cast<int>(i + 1);
        std::u16string_view rest = line;
        if (rest.front() == u'@') {
            rest.remove_prefix(1);
        } else {
            std::u16string name;
            if (!ParseQuoted(rest, &name)) return fail(i, "the value name is not a properly quoted string");
            if (!ToAnsi(name, &value.name))
                return fail(i, "the value name has characters this system cannot keep");
            if (value.name.size() > 16383) return fail(i, "a value name longer than 16383 characters");
        }
        rest = Trim(rest);
        if (rest.empty() || rest.front() != u'=') return fail(i, "expected '=' after the value name");
        rest = Trim(rest.substr(1));

        if (rest == u"-") {
            value.remove = true;
        } else if (!rest.empty() && rest.front() == u'"') {
            std::u16string data;
            if (!ParseQuoted(rest, &data)) return fail(i, "the text is not a properly quoted string");
            if (!Trim(rest).empty()) return fail(i, "unexpected text after the closing quote");
            if (!ToAnsi(data, &value.data)) return fail(i, "the text has characters this system cannot keep");
            value.type = REG_SZ;
            value.data.push_back('\0');
        } else if (rest.substr(0, 6) == u"dword:") {
            DWORD v;
            if (!ParseHexNumber(rest.substr(6), &v))
                return fail(i, "dword: needs one to eight hexadecimal digits");
            value.type = REG_DWORD;
            for (int b = 0; b < 4; ++b) value.data.push_back(static_cast<char>((v >> (8 * b)) & 0xFF));
        } else if (rest.substr(0, 3) == u"hex") {
            rest.remove_prefix(3);
            value.type = REG_BINARY;
            if (!rest.empty() && rest.front() == u'(') {
                size_t close = rest.find(u')');
                if (close == rest.npos || !ParseHexNumber(rest.substr(1, close - 1), &value.type))
                    return fail(i, "hex(N): needs a hexadecimal type number");
                rest.remove_prefix(close + 1);
            }
            if (rest.empty() || rest.front() != u':') return fail(i, "expected ':' after hex");
            std::u16string list(rest.substr(1));
            // A long list continues on the next lines after a trailing backslash.
            size_t first = i;
            while (!list.empty() && list.back() == u'\\') {
                list.pop_back();
                if (++i >= lines.size())
                    return fail(first, "the hexadecimal list continues past the end of the file");
                list += Trim(lines[i]);
            }
            if (!ParseHexBytes(list, &value.data)) return fail(first, "the hexadecimal list is malformed");
            // Version 5 files hold text types in UTF-16.
            if (version5 &&
                (value.type == REG_SZ || value.type == REG_EXPAND_SZ || value.type == REG_MULTI_SZ)) {
                std::string ansi;
                if (!Utf16BytesToAnsi(value.data, &ansi))
                    return fail(first, "the text data is not UTF-16 this system can keep");
                value.data = std::move(ansi);
            }
        } else {
            return fail(i, "unknown kind of value (expected \"text\", dword:, hex: or -)");
        }
        keys->back().values.push_back(std::move(value));
    }
    return true;
}

std::string AnsiToUtf16Bytes(std::string_view ansi) {
    std::string out;
    if (ansi.empty() || ansi.size() > static_cast<size_t>(std::numeric_limits<int>::max())) return out;
    std::u16string wide(ansi.size(), u'\0');  // 1252 gives one WCHAR per byte
    MultiByteToWideChar(CP_ACP, 0, ansi.data(), static_cast<int>(ansi.size()), wide.data(),
                        static_cast<int>(wide.size()));
    out.reserve(wide.size() * 2);
    for (char16_t c : wide) {
        out.push_back(static_cast<char>(c & 0xFF));
        out.push_back(static_cast<char>(c >> 8));
    }
    return out;
}

bool Utf16BytesToAnsi(std::string_view bytes, std::string* ansi) {
    if (bytes.size() % 2 != 0) return false;
    std::u16string wide;
    for (size_t i = 0; i < bytes.size(); i += 2)
        wide.push_back(static_cast<char16_t>(static_cast<unsigned char>(bytes[i]) |
                                             (static_cast<unsigned char>(bytes[i + 1]) << 8)));
    return ToAnsi(wide, ansi);
}

RegTextWriter::RegTextWriter() { Line(Widen(kHeader5)); }

void RegTextWriter::Line(const std::u16string& text) {
    m_text += text;
    m_text += u"\r\n";
}

void RegTextWriter::Key(const std::string& fullPath) {
    if (HasLineBreak(fullPath)) m_error = "the key name \"" + fullPath + "\" holds a line break";
    Line(u"");
    // Appended piece by piece: g++ 12 warns falsely (-Wrestrict) on a literal + u16string + literal.
    std::u16string line = u"[";
    line += AnsiToWide(fullPath);
    line += u']';
    Line(line);
}

void RegTextWriter::Value(const std::string& name, DWORD type, const std::string& data) {
    if (HasLineBreak(name)) m_error = "the value name \"" + name + "\" holds a line break";
    std::u16string line = name.empty() ? u"@" : u"\"" + Escape(AnsiToWide(name)) + u"\"";
    line += u'=';
    bool plainText =
        type == REG_SZ && !data.empty() && data.find('\0') == data.size() - 1 && !HasLineBreak(data);
    if (plainText) {
        Line(line + u"\"" + Escape(AnsiToWide(std::string_view(data).substr(0, data.size() - 1))) + u"\"");
        return;
    }
    if (type == REG_DWORD && data.size() == 4) {
        DWORD v = 0;
        for (int b = 3; b >= 0; --b) v = (v << 8) | static_cast<unsigned char>(data[static_cast<size_t>(b)]);
        char hex[16];
        std::snprintf(hex, sizeof hex, "dword:%08x", v);
        Line(line + Widen(hex));
        return;
    }
    std::string bytes = data;
    if (type == REG_SZ || type == REG_EXPAND_SZ || type == REG_MULTI_SZ) bytes = AnsiToUtf16Bytes(data);
    if (type == REG_BINARY) {
        line += u"hex:";
    } else {
        char prefix[24];
        std::snprintf(prefix, sizeof prefix, "hex(%x):", type);
        line += Widen(prefix);
    }
    // Wrapped as the registry editor does, so that lines stay under 80 columns.
    for (size_t k = 0; k < bytes.size(); ++k) {
        char hex[4];
        std::snprintf(hex, sizeof hex, "%02x", static_cast<unsigned char>(bytes[k]));
        line += Widen(hex);
        if (k + 1 < bytes.size()) {
            line += u',';
            if (line.size() > 75) {
                Line(line + u"\\");
                line = u"  ";
            }
        }
    }
    Line(line);
}

std::string RegTextWriter::Bytes() const {
    std::string out = "\xFF\xFE";
    out.reserve(2 + (m_text.size() + 2) * 2);
    std::u16string text = m_text + u"\r\n";
    for (char16_t c : text) {
        out.push_back(static_cast<char>(c & 0xFF));
        out.push_back(static_cast<char>(c >> 8));
    }
    return out;
}

}  // namespace tavik::platform
