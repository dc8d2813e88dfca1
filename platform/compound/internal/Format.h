// On-disk constants and little-endian helpers of the compound file format, and its name order.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

namespace tavik::platform::cfb {

constexpr std::uint32_t MAXREGSECT = 0xFFFFFFFA;
constexpr std::uint32_t DIFSECT = 0xFFFFFFFC;
constexpr std::uint32_t FATSECT = 0xFFFFFFFD;
constexpr std::uint32_t ENDOFCHAIN = 0xFFFFFFFE;
constexpr std::uint32_t FREESECT = 0xFFFFFFFF;
constexpr std::uint32_t NOSTREAM = 0xFFFFFFFF;

constexpr std::uint8_t kTypeEmpty = 0;
constexpr std::uint8_t kTypeStorage = 1;
constexpr std::uint8_t kTypeStream = 2;
constexpr std::uint8_t kTypeRoot = 5;

constexpr std::uint32_t kHeaderSize = 512;
constexpr std::uint32_t kDirEntrySize = 128;
constexpr std::uint32_t kMiniSectorSize = 64;
constexpr std::uint32_t kMiniCutoff = 4096;
constexpr std::uint32_t kHeaderDifatSlots = 109;
constexpr std::size_t kMaxNameUnits = 31;
// Version 3 files stop short of the byte-range lock area at 0x7FFFFF00.
constexpr std::uint64_t kMaxV3FileSize = 0x7FFFFF00ull;

constexpr unsigned char kSignature[8] = {0xD0, 0xCF, 0x11, 0xE0, 0xA1, 0xB1, 0x1A, 0xE1};
constexpr unsigned char kBetaSignature[8] = {0xD0, 0xCF, 0x11, 0xE0, 0x0E, 0x11, 0xFC, 0x0D};

inline std::uint16_t Get16(const unsigned char* p) { return static_cast<std::uint16_t>(p[0] | (p[1] << 8)); }
inline std::uint32_t Get32(const unsigned char* p) {
    return static_cast<std::uint32_t>(p[0]) | (static_cast<std::uint32_t>(p[1]) << 8) |
           (static_cast<std::uint32_t>(p[2]) << 16) | (static_cast<std::uint32_t>(p[3]) << 24);
}
inline std::uint64_t Get64(const unsigned char* p) {
    return static_cast<std::uint64_t>(Get32(p)) | (static_cast<std::uint64_t>(Get32(p + 4)) << 32);
}
inline void Put16(unsigned char* p, std::uint16_t v) {
    p[0] = static_cast<unsigned char>(v);
    p[1] = static_cast<unsigned char>(v >> 8);
}
inline void Put32(unsigned char* p, std::uint32_t v) {
    for (int i = 0; i < 4; ++i) p[i] = static_cast<unsigned char>(v >> (8 * i));
}
inline void Put64(unsigned char* p, std::uint64_t v) {
    Put32(p, static_cast<std::uint32_t>(v));
    Put32(p + 4, static_cast<std::uint32_t>(v >> 32));
}

// Unicode simple (one-to-one) upper-case mapping of one UTF-16 unit; surrogates map to themselves.
char16_t UpperUnit(char16_t c);

inline char16_t UpperFast(char16_t c) {
    if (c < 0x80) return (c >= u'a' && c <= u'z') ? static_cast<char16_t>(c - 32) : c;
    return UpperUnit(c);
}

// The sibling-tree order: shorter names first, then unit by unit after upper-casing. Lookups and
// duplicate checks use the same rule, so "abc" and "ABC" name the same element.
inline int CompareNames(std::u16string_view a, std::u16string_view b) {
    if (a.size() != b.size()) return a.size() < b.size() ? -1 : 1;
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (a[i] == b[i]) continue;
        char16_t x = UpperFast(a[i]), y = UpperFast(b[i]);
        if (x != y) return x < y ? -1 : 1;
    }
    return 0;
}

struct NameLess {
    using is_transparent = void;
    bool operator()(std::u16string_view a, std::u16string_view b) const { return CompareNames(a, b) < 0; }
};

}  // namespace tavik::platform::cfb
