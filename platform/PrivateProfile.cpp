#include "platform/PrivateProfile.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/CFile.h"
#include "platform/FileSystem.h"

namespace {

constexpr UINT kChunk = 64 * 1024;
constexpr DWORD kIntBuffer = 30;
constexpr DWORD kErrorReadFault = 30;  // ERROR_READ_FAULT

// ^Z counts as a blank, as DOS files ended with one.
bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\v' || c == '\f' || c == '\x1a'; }

char fold(char c) { return (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c; }

bool equalNoCase(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i)
        if (fold(a[i]) != fold(b[i])) return false;
    return true;
}

std::string_view trimmed(const char* text) {
    std::string_view s(text ? text : "");
    while (!s.empty() && isBlank(s.front())) s.remove_prefix(1);
    while (!s.empty() && isBlank(s.back())) s.remove_suffix(1);
    return s;
}

// One part of a line (a name or a value) as it streams by: leading blanks dropped, at most cap characters
// kept, and the length it has once trailing blanks are cut. A part longer than the cap can still be told
// apart from every name the caller asked for, and its kept characters fill any buffer the caller gave.
class Part {
public:
    explicit Part(size_t cap) : m_cap(cap) {}
    void Reset() {
        m_head.clear();
        m_seen = 0;
        m_length = 0;
        m_last = 0;
    }
    void Add(char c) {
        if (m_seen == 0 && isBlank(c)) return;
        if (m_seen < m_cap) m_head.push_back(c);
        ++m_seen;
        if (!isBlank(c)) {
            m_length = m_seen;
            m_last = c;
        }
    }
    size_t Length() const { return m_length; }
    // Whether the first length characters are all kept.
    bool Kept(size_t length) const { return length <= m_head.size(); }
    std::string_view Text(size_t length) const {
        return std::string_view(m_head).substr(0, std::min(length, m_head.size()));
    }
    char First() const { return m_head.empty() ? '\0' : m_head[0]; }
    char Last() const { return m_last; }

private:
    size_t m_cap;
    std::string m_head;
    size_t m_seen = 0;
    size_t m_length = 0;
    char m_last = 0;
};

// One line, read both as a possible section header and as a possible key line: which one it is shows
// only at its end (a '[' line without ']' is an ordinary line).
struct Line {
    explicit Line(size_t cap) : name(cap), value(cap), section(cap) {}

    void Reset() {
        started = bracket = comment = equals = closed = false;
        sectionEnd = 0;
        name.Reset();
        value.Reset();
        section.Reset();
    }
    void Feed(char c) {
        if (!started) {
            if (isBlank(c)) return;
            started = true;
            bracket = c == '[';
            comment = c == ';';
            KeyChar(c);
            return;
        }
        if (bracket) {
            if (c == ']') {
                closed = true;
                sectionEnd = section.Length();
            }
            section.Add(c);
        }
        KeyChar(c);
    }
    void KeyChar(char c) {
        if (equals)
            value.Add(c);
        else if (c == '=')
            equals = true;
        else
            name.Add(c);
    }

    bool IsSection() const { return bracket && closed; }
    std::string_view SectionName() const { return section.Text(sectionEnd); }
    bool SectionKept() const { return section.Kept(sectionEnd); }
    std::string_view Name() const { return name.Text(name.Length()); }
    bool NameKept() const { return name.Kept(name.Length()); }

    bool started, bracket, comment, equals, closed;
    size_t sectionEnd;
    Part name, value, section;
};

// Feeds every non-empty line of the file to visit until it answers false. Throws what CFile throws.
void scanLines(CFile& file, size_t cap, const std::function<bool(const Line&)>& visit) {
    std::vector<char> chunk(kChunk);
    Line line(cap);
    line.Reset();
    bool first = true;
    for (;;) {
        UINT got = file.Read(chunk.data(), kChunk);
        if (got == 0) break;
        UINT i = 0;
        if (first) {
            first = false;
            if (got >= 3 && std::memcmp(chunk.data(), "\xEF\xBB\xBF", 3) == 0) i = 3;
        }
        for (; i < got; ++i) {
            char c = chunk[i];
            if (c == '\n' || c == '\r') {
                if (line.started && !visit(line)) return;
                line.Reset();
            } else {
                line.Feed(c);
            }
        }
    }
    if (line.started) visit(line);
}

// A bare name lives beside the program, where Windows would look in its Windows directory.
std::string resolvePath(const char* fileName) {
    std::string name(fileName);
    if (name.find('/') != std::string::npos) return name;
    char module[_MAX_PATH] = {};
    DWORD n = GetModuleFileName(nullptr, module, sizeof module);
    std::string dir(module, std::min<DWORD>(n, sizeof module - 1));
    size_t slash = dir.rfind('/');
    dir = slash == std::string::npos ? std::string("./") : dir.substr(0, slash + 1);
    return dir + name;
}

// Opens the file for reading; false with the last error set when it cannot be.
bool openProfile(CFile& file, const char* fileName) {
    if (!fileName || !*fileName) {
        SetLastError(ERROR_FILE_NOT_FOUND);
        return false;
    }
    CFileException error;
    if (file.Open(resolvePath(fileName).c_str(), CFile::modeRead | CFile::shareDenyNone | CFile::typeBinary,
                  &error))
        return true;
    SetLastError(error.m_lOsError > 0 ? static_cast<DWORD>(error.m_lOsError) : ERROR_FILE_NOT_FOUND);
    return false;
}

DWORD copyText(std::string_view text, LPSTR returned, DWORD size) {
    size_t n = std::min<size_t>(text.size(), size - 1);
    if (n) std::memcpy(returned, text.data(), n);
    returned[n] = '\0';
    return static_cast<DWORD>(n);
}

DWORD copyDefault(LPCSTR defaultValue, LPSTR returned, DWORD size) {
    std::string_view text(defaultValue ? defaultValue : "");
    while (!text.empty() && text.back() == ' ') text.remove_suffix(1);
    if (text.size() >= 2 && text.front() == '"' && text.back() == '"') text = text.substr(1, text.size() - 2);
    return copyText(text, returned, size);
}

// Names, each ended by a zero, then one more zero; cut to the buffer with its two final zeros kept.
DWORD copyList(const std::string& list, LPSTR returned, DWORD size) {
    if (size < 2) {
        returned[0] = '\0';
        return 0;
    }
    if (list.size() + 1 <= size) {
        if (!list.empty()) std::memcpy(returned, list.data(), list.size());
        returned[list.size()] = '\0';
        if (list.empty()) returned[1] = '\0';
        return static_cast<DWORD>(list.size());
    }
    std::memcpy(returned, list.data(), size - 2);
    returned[size - 2] = '\0';
    returned[size - 1] = '\0';
    return size - 2;
}

// The value of a key line: trimmed, then one pair of matching quotes removed.
std::string_view valueOf(const Part& value) {
    size_t length = value.Length();
    char first = value.First();
    if (length >= 2 && (first == '"' || first == '\'') && value.Last() == first)
        return value.Text(length - 1).substr(1);
    return value.Text(length);
}

}  // namespace

DWORD GetPrivateProfileString(LPCSTR section, LPCSTR key, LPCSTR defaultValue, LPSTR returned, DWORD size,
                              LPCSTR fileName) {
    if (!returned || size == 0) return 0;
    CFile file;
    if (!openProfile(file, fileName)) return copyDefault(defaultValue, returned, size);

    const std::string_view wantSection = trimmed(section), wantKey = trimmed(key);
    // Enough to hold any name asked for and any text the buffer can take, with room to tell longer ones.
    const size_t cap = std::max<size_t>({wantSection.size(), wantKey.size(), size}) + 2;
    // Keys before the first header form a section without a name.
    bool inSection = section && wantSection.empty();
    bool found = false;
    std::string result, list;
    try {
        if (!section) {
            scanLines(file, cap, [&](const Line& line) {
                if (!line.IsSection() || line.SectionName().empty()) return true;
                list.append(line.SectionName()).push_back('\0');
                return list.size() < size;
            });
        } else {
            scanLines(file, cap, [&](const Line& line) {
                if (line.IsSection()) {
                    // Only the first section of the name counts.
                    if (inSection) return false;
                    inSection = line.SectionKept() && equalNoCase(line.SectionName(), wantSection);
                    return true;
                }
                if (!inSection) return true;
                if (!key) {
                    if (line.equals && !line.comment) list.append(line.Name()).push_back('\0');
                    return list.size() < size;
                }
                if (!line.NameKept() || !equalNoCase(line.Name(), wantKey)) return true;
                // The first line of that name decides, even one without a value.
                found = line.equals;
                if (found) result.assign(valueOf(line.value));
                return false;
            });
        }
    } catch (CFileException* e) {
        SetLastError(e->m_lOsError > 0 ? static_cast<DWORD>(e->m_lOsError) : kErrorReadFault);
        e->Delete();
        return copyDefault(defaultValue, returned, size);
    }
    if (!section || !key) return copyList(list, returned, size);
    if (!found) return copyDefault(defaultValue, returned, size);
    return copyText(result, returned, size);
}

UINT GetPrivateProfileInt(LPCSTR section, LPCSTR key, INT defaultValue, LPCSTR fileName) {
    if (!section || !key) return static_cast<UINT>(defaultValue);
    char buffer[kIntBuffer];
    if (GetPrivateProfileString(section, key, "", buffer, kIntBuffer, fileName) == 0)
        return static_cast<UINT>(defaultValue);
    const char* p = buffer;
    bool negative = false;
    if (*p == '+' || *p == '-') negative = *p++ == '-';
    UINT base = 10;
    if (p[0] == '0') {
        char prefix = fold(p[1]);
        if (prefix == 'X') base = 16;
        if (prefix == 'O') base = 8;
        if (prefix == 'B') base = 2;
        if (base != 10) p += 2;
    }
    UINT value = 0;
    for (;; ++p) {
        char c = fold(*p);
        UINT digit = (c >= '0' && c <= '9')   ? UINT(c - '0')
                     : (c >= 'A' && c <= 'Z') ? UINT(c - 'A' + 10)
                                              : 99;
        if (digit >= base) break;
        value = value * base + digit;
    }
    return negative ? 0u - value : value;
}
