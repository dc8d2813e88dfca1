#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "transport/CBase64.h"
#include "transport/CBase64Coding.h"
#include "transport/CRC32i.h"
#include "transport/CUUCoding.h"
#include "transport/MD5.h"

namespace {

CByteArray bytes(const std::string& s) {
    CByteArray a;
    a.vector().assign(s.begin(), s.end());
    return a;
}

std::string text(const CByteArray& a) { return std::string(a.GetData(), a.GetData() + a.GetSize()); }

std::vector<unsigned char> randomBytes(size_t n, std::mt19937& rng) {
    std::vector<unsigned char> v(n);
    for (auto& b : v) b = static_cast<unsigned char>(rng());
    return v;
}

// Every length up to 300 (all tail and line-break cases), then a spread up to 10,000.
std::vector<size_t> lengths() {
    std::vector<size_t> out;
    for (size_t n = 0; n <= 300; ++n) out.push_back(n);
    for (size_t n = 301; n <= 10000; n = n * 11 / 10 + 7) out.push_back(n);
    out.push_back(10000);
    return out;
}

// Bit-at-a-time CRC-32, independent of the tables and folding under test.
ULONG slowCrc(const unsigned char* p, size_t n) {
    ULONG c = 0xFFFFFFFFu;
    for (size_t i = 0; i < n; ++i) {
        c ^= p[i];
        for (int k = 0; k < 8; ++k) c = (c >> 1) ^ (0xEDB88320u & (0u - (c & 1)));
    }
    return ~c;
}

std::string hex(const BYTE* p, size_t n) {
    std::string s;
    for (size_t i = 0; i < n; ++i) s += {"0123456789abcdef"[p[i] >> 4], "0123456789abcdef"[p[i] & 15]};
    return s;
}

std::string md5Hex(const std::string& s) {
    MD5 md5;
    md5.Update(reinterpret_cast<unsigned char*>(const_cast<char*>(s.data())),
               static_cast<unsigned>(s.size()));
    MD5::Context ctx = md5.Final();
    return hex(ctx.digest, 16);
}

TEST(CRC32i, KnownValueAndFinalComplementsInPlace) {
    unsigned char digits[] = "123456789";
    CRC32i crc;
    crc.Update(digits, 9);
    EXPECT_EQ(crc.Final(), 0xCBF43926u);
    EXPECT_EQ(crc.Final(), ~0xCBF43926u);
    crc.Reset();
    crc.Update(digits, 9);
    EXPECT_EQ(crc.Final(), 0xCBF43926u);
}

// Lengths and offsets cross the 16- and 64-byte block boundaries of the fast path; split updates check
// that the fast and byte-wise loops hand the running value to each other correctly.
TEST(CRC32i, MatchesBitwiseOverRandomDataAndSplits) {
    std::mt19937 rng(7);
    std::vector<unsigned char> data = randomBytes(10064, rng);
    for (size_t n : lengths()) {
        const size_t offset = rng() % 64;
        CRC32i crc;
        crc.Update(data.data() + offset, static_cast<ULONG>(n));
        ASSERT_EQ(crc.Final(), slowCrc(data.data() + offset, n)) << n;

        const size_t cut = n ? rng() % n : 0;
        CRC32i split;
        split.Update(data.data(), static_cast<ULONG>(cut));
        split.Update(data.data() + cut, static_cast<ULONG>(n - cut));
        ASSERT_EQ(split.Final(), slowCrc(data.data(), n)) << n << " cut " << cut;
    }
}

TEST(MD5, ReferenceValuesAndContext) {
    EXPECT_EQ(md5Hex(""), "d41d8cd98f00b204e9800998ecf8427e");
    EXPECT_EQ(md5Hex("abc"), "900150983cd24fb0d6963f7d28e17f72");
    EXPECT_EQ(md5Hex("12345678901234567890123456789012345678901234567890123456789012345678901234567890"),
              "57edf4a22be3c955ac49da2e2107b67a");

    // Byte-at-a-time and odd chunks give the same digest as one call; the context's bit count is the
    // message length plus padding and length field.
    std::mt19937 rng(3);
    std::vector<unsigned char> data = randomBytes(1000, rng);
    MD5 whole, pieces;
    whole.Update(data.data(), 1000);
    for (size_t i = 0; i < 1000;) {
        unsigned n = std::min<unsigned>(1 + rng() % 130, static_cast<unsigned>(1000 - i));
        pieces.Update(data.data() + i, n);
        i += n;
    }
    MD5::Context a = whole.Final(), b = pieces.Final();
    EXPECT_EQ(hex(a.digest, 16), hex(b.digest, 16));
    EXPECT_EQ(a.count[0], (1000u + 24u) * 8u);  // 1000 bytes, 16 of padding, 8 of length
    EXPECT_EQ(a.count[1], 0u);
}

TEST(CBase64Coding, EncodingsEndWithTheirMarker) {
    CBase64Coding coder;
    CByteArray out;
    CString s;
    const std::pair<const char*, const char*> cases[] = {
        {"", "="}, {"a", "YQ=="}, {"ab", "YWI="}, {"abc", "YWJj="}, {"abcd", "YWJjZA=="}};
    for (auto [in, expected] : cases) {  // the text forms are compared with this one in the round trips
        EXPECT_EQ(coder.Encode(bytes(in), out), 1);
        EXPECT_EQ(text(out), expected);
    }
    EXPECT_EQ(coder.Encode(nullptr, s, 5), 1);
    EXPECT_STREQ(s, "=");

    // 54 bytes fill exactly one line of 72; the break comes before the end marker.
    const std::string line(54, 'x');
    coder.Encode(bytes(line), s);
    ASSERT_EQ(s.GetLength(), 72 + 2 + 1);
    EXPECT_EQ(s.Mid(72), "\r\n=");
    coder.Encode(bytes(line + "y"), s);
    EXPECT_EQ(s.Mid(72), "\r\neQ==");
    coder.Encode(bytes(line), out);  // the array form has no breaks
    EXPECT_EQ(out.GetSize(), 73);
}

TEST(CBase64Coding, DecodeResultsAndStops) {
    CBase64Coding coder;
    CByteArray out;
    out.Add(0x55);                                     // emptied first
    EXPECT_EQ(coder.Decode(CString("YWJj"), out), 0);  // no marker
    EXPECT_EQ(text(out), "abc");
    EXPECT_EQ(coder.Decode(CString("="), out), 1);
    EXPECT_EQ(out.GetSize(), 0);
    EXPECT_EQ(coder.Decode(CString(""), out), 0);
    EXPECT_EQ(coder.Decode(CString("YW\r\nJ j\tZA=="), out), 1);  // skip characters anywhere
    EXPECT_EQ(text(out), "abcd");
    EXPECT_EQ(coder.Decode(CString("YWJjZA*ZA=="), out), 0);  // stray character: whole groups only
    EXPECT_EQ(text(out), "abc");
    EXPECT_EQ(coder.Decode(CString("YWJ"), out), 0);  // end without marker: complete bytes written
    EXPECT_EQ(text(out), "ab");
    EXPECT_EQ(coder.Decode(CString("YWJj=ZGVm"), out), 1);  // nothing after the marker counts
    EXPECT_EQ(text(out), "abc");
    EXPECT_EQ(coder.Decode(bytes(std::string("YW\0Jj", 5)), out), 0);
    EXPECT_EQ(out.GetSize(), 0);
}

TEST(CUUCoding, LinesAndLengthCharacters) {
    CUUCoding uu;
    CByteArray out;
    EXPECT_EQ(uu.Encode(bytes("Cat"), out), 1);
    EXPECT_EQ(text(out), "#0V%T\r");
    EXPECT_EQ(uu.Encode(bytes(""), out), 1);
    EXPECT_EQ(out.GetSize(), 0);
    uu.Encode(bytes(std::string(3, '\0')), out);
    EXPECT_EQ(text(out), "#````\r");  // zero values are backquotes, not spaces

    uu.Encode(bytes(std::string(45, 'z')), out);  // exactly one full line, nothing after it
    ASSERT_EQ(out.GetSize(), 62);
    EXPECT_EQ(out[0], 'M');
    EXPECT_EQ(out[61], '\r');
    uu.Encode(bytes(std::string(46, 'z')), out);
    ASSERT_EQ(out.GetSize(), 62 + 6);
    EXPECT_EQ(out[62], '!');  // 32 + 1 byte

    EXPECT_EQ(uu.Decode(CString(""), out), 0);
    EXPECT_EQ(uu.Decode(CString("#0V%T\r\n\r\n"), out), 1);
    EXPECT_EQ(text(out), "Cat");
    EXPECT_EQ(uu.Decode(CString("\"0V%T\r"), out), 1);  // the count limits what the group writes
    EXPECT_EQ(text(out), "Ca");
    EXPECT_EQ(uu.Decode(CString("#0V%TXXXX\r!80``\r"), out), 1);  // padding after the groups ignored
    EXPECT_EQ(text(out), "Cata");
    EXPECT_EQ(uu.Decode(CString("M0V%"), out), 1);  // cut short: complete bytes only
    EXPECT_EQ(text(out), "Ca");
}

TEST(CBase64, BitStreamCodec) {
    CBase64 b64;
    EXPECT_EQ(b64.Encode("a", 1), CString("YQ=="));
    EXPECT_EQ(b64.Encode(nullptr, 3), CString(""));
    EXPECT_EQ(b64.Encode("abc", 0), CString(""));

    char out[32];
    std::memset(out, 0xbd, sizeof out);
    EXPECT_EQ(b64.Decode("YW=Jj", out), 3);  // "=" is passed over
    EXPECT_EQ(std::string(out, 3), "abc");
    EXPECT_EQ(static_cast<unsigned char>(out[3]), 0xbd);
    EXPECT_EQ(b64.Decode("YWJjZA\r\nZGVm", out), 4);  // stops at the line break
    EXPECT_EQ(b64.Decode(nullptr, out), 0);
    EXPECT_EQ(b64.Decode("YWJj", nullptr), 0);
}

// Every codec, every form, every tail and line-break case. The bit-stream codec writes standard Base64,
// so the array codec reads it back as well.
TEST(Codecs, RoundTripEveryForm) {
    CBase64Coding coder;
    CUUCoding uu;
    CBase64 b64;
    std::mt19937 rng(11);
    for (size_t n : lengths()) {
        std::vector<unsigned char> data = randomBytes(n, rng);
        CByteArray in, encoded, back;
        in.vector() = data;
        coder.Encode(in, encoded);
        ASSERT_EQ(coder.Decode(encoded, back), 1) << n;
        ASSERT_EQ(back.vector(), data) << n;
        CString textForm, viaArray;
        coder.Encode(data.data(), textForm, static_cast<int>(n));
        coder.Encode(in, viaArray);
        ASSERT_EQ(textForm, viaArray);
        ASSERT_EQ(coder.Decode(textForm, back), 1) << n;
        ASSERT_EQ(back.vector(), data) << n;
        int start = 0;  // lines are at most 72 characters
        for (int at; (at = textForm.Find("\r\n", start)) >= 0; start = at + 2) ASSERT_EQ(at - start, 72);
        ASSERT_LE(textForm.GetLength() - start, 72);

        uu.Encode(in, encoded);
        uu.Encode(in, textForm);
        ASSERT_EQ(textForm.str(), text(encoded));
        ASSERT_EQ(uu.Decode(encoded, back), n ? 1 : 0) << n;
        ASSERT_EQ(back.vector(), data) << n;
        textForm.Replace("\r", "\r\n");  // Windows line ends on the way back are fine too
        ASSERT_EQ(uu.Decode(textForm, back), n ? 1 : 0) << n;
        ASSERT_EQ(back.vector(), data) << n;

        CString enc = b64.Encode(reinterpret_cast<const char*>(data.data()), static_cast<int>(n));
        ASSERT_EQ(enc.GetLength() % 4, 0);
        std::vector<char> raw(n + 3);
        ASSERT_EQ(b64.Decode(enc, raw.data()), static_cast<int>(n));
        ASSERT_TRUE(n == 0 || std::memcmp(raw.data(), data.data(), n) == 0) << n;
        coder.Decode(enc, back);
        ASSERT_EQ(back.vector(), data) << n;
    }
}

// Mail brings arbitrary bytes to the decoders: they must stay inside their buffers (checked under the
// address sanitizer) and within the documented output bounds.
TEST(Decoders, SurviveArbitraryInput) {
    std::mt19937 rng(13);
    CBase64Coding coder;
    CUUCoding uu;
    CBase64 b64;
    for (int round = 0; round < 2000; ++round) {
        const size_t n = rng() % 200;
        std::vector<unsigned char> junk = randomBytes(n, rng);
        if (round % 2)  // mostly alphabet, to get past the first character
            for (auto& c : junk) c = static_cast<unsigned char>("AZaz09+/=\r\n `M!#"[rng() % 16]);
        CByteArray in, out;
        in.vector() = junk;
        coder.Decode(in, out);
        ASSERT_LE(out.GetSize(), static_cast<int>(n * 3 / 4 + 2));
        uu.Decode(in, out);
        ASSERT_LE(out.GetSize(), static_cast<int>(n));
        std::string textForm(junk.begin(), junk.end());
        std::vector<char> exact(textForm.size() * 3 / 4 + 1);
        ASSERT_LE(b64.Decode(textForm.c_str(), exact.data()), static_cast<int>(exact.size()));
    }
}

}  // namespace
