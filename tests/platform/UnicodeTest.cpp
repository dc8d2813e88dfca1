#include "platform/Unicode.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>

namespace {

std::u16string ToWide(UINT cp, std::string_view in, DWORD flags = 0) {
    int n = MultiByteToWideChar(cp, flags, in.data(), static_cast<int>(in.size()), nullptr, 0);
    std::u16string out(static_cast<size_t>(n), u'\0');
    EXPECT_EQ(MultiByteToWideChar(cp, flags, in.data(), static_cast<int>(in.size()), out.data(), n), n);
    return out;
}

std::string ToBytes(UINT cp, std::u16string_view in, BOOL* usedDefault = nullptr) {
    int n =
        WideCharToMultiByte(cp, 0, in.data(), static_cast<int>(in.size()), nullptr, 0, nullptr, usedDefault);
    std::string out(static_cast<size_t>(n), '\0');
    EXPECT_EQ(WideCharToMultiByte(cp, 0, in.data(), static_cast<int>(in.size()), out.data(), n, nullptr,
                                  usedDefault),
              n);
    return out;
}

TEST(Unicode, Utf8RoundTripsEverySequenceLengthAndSurrogatePairs) {
    struct Row {
        const char* utf8;
        std::u16string wide;
    };
    const Row rows[] = {
        {"\xC3\xA9", u"\u00E9"},              // 2 bytes
        {"\xE2\x82\xAC", u"\u20AC"},          // 3 bytes
        {"\xEF\xBF\xBF", u"\uFFFF"},          // last BMP unit
        {"\xF0\x9F\x98\x80", u"\U0001F600"},  // 4 bytes -> surrogate pair
        {"\xF4\x8F\xBF\xBF", u"\U0010FFFF"},  // last code point
        {"a\xF0\x90\x80\x80z", u"a\U00010000z"},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.utf8);
        EXPECT_EQ(ToWide(CP_UTF8, r.utf8), r.wide);
        EXPECT_EQ(ToBytes(CP_UTF8, r.wide), r.utf8);
    }
}

TEST(Unicode, MalformedUtf8BecomesOneReplacementPerMaximalPart) {
    struct Row {
        const char* name;
        std::string in;
        std::u16string out;
    };
    const Row rows[] = {
        {"lone continuation", "a\x80z", u"a\uFFFDz"},
        {"C0 overlong", "\xC0\xAF", u"\uFFFD\uFFFD"},
        {"E0 overlong", "\xE0\x80\xAF", u"\uFFFD\uFFFD\uFFFD"},
        {"encoded surrogate", "\xED\xA0\x80", u"\uFFFD\uFFFD\uFFFD"},
        {"past U+10FFFF", "\xF4\x90\x80\x80", u"\uFFFD\uFFFD\uFFFD\uFFFD"},
        {"truncated 3-byte at end", "a\xE2\x82", u"a\uFFFD"},
        {"truncated 4-byte before ASCII", "\xF0\x9F\x98z", u"\uFFFDz"},
        {"embedded NUL is kept", std::string("a\0b", 3), std::u16string(u"a\0b", 3)},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.name);
        EXPECT_EQ(ToWide(CP_UTF8, r.in), r.out);
        SetLastError(0);
        int n = MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, r.in.data(), static_cast<int>(r.in.size()),
                                    nullptr, 0);
        if (r.out.find(u'\uFFFD') != std::u16string::npos) {
            EXPECT_EQ(n, 0);
            EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_NO_UNICODE_TRANSLATION));
        } else {
            EXPECT_EQ(n, static_cast<int>(r.out.size()));
        }
    }
}

TEST(Unicode, LoneSurrogatesBecomeReplacementOrFailWhenAsked) {
    const std::u16string lone[] = {u"\xD800", u"a\xDC00", std::u16string(u"\xDBFF") + u"x"};
    for (const std::u16string& w : lone) {
        std::string out = ToBytes(CP_UTF8, w);
        EXPECT_NE(out.find("\xEF\xBF\xBD"), std::string::npos);
        SetLastError(0);
        EXPECT_EQ(WideCharToMultiByte(CP_UTF8, WC_ERR_INVALID_CHARS, w.data(), static_cast<int>(w.size()),
                                      nullptr, 0, nullptr, nullptr),
                  0);
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_NO_UNICODE_TRANSLATION));
    }
}

TEST(Unicode, LengthsSizeQueriesAndShortBuffersFollowWindows) {
    // -1 counts the terminating NUL and writes it.
    EXPECT_EQ(MultiByteToWideChar(CP_UTF8, 0, "\xC3\xA9t\xC3\xA9", -1, nullptr, 0), 4);
    WCHAR wide[8];
    std::fill(std::begin(wide), std::end(wide), WCHAR(0xBDBD));
    EXPECT_EQ(MultiByteToWideChar(CP_UTF8, 0, "\xC3\xA9t\xC3\xA9", -1, wide, 8), 4);
    EXPECT_EQ(std::u16string(wide, 4), std::u16string(u"\u00E9t\u00E9\0", 4));
    EXPECT_EQ(wide[4], 0xBDBD);
    EXPECT_EQ(WideCharToMultiByte(CP_UTF8, 0, u"\u20AC", -1, nullptr, 0, nullptr, nullptr), 4);
    EXPECT_EQ(WideCharToMultiByte(CP_ACP, 0, u"\u20AC", -1, nullptr, 0, nullptr, nullptr), 2);

    // One unit short fails without writing past the buffer; exact fits.
    std::fill(std::begin(wide), std::end(wide), WCHAR(0xBDBD));
    SetLastError(0);
    EXPECT_EQ(MultiByteToWideChar(CP_UTF8, 0, "\xF0\x9F\x98\x80", 4, wide, 1), 0);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER));
    EXPECT_EQ(wide[1], 0xBDBD);
    EXPECT_EQ(MultiByteToWideChar(CP_UTF8, 0, "\xF0\x9F\x98\x80", 4, wide, 2), 2);
    char bytes[4];
    std::fill(std::begin(bytes), std::end(bytes), '\xBD');
    SetLastError(0);
    EXPECT_EQ(WideCharToMultiByte(CP_UTF8, 0, u"\u20AC", 1, bytes, 2, nullptr, nullptr), 0);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER));
    EXPECT_EQ(bytes[2], '\xBD');

    // Bad arguments.
    BOOL used = FALSE;
    struct Bad {
        const char* name;
        std::function<int()> call;
        LONG error;
    };
    const Bad bad[] = {
        {"zero input length", [&] { return MultiByteToWideChar(CP_UTF8, 0, "a", 0, wide, 8); },
         ERROR_INVALID_PARAMETER},
        {"null output", [&] { return MultiByteToWideChar(CP_UTF8, 0, "a", 1, nullptr, 8); },
         ERROR_INVALID_PARAMETER},
        {"unknown code page", [&] { return MultiByteToWideChar(932, 0, "a", 1, wide, 8); },
         ERROR_INVALID_PARAMETER},
        {"unknown flag", [&] { return MultiByteToWideChar(CP_UTF8, 0x4, "a", 1, wide, 8); },
         ERROR_INVALID_FLAGS},
        {"UTF-8 with used-default",
         [&] { return WideCharToMultiByte(CP_UTF8, 0, u"a", 1, bytes, 4, nullptr, &used); },
         ERROR_INVALID_PARAMETER},
        {"UTF-8-only flag on 1252",
         [&] {
             return WideCharToMultiByte(CP_ACP, WC_ERR_INVALID_CHARS, u"a", 1, bytes, 4, nullptr, nullptr);
         },
         ERROR_INVALID_FLAGS},
    };
    for (const Bad& b : bad) {
        SetLastError(0);
        EXPECT_EQ(b.call(), 0) << b.name;
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(b.error)) << b.name;
    }
}

TEST(Unicode, AnsiIsWindows1252IncludingItsHighControls) {
    // 0x80-0x9F: typographic characters, and the five unassigned bytes pass through as C1 controls.
    std::string high;
    for (int b = 0x80; b <= 0x9F; ++b) high.push_back(static_cast<char>(b));
    std::u16string wide = ToWide(CP_ACP, high);
    ASSERT_EQ(wide.size(), 32u);
    EXPECT_EQ(wide[0x00], u'\u20AC');
    EXPECT_EQ(wide[0x0D], u'\x8D');
    EXPECT_EQ(wide[0x1F], u'\u0178');
    BOOL used = TRUE;
    EXPECT_EQ(ToBytes(CP_ACP, wide, &used), high);
    EXPECT_FALSE(used);
    EXPECT_EQ(ToWide(CP_ACP, "\xE9\xFF"), u"\u00E9\u00FF");

    // Characters 1252 lacks take the default character and report it.
    EXPECT_EQ(ToBytes(CP_ACP, u"a\u4E2D\u0100", &used), "a??");
    EXPECT_TRUE(used);
    char out[4] = {};
    const char star = '*';
    EXPECT_EQ(WideCharToMultiByte(CP_ACP, 0, u"\u4E2Db", 2, out, 4, &star, &used), 2);
    EXPECT_EQ(std::string(out, 2), "*b");
}

}  // namespace
