// Saving, restoring, exporting and importing keys in the registry editor's text format.
#include <fstream>
#include <iterator>
#include <map>

#include "tests/platform/registry/RegistryFixture.h"

namespace tavik::test {
namespace {

using RegistryText = RegistryTest;

struct Value {
    DWORD type;
    std::string data;
    bool operator==(const Value&) const = default;
};
// A whole tree, names in enumeration order, for comparing two trees.
struct Tree {
    std::vector<std::pair<std::string, Value>> values;
    std::vector<std::pair<std::string, Tree>> keys;
    bool operator==(const Tree&) const = default;
};

Tree Read(HKEY key) {
    Tree tree;
    for (DWORD i = 0;; ++i) {
        char name[1024];
        BYTE data[4096];
        DWORD chars = sizeof name, size = sizeof data, type = 0;
        if (RegEnumValue(key, i, name, &chars, nullptr, &type, data, &size) != ERROR_SUCCESS) break;
        tree.values.push_back(
            {std::string(name, chars), {type, std::string(reinterpret_cast<char*>(data), size)}});
    }
    for (DWORD i = 0;; ++i) {
        char name[1024];
        DWORD chars = sizeof name;
        if (RegEnumKeyEx(key, i, name, &chars, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS) break;
        HKEY child = nullptr;
        EXPECT_EQ(RegOpenKeyEx(key, name, 0, KEY_READ, &child), ERROR_SUCCESS);
        tree.keys.push_back({name, Read(child)});
        RegCloseKey(child);
    }
    return tree;
}

void Set(HKEY key, const std::string& name, DWORD type, const std::string& data) {
    ASSERT_EQ(RegSetValueEx(key, name.c_str(), 0, type, reinterpret_cast<const BYTE*>(data.data()),
                            static_cast<DWORD>(data.size())),
              ERROR_SUCCESS);
}

// The UTF-16LE file as text; fails on characters outside ASCII, which these tests do not export.
std::string Narrow(const std::string& utf16) {
    EXPECT_EQ(utf16.substr(0, 2), "\xFF\xFE");
    std::string out;
    for (size_t i = 2; i + 1 < utf16.size(); i += 2) {
        EXPECT_EQ(utf16[i + 1], 0);
        out.push_back(utf16[i]);
    }
    return out;
}

TEST_F(RegistryText, SaveAndRestoreCarryAwkwardNamesAndEveryTypeExactly) {
    HKEY src = Create("Software\\Source");
    std::string binary;
    for (int i = 0; i < 300; ++i) binary.push_back(static_cast<char>(i * 7));
    Set(src, "", REG_SZ, std::string("the default\0", 12));
    Set(src, "back\\slash\\\\twice", REG_SZ, std::string("C:\\dir\\\"quoted\"\\\0", 17));
    Set(src, "say \"hi\"", REG_SZ, std::string("\"\0", 2));
    Set(src, "empty text", REG_SZ, std::string("\0", 1));
    Set(src, "no terminator", REG_SZ, "abc");
    Set(src, "two lines", REG_SZ, std::string("one\r\ntwo\0", 9));
    Set(src, "inner zero", REG_SZ, std::string("a\0b\0", 4));
    Set(src, "number", REG_DWORD, std::string("\x78\x56\x34\x12", 4));
    Set(src, "short dword", REG_DWORD, "\x01\x02");
    Set(src, "blob", REG_BINARY, binary);
    Set(src, "nothing", REG_NONE, "");
    Set(src, "list", REG_MULTI_SZ, std::string("one\0two\0\0", 9));
    Set(src, "expand", REG_EXPAND_SZ, std::string("%TEMP%\\x\0", 9));
    Set(src, "big", REG_QWORD, std::string("\1\2\3\4\5\6\7\x08", 8));
    Set(src, "caf\xE9 \x80", REG_SZ, std::string("na\xEFve \x80\x81\0", 9));  // Windows-1252
    HKEY deep = Create("Software\\Source\\[brackets] and \"quotes\"\\x=y;z");
    Set(deep, "@", REG_SZ, std::string("not the default\0", 16));
    RegCloseKey(deep);
    RegCloseKey(Create("Software\\Source\\Empty Key"));

    std::string file = m_dir.file("saved.reg");
    ASSERT_EQ(RegSaveKey(src, file.c_str(), nullptr), ERROR_SUCCESS) << RegGetLastMessage();
    EXPECT_EQ(RegSaveKey(src, file.c_str(), nullptr), ERROR_ALREADY_EXISTS);

    // Restoring replaces what the target held before.
    HKEY dst = Create("Elsewhere\\Target");
    SetString(dst, "old", "goes");
    RegCloseKey(Create("Elsewhere\\Target\\Old Key\\Below"));
    ASSERT_EQ(RegRestoreKey(dst, file.c_str(), 0), ERROR_SUCCESS) << RegGetLastMessage();
    Tree expected = Read(src);
    Tree restored = Read(dst);
    EXPECT_EQ(restored.values.size(), 15u);
    EXPECT_TRUE(restored == expected);
    RegCloseKey(dst);
    RegCloseKey(src);
}

TEST_F(RegistryText, ExportWritesWhatTheRegistryEditorWrites) {
    HKEY key = Create("Software\\Brannick\\Tavik Mail");
    SetString(key, "Path", "C:\\Mail \"here\"");
    SetDword(key, "Check", 10);
    std::string bytes(40, '\0');
    for (int i = 0; i < 40; ++i) bytes[static_cast<size_t>(i)] = static_cast<char>(i);
    Set(key, "Data", REG_BINARY, bytes);
    SetString(key, nullptr, "");
    RegCloseKey(Create("Software\\Brannick\\Tavik Mail\\Users"));
    RegCloseKey(key);

    std::string file = m_dir.file("export.reg");
    ASSERT_EQ(RegExportKey("HKCU\\Software\\brannick\\TAVIK MAIL", file.c_str()), ERROR_SUCCESS)
        << RegGetLastMessage();
    EXPECT_EQ(Narrow(ReadFile(file)),
              "Windows Registry Editor Version 5.00\r\n"
              "\r\n"
              "[HKEY_CURRENT_USER\\Software\\Brannick\\Tavik Mail]\r\n"
              "\"Path\"=\"C:\\\\Mail \\\"here\\\"\"\r\n"
              "\"Check\"=dword:0000000a\r\n"
              "\"Data\"=hex:00,01,02,03,04,05,06,07,08,09,0a,0b,0c,0d,0e,0f,10,11,12,13,14,15,\\\r\n"
              "  16,17,18,19,1a,1b,1c,1d,1e,1f,20,21,22,23,24,25,26,27\r\n"
              "@=\"\"\r\n"
              "\r\n"
              "[HKEY_CURRENT_USER\\Software\\Brannick\\Tavik Mail\\Users]\r\n"
              "\r\n");
    EXPECT_EQ(RegExportKey("HKCU\\Software\\Missing", file.c_str()), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(RegExportKey("HKEY_LOCAL_MACHINE\\Software", file.c_str()), ERROR_BAD_PATHNAME);
}

TEST_F(RegistryText, MalformedImportsNameTheLineAndChangeNothing) {
    const std::string good =
        "Windows Registry Editor Version 5.00\n"
        "\n"
        "[HKEY_CURRENT_USER\\Software\\Import]\n"
        "\"a\"=\"1\"\n";
    const struct {
        std::string text;
        int line;
    } cases[] = {
        {"REGEDIT5\n[HKEY_CURRENT_USER\\X]\n", 1},
        {good + "\"b\"=dword:123456789\n", 5},
        {good + "\"b\"=dword:xyz\n", 5},
        {good + "\"b\"=\"unterminated\n", 5},
        {good + "\"b\"=\"bad \\q escape\"\n", 5},
        {good + "\"b\"=hex:01,zz\n", 5},
        {good + "\"b\"=hex:01,02,\\\n", 5},
        {good + "\"b\"=hex(2):41\n", 5},  // odd-length UTF-16
        {good + "\"b\"\n", 5},
        {good + "[HKEY_LOCAL_MACHINE\\Software]\n", 5},
        {good + "[HKEY_CURRENT_USER\\a\\\\b]\n", 5},
        {good + "[HKEY_CURRENT_USER\\unclosed\n", 5},
        {good + "[HKEY_CURRENT_USER\\" + std::string(256, 'k') + "]\n", 5},
        {good + "just words\n", 5},
        {"Windows Registry Editor Version 5.00\n\"a\"=\"value before key\"\n", 2},
        {good + "\"b\"=\"\xE2\x82\xAC\xF0\x9F\x98\x80\"\n", 5},  // an emoji has no single-byte form
        {good + "\"b\"=\"\xC3\x28\"\n", 5},                      // not UTF-8
    };
    for (const auto& c : cases) {
        std::string file = m_dir.file("bad.reg");
        WriteFile(file, c.text);
        EXPECT_EQ(RegImportFile(file.c_str()), ERROR_INVALID_DATA) << c.text;
        EXPECT_NE(RegGetLastMessage().find("line " + std::to_string(c.line) + ":"), std::string::npos)
            << c.text << " -> " << RegGetLastMessage();
        HKEY key = nullptr;
        EXPECT_EQ(RegOpenKeyEx(HKEY_CURRENT_USER, "Software\\Import", 0, KEY_READ, &key),
                  ERROR_FILE_NOT_FOUND)
            << c.text;
    }
    EXPECT_EQ(RegImportFile(m_dir.file("missing.reg").c_str()), ERROR_FILE_NOT_FOUND);
}

TEST_F(RegistryText, ImportAppliesDeletionsAndReadsUtf8AndTheOldFormat) {
    HKEY old = Create("Software\\App\\Old\\Below");
    RegCloseKey(old);
    HKEY app = Create("Software\\App");
    SetString(app, "gone", "x");
    SetString(app, "kept", "x");
    RegCloseKey(app);

    std::string file = m_dir.file("in.reg");
    std::ofstream(file, std::ios::binary) << "\xEF\xBB\xBFWindows Registry Editor Version 5.00\r\n"
                                             "; a comment\r\n"
                                             "[-HKEY_CURRENT_USER\\Software\\App\\Old]\r\n"
                                             "[HKEY_CURRENT_USER\\Software\\App]\r\n"
                                             "\"gone\"=-\r\n"
                                             "\"caf\xC3\xA9\"=\"\xE2\x82\xAC 5\"\r\n"
                                             "\"long\"=hex:01,02,\\\r\n"
                                             "    03,04\r\n"
                                             "  \"spaced\" = dword:00000001  \r\n";
    ASSERT_EQ(RegImportFile(file.c_str()), ERROR_SUCCESS) << RegGetLastMessage();
    app = Create("Software\\App");
    EXPECT_EQ(ValueNames(app), (std::vector<std::string>{"kept", "caf\xE9", "long", "spaced"}));
    EXPECT_EQ(GetString(app, "caf\xE9"), "\x80 5");
    EXPECT_TRUE(SubKeys(app).empty());
    BYTE data[8];
    DWORD size = sizeof data;
    ASSERT_EQ(RegQueryValueEx(app, "long", nullptr, nullptr, data, &size), ERROR_SUCCESS);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(data), size), "\x01\x02\x03\x04");
    RegCloseKey(app);

    // The old format keeps text data in the system's code page.
    std::ofstream(file, std::ios::binary) << "REGEDIT4\r\n\r\n[HKEY_CURRENT_USER\\Software\\Four]\r\n"
                                             "\"x\"=hex(2):41,42,00\r\n";
    ASSERT_EQ(RegImportFile(file.c_str()), ERROR_SUCCESS) << RegGetLastMessage();
    HKEY four = Create("Software\\Four");
    EXPECT_EQ(GetString(four, "x"), "AB");
    RegCloseKey(four);
}

// A key 50,000 levels deep (a 100 KB file): importing it, exporting it, deleting it and importing the
// export again each take time and room in proportion to the depth, not to its square.
TEST_F(RegistryText, AKeyFiftyThousandLevelsDeepGoesOutAndComesBack) {
    std::string below;
    for (int i = 0; i < 50000; ++i) below += "\\k";
    const std::string header = "Windows Registry Editor Version 5.00\r\n\r\n";
    std::string file = m_dir.file("deep.reg");
    WriteFile(file, header + "[HKEY_CURRENT_USER\\Software\\Deep" + below + "]\r\n\"v\"=\"bottom\"\r\n");
    ASSERT_EQ(RegImportFile(file.c_str()), ERROR_SUCCESS) << RegGetLastMessage();

    std::string out = m_dir.file("out.reg");
    ASSERT_EQ(RegExportKey("HKEY_CURRENT_USER\\Software\\Deep", out.c_str()), ERROR_SUCCESS)
        << RegGetLastMessage();
    // A line per level, each naming its whole path, would be 5 GB; the levels without values are implied
    // by the deepest one.
    EXPECT_LT(ReadFile(out).size(), 1u << 20);

    WriteFile(file, header + "[-HKEY_CURRENT_USER\\Software\\Deep]\r\n");
    ASSERT_EQ(RegImportFile(file.c_str()), ERROR_SUCCESS) << RegGetLastMessage();
    HKEY key = nullptr;
    EXPECT_EQ(RegOpenKeyEx(HKEY_CURRENT_USER, "Software\\Deep", 0, KEY_READ, &key), ERROR_FILE_NOT_FOUND);

    ASSERT_EQ(RegImportFile(out.c_str()), ERROR_SUCCESS) << RegGetLastMessage();
    ASSERT_EQ(RegOpenKeyEx(HKEY_CURRENT_USER, ("Software\\Deep" + below).c_str(), 0, KEY_READ, &key),
              ERROR_SUCCESS);
    EXPECT_EQ(GetString(key, "v"), "bottom");
    EXPECT_TRUE(SubKeys(key).empty());
    RegCloseKey(key);
}

}  // namespace
}  // namespace tavik::test
