#include "transport/CBase64Coding.h"

#include <cstring>

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr size_t kGroupsPerLine = 72 / 4;

// Two alphabet characters for every 12-bit value: one table load per output pair instead of two.
struct PairTable {
    char pairs[4096][2];
    constexpr PairTable() : pairs() {
        for (int i = 0; i < 4096; ++i) {
            pairs[i][0] = kAlphabet[i >> 6];
            pairs[i][1] = kAlphabet[i & 63];
        }
    }
};
constexpr PairTable kPairs;

inline char* encodeGroups(const BYTE* in, size_t groups, char* out) {
    for (size_t g = 0; g < groups; ++g, in += 3, out += 4) {
        const unsigned v = (unsigned(in[0]) << 16) | (unsigned(in[1]) << 8) | in[2];
        std::memcpy(out, kPairs.pairs[v >> 12], 2);
        std::memcpy(out + 2, kPairs.pairs[v & 0xfff], 2);
    }
    return out;
}

size_t encodedSize(size_t length, bool lineBreaks) {
    size_t groups = length / 3;
    size_t size = groups * 4 + 4;  // the tail or the lone "=" takes at most 4
    if (lineBreaks) size += (groups / kGroupsPerLine) * 2;
    return size;
}

// Returns the number of characters written to out, which holds encodedSize(length, lineBreaks).
size_t encode(const BYTE* in, size_t length, char* out, bool lineBreaks) {
    char* const start = out;
    size_t groups = length / 3;
    if (lineBreaks) {
        while (groups >= kGroupsPerLine) {
            out = encodeGroups(in, kGroupsPerLine, out);
            in += kGroupsPerLine * 3;
            groups -= kGroupsPerLine;
            *out++ = '\r';
            *out++ = '\n';
        }
    }
    out = encodeGroups(in, groups, out);
    in += groups * 3;
    switch (length % 3) {
        case 0:
            *out++ = '=';
            break;
        case 1:
            *out++ = kAlphabet[in[0] >> 2];
            *out++ = kAlphabet[(in[0] & 3) << 4];
            *out++ = '=';
            *out++ = '=';
            break;
        case 2:
            *out++ = kAlphabet[in[0] >> 2];
            *out++ = kAlphabet[((in[0] & 3) << 4) | (in[1] >> 4)];
            *out++ = kAlphabet[(in[1] & 15) << 2];
            *out++ = '=';
            break;
    }
    return static_cast<size_t>(out - start);
}

void encodeToText(const BYTE* in, size_t length, CString& out) {
    std::string& s = out.str();
    s.resize(encodedSize(length, true));
    s.resize(encode(in, length, s.data(), true));
}

}  // namespace

CBase64Coding::CBase64Coding() { m_InitializeDecoderTable(); }

void CBase64Coding::m_InitializeDecoderTable() {
    std::memset(m_DecoderTable, kInvalid, sizeof m_DecoderTable);
    for (int i = 0; i < 64; ++i) m_DecoderTable[static_cast<BYTE>(kAlphabet[i])] = static_cast<BYTE>(i);
    for (BYTE c : {'\t', '\n', '\r', ' '}) m_DecoderTable[c] = kSkip;
}

int CBase64Coding::Encode(const CByteArray& in, CByteArray& out) {
    std::vector<BYTE>& v = out.vector();
    const size_t length = static_cast<size_t>(in.GetSize());
    v.resize(encodedSize(length, false));
    v.resize(encode(in.GetData(), length, reinterpret_cast<char*>(v.data()), false));
    return 1;
}

int CBase64Coding::Encode(const CByteArray& in, CString& out) {
    encodeToText(in.GetData(), static_cast<size_t>(in.GetSize()), out);
    return 1;
}

int CBase64Coding::Encode(const unsigned char* in, CString& out, int length) {
    encodeToText(in, in && length > 0 ? static_cast<size_t>(length) : 0, out);
    return 1;
}

int CBase64Coding::Decode(const CByteArray& in, CByteArray& out) {
    return decode(in.GetData(), static_cast<size_t>(in.GetSize()), out);
}

int CBase64Coding::Decode(const CString& in, CByteArray& out) {
    return decode(reinterpret_cast<const BYTE*>(in.GetString()), static_cast<size_t>(in.GetLength()), out);
}

int CBase64Coding::decode(const BYTE* in, size_t length, CByteArray& out) const {
    std::vector<BYTE>& v = out.vector();
    v.resize(length / 4 * 3 + 3);
    BYTE* o = v.data();
    const BYTE* const end = in + length;
    const BYTE* table = m_DecoderTable;
    unsigned bits = 0;  // the pending group, six bits a character
    int pending = 0;
    int result = 0;
    while (in < end) {
        // Whole groups of four alphabet characters are the common case: take them without per-character
        // bookkeeping.
        if (pending == 0) {
            while (end - in >= 4) {
                const unsigned a = table[in[0]], b = table[in[1]], c = table[in[2]], d = table[in[3]];
                if ((a | b | c | d) >= 64) break;
                const unsigned g = (a << 18) | (b << 12) | (c << 6) | d;
                o[0] = static_cast<BYTE>(g >> 16);
                o[1] = static_cast<BYTE>(g >> 8);
                o[2] = static_cast<BYTE>(g);
                o += 3;
                in += 4;
            }
            if (in == end) break;
        }
        const BYTE ch = *in++;
        const BYTE value = table[ch];
        if (value < 64) {
            bits = (bits << 6) | value;
            if (++pending == 4) {
                o[0] = static_cast<BYTE>(bits >> 16);
                o[1] = static_cast<BYTE>(bits >> 8);
                o[2] = static_cast<BYTE>(bits);
                o += 3;
                bits = 0;
                pending = 0;
            }
        } else if (value == kSkip) {
            continue;
        } else {
            if (ch != '=') {
                pending = 0;  // a stray character keeps only what whole groups wrote
            } else {
                result = 1;
            }
            break;
        }
    }
    // The "=" or the end of the text: write the bytes the partial group completes.
    if (pending == 2) {
        *o++ = static_cast<BYTE>(bits >> 4);
    } else if (pending == 3) {
        *o++ = static_cast<BYTE>(bits >> 10);
        *o++ = static_cast<BYTE>(bits >> 2);
    }
    v.resize(static_cast<size_t>(o - v.data()));
    return result;
}
