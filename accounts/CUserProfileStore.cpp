// A user profile in structured storage, and its activation. The settings file holds the user's eight
// values as streams named as the registry values (texts without terminator, numbers as decimal text)
// and the storage "Accounts" with one sub-storage per account.
#include <memory>
#include <string>

#include "accounts/CUserProfile.h"
#include "accounts/internal/UserStrings.h"
#include "messages/CStorageManager.h"
#include "messages/CStorageManagerException.h"
#include "platform/FileSystem.h"
#include "platform/OleStorage.h"

using namespace tavik::lib;

namespace {

constexpr DWORD kMode = STGM_READWRITE | STGM_SHARE_EXCLUSIVE;

// Longer names are never storage names: such an account gets a made-up one when it is first saved.
constexpr int kLongestStorageName = 30;

void commit(CStorageManager& storage) {
    if (!storage.IsOpen()) return;
    storage.m_hResult = storage.GetStorage()->Commit(STGC_DEFAULT);
    if (FAILED(storage.m_hResult)) throw new CStorageManagerException(storage.m_hResult);
}

}  // namespace

void CUserProfile::InitializeStorage(CString file) {
    try {
        if (!m_pUserStorage->IsOpen() && !file.IsEmpty()) m_pUserStorage->OpenStorageFile(file, true);
        if (!m_pAccountsStorage->IsOpen() && m_pUserStorage->IsOpen())
            m_pAccountsStorage->OpenSubStorage(m_pUserStorage->GetStorage(), IDS_USER_ACCOUNTS, kMode, true,
                                               true);
    } catch (CStorageManagerException* e) {
        e->Delete();
    }
}

void CUserProfile::ReadStorageData(CString file, bool readUserValues, bool userValuesOnly,
                                   _tagLoadProgressData* progress, bool loadMessages, READ_TYPE readType) {
    InitializeStorage(file);
    if (!m_pUserStorage->IsOpen()) return;
    try {
        if (readUserValues) {
            CStorageManager& user = *m_pUserStorage;
            user.ReadString(IDS_USER_PROFILE_NAME, m_strUserName);
            user.ReadString(IDS_USER_PROFILE_PASSWORD, m_strPassword);
            user.ReadString(IDS_USER_DATA_FILE, m_strDataFile);
            user.ReadString(IDS_USER_SETTINGS_FILE, m_strSettingsFile);
            user.ReadString(IDS_USER_REGISTRY_LOCATION, m_strRegistryLocation);
            user.ReadNumber(IDS_USER_DEFAULT, m_dwDefault);
            user.ReadNumber(IDS_USER_USE_REGISTRY, m_dwUseRegistry);
            user.ReadNumber(IDS_USER_PROFILE_ID, m_dwProfileID);
        }
        if (userValuesOnly) return;
        InitializeStorage(file);
        if (m_pAccountsStorage->IsOpen())
            CMailBoxProfile::EnumStorage(m_pAccountsStorage->GetStorage(), m_ProfileList, m_strUserName,
                                         progress, loadMessages, readType);
    } catch (CStorageManagerException* e) {
        e->Delete();
    }
}

void CUserProfile::SaveStorageData(CString file, bool, _tagLoadProgressData* progress, bool saveMessages) {
    InitializeStorage(file);
    if (!m_pUserStorage->IsOpen()) return;
    try {
        CStorageManager& user = *m_pUserStorage;
        user.WriteString(IDS_USER_PROFILE_NAME, m_strUserName);
        user.WriteString(IDS_USER_PROFILE_PASSWORD, m_strPassword);
        user.WriteString(IDS_USER_DATA_FILE, m_strDataFile);
        user.WriteString(IDS_USER_SETTINGS_FILE, m_strSettingsFile);
        user.WriteString(IDS_USER_REGISTRY_LOCATION, m_strRegistryLocation);
        user.WriteNumber(IDS_USER_DEFAULT, m_dwDefault);
        user.WriteNumber(IDS_USER_USE_REGISTRY, m_dwUseRegistry);
        user.WriteNumber(IDS_USER_PROFILE_ID, m_dwProfileID);
        InitializeStorage(file);
        if (m_pAccountsStorage->IsOpen()) {
            IStorage* accounts = m_pAccountsStorage->GetStorage();
            // One account that cannot be saved does not keep the others from it.
            for (CMailBoxProfile* account : m_ProfileList) {
                if (!account) continue;
                try {
                    account->SaveStorageData(accounts, progress, saveMessages);
                } catch (CStorageManagerException* e) {
                    e->Delete();
                }
            }
            commit(*m_pAccountsStorage);
        }
        commit(user);
        RemoveDeletedAccountFiles();
    } catch (CStorageManagerException* e) {
        e->Delete();
    }
}

// Only once the settings file no longer lists them: a save that fails keeps the accounts whole. A file
// that a live account names as well stays.
void CUserProfile::RemoveDeletedAccountFiles() {
    for (CMailBoxProfile* account : m_ProfileList) {
        if (!account || !account->IsDeleted() || account->GetDataFile().IsEmpty()) continue;
        const CString file = account->GetDataFile();
        bool shared = false;
        for (CMailBoxProfile* other : m_ProfileList)
            if (other && !other->IsDeleted() && other->GetDataFile() == file) shared = true;
        if (!shared && GetFileAttributes(file) != INVALID_FILE_ATTRIBUTES) DeleteFile(file);
        account->SetDataFile(CString());
    }
}

// --- activation

void CUserProfile::ActivateProfile(_tagLoadProgressData* progress, bool loadMessages) {
    for (CMailBoxProfile* account : m_ProfileList) {
        if (account) account->SetValid(false);
        m_PrevProfileList.push_back(account);
    }
    m_ProfileList.clear();
    m_LastFound = m_ProfileList.end();
    LoadAccountsFromRegistry();

    // The account that was current stays so, as the same account of the new list. A registry load gives
    // an account the checksum of its name as Signature, the settings file the number it was made with:
    // the name decides when the numbers differ.
    CMailBoxProfile* current = nullptr;
    if (m_pCurrentProfile) {
        ProfilePosition same = CMailBoxProfile::FindProfile(m_ProfileList, m_pCurrentProfile->GetSignature());
        if (same == m_ProfileList.end())
            same = CMailBoxProfile::FindProfile(m_ProfileList, m_pCurrentProfile->GetAccountName());
        if (same != m_ProfileList.end()) current = *same;
    }
    if (!current && !m_ProfileList.empty()) current = m_ProfileList.front();
    m_pCurrentProfile = current;

    ReadStorageData(m_strSettingsFile, false, false, progress, loadMessages, CMailBoxProfile::READ_FULL);
    // Accounts found only in the settings file.
    if (!m_pCurrentProfile && !m_ProfileList.empty()) m_pCurrentProfile = m_ProfileList.front();

    IStorage* accounts = m_pAccountsStorage->GetStorage();
    for (CMailBoxProfile* account : m_ProfileList) {
        if (!account) continue;
        const CString name = account->GetAccountName();
        account->InitializeStorages(accounts, name.GetLength() > kLongestStorageName ? CString() : name);
    }
}

void CUserProfile::DeactivateProfile() {
    // Shares its storages with an account of the list: it lets go of them first.
    m_pOwnedCurrent.reset();
    for (std::list<CMailBoxProfile*>* list : {&m_ProfileList, &m_PrevProfileList}) {
        for (CMailBoxProfile* account : *list) {
            if (!account) continue;
            account->UnloadMessages();
            delete account;
        }
        list->clear();
    }
    m_pCurrentProfile = nullptr;
    m_LastFound = m_ProfileList.end();
    m_pAccountsStorage->Close();
    m_pUserStorage->Close();
}

void CUserProfile::BeginInvalidDatabaseCheck(std::list<CMailBoxProfile*>& invalid) {
    for (CMailBoxProfile* account : m_ProfileList) {
        if (account) account->SetValid(false);
        m_PrevProfileList.push_back(account);
    }
    m_ProfileList.clear();
    m_LastFound = m_ProfileList.end();
    LoadAccountsFromRegistry();
    m_pCurrentProfile = m_ProfileList.empty() ? nullptr : m_ProfileList.front();
    ReadStorageData(m_strSettingsFile, false, false, nullptr, false, CMailBoxProfile::READ_VALIDITY_CHECK);
    for (CMailBoxProfile* account : m_ProfileList)
        if (account && !account->IsValidDbase()) invalid.push_back(account);
}
