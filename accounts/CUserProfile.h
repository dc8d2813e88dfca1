// One person of a shared installation: a name, an optional password, the registry key and the files
// under which that person's accounts and option sets live, and, while signed in, the list of accounts
// with one of them current.
//
// How a host signs a user in and out:
//   1. On the first start, CreateSpecialDefaultUser() on a new profile.
//   2. List the users: OpenRegistryKey(HKEY_CURRENT_USER, GetUserKeyResID(), nullptr) on a profile used
//      as the walker, then EnumRegistryKey(list, GetUserKeyResID(), merge) and Close(); pick one with
//      FindProfile (by name or Profile ID) and check VerifyPassword.
//   3. ActivateProfile(progress, loadMessages): the accounts from the registry, then their stored data
//      from the settings file and the accounts' message files. GetProfileList / GetCurrentProfile /
//      FindMailBox give the accounts; option sets are loaded by the host from GetRegistryKey(SUBKEY_*).
//   4. New accounts join with AddMailBox; an account to remove is marked with its DeleteEntry().
//   5. SaveRegistryData(GetUserKeyResID(), false, progress, true, saveMessages): the user's values, every
//      account's registry key and, with saveStorage, the settings file and message files.
//   6. DeactivateProfile(): destroys the accounts and closes the files. The destructor does not destroy
//      accounts; a profile that was activated must be deactivated.
// To remove a user: DeleteEntry(), then SaveRegistryData(GetUserKeyResID(), ...), on a profile that is
// not active (its accounts are loaded from the registry to be removed).
//
// Files: "<name>.tvs" (the settings file, a compound file holding the user's values and the "Accounts"
// storage) and "<name>.tvd" (named only), both in the application directory, which a Linux host sets to
// the per-user data directory (TavikUseDataDirectory).
//
// Failures: registry and storage failures are not reported to the caller (storage failures reach the
// error window as CStorageManagerException does): values keep their defaults, a settings file that
// cannot be opened leaves the user with the accounts of the registry, and nothing stored is overwritten.
// No lock of its own: one thread activates, saves and deactivates a user.
#pragma once

#include <list>
#include <memory>

#include "accounts/CMailBoxProfile.h"
#include "accounts/CRegistryManager.h"
#include "messages/CMessageList.h"
#include "platform/CString.h"

class CStorageManager;

class CUserProfile : public CRegistryManager {
    DECLARE_DYNAMIC(CUserProfile)

public:
    // The keys GetRegistryKey forms from the user's registry location L.
    enum SUBKEY {
        SUBKEY_LOCATION = 0,       // L itself
        SUBKEY_ACCOUNTS = 1,       // L\Accounts
        SUBKEY_CONFIGURATION = 2,  // L\Configuration
        SUBKEY_ENVIRONMENT = 3,    // L\Environment
        SUBKEY_GLOBALSHIELD = 4,   // L\GlobalShield
        SUBKEY_TEMPLATES = 5,      // L\Templates
        SUBKEY_ADDRESS = 6,        // L\Address
    };
    using READ_TYPE = CMailBoxProfile::READ_TYPE;
    using _tagLoadProgressData = CMessageList::_tagLoadProgressData;
    using ProfilePosition = std::list<CMailBoxProfile*>::iterator;

    // Defaults (ResetValues), two closed storage handles, no accounts.
    CUserProfile();
    // Strings, numbers and the deleted flag; both account lists as the same pointers; the current
    // account as a new copy owned by this profile. Storage handles are not copied.
    CUserProfile(const CUserProfile& other);
    CUserProfile& operator=(const CUserProfile& other);
    // Closes the two storages; the accounts are not destroyed (DeactivateProfile does that).
    ~CUserProfile() override;

    // Empty texts, default flag 0, use-registry 1, a Profile ID from rand() after srand(GetTickCount()),
    // not deleted. Accounts and storages stay.
    void ResetValues();

    // "Default": no password, "Default.tvs"/"Default.tvd", the registry root as location, default flag 1;
    // written under the users' key.
    void CreateSpecialDefaultUser();
    // The named user: no password, "<name>.tvs"/"<name>.tvd", location "<root>\Users\<name>", default
    // flag 0; written under the users' key. The name is taken as given: the caller checks it.
    void CreateUser(CString name);

    // --- values
    CString GetUserName() const { return m_strUserName; }
    CString GetDataFile() const { return m_strDataFile; }
    CString GetSettingsFile() const { return m_strSettingsFile; }
    void SetSettingsFile(CString path) { m_strSettingsFile = path; }
    DWORD GetProfileID() const { return m_dwProfileID; }
    bool IsDefault() const { return m_dwDefault != 0; }
    void MakeDefault(bool isDefault = true) { m_dwDefault = isDefault ? 1 : 0; }
    // One character whose code is the use-registry flag.
    CString GetUseRegistry() const;
    bool IsDeleted() const { return m_bDeleted; }
    // The next SaveRegistryData removes the user (see above).
    void DeleteEntry() { m_bDeleted = true; }

    // The empty text clears the password; any other is kept as its MD5 digest up to the digest's first
    // zero byte (so a digest that starts with one reads as no password, as it always has).
    void SetPassword(CString password);
    // The empty text matches only a user without a password.
    bool VerifyPassword(CString password) const;

    // The key for the SUBKEY value; empty for any other value or without a registry location.
    CString GetRegistryKey(int subKey) const;
    // The string resource of "Software\Brannick\Tavik Mail\Users".
    static UINT GetUserKeyResID();

    // --- registry
    // Reads the user's own key. A key that does not exist is created empty and the profile reset (a
    // host looks a user up in the enumerated list first); an empty key name does nothing; missing values
    // keep their current values.
    void LoadRegistryData(CString userKey);
    void LoadRegistryData(UINT userKeyId);
    // Writes "<parentKey>\<name>" and the registry keys of every valid account under the accounts key,
    // then with saveStorage the settings file (SaveStorageData). A deleted user instead loses its
    // accounts' keys, everything under its own key and its files (the settings file and the accounts'
    // message files). Nothing happens without a parent key or a user name. The first bool is not used.
    void SaveRegistryData(CString parentKey, bool unused, _tagLoadProgressData* progress, bool saveStorage,
                          bool saveMessages);
    void SaveRegistryData(UINT parentKeyId, bool unused, _tagLoadProgressData* progress, bool saveStorage,
                          bool saveMessages);

    // --- storage
    // Opens (creating) the settings file, transacted, and its "Accounts" storage, unless already open.
    void InitializeStorage(CString file);
    // With readUserValues, the user's values from the file's streams (a missing stream leaves its value);
    // unless userValuesOnly, the accounts of the file joined by name with the account list.
    void ReadStorageData(CString file, bool readUserValues, bool userValuesOnly,
                         _tagLoadProgressData* progress, bool loadMessages, READ_TYPE readType);
    // The user's values and every account into the file, then commits the file. A storage failure stops
    // the save; what was committed before it stays, the file is never left half-written.
    void SaveStorageData(CString file, bool unused, _tagLoadProgressData* progress, bool saveMessages);
    CStorageManager* GetAccountsStoragePtr() const { return m_pAccountsStorage.get(); }

    // --- activation
    // Loads the accounts from the registry, then from the settings file (and their messages when asked;
    // start, record and end notices go to progress's window). The current account stays the one with
    // the same Signature or name when it is still there, else becomes the first account (none for no
    // account). Accounts of an earlier activation are kept aside until DeactivateProfile, holding their
    // storages: activated again without DeactivateProfile, a user's accounts come from the registry alone.
    void ActivateProfile(_tagLoadProgressData* progress, bool loadMessages);
    // Unloads and destroys every account, clears the current account, closes the files.
    void DeactivateProfile();
    // Loads the accounts as activation does, without messages, and appends to invalid the accounts
    // whose message file is missing. The host repairs them (ValidateDataFile) and then calls
    // EndInvalidDatabaseCheck, which deactivates.
    void BeginInvalidDatabaseCheck(std::list<CMailBoxProfile*>& invalid);
    void EndInvalidDatabaseCheck() { DeactivateProfile(); }

    // --- accounts
    // Appended unless already in the list, taking the user's name and a Signature no other account of the
    // user has; the profile owns it from then on.
    void AddMailBox(CMailBoxProfile* profile);
    // The account with that Signature, or the first of that name ignoring case; PROFILE_NOT_FOUND() when
    // none. The position is remembered as the last found.
    ProfilePosition FindMailBox(DWORD id);
    ProfilePosition FindMailBox(CString name);
    // Whether the account exists; with makeCurrent it becomes the current account.
    bool FindMailBox(CString name, bool makeCurrent);
    ProfilePosition PROFILE_NOT_FOUND() { return m_ProfileList.end(); }
    CMailBoxProfile* GetCurrentProfile() const { return m_pCurrentProfile; }
    std::list<CMailBoxProfile*>& GetProfileList() { return m_ProfileList; }
    // Copies the pointers into list (after what it holds).
    void GetProfileList(std::list<CMailBoxProfile*>& list) const;

    // --- users
    // The first user not deleted with that Profile ID, or with that name ignoring case; the end position
    // when none.
    static std::list<CUserProfile*>::iterator FindProfile(std::list<CUserProfile*>& list, DWORD id);
    static std::list<CUserProfile*>::iterator FindProfile(std::list<CUserProfile*>& list, CString name);
    // Walk the sub-keys of the users' key held open on this object (OpenRegistryKey), loading each user
    // from "<usersKey>\<sub-key>" and leaving out keys without a user name. The first form appends copies;
    // the second appends new objects the caller owns, and with merge a user already in the list with the same
    // Profile ID takes the loaded values (texts, numbers, deleted flag) and keeps its accounts.
    void EnumRegistryKey(std::list<CUserProfile>& list, CString usersKey);
    void EnumRegistryKey(std::list<CUserProfile>& list, UINT usersKeyId);
    void EnumRegistryKey(std::list<CUserProfile*>& list, CString usersKey, bool merge);
    void EnumRegistryKey(std::list<CUserProfile*>& list, UINT usersKeyId, bool merge);

    // Profile IDs (==, != with a profile or a number); the name ignoring case (== with a text); names
    // byte by byte (<, >).
    bool operator==(const DWORD& id) const { return m_dwProfileID == id; }
    bool operator==(const CUserProfile& other) const { return m_dwProfileID == other.m_dwProfileID; }
    bool operator!=(const CUserProfile& other) const { return m_dwProfileID != other.m_dwProfileID; }
    bool operator==(const CString& name) const;
    bool operator<(const CUserProfile& other) const;
    bool operator>(const CUserProfile& other) const;

private:
    void CopyValues(const CUserProfile& other);
    void SetUser(const CString& name, const CString& location, DWORD isDefault);
    void LoadAccountsFromRegistry();
    void RemoveUser(const CString& userKey);
    // The message files of the accounts marked deleted.
    void RemoveDeletedAccountFiles();

    std::unique_ptr<CStorageManager> m_pUserStorage;
    std::unique_ptr<CStorageManager> m_pAccountsStorage;
    CString m_strUserName;
    CString m_strPassword;
    CString m_strDataFile;
    CString m_strSettingsFile;
    CString m_strRegistryLocation;
    DWORD m_dwDefault = 0;
    DWORD m_dwUseRegistry = 1;
    DWORD m_dwProfileID = 0;
    bool m_bDeleted = false;
    CMailBoxProfile* m_pCurrentProfile = nullptr;
    std::list<CMailBoxProfile*> m_ProfileList;
    std::list<CMailBoxProfile*> m_PrevProfileList;
    ProfilePosition m_LastFound;
    // The current account a copy was given: its own, destroyed with it.
    std::unique_ptr<CMailBoxProfile> m_pOwnedCurrent;
};
