// A private store file per test, and small helpers that report at the caller's line.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/Registry.h"
#include "tests/support/TempDir.h"

namespace tavik::test {

class RegistryTest : public ::testing::Test {
protected:
    void SetUp() override {
        RegSetStorePath(m_dir.file("registry.db").c_str());
        RegSetMimeTypesPath(nullptr);
    }
    void TearDown() override {
        RegCloseStore();
        RegSetStorePath(nullptr);
        RegSetMimeTypesPath(nullptr);
    }
    std::string StoreFile() const { return m_dir.file("registry.db"); }

    // Creates (or opens) HKCU\path with full access.
    HKEY Create(const char* path, DWORD* disposition = nullptr, HKEY root = HKEY_CURRENT_USER) {
        HKEY key = nullptr;
        EXPECT_EQ(RegCreateKeyEx(root, path, 0, nullptr, REG_OPTION_NON_VOLATILE, KEY_ALL_ACCESS, nullptr,
                                 &key, disposition),
                  ERROR_SUCCESS)
            << path << ": " << RegGetLastMessage();
        return key;
    }
    static void SetString(HKEY key, const char* name, const std::string& text) {
        ASSERT_EQ(RegSetValueEx(key, name, 0, REG_SZ, reinterpret_cast<const BYTE*>(text.c_str()),
                                static_cast<DWORD>(text.size() + 1)),
                  ERROR_SUCCESS);
    }
    static void SetDword(HKEY key, const char* name, DWORD value) {
        ASSERT_EQ(RegSetValueEx(key, name, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&value), 4),
                  ERROR_SUCCESS);
    }
    // The text of a value, or "<missing>".
    static std::string GetString(HKEY key, const char* name) {
        char buffer[1001];
        DWORD size = 1000;
        if (RegQueryValueEx(key, name, nullptr, nullptr, reinterpret_cast<BYTE*>(buffer), &size) !=
            ERROR_SUCCESS)
            return "<missing>";
        buffer[size] = '\0';
        return buffer;
    }
    static std::vector<std::string> ValueNames(HKEY key) { return Names(key, false); }
    static std::vector<std::string> SubKeys(HKEY key) { return Names(key, true); }
    static std::vector<std::string> Names(HKEY key, bool subKeys) {
        std::vector<std::string> names;
        char name[1001];
        for (DWORD i = 0;; ++i) {
            DWORD chars = sizeof name;
            LONG rc = subKeys ? RegEnumKeyEx(key, i, name, &chars, nullptr, nullptr, nullptr, nullptr)
                              : RegEnumValue(key, i, name, &chars, nullptr, nullptr, nullptr, nullptr);
            if (rc != ERROR_SUCCESS) break;
            names.emplace_back(name, chars);
        }
        return names;
    }

    TempDir m_dir;
};

}  // namespace tavik::test
