#include "messages/CWebTemplates.h"

#include <map>
#include <vector>

#include "accounts/CRegistryManager.h"
#include "transport/CRC32i.h"

namespace {

// Value names, as string resources.
constexpr DWORD IDS_ACCOUNT_NAME = 109;
constexpr DWORD IDS_INDEX_FILE = 110;
constexpr DWORD IDS_ACTIVE = 111;

}  // namespace

CWebTemplates::CWebTemplates(CString key) {
    ResetValues();
    if (!key.IsEmpty()) LoadRegistryData(key);
}

void CWebTemplates::ResetValues() {
    m_strAccountName.Empty();
    m_strIndexFile.Empty();
    m_dwActiveAccount = 0;
    m_dwRemove = 0;
}

DWORD CWebTemplates::SignatureOf(const CString& accountName) {
    std::vector<unsigned char> bytes(accountName.GetString(),
                                     accountName.GetString() + accountName.GetLength() + 1);
    CRC32i crc;
    crc.Update(bytes.data(), static_cast<ULONG>(bytes.size()));
    return crc.Final();
}

void CWebTemplates::LoadRegistryData(CString key) {
    if (key.IsEmpty()) return;
    CRegistryManager registry;
    DWORD disposition = 0;
    registry.OpenRegistryKey(HKEY_CURRENT_USER, key, &disposition);
    if (disposition == REG_CREATED_NEW_KEY) {
        ResetValues();
        SaveRegistryData(key);
    } else {
        std::map<DWORD, CString*> texts{{IDS_ACCOUNT_NAME, &m_strAccountName},
                                        {IDS_INDEX_FILE, &m_strIndexFile}};
        std::map<DWORD, DWORD*> numbers{{IDS_ACTIVE, &m_dwActiveAccount}};
        registry.GetStringValues(texts);
        registry.GetDwordValues(numbers);
        m_dwSignature = SignatureOf(m_strAccountName);
    }
    registry.Close();
}

void CWebTemplates::SaveRegistryData(CString parentKey) {
    if (parentKey.IsEmpty() || m_strAccountName.Find('\\') >= 0) return;
    if (m_dwRemove && m_strAccountName.IsEmpty()) return;
    CString key = parentKey;
    if (!m_strAccountName.IsEmpty()) key += "\\" + m_strAccountName;
    CRegistryManager registry;
    if (registry.OpenRegistryKey(HKEY_CURRENT_USER, key, nullptr) != ERROR_SUCCESS) return;
    if (m_dwRemove) {
        registry.DeleteKey("");
    } else {
        std::map<DWORD, CString*> texts{{IDS_ACCOUNT_NAME, &m_strAccountName},
                                        {IDS_INDEX_FILE, &m_strIndexFile}};
        std::map<DWORD, DWORD*> numbers{{IDS_ACTIVE, &m_dwActiveAccount}};
        registry.SetStringValues(texts);
        registry.SetDwordValues(numbers);
    }
    registry.Close();
}
