#include "transport/MD5.h"

#include <bit>
#include <cstring>

namespace {

inline ULONG load32le(const BYTE* p) {
    ULONG v;
    std::memcpy(&v, p, 4);
    if constexpr (std::endian::native == std::endian::big) v = __builtin_bswap32(v);
    return v;
}

inline void store32le(BYTE* p, ULONG v) {
    if constexpr (std::endian::native == std::endian::big) v = __builtin_bswap32(v);
    std::memcpy(p, &v, 4);
}

// The four rounds of RFC 1321 with the usual cheaper forms of F and G: z ^ (x & (y ^ z)) is F, and G adds
// its two disjoint terms instead of or-ing them, which lets the compiler overlap them.
#define MD5_STEP(f, a, b, c, d, x, s) \
    a += f(b, c, d) + (x);            \
    a = std::rotl(a, s) + b;
#define MD5_F(x, y, z) ((z) ^ ((x) & ((y) ^ (z))))
#define MD5_H(x, y, z) ((x) ^ (y) ^ (z))
#define MD5_I(x, y, z) ((y) ^ ((x) | ~(z)))
#define MD5_GSTEP(a, b, c, d, x, s) \
    a += ((d) & (b)) + (x);         \
    a += (~(d)) & (c);              \
    a = std::rotl(a, s) + b;

void transform(ULONG state[4], const BYTE* block, size_t blocks) {
    ULONG a = state[0], b = state[1], c = state[2], d = state[3];
    for (; blocks > 0; --blocks, block += 64) {
        ULONG x[16];
        for (int i = 0; i < 16; ++i) x[i] = load32le(block + 4 * i);
        const ULONG aa = a, bb = b, cc = c, dd = d;

        MD5_STEP(MD5_F, a, b, c, d, x[0] + 0xd76aa478u, 7)
        MD5_STEP(MD5_F, d, a, b, c, x[1] + 0xe8c7b756u, 12)
        MD5_STEP(MD5_F, c, d, a, b, x[2] + 0x242070dbu, 17)
        MD5_STEP(MD5_F, b, c, d, a, x[3] + 0xc1bdceeeu, 22)
        MD5_STEP(MD5_F, a, b, c, d, x[4] + 0xf57c0fafu, 7)
        MD5_STEP(MD5_F, d, a, b, c, x[5] + 0x4787c62au, 12)
        MD5_STEP(MD5_F, c, d, a, b, x[6] + 0xa8304613u, 17)
        MD5_STEP(MD5_F, b, c, d, a, x[7] + 0xfd469501u, 22)
        MD5_STEP(MD5_F, a, b, c, d, x[8] + 0x698098d8u, 7)
        MD5_STEP(MD5_F, d, a, b, c, x[9] + 0x8b44f7afu, 12)
        MD5_STEP(MD5_F, c, d, a, b, x[10] + 0xffff5bb1u, 17)
        MD5_STEP(MD5_F, b, c, d, a, x[11] + 0x895cd7beu, 22)
        MD5_STEP(MD5_F, a, b, c, d, x[12] + 0x6b901122u, 7)
        MD5_STEP(MD5_F, d, a, b, c, x[13] + 0xfd987193u, 12)
        MD5_STEP(MD5_F, c, d, a, b, x[14] + 0xa679438eu, 17)
        MD5_STEP(MD5_F, b, c, d, a, x[15] + 0x49b40821u, 22)

        MD5_GSTEP(a, b, c, d, x[1] + 0xf61e2562u, 5)
        MD5_GSTEP(d, a, b, c, x[6] + 0xc040b340u, 9)
        MD5_GSTEP(c, d, a, b, x[11] + 0x265e5a51u, 14)
        MD5_GSTEP(b, c, d, a, x[0] + 0xe9b6c7aau, 20)
        MD5_GSTEP(a, b, c, d, x[5] + 0xd62f105du, 5)
        MD5_GSTEP(d, a, b, c, x[10] + 0x02441453u, 9)
        MD5_GSTEP(c, d, a, b, x[15] + 0xd8a1e681u, 14)
        MD5_GSTEP(b, c, d, a, x[4] + 0xe7d3fbc8u, 20)
        MD5_GSTEP(a, b, c, d, x[9] + 0x21e1cde6u, 5)
        MD5_GSTEP(d, a, b, c, x[14] + 0xc33707d6u, 9)
        MD5_GSTEP(c, d, a, b, x[3] + 0xf4d50d87u, 14)
        MD5_GSTEP(b, c, d, a, x[8] + 0x455a14edu, 20)
        MD5_GSTEP(a, b, c, d, x[13] + 0xa9e3e905u, 5)
        MD5_GSTEP(d, a, b, c, x[2] + 0xfcefa3f8u, 9)
        MD5_GSTEP(c, d, a, b, x[7] + 0x676f02d9u, 14)
        MD5_GSTEP(b, c, d, a, x[12] + 0x8d2a4c8au, 20)

        MD5_STEP(MD5_H, a, b, c, d, x[5] + 0xfffa3942u, 4)
        MD5_STEP(MD5_H, d, a, b, c, x[8] + 0x8771f681u, 11)
        MD5_STEP(MD5_H, c, d, a, b, x[11] + 0x6d9d6122u, 16)
        MD5_STEP(MD5_H, b, c, d, a, x[14] + 0xfde5380cu, 23)
        MD5_STEP(MD5_H, a, b, c, d, x[1] + 0xa4beea44u, 4)
        MD5_STEP(MD5_H, d, a, b, c, x[4] + 0x4bdecfa9u, 11)
        MD5_STEP(MD5_H, c, d, a, b, x[7] + 0xf6bb4b60u, 16)
        MD5_STEP(MD5_H, b, c, d, a, x[10] + 0xbebfbc70u, 23)
        MD5_STEP(MD5_H, a, b, c, d, x[13] + 0x289b7ec6u, 4)
        MD5_STEP(MD5_H, d, a, b, c, x[0] + 0xeaa127fau, 11)
        MD5_STEP(MD5_H, c, d, a, b, x[3] + 0xd4ef3085u, 16)
        MD5_STEP(MD5_H, b, c, d, a, x[6] + 0x04881d05u, 23)
        MD5_STEP(MD5_H, a, b, c, d, x[9] + 0xd9d4d039u, 4)
        MD5_STEP(MD5_H, d, a, b, c, x[12] + 0xe6db99e5u, 11)
        MD5_STEP(MD5_H, c, d, a, b, x[15] + 0x1fa27cf8u, 16)
        MD5_STEP(MD5_H, b, c, d, a, x[2] + 0xc4ac5665u, 23)

        MD5_STEP(MD5_I, a, b, c, d, x[0] + 0xf4292244u, 6)
        MD5_STEP(MD5_I, d, a, b, c, x[7] + 0x432aff97u, 10)
        MD5_STEP(MD5_I, c, d, a, b, x[14] + 0xab9423a7u, 15)
        MD5_STEP(MD5_I, b, c, d, a, x[5] + 0xfc93a039u, 21)
        MD5_STEP(MD5_I, a, b, c, d, x[12] + 0x655b59c3u, 6)
        MD5_STEP(MD5_I, d, a, b, c, x[3] + 0x8f0ccc92u, 10)
        MD5_STEP(MD5_I, c, d, a, b, x[10] + 0xffeff47du, 15)
        MD5_STEP(MD5_I, b, c, d, a, x[1] + 0x85845dd1u, 21)
        MD5_STEP(MD5_I, a, b, c, d, x[8] + 0x6fa87e4fu, 6)
        MD5_STEP(MD5_I, d, a, b, c, x[15] + 0xfe2ce6e0u, 10)
        MD5_STEP(MD5_I, c, d, a, b, x[6] + 0xa3014314u, 15)
        MD5_STEP(MD5_I, b, c, d, a, x[13] + 0x4e0811a1u, 21)
        MD5_STEP(MD5_I, a, b, c, d, x[4] + 0xf7537e82u, 6)
        MD5_STEP(MD5_I, d, a, b, c, x[11] + 0xbd3af235u, 10)
        MD5_STEP(MD5_I, c, d, a, b, x[2] + 0x2ad7d2bbu, 15)
        MD5_STEP(MD5_I, b, c, d, a, x[9] + 0xeb86d391u, 21)

        a += aa;
        b += bb;
        c += cc;
        d += dd;
    }
    state[0] = a;
    state[1] = b;
    state[2] = c;
    state[3] = d;
}

}  // namespace

void MD5::Reset() {
    std::memset(&m_ctx, 0, sizeof m_ctx);
    m_ctx.state[0] = 0x67452301u;
    m_ctx.state[1] = 0xefcdab89u;
    m_ctx.state[2] = 0x98badcfeu;
    m_ctx.state[3] = 0x10325476u;
}

void MD5::Update(unsigned char* data, unsigned int length) {
    if (length == 0) return;
    const unsigned used = (m_ctx.count[0] >> 3) & 63;
    const ULONG addBits = static_cast<ULONG>(length) << 3;
    m_ctx.count[0] += addBits;
    if (m_ctx.count[0] < addBits) ++m_ctx.count[1];
    m_ctx.count[1] += static_cast<ULONG>(length) >> 29;

    const BYTE* p = data;
    size_t left = length;
    if (used > 0) {
        const size_t room = 64 - used;
        if (left < room) {
            std::memcpy(m_ctx.buffer + used, p, left);
            return;
        }
        std::memcpy(m_ctx.buffer + used, p, room);
        transform(m_ctx.state, m_ctx.buffer, 1);
        p += room;
        left -= room;
    }
    transform(m_ctx.state, p, left / 64);
    p += left / 64 * 64;
    std::memcpy(m_ctx.buffer, p, left % 64);
}

MD5::Context MD5::Final() {
    BYTE bits[8];
    store32le(bits, m_ctx.count[0]);
    store32le(bits + 4, m_ctx.count[1]);
    const unsigned used = (m_ctx.count[0] >> 3) & 63;
    static const unsigned char padding[64] = {0x80};
    Update(const_cast<unsigned char*>(padding), used < 56 ? 56 - used : 120 - used);
    Update(bits, 8);
    for (int i = 0; i < 4; ++i) store32le(m_ctx.digest + 4 * i, m_ctx.state[i]);
    return m_ctx;
}
