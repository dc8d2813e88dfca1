// The stand-in common-controls library behind LoadLibrary and GetProcAddress.
#include <gtest/gtest.h>

#include "platform/DynamicLibrary.h"

namespace {

TEST(CommonControlsStandIn, LoadsUnderItsWindowsNamesAndExportsOnlyTheVersionQuery) {
    for (const char* name :
         {"comctl32.dll", "COMCTL32.DLL", "comctl32", "C:\\Windows\\System32\\ComCtl32.dll"}) {
        HMODULE module = LoadLibrary(name);
        ASSERT_NE(module, nullptr) << name;
        EXPECT_TRUE(FreeLibrary(module));
    }
    SetLastError(0);
    EXPECT_EQ(LoadLibrary("user32.dll"), nullptr);
    EXPECT_EQ(GetLastError(), DWORD(ERROR_MOD_NOT_FOUND));

    HMODULE comctl = LoadLibrary("comctl32.dll");
    ASSERT_NE(comctl, nullptr);
    SetLastError(0);
    EXPECT_EQ(GetProcAddress(comctl, "dllgetversion"), nullptr) << "export names keep their case";
    EXPECT_EQ(GetLastError(), DWORD(ERROR_PROC_NOT_FOUND));
    auto query = reinterpret_cast<DLLGETVERSIONPROC>(GetProcAddress(comctl, "DllGetVersion"));
    ASSERT_NE(query, nullptr);
    DLLVERSIONINFO info = {};
    info.cbSize = 4;
    EXPECT_EQ(query(&info), E_INVALIDARG);
    info = {};
    info.cbSize = sizeof info;
    ASSERT_EQ(query(&info), S_OK);
    EXPECT_EQ(info.dwMajorVersion, 5u);
    EXPECT_EQ(info.dwMinorVersion, 82u);
    EXPECT_TRUE(FreeLibrary(comctl));
    EXPECT_FALSE(FreeLibrary(&info));
}

}  // namespace
