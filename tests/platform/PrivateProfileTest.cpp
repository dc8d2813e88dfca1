// GetPrivateProfileString / GetPrivateProfileInt against the behaviour measured on Windows' own reader:
// lookups, quotes, duplicates, comments, truncation, enumeration, line ends and files of hostile size.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "platform/FileSystem.h"
#include "platform/PrivateProfile.h"
#include "tests/support/TempDir.h"

namespace {

using tavik::test::TempDir;
using tavik::test::WriteFile;

const char* const kLines[] = {
    "top=before any section",
    "[Section1]",
    "Key1=Value1",
    "  key2  =   spaced value   ",
    "Tab\t=\tTabbed\t",
    "Quoted=\"quoted value\"",
    "SQuoted='single'",
    "QuotedSp=  \"  inner spaces  \"  ",
    "HalfQuote=\"abc",
    "Mismatch=\"abc'",
    "Inner=a \"b\" c",
    "Dup=first",
    "Dup=second",
    "NoEquals",
    "Empty=",
    "Trail=value ; trailing comment",
    ";Commented=yes",
    "  ;IndentComment=yes",
    "#Hash=yes",
    "Eq=a=b=c",
    "=novalue key",
    "Key With Space=kws",
    "Long=0123456789ABCDEFGHIJ",
    "   [ Spaced Section ]   ",
    "inner=spaced",
    "[section1]",
    "Key1=from the second section",
    "Only2=second only",
    "[Unclosed",
    "Hidden=unreachable",
    "[Last]",
    "Final=end",
};

std::string Joined(const char* end) {
    std::string text;
    for (const char* line : kLines) text += std::string(line) + end;
    return text;
}

class PrivateProfile : public ::testing::Test {
protected:
    void SetUp() override {
        m_path = m_dir.file("test.ini");
        WriteFile(m_path, Joined("\r\n"));
    }
    // The value with a buffer pre-filled so that a missing terminator or an overrun shows.
    std::string Get(const char* section, const char* key, const char* dflt, DWORD size, DWORD* ret,
                    const std::string& path = "") {
        char buffer[256];
        std::memset(buffer, 0xbd, sizeof buffer);
        *ret =
            GetPrivateProfileString(section, key, dflt, buffer, size, (path.empty() ? m_path : path).c_str());
        EXPECT_EQ(static_cast<unsigned char>(buffer[size]), 0xbd) << "wrote past the buffer";
        return std::string(buffer, *ret);
    }
    std::string Get(const char* section, const char* key, const std::string& path = "") {
        DWORD ret = 0;
        return Get(section, key, "<default>", 200, &ret, path);
    }
    // A list as text with '|' for each zero, up to its final zero; a cut list must end in two zeros.
    std::string List(const char* section, DWORD size, DWORD* ret) {
        char buffer[256];
        std::memset(buffer, 0xbd, sizeof buffer);
        *ret = GetPrivateProfileString(section, nullptr, "dflt", buffer, size, m_path.c_str());
        EXPECT_EQ(static_cast<unsigned char>(buffer[size]), 0xbd);
        if (*ret == size - 2) {
            EXPECT_EQ(buffer[size - 1], '\0');
        }
        std::string out;
        for (DWORD i = 0; i <= *ret; ++i) out += buffer[i] ? buffer[i] : '|';
        return out;
    }

    TempDir m_dir;
    std::string m_path;
};

TEST_F(PrivateProfile, LookupsTrimUnquoteAndTakeTheFirstOfDuplicates) {
    struct Case {
        const char* section;
        const char* key;
        const char* expected;
    } cases[] = {
        {"Section1", "Key1", "Value1"},
        {"SECTION1", "key1", "Value1"},
        {"  section1  ", "  KEY1 ", "Value1"},
        {"Section1", "key2", "spaced value"},
        {"Section1", "Tab", "Tabbed"},
        {"Section1", "Quoted", "quoted value"},
        {"Section1", "SQuoted", "single"},
        {"Section1", "QuotedSp", "  inner spaces  "},
        {"Section1", "HalfQuote", "\"abc"},
        {"Section1", "Mismatch", "\"abc'"},
        {"Section1", "Inner", "a \"b\" c"},
        {"Section1", "Dup", "first"},
        {"Section1", "NoEquals", "<default>"},
        {"Section1", "Empty", ""},
        {"Section1", "Trail", "value ; trailing comment"},
        {"Section1", ";Commented", "yes"},
        {"Section1", "Commented", "<default>"},
        {"Section1", ";IndentComment", "yes"},
        {"Section1", "#Hash", "yes"},
        {"Section1", "Eq", "a=b=c"},
        {"Section1", "", "novalue key"},
        {"Section1", "Key With Space", "kws"},
        // Only the first section of a name counts.
        {"Section1", "Only2", "<default>"},
        {"Spaced Section", "inner", "spaced"},
        {" Spaced Section ", "inner", "spaced"},
        {"", "top", "before any section"},
        {"Unclosed", "Hidden", "<default>"},
        {"Section1", "Hidden", "<default>"},
        {"Last", "Final", "end"},
        {"Missing", "Key1", "<default>"},
    };
    for (const Case& c : cases) EXPECT_EQ(Get(c.section, c.key), c.expected) << c.section << "/" << c.key;
}

TEST_F(PrivateProfile, EveryLineEndIsRead) {
    for (const char* end : {"\n", "\r", "\r\n"}) {
        std::string text = Joined(end);
        text.erase(text.size() - std::strlen(end));  // the last line without its end
        std::string path = m_dir.file("ends.ini");
        WriteFile(path, text);
        EXPECT_EQ(Get("Section1", "Key1", path), "Value1");
        EXPECT_EQ(Get("Section1", "Empty", path), "");
        EXPECT_EQ(Get("Last", "Final", path), "end");
    }
    WriteFile(m_dir.file("bom.ini"), "\xEF\xBB\xBF[Bom]\r\nk=v\r\n");
    EXPECT_EQ(Get("Bom", "k", m_dir.file("bom.ini")), "v");
}

TEST_F(PrivateProfile, ValuesAndDefaultsAreCutToTheBuffer) {
    struct Case {
        const char* key;
        const char* dflt;
        DWORD size;
        const char* expected;
    } cases[] = {
        {"Long", nullptr, 21, "0123456789ABCDEFGHIJ"},
        {"Long", nullptr, 20, "0123456789ABCDEFGHI"},
        {"Long", nullptr, 8, "0123456"},
        {"Long", nullptr, 1, ""},
        {"Quoted", nullptr, 6, "quote"},
        {"Missing", "dflt  ", 100, "dflt"},
        {"Missing", "  dflt", 100, "  dflt"},
        {"Missing", "\"quoted dflt\"", 100, "quoted dflt"},
        {"Missing", "'single'", 100, "'single'"},
        {"Missing", nullptr, 100, ""},
        {"Missing", "abcdef", 4, "abc"},
    };
    for (const Case& c : cases) {
        DWORD ret = 0xdeadbeef;
        EXPECT_EQ(Get("Section1", c.key, c.dflt, c.size, &ret), c.expected) << c.key << " " << c.size;
        EXPECT_EQ(ret, std::strlen(c.expected));
    }
    char untouched = 'x';
    EXPECT_EQ(GetPrivateProfileString("Section1", "Key1", "d", &untouched, 0, m_path.c_str()), 0u);
    EXPECT_EQ(untouched, 'x');
}

TEST_F(PrivateProfile, NullKeyListsKeysAndNullSectionListsSections) {
    DWORD ret = 0;
    EXPECT_EQ(List("Section1", 250, &ret),
              "Key1|key2|Tab|Quoted|SQuoted|QuotedSp|HalfQuote|Mismatch|Inner|Dup|Dup|Empty|Trail|#Hash|Eq||"
              "Key With Space|Long||");
    EXPECT_EQ(ret, 113u);
    EXPECT_EQ(List("Section1", 8, &ret), "Key1|k|");
    EXPECT_EQ(ret, 6u);
    EXPECT_EQ(List("Last", 20, &ret), "Final||");
    EXPECT_EQ(ret, 6u);
    EXPECT_EQ(List("Nowhere", 8, &ret), "|");
    EXPECT_EQ(ret, 0u);
    EXPECT_EQ(List(nullptr, 250, &ret), "Section1|Spaced Section|section1|Last||");
    EXPECT_EQ(ret, 38u);
    EXPECT_EQ(List(nullptr, 12, &ret), "Section1|S|");
    EXPECT_EQ(ret, 10u);
}

TEST_F(PrivateProfile, MissingFileGivesTheDefaultAndFileNotFound) {
    SetLastError(0);
    DWORD ret = 0;
    EXPECT_EQ(Get("Section1", "Key1", "fallback ", 100, &ret, m_dir.file("absent.ini")), "fallback");
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
    EXPECT_EQ(GetPrivateProfileInt("Section1", "Key1", 42, m_dir.file("absent.ini").c_str()), 42u);
    // A directory cannot be read as a file: still the default.
    EXPECT_EQ(Get("Section1", "Key1", "d", 100, &ret, m_dir.path().string() + "/"), "d");
}

TEST_F(PrivateProfile, BareNamesAreLookedUpBesideTheProgram) {
    TempDir appDir;
    WriteFile(appDir.file("beside.ini"), "[S]\nk=beside\n");
    TavikSetApplicationDirectory(appDir.path().c_str());
    EXPECT_EQ(Get("S", "k", std::string("beside.ini")), "beside");
    TavikSetApplicationDirectory(nullptr);
}

TEST_F(PrivateProfile, IntegersAsWindowsReadsThem) {
    struct Case {
        const char* value;
        UINT expected;
    } cases[] = {
        {"12abc", 12},
        {"-5", 4294967291u},
        {"0x10", 16},
        {"0b101", 5},
        {"0o17", 15},
        {"010", 10},
        {" 7 ", 7},
        {"", 42},
        {"\"\"", 42},
        {"4294967295", 4294967295u},
        {"abc", 0},
        {"- 5", 0},
        {"+3", 3},
        {"99999999999", 1215752191u},
        {"2147483648", 2147483648u},
        {"\"12\"", 12},
        {"0x", 0},
    };
    std::string text = "[N]\r\n";
    for (size_t i = 0; i < sizeof cases / sizeof cases[0]; ++i)
        text += "k" + std::to_string(i) + "=" + cases[i].value + "\r\n";
    WriteFile(m_path, text);
    for (size_t i = 0; i < sizeof cases / sizeof cases[0]; ++i)
        EXPECT_EQ(GetPrivateProfileInt("N", ("k" + std::to_string(i)).c_str(), 42, m_path.c_str()),
                  cases[i].expected)
            << cases[i].value;
    EXPECT_EQ(GetPrivateProfileInt("N", "missing", -1, m_path.c_str()), 4294967295u);
}

// A line of several megabytes and a million keys: read in pieces, never held whole.
TEST_F(PrivateProfile, HostileSizesAreReadInPieces) {
    std::string text = "[Big]\r\nhuge=\"" + std::string(8 << 20, 'x') + "\"\r\n";
    text += "wide" + std::string(3 << 20, ' ') + "=" + std::string(3 << 20, ' ') + "short\r\n";
    text += "[" + std::string(2 << 20, 's') + "]\r\nk=v\r\n[Many]\r\n";
    for (int i = 0; i < 1000000; ++i) text += "k" + std::to_string(i) + "=" + std::to_string(i) + "\n";
    text += "last=found\n";
    WriteFile(m_path, text);
    DWORD ret = 0;
    EXPECT_EQ(Get("Big", "huge", "", 6, &ret), "xxxxx");
    EXPECT_EQ(Get("Big", "wide"), "short");
    EXPECT_EQ(Get("Many", "k999999"), "999999");
    EXPECT_EQ(Get("Many", "last"), "found");
    EXPECT_EQ(GetPrivateProfileInt("Many", "k123456", 0, m_path.c_str()), 123456u);
    EXPECT_EQ(List("Many", 12, &ret), "k0|k1|k2|k|");
}

}  // namespace
