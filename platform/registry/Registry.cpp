// The registry calls: argument checks that Windows makes before touching the hive, then the store.
#include "platform/Registry.h"

#include "platform/registry/RegistryStore.h"

using tavik::platform::RegistryStore;

LONG RegCreateKeyEx(HKEY hKey, LPCSTR lpSubKey, DWORD Reserved, LPSTR, DWORD dwOptions, REGSAM samDesired,
                    const LPSECURITY_ATTRIBUTES, PHKEY phkResult, LPDWORD lpdwDisposition) {
    if (Reserved != 0 || (dwOptions & REG_OPTION_CREATE_LINK)) {
        if (phkResult) *phkResult = nullptr;
        return ERROR_INVALID_PARAMETER;
    }
    return RegistryStore::Instance().OpenKey(hKey, lpSubKey, samDesired, true, phkResult, lpdwDisposition);
}

LONG RegOpenKeyEx(HKEY hKey, LPCSTR lpSubKey, DWORD, REGSAM samDesired, PHKEY phkResult) {
    return RegistryStore::Instance().OpenKey(hKey, lpSubKey, samDesired, false, phkResult, nullptr);
}

LONG RegCloseKey(HKEY hKey) { return RegistryStore::Instance().CloseKey(hKey); }

LONG RegQueryValueEx(HKEY hKey, LPCSTR lpValueName, LPDWORD lpReserved, LPDWORD lpType, LPBYTE lpData,
                     LPDWORD lpcbData) {
    if (lpReserved) return ERROR_INVALID_PARAMETER;
    return RegistryStore::Instance().QueryValue(hKey, lpValueName, lpType, lpData, lpcbData);
}

LONG RegSetValueEx(HKEY hKey, LPCSTR lpValueName, DWORD, DWORD dwType, const BYTE* lpData, DWORD cbData) {
    return RegistryStore::Instance().SetValue(hKey, lpValueName, dwType, lpData, cbData);
}

LONG RegDeleteValue(HKEY hKey, LPCSTR lpValueName) {
    return RegistryStore::Instance().DeleteValue(hKey, lpValueName);
}

LONG RegEnumKeyEx(HKEY hKey, DWORD dwIndex, LPSTR lpName, LPDWORD lpcchName, LPDWORD lpReserved,
                  LPSTR lpClass, LPDWORD lpcchClass, PFILETIME lpftLastWriteTime) {
    if (lpReserved) return ERROR_INVALID_PARAMETER;
    LONG code = RegistryStore::Instance().EnumKey(hKey, dwIndex, lpName, lpcchName, lpftLastWriteTime);
    // Keys carry no class.
    if (code == ERROR_SUCCESS && lpcchClass) {
        if (lpClass && *lpcchClass > 0) *lpClass = '\0';
        *lpcchClass = 0;
    }
    return code;
}

LONG RegEnumValue(HKEY hKey, DWORD dwIndex, LPSTR lpValueName, LPDWORD lpcchValueName, LPDWORD lpReserved,
                  LPDWORD lpType, LPBYTE lpData, LPDWORD lpcbData) {
    if (lpReserved) return ERROR_INVALID_PARAMETER;
    return RegistryStore::Instance().EnumValue(hKey, dwIndex, lpValueName, lpcchValueName, lpType, lpData,
                                               lpcbData);
}

LONG RegQueryInfoKey(HKEY hKey, LPSTR lpClass, LPDWORD lpcchClass, LPDWORD lpReserved, LPDWORD lpcSubKeys,
                     LPDWORD lpcbMaxSubKeyLen, LPDWORD lpcbMaxClassLen, LPDWORD lpcValues,
                     LPDWORD lpcbMaxValueNameLen, LPDWORD lpcbMaxValueLen, LPDWORD lpcbSecurityDescriptor,
                     PFILETIME lpftLastWriteTime) {
    if (lpReserved) return ERROR_INVALID_PARAMETER;
    RegistryStore::KeyInfo info;
    LONG code = RegistryStore::Instance().QueryInfo(hKey, &info);
    if (code != ERROR_SUCCESS) return code;
    if (lpcchClass) {
        if (lpClass && *lpcchClass > 0) *lpClass = '\0';
        *lpcchClass = 0;
    }
    if (lpcSubKeys) *lpcSubKeys = info.subKeys;
    if (lpcbMaxSubKeyLen) *lpcbMaxSubKeyLen = info.maxSubKeyLen;
    if (lpcbMaxClassLen) *lpcbMaxClassLen = 0;
    if (lpcValues) *lpcValues = info.values;
    if (lpcbMaxValueNameLen) *lpcbMaxValueNameLen = info.maxValueNameLen;
    if (lpcbMaxValueLen) *lpcbMaxValueLen = info.maxValueLen;
    if (lpcbSecurityDescriptor) *lpcbSecurityDescriptor = 0;
    if (lpftLastWriteTime) *lpftLastWriteTime = info.written;
    return ERROR_SUCCESS;
}

LONG RegDeleteKey(HKEY hKey, LPCSTR lpSubKey) { return RegistryStore::Instance().DeleteKey(hKey, lpSubKey); }

LONG RegFlushKey(HKEY hKey) { return RegistryStore::Instance().FlushKey(hKey); }

LONG RegSaveKey(HKEY hKey, LPCSTR lpFile, const LPSECURITY_ATTRIBUTES) {
    return RegistryStore::Instance().SaveKey(hKey, lpFile);
}

LONG RegRestoreKey(HKEY hKey, LPCSTR lpFile, DWORD) {
    return RegistryStore::Instance().RestoreKey(hKey, lpFile);
}

void RegSetStorePath(LPCSTR path) { RegistryStore::Instance().SetStorePath(path); }
std::string RegGetStorePath() { return RegistryStore::Instance().StorePath(); }
LONG RegCloseStore() { return RegistryStore::Instance().CloseStore(); }
std::string RegGetLastMessage() { return RegistryStore::LastMessage(); }
void RegSetMimeTypesPath(LPCSTR path) { RegistryStore::Instance().SetMimeTypesPath(path); }
LONG RegExportKey(LPCSTR keyPath, LPCSTR lpFile) {
    return RegistryStore::Instance().ExportKey(keyPath, lpFile);
}
LONG RegImportFile(LPCSTR lpFile) { return RegistryStore::Instance().ImportFile(lpFile); }
