#include "transport/CBase64.h"

#include <cstring>

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

int alphabetValue(char c) {
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '+') return 62;
    if (c == '/') return 63;
    return -1;
}

}  // namespace

// Takes up to count bits from the front of the input, most significant first; bitsRead says how many the
// input still had.
int CBase64::readBits(int count, int& bitsRead) {
    int value = 0;
    bitsRead = 0;
    while (bitsRead < count) {
        if (m_nBitsRemaining == 0) {
            if (m_nInputSize <= 0) break;
            m_lBitStorage = static_cast<unsigned char>(*m_szInput++);
            --m_nInputSize;
            m_nBitsRemaining = 8;
        }
        const int take = count - bitsRead < m_nBitsRemaining ? count - bitsRead : m_nBitsRemaining;
        m_nBitsRemaining -= take;
        value = (value << take) | static_cast<int>((m_lBitStorage >> m_nBitsRemaining) & ((1u << take) - 1));
        bitsRead += take;
    }
    return value;
}

void CBase64::writeBits(UINT bits, int count, char* out, int& written) {
    m_lBitStorage = (m_lBitStorage << count) | bits;
    m_nBitsRemaining += count;
    while (m_nBitsRemaining >= 8) {
        m_nBitsRemaining -= 8;
        out[written++] = static_cast<char>((m_lBitStorage >> m_nBitsRemaining) & 0xff);
    }
    m_lBitStorage &= (1u << m_nBitsRemaining) - 1;
}

CString CBase64::Encode(const char* data, int length) {
    CString result;
    if (!data || length <= 0) return result;
    std::string& s = result.str();
    s.reserve(static_cast<size_t>(length + 2) / 3 * 4);
    m_szInput = data;
    m_nInputSize = length;
    m_nBitsRemaining = 0;
    m_lBitStorage = 0;
    for (;;) {
        int got = 0;
        int v = readBits(6, got);
        if (got == 0) break;
        s += kAlphabet[v << (6 - got)];  // the last group is filled with zero bits
    }
    while (s.size() % 4 != 0) s += '=';
    return result;
}

int CBase64::Decode(const char* text, char* out) {
    if (!text || !out) return 0;
    int written = 0;
    m_nBitsRemaining = 0;
    m_lBitStorage = 0;
    for (const char* p = text; *p; ++p) {
        if (*p == '=') continue;
        const int v = alphabetValue(*p);
        if (v < 0) break;
        writeBits(static_cast<UINT>(v), 6, out, written);
    }
    return written;
}
