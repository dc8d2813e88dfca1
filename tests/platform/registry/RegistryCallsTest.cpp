// The registry calls as the library relies on them: names, order, sizes, deletion and handles.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "platform/registry/internal/StoreDatabase.h"
#include "tests/platform/registry/RegistryFixture.h"

namespace tavik::test {
namespace {

using RegistryCalls = RegistryTest;

TEST_F(RegistryCalls, CreateMakesMissingParentsAndReportsDisposition) {
    DWORD disposition = 0xdeadbeef;
    HKEY key = Create("Software\\Test\\A\\B", &disposition);
    EXPECT_EQ(disposition, REG_CREATED_NEW_KEY);
    RegCloseKey(key);

    key = Create("software\\TEST\\a\\b", &disposition);
    EXPECT_EQ(disposition, REG_OPENED_EXISTING_KEY);
    RegCloseKey(key);

    HKEY parent = nullptr;
    ASSERT_EQ(RegOpenKeyEx(HKEY_CURRENT_USER, "Software\\Test\\A", 0, KEY_READ, &parent), ERROR_SUCCESS);
    EXPECT_EQ(SubKeys(parent), std::vector<std::string>{"B"});
    // Opening relative to an opened key, and the empty name for the key itself.
    HKEY again = nullptr;
    ASSERT_EQ(RegOpenKeyEx(parent, "", 0, KEY_READ, &again), ERROR_SUCCESS);
    EXPECT_NE(again, parent);
    RegCloseKey(again);
    RegCloseKey(parent);

    HKEY missing = reinterpret_cast<HKEY>(0x1234);
    EXPECT_EQ(RegOpenKeyEx(HKEY_CURRENT_USER, "Software\\Nope", 0, KEY_READ, &missing), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(missing, nullptr);
    EXPECT_EQ(RegCreateKeyEx(HKEY_CURRENT_USER, "Software\\\\Empty", 0, nullptr, 0, KEY_ALL_ACCESS, nullptr,
                             &missing, nullptr),
              ERROR_BAD_PATHNAME);
    EXPECT_EQ(RegCreateKeyEx(HKEY_CURRENT_USER, std::string(256, 'k').c_str(), 0, nullptr, 0, KEY_ALL_ACCESS,
                             nullptr, &missing, nullptr),
              ERROR_INVALID_PARAMETER);
    EXPECT_EQ(RegOpenKeyEx(HKEY_LOCAL_MACHINE, "Software", 0, KEY_READ, &missing),
              ERROR_CALL_NOT_IMPLEMENTED);
    EXPECT_NE(RegGetLastMessage().find("HKEY_CURRENT_USER"), std::string::npos);
}

TEST_F(RegistryCalls, NamesIgnoreCaseKeepTheirFirstSpellingAndSubKeysSortAsInTheHive) {
    HKEY key = Create("Software\\MixedCase");
    SetString(key, "Account Name", "first");
    SetString(key, "ACCOUNT NAME", "second");
    EXPECT_EQ(GetString(key, "account name"), "second");
    EXPECT_EQ(ValueNames(key), std::vector<std::string>{"Account Name"});
    RegCloseKey(Create("Software\\MixedCase\\beta"));
    RegCloseKey(Create("Software\\MixedCase\\BETA\\Deeper"));
    for (const char* name : {"Alpha", "_under", "gamma", "Zulu", "10", "9"})
        RegCloseKey(Create((std::string("Software\\MixedCase\\") + name).c_str()));
    // Upper-cased comparison: digits, letters, then '_' (which sorts after 'Z').
    EXPECT_EQ(SubKeys(key),
              (std::vector<std::string>{"10", "9", "Alpha", "beta", "gamma", "Zulu", "_under"}));
    char name[16];
    DWORD chars = sizeof name;
    EXPECT_EQ(RegEnumKeyEx(key, 7, name, &chars, nullptr, nullptr, nullptr, nullptr), ERROR_NO_MORE_ITEMS);
    RegCloseKey(key);
}

TEST_F(RegistryCalls, ValuesComeBackInCreationOrderAndAnOverwriteKeepsItsPlace) {
    HKEY key = Create("Software\\Order");
    for (int i = 0; i < 12; ++i) SetDword(key, ("Value" + std::to_string(i)).c_str(), static_cast<DWORD>(i));
    SetString(key, "zeta", "z");
    SetString(key, "alpha", "a");
    SetDword(key, "Value3", 33);  // overwrite in place
    std::vector<std::string> expected;
    for (int i = 0; i < 12; ++i) expected.push_back("Value" + std::to_string(i));
    expected.insert(expected.end(), {"zeta", "alpha"});
    EXPECT_EQ(ValueNames(key), expected);

    // Deleting and writing again moves a value to the end.
    ASSERT_EQ(RegDeleteValue(key, "value0"), ERROR_SUCCESS);
    SetDword(key, "Value0", 0);
    expected.erase(expected.begin());
    expected.push_back("Value0");
    EXPECT_EQ(ValueNames(key), expected);
    EXPECT_EQ(RegDeleteValue(key, "value0x"), ERROR_FILE_NOT_FOUND);
    DWORD value = 0, size = 4;
    ASSERT_EQ(RegQueryValueEx(key, "Value3", nullptr, nullptr, reinterpret_cast<BYTE*>(&value), &size),
              ERROR_SUCCESS);
    EXPECT_EQ(value, 33u);
    RegCloseKey(key);
}

// The store reads a key's values in name order and puts them in creation order itself: a dense run of
// numbers, a sparse one, one beyond 32 bits and the repeats only a damaged file has.
TEST(RegistryCreationOrder, ValuesFollowTheirNumbersAndRepeatsKeepTheirOrder) {
    std::mt19937 random(3);
    for (std::int64_t spread : {1ll, 1000ll, 1ll << 40}) {
        for (size_t n : {0u, 1u, 2u, 7u, 5000u}) {
            std::vector<std::int64_t> seqs(n);
            for (size_t i = 0; i < n; ++i) seqs[i] = static_cast<std::int64_t>(i) * spread - 3;
            std::shuffle(seqs.begin(), seqs.end(), random);
            if (n > 3) seqs[1] = seqs[3] = seqs[0];  // repeats
            std::vector<tavik::platform::StoredValue> values(n);
            for (size_t i = 0; i < n; ++i) values[i].name = std::to_string(i);
            std::vector<size_t> expected(n);
            std::iota(expected.begin(), expected.end(), 0);
            std::stable_sort(expected.begin(), expected.end(),
                             [&](size_t a, size_t b) { return seqs[a] < seqs[b]; });
            tavik::platform::InCreationOrder(seqs, values);
            for (size_t k = 0; k < n; ++k)
                ASSERT_EQ(values[k].name, std::to_string(expected[k])) << n << " " << k;
        }
    }
}

TEST_F(RegistryCalls, SmallBuffersGiveMoreDataWithTheNeededSize) {
    HKEY key = Create("Software\\Sizes");
    SetString(key, "Text", "0123456789");
    RegCloseKey(Create("Software\\Sizes\\Four"));

    BYTE buffer[32];
    std::memset(buffer, 0xbd, sizeof buffer);
    DWORD size = 5, type = 0;
    EXPECT_EQ(RegQueryValueEx(key, "Text", nullptr, &type, buffer, &size), ERROR_MORE_DATA);
    EXPECT_EQ(size, 11u);
    EXPECT_EQ(buffer[0], 0xbd);  // left alone
    EXPECT_EQ(RegQueryValueEx(key, "Text", nullptr, nullptr, nullptr, &size), ERROR_SUCCESS);
    size = 11;
    EXPECT_EQ(RegQueryValueEx(key, "Text", nullptr, nullptr, buffer, &size), ERROR_SUCCESS);
    EXPECT_STREQ(reinterpret_cast<char*>(buffer), "0123456789");
    EXPECT_EQ(buffer[11], 0xbd);
    EXPECT_EQ(RegQueryValueEx(key, "Text", nullptr, nullptr, buffer, nullptr), ERROR_INVALID_PARAMETER);

    // Names count their terminator: a name that does not fit, then data that does not fit.
    char name[8];
    DWORD chars = 4;
    size = sizeof buffer;
    EXPECT_EQ(RegEnumValue(key, 0, name, &chars, nullptr, nullptr, buffer, &size), ERROR_MORE_DATA);
    chars = 5;
    size = 3;
    EXPECT_EQ(RegEnumValue(key, 0, name, &chars, nullptr, &type, buffer, &size), ERROR_MORE_DATA);
    EXPECT_EQ(size, 11u);
    chars = 5;
    size = sizeof buffer;
    EXPECT_EQ(RegEnumValue(key, 0, name, &chars, nullptr, &type, buffer, &size), ERROR_SUCCESS);
    EXPECT_EQ(chars, 4u);
    chars = 4;
    EXPECT_EQ(RegEnumKeyEx(key, 0, name, &chars, nullptr, nullptr, nullptr, nullptr), ERROR_MORE_DATA);
    chars = 5;
    EXPECT_EQ(RegEnumKeyEx(key, 0, name, &chars, nullptr, nullptr, nullptr, nullptr), ERROR_SUCCESS);
    EXPECT_STREQ(name, "Four");

    DWORD subKeys = 0, values = 0, maxName = 0, maxData = 0, maxSubKey = 0;
    ASSERT_EQ(RegQueryInfoKey(key, nullptr, nullptr, nullptr, &subKeys, &maxSubKey, nullptr, &values,
                              &maxName, &maxData, nullptr, nullptr),
              ERROR_SUCCESS);
    EXPECT_EQ((std::vector<DWORD>{subKeys, maxSubKey, values, maxName, maxData}),
              (std::vector<DWORD>{1, 4, 1, 4, 11}));
    RegCloseKey(key);
}

TEST_F(RegistryCalls, DefaultValueEmptyDataAndRootValues) {
    HKEY key = Create("Software\\Default");
    SetString(key, nullptr, "default text");
    EXPECT_EQ(GetString(key, ""), "default text");
    ASSERT_EQ(RegSetValueEx(key, "Empty", 0, REG_BINARY, nullptr, 0), ERROR_SUCCESS);
    DWORD size = 99;
    BYTE b;
    EXPECT_EQ(RegQueryValueEx(key, "Empty", nullptr, nullptr, &b, &size), ERROR_SUCCESS);
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(RegSetValueEx(key, "Bad", 0, REG_BINARY, nullptr, 4), ERROR_INVALID_PARAMETER);
    RegCloseKey(key);
    SetString(HKEY_CURRENT_USER, "AtTheRoot", "yes");
    EXPECT_EQ(GetString(HKEY_CURRENT_USER, "attheroot"), "yes");
}

TEST_F(RegistryCalls, KeysWithSubKeysCannotBeDeletedAndDeletedKeysRefuseTheirHandles) {
    HKEY parent = Create("Software\\Del");
    HKEY child = Create("Software\\Del\\Child");
    SetString(child, "v", "x");
    EXPECT_EQ(RegDeleteKey(HKEY_CURRENT_USER, "Software\\Del"), ERROR_ACCESS_DENIED);
    EXPECT_EQ(RegDeleteKey(parent, ""), ERROR_ACCESS_DENIED);
    EXPECT_EQ(RegDeleteKey(parent, "Nope"), ERROR_FILE_NOT_FOUND);

    HKEY other = nullptr;
    ASSERT_EQ(RegOpenKeyEx(HKEY_CURRENT_USER, "Software\\Del\\Child", 0, KEY_READ, &other), ERROR_SUCCESS);
    // Deleting through the key's own handle, as the library removes its keys.
    ASSERT_EQ(RegDeleteKey(child, ""), ERROR_SUCCESS);
    EXPECT_EQ(GetString(other, "v"), "<missing>");
    DWORD size = 0;
    EXPECT_EQ(RegQueryValueEx(other, "v", nullptr, nullptr, nullptr, &size), ERROR_KEY_DELETED);
    EXPECT_EQ(RegSetValueEx(child, "v", 0, REG_SZ, reinterpret_cast<const BYTE*>("y"), 2), ERROR_KEY_DELETED);
    EXPECT_TRUE(SubKeys(parent).empty());

    // A key made again under the same name is a new key; the old handles stay dead.
    HKEY again = Create("Software\\Del\\Child");
    EXPECT_EQ(GetString(again, "v"), "<missing>");
    EXPECT_EQ(RegQueryValueEx(other, "v", nullptr, nullptr, nullptr, &size), ERROR_KEY_DELETED);
    EXPECT_EQ(RegCloseKey(other), ERROR_SUCCESS);
    EXPECT_EQ(RegCloseKey(child), ERROR_SUCCESS);
    EXPECT_EQ(RegCloseKey(child), ERROR_INVALID_HANDLE);
    RegCloseKey(again);

    ASSERT_EQ(RegDeleteKey(parent, "child"), ERROR_SUCCESS);
    ASSERT_EQ(RegDeleteKey(parent, ""), ERROR_SUCCESS);
    EXPECT_EQ(RegOpenKeyEx(HKEY_CURRENT_USER, "Software\\Del", 0, KEY_READ, &other), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(RegDeleteKey(HKEY_CURRENT_USER, ""), ERROR_ACCESS_DENIED);
    RegCloseKey(parent);
}

TEST_F(RegistryCalls, HandlesHonourTheirAccessAndEveryHandleSeesWritesAtOnce) {
    HKEY writer = Create("Software\\Shared");
    HKEY reader = nullptr;
    ASSERT_EQ(RegOpenKeyEx(HKEY_CURRENT_USER, "Software\\Shared", 0, KEY_READ, &reader), ERROR_SUCCESS);
    SetString(writer, "Now", "visible");  // not closed, not flushed
    EXPECT_EQ(GetString(reader, "Now"), "visible");
    EXPECT_EQ(RegSetValueEx(reader, "No", 0, REG_SZ, reinterpret_cast<const BYTE*>("x"), 2),
              ERROR_ACCESS_DENIED);
    EXPECT_EQ(RegDeleteValue(reader, "Now"), ERROR_ACCESS_DENIED);
    HKEY sub = nullptr;
    EXPECT_EQ(RegCreateKeyEx(reader, "New", 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &sub, nullptr),
              ERROR_ACCESS_DENIED);

    HKEY blind = nullptr;
    ASSERT_EQ(RegOpenKeyEx(HKEY_CURRENT_USER, "Software\\Shared", 0, KEY_SET_VALUE, &blind), ERROR_SUCCESS);
    DWORD size = 0;
    EXPECT_EQ(RegQueryValueEx(blind, "Now", nullptr, nullptr, nullptr, &size), ERROR_ACCESS_DENIED);
    char name[8];
    DWORD chars = sizeof name;
    EXPECT_EQ(RegEnumKeyEx(blind, 0, name, &chars, nullptr, nullptr, nullptr, nullptr), ERROR_ACCESS_DENIED);
    RegCloseKey(blind);
    RegCloseKey(reader);
    RegCloseKey(writer);
    EXPECT_EQ(RegCloseKey(HKEY_CURRENT_USER), ERROR_SUCCESS);
    EXPECT_EQ(RegQueryValueEx(reinterpret_cast<HKEY>(0x4242), "x", nullptr, nullptr, nullptr, &size),
              ERROR_INVALID_HANDLE);
}

}  // namespace
}  // namespace tavik::test
