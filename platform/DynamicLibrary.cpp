#include "platform/DynamicLibrary.h"

#include <cctype>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <string>

namespace {

std::mutex g_lock;
TavikCommonControls g_commonControls;
int g_commonControlsHandle;  // its address is the module's handle

std::string Lower(const char* text) {
    std::string out(text);
    for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return out;
}

HRESULT CommonControlsDllGetVersion(DLLVERSIONINFO* info) {
    if (!info || info->cbSize != sizeof(DLLVERSIONINFO)) return E_INVALIDARG;
    std::lock_guard<std::mutex> lock(g_lock);
    if (FAILED(g_commonControls.result)) return g_commonControls.result;
    info->dwMajorVersion = g_commonControls.major;
    info->dwMinorVersion = g_commonControls.minor;
    info->dwBuildNumber = g_commonControls.build;
    info->dwPlatformID = DLLVER_PLATFORM_NT;
    return g_commonControls.result;
}

}  // namespace

void TavikSetCommonControls(const TavikCommonControls& behaviour) {
    std::lock_guard<std::mutex> lock(g_lock);
    g_commonControls = behaviour;
}

HMODULE LoadLibrary(LPCTSTR fileName) {
    std::string name = Lower(fileName ? fileName : "");
    name = name.substr(name.find_last_of("/\\") + 1);
    bool loads;
    {
        std::lock_guard<std::mutex> lock(g_lock);
        loads = g_commonControls.loads;
    }
    if ((name == "comctl32.dll" || name == "comctl32") && loads) return &g_commonControlsHandle;
    SetLastError(ERROR_MOD_NOT_FOUND);
    return nullptr;
}

BOOL FreeLibrary(HMODULE module) {
    if (module == &g_commonControlsHandle) return TRUE;
    SetLastError(ERROR_INVALID_HANDLE);
    return FALSE;
}

FARPROC GetProcAddress(HMODULE module, LPCSTR procName) {
    if (module != &g_commonControlsHandle) {
        SetLastError(ERROR_INVALID_HANDLE);
        return nullptr;
    }
    bool exports;
    {
        std::lock_guard<std::mutex> lock(g_lock);
        exports = g_commonControls.exportsDllGetVersion;
    }
    // Export names are case-sensitive; a "name" below 64K is an ordinal, and this module has none.
    const bool byName = reinterpret_cast<std::uintptr_t>(procName) > 0xFFFF;
    if (exports && byName && std::strcmp(procName, "DllGetVersion") == 0)
        return reinterpret_cast<FARPROC>(&CommonControlsDllGetVersion);
    SetLastError(ERROR_PROC_NOT_FOUND);
    return nullptr;
}
