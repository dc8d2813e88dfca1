#include "messages/internal/QuotedPrintable.h"

#include <cstdint>
#include <cstring>
#include <functional>
#include <queue>
#include <string_view>
#include <vector>

namespace tavik::lib {
namespace {

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Only '=' and the upper-case digits ever take part in an escape. Any other character is never
// replaced, never removed and never inside an escape, so the text falls apart into runs of these
// characters that can be decoded one by one.
bool active(char c) { return c == '=' || hexValue(c) >= 0; }

// Replaying the 256 passes over a run: an escape present when its value's pass begins is replaced then;
// one that a replacement forms is replaced at its own pass if that is still to come, and never
// otherwise (an escape, once formed, cannot be broken up before its pass: its digits are not '=' and
// its '=' is not a digit). So each escape is handled once, in the order (value, position).
class RunDecoder {
public:
    // Writes the decoded run at out (which may overlap the run's start) and returns its length.
    std::size_t Decode(std::string_view run, char* out) {
        const int n = static_cast<int>(run.size());
        m_chars.assign(run.begin(), run.end());
        m_next.resize(n);
        m_prev.resize(n);
        m_dead.assign(n, 0);
        for (int i = 0; i < n; ++i) {
            m_next[i] = i + 1 < n ? i + 1 : -1;
            m_prev[i] = i - 1;
        }
        for (int i = 0; i + 2 < n; ++i) {
            int v = ValueAt(i);
            if (v >= 0) Push(v, i);
        }
        while (!m_queue.empty()) {
            const std::uint64_t key = m_queue.top();
            while (!m_queue.empty() && m_queue.top() == key) m_queue.pop();
            const int v = static_cast<int>(key >> 32);
            const int p = static_cast<int>(key & 0xFFFFFFFFu);
            if (ValueAt(p) != v) continue;
            const int a = m_next[p], b = m_next[a];
            Unlink(a);
            Unlink(b);
            int starts[3];
            int count = 0;
            if (v == 0) {
                const int left = m_prev[p];
                Unlink(p);
                if (left >= 0) {
                    starts[count++] = left;
                    if (m_prev[left] >= 0) starts[count++] = m_prev[left];
                }
            } else {
                m_chars[p] = static_cast<char>(v);
                starts[count++] = p;
                if (m_prev[p] >= 0) {
                    starts[count++] = m_prev[p];
                    if (m_prev[m_prev[p]] >= 0) starts[count++] = m_prev[m_prev[p]];
                }
            }
            for (int i = 0; i < count; ++i) {
                int w = ValueAt(starts[i]);
                if (w > v) Push(w, starts[i]);
            }
        }
        std::size_t written = 0;
        for (int i = 0; i < n; ++i) {
            if (!m_dead[i]) out[written++] = m_chars[i];
        }
        return written;
    }

private:
    int ValueAt(int p) const {
        if (p < 0 || m_dead[p] || m_chars[p] != '=') return -1;
        const int a = m_next[p];
        if (a < 0) return -1;
        const int b = m_next[a];
        if (b < 0) return -1;
        const int hi = hexValue(m_chars[a]), lo = hexValue(m_chars[b]);
        return hi < 0 || lo < 0 ? -1 : hi * 16 + lo;
    }
    void Push(int v, int p) {
        m_queue.push(static_cast<std::uint64_t>(v) << 32 | static_cast<std::uint32_t>(p));
    }
    void Unlink(int i) {
        m_dead[i] = 1;
        if (m_prev[i] >= 0) m_next[m_prev[i]] = m_next[i];
        if (m_next[i] >= 0) m_prev[m_next[i]] = m_prev[i];
    }

    std::vector<char> m_chars;
    std::vector<int> m_next, m_prev;
    std::vector<char> m_dead;
    std::priority_queue<std::uint64_t, std::vector<std::uint64_t>, std::greater<>> m_queue;
};

bool hasEscape(std::string_view run) {
    for (std::size_t i = 0; i + 2 < run.size(); ++i) {
        if (run[i] == '=' && hexValue(run[i + 1]) >= 0 && hexValue(run[i + 2]) >= 0) return true;
    }
    return false;
}

// One pass of removals of pattern, in place, as CString::Replace with an empty replacement does it.
std::size_t removeEvery(char* text, std::size_t length, std::string_view pattern) {
    std::size_t read = 0, write = 0;
    while (read < length) {
        const void* hit = std::memchr(text + read, pattern[0], length - read);
        std::size_t at = hit ? static_cast<std::size_t>(static_cast<const char*>(hit) - text) : length;
        if (at + pattern.size() > length) at = length;
        std::memmove(text + write, text + read, at - read);
        write += at - read;
        read = at;
        if (read == length) break;
        if (std::memcmp(text + read, pattern.data(), pattern.size()) == 0) {
            read += pattern.size();
        } else {
            text[write++] = text[read++];
        }
    }
    return write;
}

}  // namespace

std::size_t DecodeQuotedPrintable(char* text, std::size_t length) {
    for (std::string_view softBreak : {" = \r\n", " =\r\n", "= \r\n", "=\r\n"})
        length = removeEvery(text, length, softBreak);
    if (!std::memchr(text, '=', length)) return length;
    RunDecoder decoder;
    std::size_t read = 0, write = 0;
    while (read < length) {
        if (!active(text[read])) {
            text[write++] = text[read++];
            continue;
        }
        std::size_t end = read;
        while (end < length && active(text[end])) ++end;
        const std::string_view run(text + read, end - read);
        if (hasEscape(run)) {
            write += decoder.Decode(run, text + write);
        } else {
            std::memmove(text + write, text + read, end - read);
            write += end - read;
        }
        read = end;
    }
    return write;
}

}  // namespace tavik::lib
