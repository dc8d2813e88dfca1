// A user profile in memory and in the registry. The users' key holds one sub-key per user with its
// eight values; the user's registry location (the root for the default user, its own key for the
// others) holds the sub-keys of GetRegistryKey.
#include "accounts/CUserProfile.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "accounts/internal/UserStrings.h"
#include "messages/CStorageManager.h"
#include "platform/FileSystem.h"
#include "platform/Kernel.h"
#include "platform/Registry.h"
#include "transport/MD5.h"
#include "util/CFileName.h"

using namespace tavik::lib;

IMPLEMENT_DYNAMIC(CUserProfile, CRegistryManager)

namespace {

CString resource(UINT id) {
    CString text;
    text.LoadString(id);
    return text;
}

// The digest as the stored text: its bytes up to the first zero byte.
CString digestText(const CString& password) {
    MD5 md5;
    std::string bytes = password.str();
    md5.Update(reinterpret_cast<unsigned char*>(bytes.data()), static_cast<unsigned int>(bytes.size()));
    const MD5::Context context = md5.Final();
    const char* digest = reinterpret_cast<const char*>(context.digest);
    return CString(digest, static_cast<int>(strnlen(digest, sizeof context.digest)));
}

// "<application directory><name><extension>", the directory with its separator.
CString besideProgram(const CString& name, const char* extension) {
    char program[MAX_PATH + 1] = {};
    GetModuleFileName(nullptr, program, MAX_PATH);
    CString path;
    path.Format("%s%s%s%s", "", CFileName(program).GetRoot().GetString(), name.GetString(), extension);
    return path;
}

bool keyExists(const CString& key) {
    HKEY handle = nullptr;
    if (RegOpenKeyEx(HKEY_CURRENT_USER, key, 0, KEY_READ, &handle) != ERROR_SUCCESS) return false;
    RegCloseKey(handle);
    return true;
}

// Removes everything under key, deepest first, then key itself; a missing key is not created.
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
    for (const std::string& child : children) {
        removeTree(key + "\\" + child.c_str());
    }
    RegCloseKey(handle);
    CRegistryManager reg;
    if (reg.OpenRegistryKey(HKEY_CURRENT_USER, key, nullptr) != ERROR_SUCCESS) return;
    reg.DeleteKey("");
    reg.Close();
}

}  // namespace

// The user's value maps, in the order of the settings.
#define TAVIK_USER_MAPS(p)                                                                        \
    std::map<DWORD, CString*> texts = {{IDS_USER_PROFILE_NAME, &(p).m_strUserName},               \
                                       {IDS_USER_PROFILE_PASSWORD, &(p).m_strPassword},           \
                                       {IDS_USER_DATA_FILE, &(p).m_strDataFile},                  \
                                       {IDS_USER_SETTINGS_FILE, &(p).m_strSettingsFile},          \
                                       {IDS_USER_REGISTRY_LOCATION, &(p).m_strRegistryLocation}}; \
    std::map<DWORD, DWORD*> numbers = {{IDS_USER_DEFAULT, &(p).m_dwDefault},                      \
                                       {IDS_USER_USE_REGISTRY, &(p).m_dwUseRegistry},             \
                                       {IDS_USER_PROFILE_ID, &(p).m_dwProfileID}}

CUserProfile::CUserProfile()
    : m_pUserStorage(std::make_unique<CStorageManager>()),
      m_pAccountsStorage(std::make_unique<CStorageManager>()),
      m_LastFound(m_ProfileList.end()) {
    ResetValues();
}

CUserProfile::CUserProfile(const CUserProfile& other)
    : CRegistryManager(),
      m_pUserStorage(std::make_unique<CStorageManager>()),
      m_pAccountsStorage(std::make_unique<CStorageManager>()),
      m_LastFound(m_ProfileList.end()) {
    CopyValues(other);
}

CUserProfile& CUserProfile::operator=(const CUserProfile& other) {
    if (this != &other) CopyValues(other);
    return *this;
}

CUserProfile::~CUserProfile() {
    m_pOwnedCurrent.reset();
    m_pAccountsStorage->Close();
    m_pUserStorage->Close();
}

void CUserProfile::CopyValues(const CUserProfile& other) {
    m_strUserName = other.m_strUserName;
    m_strPassword = other.m_strPassword;
    m_strDataFile = other.m_strDataFile;
    m_strSettingsFile = other.m_strSettingsFile;
    m_strRegistryLocation = other.m_strRegistryLocation;
    m_dwDefault = other.m_dwDefault;
    m_dwUseRegistry = other.m_dwUseRegistry;
    m_dwProfileID = other.m_dwProfileID;
    m_bDeleted = other.m_bDeleted;
    m_ProfileList = other.m_ProfileList;
    m_PrevProfileList = other.m_PrevProfileList;
    m_LastFound = m_ProfileList.end();
    // The copy may be the source's own current account: copied before the old one goes.
    std::unique_ptr<CMailBoxProfile> current;
    if (other.m_pCurrentProfile) current = std::make_unique<CMailBoxProfile>(*other.m_pCurrentProfile);
    m_pCurrentProfile = current.get();
    m_pOwnedCurrent = std::move(current);
}

void CUserProfile::ResetValues() {
    m_strUserName.Empty();
    m_strPassword.Empty();
    m_strDataFile.Empty();
    m_strSettingsFile.Empty();
    m_strRegistryLocation.Empty();
    m_dwDefault = 0;
    m_dwUseRegistry = 1;
    std::srand(GetTickCount());
    m_dwProfileID = static_cast<DWORD>(std::rand());
    m_bDeleted = false;
}

void CUserProfile::SetUser(const CString& name, const CString& location, DWORD isDefault) {
    m_strUserName = name;
    m_strPassword.Empty();
    m_strDataFile = besideProgram(name, ".tvd");
    m_strSettingsFile = besideProgram(name, ".tvs");
    m_strRegistryLocation = location;
    m_dwDefault = isDefault;
    m_dwUseRegistry = 1;
    SaveRegistryData(GetUserKeyResID(), false, nullptr, false, true);
}

void CUserProfile::CreateSpecialDefaultUser() { SetUser("Default", resource(IDS_USER_REGISTRY_ROOT), 1); }

void CUserProfile::CreateUser(CString name) {
    CString location;
    location.Format("%s\\Users\\%s", resource(IDS_USER_REGISTRY_ROOT).GetString(), name.GetString());
    SetUser(name, location, 0);
}

CString CUserProfile::GetUseRegistry() const { return CString(static_cast<char>(m_dwUseRegistry), 1); }

void CUserProfile::SetPassword(CString password) {
    if (password.IsEmpty())
        m_strPassword.Empty();
    else
        m_strPassword = digestText(password);
}

bool CUserProfile::VerifyPassword(CString password) const {
    if (password.IsEmpty()) return m_strPassword.IsEmpty();
    return digestText(password) == m_strPassword;
}

CString CUserProfile::GetRegistryKey(int subKey) const {
    static const char* const kFormats[] = {"%s",
                                           "%s\\Accounts",
                                           "%s\\Configuration",
                                           "%s\\Environment",
                                           "%s\\GlobalShield",
                                           "%s\\Templates",
                                           "%s\\Address"};
    CString key;
    if (subKey < 0 || subKey >= static_cast<int>(std::size(kFormats)) || m_strRegistryLocation.IsEmpty())
        return key;
    key.Format(kFormats[subKey], m_strRegistryLocation.GetString());
    return key;
}

UINT CUserProfile::GetUserKeyResID() { return IDS_USER_REGISTRY_USERS; }

// --- registry

void CUserProfile::LoadRegistryData(CString userKey) {
    if (userKey.IsEmpty()) return;
    CRegistryManager reg;
    DWORD disposition = 0;
    if (reg.OpenRegistryKey(HKEY_CURRENT_USER, userKey, &disposition) != ERROR_SUCCESS) return;
    if (disposition != REG_OPENED_EXISTING_KEY) {
        reg.Close();
        ResetValues();
        // Writes nothing: the user has no name yet.
        SaveRegistryData(userKey, false, nullptr, true, true);
        return;
    }
    TAVIK_USER_MAPS(*this);
    reg.GetStringValues(texts);
    reg.GetDwordValues(numbers);
    reg.Close();
}

void CUserProfile::LoadRegistryData(UINT userKeyId) { LoadRegistryData(resource(userKeyId)); }

void CUserProfile::SaveRegistryData(CString parentKey, bool unused, _tagLoadProgressData* progress,
                                    bool saveStorage, bool saveMessages) {
    if (parentKey.IsEmpty() || m_strUserName.IsEmpty()) return;
    const CString userKey = parentKey + "\\" + m_strUserName;
    if (m_bDeleted) {
        RemoveUser(userKey);
        return;
    }
    CRegistryManager reg;
    if (reg.OpenRegistryKey(HKEY_CURRENT_USER, userKey, nullptr) == ERROR_SUCCESS) {
        TAVIK_USER_MAPS(*this);
        reg.SetStringValues(texts);
        reg.SetDwordValues(numbers);
    }
    reg.Close();
    const CString accountsKey = GetRegistryKey(SUBKEY_ACCOUNTS);
    for (CMailBoxProfile* account : m_ProfileList)
        if (account && account->IsValid()) account->SaveRegistryData(accountsKey);
    if (saveStorage) SaveStorageData(m_strSettingsFile, unused, progress, saveMessages);
}

void CUserProfile::SaveRegistryData(UINT parentKeyId, bool unused, _tagLoadProgressData* progress,
                                    bool saveStorage, bool saveMessages) {
    SaveRegistryData(resource(parentKeyId), unused, progress, saveStorage, saveMessages);
}

#undef TAVIK_USER_MAPS

void CUserProfile::LoadAccountsFromRegistry() {
    const CString accountsKey = GetRegistryKey(SUBKEY_ACCOUNTS);
    if (accountsKey.IsEmpty() || !keyExists(accountsKey)) return;
    CMailBoxProfile walker;
    if (walker.OpenRegistryKey(HKEY_CURRENT_USER, accountsKey, nullptr) != ERROR_SUCCESS) return;
    walker.EnumRegistryKey(m_ProfileList, accountsKey, m_strUserName, true);
    walker.Close();
}

// The accounts' keys go first (each account removes its own tree), then everything under the user's own
// key: for a user other than the default one that is its location, with the option sets, templates and
// address book. The default user's location is the root, which every user shares: only its accounts go
// from there. Then the files: the accounts' message files, named in the settings file, and the settings
// file itself, so that a user made again under the name starts empty.
void CUserProfile::RemoveUser(const CString& userKey) {
    // What an earlier activation kept aside goes first: it holds storages the reads below need.
    std::vector<CString> files;
    m_pOwnedCurrent.reset();
    for (CMailBoxProfile* account : m_PrevProfileList) {
        if (!account) continue;
        if (!account->GetDataFile().IsEmpty()) files.push_back(account->GetDataFile());
        if (account == m_pCurrentProfile) m_pCurrentProfile = nullptr;
        account->UnloadMessages();
        delete account;
    }
    m_PrevProfileList.clear();
    if (m_ProfileList.empty()) LoadAccountsFromRegistry();
    const bool hasFile =
        !m_strSettingsFile.IsEmpty() && GetFileAttributes(m_strSettingsFile) != INVALID_FILE_ATTRIBUTES;
    if (hasFile)
        ReadStorageData(m_strSettingsFile, false, false, nullptr, false,
                        CMailBoxProfile::READ_VALIDITY_CHECK);
    const CString accountsKey = GetRegistryKey(SUBKEY_ACCOUNTS);
    for (CMailBoxProfile* account : m_ProfileList) {
        if (!account) continue;
        if (account->IsValid()) {
            account->DeleteEntry();
            account->SaveRegistryData(accountsKey);
        }
        if (!account->GetDataFile().IsEmpty()) files.push_back(account->GetDataFile());
        if (account == m_pCurrentProfile) m_pCurrentProfile = nullptr;
        account->UnloadMessages();
        delete account;
    }
    m_ProfileList.clear();
    m_LastFound = m_ProfileList.end();
    m_pCurrentProfile = nullptr;
    removeTree(userKey);
    m_pAccountsStorage->Close();
    m_pUserStorage->Close();
    for (const CString& file : files) DeleteFile(file);
    if (hasFile) DeleteFile(m_strSettingsFile);
}

// --- accounts

void CUserProfile::AddMailBox(CMailBoxProfile* profile) {
    if (!profile) return;
    for (CMailBoxProfile* present : m_ProfileList)
        if (present == profile) return;
    // Its message file is named after the user: two users' accounts of one name keep apart.
    profile->SetProfileUserName(m_strUserName);
    // Accounts made within one millisecond draw the same Signature (making the storage name reseeds the
    // generator from the tick count), and the Signature identifies an account: draw on until it is its own.
    auto taken = [&](DWORD signature) {
        for (CMailBoxProfile* present : m_ProfileList)
            if (present && present->GetSignature() == signature) return true;
        for (CMailBoxProfile* present : m_PrevProfileList)
            if (present && present->GetSignature() == signature) return true;
        return false;
    };
    while (taken(profile->GetSignature())) profile->SetSignature(static_cast<DWORD>(std::rand()));
    m_ProfileList.push_back(profile);
}

CUserProfile::ProfilePosition CUserProfile::FindMailBox(DWORD id) {
    m_LastFound = CMailBoxProfile::FindProfile(m_ProfileList, id);
    return m_LastFound;
}

CUserProfile::ProfilePosition CUserProfile::FindMailBox(CString name) {
    m_LastFound = CMailBoxProfile::FindProfile(m_ProfileList, name);
    return m_LastFound;
}

bool CUserProfile::FindMailBox(CString name, bool makeCurrent) {
    const ProfilePosition found = FindMailBox(name);
    if (found == m_ProfileList.end()) return false;
    if (makeCurrent) m_pCurrentProfile = *found;
    return true;
}

void CUserProfile::GetProfileList(std::list<CMailBoxProfile*>& list) const {
    list.insert(list.end(), m_ProfileList.begin(), m_ProfileList.end());
}

// --- users

std::list<CUserProfile*>::iterator CUserProfile::FindProfile(std::list<CUserProfile*>& list, DWORD id) {
    for (auto it = list.begin(); it != list.end(); ++it)
        if (*it && !(*it)->IsDeleted() && (*it)->GetProfileID() == id) return it;
    return list.end();
}

std::list<CUserProfile*>::iterator CUserProfile::FindProfile(std::list<CUserProfile*>& list, CString name) {
    for (auto it = list.begin(); it != list.end(); ++it)
        if (*it && !(*it)->IsDeleted() && (*it)->GetUserName().CompareNoCase(name) == 0) return it;
    return list.end();
}

namespace {

// The sub-key names of the open key, read before any user is loaded (a load can create keys).
std::vector<std::string> subKeyNames(HKEY key) {
    std::vector<std::string> names;
    if (!key) return names;
    char name[1000];
    for (DWORD index = 0;; ++index) {
        DWORD size = sizeof name;
        if (RegEnumKeyEx(key, index, name, &size, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS) break;
        names.emplace_back(name, size);
    }
    return names;
}

}  // namespace

void CUserProfile::EnumRegistryKey(std::list<CUserProfile>& list, CString usersKey) {
    for (const std::string& name : subKeyNames(m_hKey)) {
        list.emplace_back();
        list.back().LoadRegistryData(usersKey + "\\" + name.c_str());
        if (list.back().GetUserName().IsEmpty()) list.pop_back();
    }
}

void CUserProfile::EnumRegistryKey(std::list<CUserProfile>& list, UINT usersKeyId) {
    EnumRegistryKey(list, resource(usersKeyId));
}

void CUserProfile::EnumRegistryKey(std::list<CUserProfile*>& list, CString usersKey, bool merge) {
    for (const std::string& name : subKeyNames(m_hKey)) {
        auto loaded = std::make_unique<CUserProfile>();
        loaded->LoadRegistryData(usersKey + "\\" + name.c_str());
        if (loaded->GetUserName().IsEmpty()) continue;
        CUserProfile* present = nullptr;
        if (merge)
            for (CUserProfile* user : list)
                if (user && user->m_dwProfileID == loaded->m_dwProfileID) {
                    present = user;
                    break;
                }
        if (!present) {
            list.push_back(loaded.release());
            continue;
        }
        // A loaded user has no accounts: the present one keeps its own, and its files stay open.
        present->m_strUserName = loaded->m_strUserName;
        present->m_strPassword = loaded->m_strPassword;
        present->m_strDataFile = loaded->m_strDataFile;
        present->m_strSettingsFile = loaded->m_strSettingsFile;
        present->m_strRegistryLocation = loaded->m_strRegistryLocation;
        present->m_dwDefault = loaded->m_dwDefault;
        present->m_dwUseRegistry = loaded->m_dwUseRegistry;
        present->m_bDeleted = loaded->m_bDeleted;
    }
}

void CUserProfile::EnumRegistryKey(std::list<CUserProfile*>& list, UINT usersKeyId, bool merge) {
    EnumRegistryKey(list, resource(usersKeyId), merge);
}

bool CUserProfile::operator==(const CString& name) const { return m_strUserName.CompareNoCase(name) == 0; }

bool CUserProfile::operator<(const CUserProfile& other) const {
    return std::strcmp(m_strUserName.GetString(), other.m_strUserName.GetString()) < 0;
}

bool CUserProfile::operator>(const CUserProfile& other) const {
    return std::strcmp(m_strUserName.GetString(), other.m_strUserName.GetString()) > 0;
}
