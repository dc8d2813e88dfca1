#include "rules/internal/KindSupport.h"

#include "platform/PrivateProfile.h"
#include "rules/internal/StorageRecords.h"

namespace tavik::lib {

namespace {
constexpr DWORD kIniBuffer = 16384;
}

void ListSubStorages(IStorage* storage, std::vector<CString>& named, std::vector<std::u16string>& nameless) {
    IEnumSTATSTG* elements = nullptr;
    if (FAILED(storage->EnumElements(0, nullptr, 0, &elements)) || !elements) return;
    STATSTG stat;
    ULONG fetched = 0;
    while (elements->Next(1, &stat, &fetched) == S_OK && fetched == 1) {
        std::u16string name = stat.pwcsName ? std::u16string(stat.pwcsName) : std::u16string();
        CoTaskMemFree(stat.pwcsName);
        if (stat.type != STGTY_STORAGE) continue;
        if (name.empty())
            nameless.push_back(name);
        else
            named.emplace_back(name.c_str());
    }
    elements->Release();
}

void DestroyElements(IStorage* storage, const std::vector<std::u16string>& names) {
    for (const std::u16string& name : names) storage->DestroyElement(name.c_str());
}

CString IniText(const CString& section, UINT keyId, const CString& iniFile) {
    std::string buffer(kIniBuffer, '\0');
    GetPrivateProfileString(section, ResourceText(keyId), "None", buffer.data(), kIniBuffer, iniFile);
    return CString(buffer.c_str());
}

DWORD IniNumber(const CString& section, UINT keyId, const CString& iniFile) {
    return GetPrivateProfileInt(section, ResourceText(keyId), 0, iniFile);
}

}  // namespace tavik::lib
