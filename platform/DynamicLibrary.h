// Loading another module and asking it for an entry point, as LoadLibrary and GetProcAddress do. There
// are no Windows libraries here: the only module is a stand-in for the common-controls library
// ("comctl32.dll"), whose one export is "DllGetVersion". Any other name fails to load.
#pragma once

#include "platform/WinTypes.h"

constexpr LONG ERROR_MOD_NOT_FOUND = 126;
constexpr LONG ERROR_PROC_NOT_FOUND = 127;

// Windows declares it as returning INT_PTR; void() is the form compilers accept as "any function".
using FARPROC = void (*)();

// Null with ERROR_MOD_NOT_FOUND for a module that is not there. Names compare ignoring case, without a
// directory, and ".dll" may be left off, as Windows does.
HMODULE LoadLibrary(LPCTSTR fileName);
// FALSE with ERROR_INVALID_HANDLE for a handle LoadLibrary did not give.
BOOL FreeLibrary(HMODULE module);
// Null with ERROR_PROC_NOT_FOUND when the module has no such export.
FARPROC GetProcAddress(HMODULE module, LPCSTR procName);

// The shell's version query that a library may export as "DllGetVersion".
struct DLLVERSIONINFO {
    DWORD cbSize;
    DWORD dwMajorVersion;
    DWORD dwMinorVersion;
    DWORD dwBuildNumber;
    DWORD dwPlatformID;
};
constexpr DWORD DLLVER_PLATFORM_WINDOWS = 0x1;
constexpr DWORD DLLVER_PLATFORM_NT = 0x2;
// E_INVALIDARG when cbSize is not the structure's size.
using DLLGETVERSIONPROC = HRESULT (*)(DLLVERSIONINFO* info);

// What the stand-in common-controls library does, so that a test can try every answer a real system
// gives. By default it loads, exports "DllGetVersion" and reports 5.82 (what Windows reports to a program
// without a manifest).
struct TavikCommonControls {
    bool loads = true;
    bool exportsDllGetVersion = true;
    HRESULT result = S_OK;  // what DllGetVersion returns; the version is filled only when it succeeds
    DWORD major = 5;
    DWORD minor = 82;
    DWORD build = 0;
};
void TavikSetCommonControls(const TavikCommonControls& behaviour);
