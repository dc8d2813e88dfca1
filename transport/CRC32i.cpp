#include "transport/CRC32i.h"

#include <bit>
#include <cstring>
#include <initializer_list>

#if defined(__x86_64__) && defined(__GNUC__)
#include <immintrin.h>
#define TAVIK_CRC_FOLD 1
#endif

namespace {

constexpr ULONG kPolynomial = 0xEDB88320u;

// Slicing-by-16: sixteen tables let the loop fold sixteen bytes per step with independent loads. They are
// derived from the same polynomial as the object's own table, which still folds the odd bytes.
struct SliceTables {
    ULONG t[16][256];
    constexpr SliceTables() : t() {
        for (ULONG i = 0; i < 256; ++i) {
            ULONG c = i;
            for (int k = 0; k < 8; ++k) c = (c & 1) ? (c >> 1) ^ kPolynomial : c >> 1;
            t[0][i] = c;
        }
        for (int s = 1; s < 16; ++s)
            for (int i = 0; i < 256; ++i) t[s][i] = (t[s - 1][i] >> 8) ^ t[0][t[s - 1][i] & 0xff];
    }
};
constexpr SliceTables kSlices;

inline ULONG load32(const unsigned char* p) {
    ULONG v;
    std::memcpy(&v, p, 4);
    return v;
}

#ifdef TAVIK_CRC_FOLD
// Carry-less multiplication folds 64 bytes per step (the constants are powers of x modulo the
// polynomial, bit-reflected), then Barrett reduction brings 128 bits down to the 32-bit value. This works
// on the running (not yet complemented) value, so it composes with the table loop. length is a multiple
// of 16 and at least 64.
__attribute__((target("pclmul,sse4.1"))) ULONG foldCrc(const unsigned char* buf, size_t length, ULONG crc) {
    alignas(16) static const unsigned long long k1k2[] = {0x0154442bd4ull, 0x01c6e41596ull};
    alignas(16) static const unsigned long long k3k4[] = {0x01751997d0ull, 0x00ccaa009eull};
    alignas(16) static const unsigned long long k5k0[] = {0x0163cd6124ull, 0};
    alignas(16) static const unsigned long long poly[] = {0x01db710641ull, 0x01f7011641ull};
    const auto load = [](const unsigned char* p) {
        return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
    };

    __m128i x1 = load(buf), x2 = load(buf + 16), x3 = load(buf + 32), x4 = load(buf + 48);
    x1 = _mm_xor_si128(x1, _mm_cvtsi32_si128(static_cast<int>(crc)));
    __m128i x0 = _mm_load_si128(reinterpret_cast<const __m128i*>(k1k2));
    buf += 64;
    length -= 64;
    while (length >= 64) {
        const __m128i x5 = _mm_clmulepi64_si128(x1, x0, 0x00), x6 = _mm_clmulepi64_si128(x2, x0, 0x00),
                      x7 = _mm_clmulepi64_si128(x3, x0, 0x00), x8 = _mm_clmulepi64_si128(x4, x0, 0x00);
        x1 = _mm_clmulepi64_si128(x1, x0, 0x11);
        x2 = _mm_clmulepi64_si128(x2, x0, 0x11);
        x3 = _mm_clmulepi64_si128(x3, x0, 0x11);
        x4 = _mm_clmulepi64_si128(x4, x0, 0x11);
        x1 = _mm_xor_si128(_mm_xor_si128(x1, x5), load(buf));
        x2 = _mm_xor_si128(_mm_xor_si128(x2, x6), load(buf + 16));
        x3 = _mm_xor_si128(_mm_xor_si128(x3, x7), load(buf + 32));
        x4 = _mm_xor_si128(_mm_xor_si128(x4, x8), load(buf + 48));
        buf += 64;
        length -= 64;
    }
    // Four lanes into one, then any remaining 16-byte blocks.
    x0 = _mm_load_si128(reinterpret_cast<const __m128i*>(k3k4));
    for (__m128i next : {x2, x3, x4}) {
        const __m128i lo = _mm_clmulepi64_si128(x1, x0, 0x00);
        x1 = _mm_xor_si128(_mm_xor_si128(_mm_clmulepi64_si128(x1, x0, 0x11), next), lo);
    }
    while (length >= 16) {
        const __m128i lo = _mm_clmulepi64_si128(x1, x0, 0x00);
        x1 = _mm_xor_si128(_mm_xor_si128(_mm_clmulepi64_si128(x1, x0, 0x11), load(buf)), lo);
        buf += 16;
        length -= 16;
    }
    // 128 bits to 64.
    __m128i t2 = _mm_clmulepi64_si128(x1, x0, 0x10);
    const __m128i mask = _mm_setr_epi32(~0, 0, ~0, 0);
    x1 = _mm_xor_si128(_mm_srli_si128(x1, 8), t2);
    x0 = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(k5k0));
    t2 = _mm_srli_si128(x1, 4);
    x1 = _mm_clmulepi64_si128(_mm_and_si128(x1, mask), x0, 0x00);
    x1 = _mm_xor_si128(x1, t2);
    // Barrett reduction to 32 bits.
    x0 = _mm_load_si128(reinterpret_cast<const __m128i*>(poly));
    t2 = _mm_clmulepi64_si128(_mm_and_si128(x1, mask), x0, 0x10);
    t2 = _mm_clmulepi64_si128(_mm_and_si128(t2, mask), x0, 0x00);
    x1 = _mm_xor_si128(x1, t2);
    return static_cast<ULONG>(_mm_extract_epi32(x1, 1));
}

// Static initialisation may run before the compiler's own CPU probe, so start it explicitly.
const bool kHaveFold = [] {
    __builtin_cpu_init();
    return __builtin_cpu_supports("pclmul") && __builtin_cpu_supports("sse4.1");
}();
#endif

}  // namespace

void CRC32i::Reset() {
    for (ULONG i = 0; i < 256; ++i) {
        ULONG c = i;
        for (int k = 0; k < 8; ++k) c = (c & 1) ? (c >> 1) ^ kPolynomial : c >> 1;
        m_table[i] = c;
    }
    m_crc = 0xFFFFFFFFu;
}

void CRC32i::Update(unsigned char* data, ULONG length) {
    ULONG crc = m_crc;
    const unsigned char* p = data;
#ifdef TAVIK_CRC_FOLD
    if (kHaveFold && length >= 64) {
        const ULONG chunk = length & ~ULONG{15};
        crc = foldCrc(p, chunk, crc);
        p += chunk;
        length -= chunk;
    }
#endif
    if constexpr (std::endian::native == std::endian::little) {
        const auto& t = kSlices.t;
        while (length >= 16) {
            const ULONG a = load32(p) ^ crc, b = load32(p + 4), c = load32(p + 8), d = load32(p + 12);
            crc = t[15][a & 0xff] ^ t[14][(a >> 8) & 0xff] ^ t[13][(a >> 16) & 0xff] ^ t[12][a >> 24] ^
                  t[11][b & 0xff] ^ t[10][(b >> 8) & 0xff] ^ t[9][(b >> 16) & 0xff] ^ t[8][b >> 24] ^
                  t[7][c & 0xff] ^ t[6][(c >> 8) & 0xff] ^ t[5][(c >> 16) & 0xff] ^ t[4][c >> 24] ^
                  t[3][d & 0xff] ^ t[2][(d >> 8) & 0xff] ^ t[1][(d >> 16) & 0xff] ^ t[0][d >> 24];
            p += 16;
            length -= 16;
        }
    }
    while (length-- > 0) crc = m_table[(crc ^ *p++) & 0xff] ^ (crc >> 8);
    m_crc = crc;
}

ULONG CRC32i::Final() {
    m_crc = ~m_crc;
    return m_crc;
}
