#include "contacts/CPhoneEntry.h"

#include <algorithm>
#include <cstdlib>
#include <map>

#include "platform/Kernel.h"

IMPLEMENT_DYNAMIC(CPhoneEntry, CRegistryManager)

namespace {

// Value names, as string resources.
constexpr DWORD IDS_PROFILE_ID = 3006;
constexpr DWORD IDS_PHONE_NUMBER = 3007;
constexpr DWORD IDS_DESCRIPTION = 3008;

CString Resource(UINT id) {
    CString text;
    text.LoadString(id);
    return text;
}

}  // namespace

CPhoneEntry::CPhoneEntry() { ResetValues(); }

// The copy opens no key of its own.
CPhoneEntry::CPhoneEntry(const CPhoneEntry& other) : CRegistryManager() { *this = other; }

CPhoneEntry& CPhoneEntry::operator=(const CPhoneEntry& other) {
    m_bDeleted = other.m_bDeleted;
    m_strPhoneNumber = other.m_strPhoneNumber;
    m_strDescription = other.m_strDescription;
    m_dwProfileID = other.m_dwProfileID;
    return *this;
}

CPhoneEntry::~CPhoneEntry() = default;

void CPhoneEntry::ResetValues() {
    m_bDeleted = false;
    m_strPhoneNumber.Empty();
    m_strDescription.Empty();
    std::srand(GetTickCount());
    m_dwProfileID = static_cast<DWORD>(std::rand());
}

bool CPhoneEntry::SaveRegistryData(CString parentKey) {
    if (parentKey.IsEmpty() || m_strPhoneNumber.IsEmpty() || m_strPhoneNumber.Find('\\') >= 0) return false;
    CString key = parentKey + "\\" + m_strPhoneNumber;
    if (OpenRegistryKey(HKEY_CURRENT_USER, key, nullptr) != ERROR_SUCCESS) return false;
    if (m_bDeleted) {
        DeleteKey("");
    } else {
        std::map<DWORD, CString*> texts{{IDS_PHONE_NUMBER, &m_strPhoneNumber},
                                        {IDS_DESCRIPTION, &m_strDescription}};
        std::map<DWORD, DWORD*> numbers{{IDS_PROFILE_ID, &m_dwProfileID}};
        SetStringValues(texts);
        SetDwordValues(numbers);
    }
    Close();
    return true;
}

bool CPhoneEntry::SaveRegistryData(UINT parentKeyId) { return SaveRegistryData(Resource(parentKeyId)); }

void CPhoneEntry::LoadRegistryData(CString key) {
    if (key.IsEmpty()) return;
    if (OpenRegistryKey(HKEY_CURRENT_USER, key, nullptr) != ERROR_SUCCESS) return;
    std::map<DWORD, CString*> texts{{IDS_PHONE_NUMBER, &m_strPhoneNumber},
                                    {IDS_DESCRIPTION, &m_strDescription}};
    std::map<DWORD, DWORD*> numbers{{IDS_PROFILE_ID, &m_dwProfileID}};
    GetStringValues(texts);
    GetDwordValues(numbers);
    Close();
}

void CPhoneEntry::LoadRegistryData(UINT keyId) { LoadRegistryData(Resource(keyId)); }

std::list<CString> CPhoneEntry::SubKeys(const CString& parentKey) {
    std::list<CString> names;
    if (parentKey.IsEmpty() || OpenRegistryKey(HKEY_CURRENT_USER, parentKey, nullptr) != ERROR_SUCCESS)
        return names;
    char name[1001];
    for (DWORD index = 0;; ++index) {
        DWORD size = sizeof name;
        if (RegEnumKeyEx(m_hKey, index, name, &size, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS)
            break;
        names.emplace_back(name, static_cast<int>(size));
    }
    Close();
    return names;
}

void CPhoneEntry::EnumRegistryKey(std::list<CPhoneEntry>& list, CString parentKey) {
    for (const CString& name : SubKeys(parentKey)) {
        CPhoneEntry record;
        record.LoadRegistryData(parentKey + "\\" + name);
        list.push_back(record);
    }
}

void CPhoneEntry::EnumRegistryKey(std::list<CPhoneEntry>& list, UINT parentKeyId) {
    EnumRegistryKey(list, Resource(parentKeyId));
}

void CPhoneEntry::EnumRegistryKey(std::list<CPhoneEntry*>& list, CString parentKey, bool merge) {
    for (const CString& name : SubKeys(parentKey)) {
        auto* record = new CPhoneEntry;
        record->LoadRegistryData(parentKey + "\\" + name);
        if (merge) {
            auto known = std::find_if(list.begin(), list.end(), [&](CPhoneEntry* p) {
                return p->m_dwProfileID == record->m_dwProfileID;
            });
            if (known != list.end()) {
                **known = *record;
                delete record;
                continue;
            }
        }
        list.push_back(record);
    }
}

void CPhoneEntry::EnumRegistryKey(std::list<CPhoneEntry*>& list, UINT parentKeyId, bool merge) {
    EnumRegistryKey(list, Resource(parentKeyId), merge);
}

std::list<CPhoneEntry*>::iterator CPhoneEntry::FindProfile(std::list<CPhoneEntry*>& list, DWORD id) {
    return std::find_if(list.begin(), list.end(),
                        [&](CPhoneEntry* p) { return !p->IsDeleted() && *p == id; });
}
