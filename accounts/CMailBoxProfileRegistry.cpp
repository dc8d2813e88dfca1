// An account in the registry, under the current user. Its key "<parent>\<AccountName>" holds the 13
// texts and 18 numbers of the settings (and the two connection securities when set), the rule containers
// "AutoResponder", "Redirector" and "Shields" (one sub-key per rule) and the anonymous lists "Friends",
// "Spam" and "Folders" ("Value0", "Value1", ...).
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "accounts/CMailBoxProfile.h"
#include "accounts/internal/AccountStorages.h"
#include "accounts/internal/AccountStrings.h"
#include "platform/Registry.h"
#include "transport/CRC32i.h"

using namespace tavik::lib;

namespace {

CString resource(UINT id) {
    CString text;
    text.LoadString(id);
    return text;
}

CString subKey(const CString& key, UINT nameId) { return key + "\\" + resource(nameId); }

// Opens the key (creating it) and removes it through its own handle; a key with sub-keys stays.
void removeKey(const CString& key) {
    CRegistryManager reg;
    if (reg.OpenRegistryKey(HKEY_CURRENT_USER, key, nullptr) != ERROR_SUCCESS) return;
    reg.DeleteKey("");
    reg.Close();
}

// Removes whatever is left under key, deepest first, then key itself; a missing key is not created.
void removeTree(const CString& key) {
    HKEY handle = nullptr;
    if (RegOpenKeyEx(HKEY_CURRENT_USER, key, 0, KEY_READ, &handle) != ERROR_SUCCESS) return;
    std::vector<std::string> children;
    char name[1000];
    for (DWORD index = 0;; ++index) {
        DWORD size = sizeof name;
        if (RegEnumKeyEx(handle, index, name, &size, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS)
            break;
        children.emplace_back(name, size);
    }
    RegCloseKey(handle);
    for (const std::string& child : children) removeTree(key + "\\" + child.c_str());
    removeKey(key);
}

// A registry holder for a key opened without creating it: a load never writes.
template <class Holder>
class Existing : public Holder {
public:
    bool Open(const CString& key) {
        return RegOpenKeyEx(HKEY_CURRENT_USER, key, 0, KEY_READ, &this->m_hKey) == ERROR_SUCCESS;
    }
};

// A missing list key reads as an empty list, as the values of an empty key do.
void readList(const CString& key, UINT nameId, CStringArray& list) {
    Existing<CRegistryManager> reg;
    if (!reg.Open(subKey(key, nameId))) return;
    reg.GetAnonStringValues(list);
    reg.Close();
}

// Deleted and made again, so that no value of a longer old list survives.
void rewriteList(const CString& key, UINT nameId, CStringArray& list) {
    const CString path = subKey(key, nameId);
    removeKey(path);
    CRegistryManager reg;
    if (reg.OpenRegistryKey(HKEY_CURRENT_USER, path, nullptr) != ERROR_SUCCESS) return;
    reg.SetAnonStringValues(list);
    reg.Close();
}

// Written only when not automatic, so that an account that never had it set has the key it always had.
void writeSecurity(CRegistryManager& reg, UINT nameId, DWORD value) {
    const CString name = resource(nameId);
    if (value == CMailBoxData::SECURITY_AUTOMATIC)
        RegDeleteValue(reg.GetKeyHandle(), name);
    else
        RegSetValueEx(reg.GetKeyHandle(), name, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&value),
                      sizeof value);
}

template <class Kind>
void loadRules(const CString& key, UINT containerId, std::list<Kind>& rules) {
    const CString container = subKey(key, containerId);
    Existing<Kind> reader;
    if (!reader.Open(container)) return;
    reader.EnumRegistryKey(rules, container);
    reader.Close();
}

template <class Kind>
void removeRules(const CString& key, UINT containerId, std::list<Kind>& rules) {
    const CString container = subKey(key, containerId);
    for (Kind& rule : rules) {
        rule.SetDeleted(true);
        rule.SaveRegistryData(container);
    }
    removeKey(container);
}

CString foldedName(const CString& name) {
    CString folded(name);
    folded.MakeUpper();
    return folded;
}

}  // namespace

// The settings' value maps; the caller holds the account lock.
#define TAVIK_REGISTRY_MAPS(p)                                                                      \
    std::map<DWORD, CString*> texts = {{IDS_ACCOUNT_NAME, &(p).m_strAccountName},                   \
                                       {IDS_REAL_NAME, &(p).m_strRealName},                         \
                                       {IDS_EMAIL_ADDRESS, &(p).m_strEmailAddress},                 \
                                       {IDS_REPLY_TO, &(p).m_strReplyTo},                           \
                                       {IDS_ORGANIZATION, &(p).m_strOrganization},                  \
                                       {IDS_SERVER_NAME, &(p).m_strIncomingServerName},             \
                                       {IDS_OUTGOING_MAIL_SERVER, &(p).m_strOutgoingServer},        \
                                       {IDS_INCOMING_PROTOCOL, &(p).m_strIncomingProtocol},         \
                                       {IDS_OUTGOING_PROTOCOL, &(p).m_strOutgoingProtocol},         \
                                       {IDS_USER_NAME, &(p).m_strUserName},                         \
                                       {IDS_USER_PASSWORD, &(p).m_strPassword},                     \
                                       {IDS_OUTGOING_SERVER_USERNAME, &(p).m_strOutgoingUserName},  \
                                       {IDS_OUTGOING_SERVER_PASSWORD, &(p).m_strOutgoingPassword}}; \
    std::map<DWORD, DWORD*> numbers = {{IDS_SPAM_ONLY, &(p).m_dwSpamOnly},                          \
                                       {IDS_SECURE_LOGIN, &(p).m_dwSecureLogin},                    \
                                       {IDS_DISABLED, &(p).m_dwAccountDisabled},                    \
                                       {IDS_AUTO_DOWNLOAD, &(p).m_dwAutoDownload},                  \
                                       {IDS_SPAM_FILTER, &(p).m_dwFiltering},                       \
                                       {IDS_FILTER_TYPE, &(p).m_dwFilterType},                      \
                                       {IDS_TREE_STATE, &(p).m_dwCollapsed},                        \
                                       {IDS_LEAVE_COPY, &(p).m_dwLeaveCopy},                        \
                                       {IDS_SAVE_COPY, &(p).m_dwSaveCopy},                          \
                                       {IDS_RETRIEVE_BODY, &(p).m_dwRetrieveBody},                  \
                                       {IDS_MAXIMUM_BODY_SIZE, &(p).m_dwMaxBodySize},               \
                                       {IDS_ALWAYS_RESCAN, &(p).m_dwAlwaysRescan},                  \
                                       {IDS_TIMEOUT, &(p).m_dwTimeoutValue},                        \
                                       {IDS_PROCESS_LIMIT, &(p).m_dwProcessLimit},                  \
                                       {IDS_MAXIMUM_SCAN_LIMIT, &(p).m_dwSessionMax},               \
                                       {IDS_LEAVE_COMPLETE_MESSAGES, &(p).m_dwLeaveFullMsgs},       \
                                       {IDS_ACCOUNT_PROFILE_ID, &(p).m_dwSignature},                \
                                       {IDS_COMPRESS_DATABASE, &(p).m_dwCompressDatabase}}

void CMailBoxProfile::ReadAccountKey(CRegistryManager& reg) {
    CSingleLock lock(&m_csLock, TRUE);
    TAVIK_REGISTRY_MAPS(*this);
    reg.GetStringValues(texts);
    reg.GetDwordValues(numbers);
    // Absent unless set: a key without them, or one written before they existed, reads as automatic.
    m_dwIncomingSecurity = m_dwOutgoingSecurity = SECURITY_AUTOMATIC;
    std::map<DWORD, DWORD*> security = {{IDS_INCOMING_SECURITY, &m_dwIncomingSecurity},
                                        {IDS_OUTGOING_SECURITY, &m_dwOutgoingSecurity}};
    reg.GetDwordValues(security);
}

void CMailBoxProfile::WriteAccountKey(const CString& accountKey) {
    CRegistryManager reg;
    if (reg.OpenRegistryKey(HKEY_CURRENT_USER, accountKey, nullptr) == ERROR_SUCCESS) {
        CSingleLock lock(&m_csLock, TRUE);
        TAVIK_REGISTRY_MAPS(*this);
        reg.SetStringValues(texts);
        reg.SetDwordValues(numbers);
        writeSecurity(reg, IDS_INCOMING_SECURITY, m_dwIncomingSecurity);
        writeSecurity(reg, IDS_OUTGOING_SECURITY, m_dwOutgoingSecurity);
    }
    reg.Close();
    for (CAutoResponderProfile& rule : m_AutoResponders)
        rule.SaveRegistryData(subKey(accountKey, IDS_AUTORESPONDER));
    for (CForwardMailProfile& rule : m_Redirectors) rule.SaveRegistryData(subKey(accountKey, IDS_REDIRECTOR));
    for (CSpamBlockProfile& rule : m_SpamShields) rule.SaveRegistryData(subKey(accountKey, IDS_SHIELDS));
    CStringArray list;
    GetFriendList(list);
    rewriteList(accountKey, IDS_FRIENDS, list);
    GetSpamList(list);
    rewriteList(accountKey, IDS_SPAM, list);
    GetFolderList(list);
    rewriteList(accountKey, IDS_FOLDERS, list);
}

#undef TAVIK_REGISTRY_MAPS

// Rules first (each removes its own key), then the containers and lists, then the account key, which
// goes only once nothing is left under it. Whatever the lists did not know of (a rule the host dropped
// without deleting it) is removed after them, so that a deleted account never comes back.
void CMailBoxProfile::RemoveAccountKey(const CString& accountKey) {
    removeRules(accountKey, IDS_AUTORESPONDER, m_AutoResponders);
    removeRules(accountKey, IDS_REDIRECTOR, m_Redirectors);
    removeRules(accountKey, IDS_SHIELDS, m_SpamShields);
    removeKey(subKey(accountKey, IDS_FRIENDS));
    removeKey(subKey(accountKey, IDS_SPAM));
    removeKey(subKey(accountKey, IDS_FOLDERS));
    removeKey(accountKey);
    removeTree(accountKey);
}

void CMailBoxProfile::LoadRegistryData(CString accountKey) {
    CSingleLock lock(&m_csLoadRegistry, TRUE);
    if (accountKey.IsEmpty()) return;
    CRegistryManager reg;
    DWORD disposition = 0;
    if (reg.OpenRegistryKey(HKEY_CURRENT_USER, accountKey, &disposition) != ERROR_SUCCESS) return;
    if (disposition != REG_OPENED_EXISTING_KEY) {
        // A new key gets the defaults, written into the key itself (the account has no name yet).
        reg.Close();
        ResetValues();
        CSingleLock save(&m_csSaveRegistry, TRUE);
        WriteAccountKey(accountKey);
    } else {
        ReadAccountKey(reg);
        reg.Close();
    }
    loadRules(accountKey, IDS_AUTORESPONDER, m_AutoResponders);
    loadRules(accountKey, IDS_REDIRECTOR, m_Redirectors);
    loadRules(accountKey, IDS_SHIELDS, m_SpamShields);
    CStringArray spammers, friends, folders;
    readList(accountKey, IDS_SPAM, spammers);
    readList(accountKey, IDS_FRIENDS, friends);
    readList(accountKey, IDS_FOLDERS, folders);
    {
        CSingleLock account(&m_csLock, TRUE);
        m_SpamList.Copy(spammers);
        m_FriendList.Copy(friends);
        m_FolderList.Copy(folders);
        CRC32i crc;
        crc.Update(reinterpret_cast<unsigned char*>(m_strAccountName.str().data()),
                   static_cast<ULONG>(m_strAccountName.GetLength()));
        m_dwSignature = crc.Final();
    }
    ForgetMatchers();
}

void CMailBoxProfile::SaveRegistryData(CString parentKey) {
    CSingleLock lock(&m_csSaveRegistry, TRUE);
    const CString name = GetAccountName();
    // Without a name the account key would be the parent key itself.
    if (name.IsEmpty() || parentKey.IsEmpty()) return;
    const CString accountKey = parentKey + "\\" + name;
    if (IsDeleted())
        RemoveAccountKey(accountKey);
    else
        WriteAccountKey(accountKey);
}

void CMailBoxProfile::EnumRegistryKey(std::list<CMailBoxProfile>& list, CString parentKey) {
    if (!m_hKey) return;
    char name[1000];
    for (DWORD index = 0;; ++index) {
        DWORD size = sizeof name;
        if (RegEnumKeyEx(m_hKey, index, name, &size, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS)
            break;
        // Loaded in place: the same as loading a temporary and appending its copy.
        list.emplace_back();
        list.back().LoadRegistryData(parentKey + "\\" + name);
    }
}

void CMailBoxProfile::EnumRegistryKey(std::list<CMailBoxProfile*>& list, CString parentKey, CString userName,
                                      bool merge) {
    if (!m_hKey) return;
    // Accounts by folded name, the first of each as FindProfile finds it.
    std::unordered_map<std::string, CMailBoxProfile*> byName;
    if (merge)
        for (CMailBoxProfile* profile : list)
            if (profile) byName.emplace(foldedName(profile->GetAccountName()).str(), profile);
    char name[1000];
    for (DWORD index = 0;; ++index) {
        DWORD size = sizeof name;
        if (RegEnumKeyEx(m_hKey, index, name, &size, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS)
            break;
        auto loaded = std::make_unique<CMailBoxProfile>();
        loaded->LoadRegistryData(parentKey + "\\" + name);
        if (loaded->GetAccountName().IsEmpty()) continue;
        if (!merge) {
            list.push_back(loaded.release());
            continue;
        }
        auto found = byName.find(foldedName(loaded->GetAccountName()).str());
        if (found == byName.end()) {
            loaded->SetProfileUserName(userName);
            byName.emplace(foldedName(loaded->GetAccountName()).str(), loaded.get());
            list.push_back(loaded.release());
            continue;
        }
        found->second->MergeLoaded(*loaded);
        found->second->SetProfileUserName(userName);
        found->second->SetValid(true);
    }
}

// The loaded account's content, keeping what this one has open or owns: its storages, its messages and
// its contacts (the loaded account has none of them).
void CMailBoxProfile::MergeLoaded(const CMailBoxProfile& loaded) {
    std::shared_ptr<Storages> storages = m_pStorages;
    std::list<CMessageList*> messages;
    messages.swap(m_MessageList);
    *this = loaded;
    m_pStorages = storages;
    m_MessageList.swap(messages);
    m_LastAdded = m_MessageList.end();
    m_Index = MessageIndex();
}
