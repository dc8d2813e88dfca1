#include "host/UserSession.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>

#include "platform/Console.h"
#include "platform/FileSystem.h"
#include "platform/Registry.h"

namespace tavik::host {

namespace {

constexpr const char* kRoot = "Software\\Brannick\\Tavik Mail";
// A compound file's element names hold at most 31 characters, and each account has a sub-storage
// named after it.
constexpr size_t kMaxAccountName = 31;

bool KeyExists(const std::string& path) {
    HKEY key = nullptr;
    if (RegOpenKeyEx(HKEY_CURRENT_USER, path.c_str(), 0, KEY_READ, &key) != ERROR_SUCCESS) return false;
    RegCloseKey(key);
    return true;
}

std::string FirstLine(std::string text) {
    size_t end = text.find_first_of("\r\n");
    if (end != std::string::npos) text.resize(end);
    return text;
}

}  // namespace

std::string ReadPassword(const std::string& passwordFile, const char* variable, const std::string& prompt) {
    if (!passwordFile.empty()) {
        std::ifstream in(passwordFile, std::ios::binary);
        std::string line;
        if (!in || !std::getline(in, line)) {
            if (!in.eof() || !in.is_open())
                throw SessionError("cannot read the password file " + passwordFile);
        }
        return FirstLine(line);
    }
    if (const char* env = std::getenv(variable)) return FirstLine(env);
    std::string secret;
    if (!TavikReadSecret(prompt, secret))
        throw SessionError(
            "a password is needed and there is no terminal to ask on (give a password file or " +
            std::string(variable) + ")");
    return secret;
}

std::string CheckAccountName(const std::string& name) {
    if (name.empty()) return "an account needs a name";
    if (name.size() > kMaxAccountName)
        return "account name '" + name + "' is too long (at most " + std::to_string(kMaxAccountName) +
               " characters)";
    for (unsigned char c : name) {
        if (c < 0x20 || c == 0x7F) return "account name '" + name + "' holds a control character";
        if (c == '\\' || c == '/' || c == ':' || c == '!')
            return "account name '" + name + "' holds '" + std::string(1, static_cast<char>(c)) +
                   "', which no account name may hold";
    }
    return {};
}

UserSession::UserSession(const std::string& userName, const std::function<std::string()>& password)
    : m_userName(userName.empty() ? "Default" : userName) {
    (void)password;
    if (CString(m_userName.c_str()).CompareNoCase("Default") != 0)
        throw SessionError("no user named '" + m_userName + "' (see 'tavik user list')");
    m_userName = "Default";
    m_location = kRoot;
    m_settingsFile = TavikDataDirectory() + "/" + m_userName + ".tvs";
    OpenSettingsFile();

    // The order of a user's activation: the registry's accounts, then their stored data joined by name.
    if (KeyExists(AccountsKey())) {
        CMailBoxProfile reader;
        if (reader.OpenRegistryKey(HKEY_CURRENT_USER, AccountsKey().c_str(), nullptr) == ERROR_SUCCESS) {
            reader.EnumRegistryKey(m_accounts, AccountsKey().c_str(), m_userName.c_str(), true);
            reader.Close();
        }
    }
    try {
        CMailBoxProfile::EnumStorage(m_accountsStorage.GetStorage(), m_accounts, m_userName.c_str(), nullptr,
                                     false, CMailBoxProfile::READ_FULL);
    } catch (CStorageManagerException* e) {
        e->Delete();
        for (CMailBoxProfile* account : m_accounts) delete account;
        m_accounts.clear();
        throw SessionError("the settings file " + m_settingsFile +
                           " is damaged: its accounts cannot be read");
    }
    for (CMailBoxProfile* account : m_accounts)
        account->InitializeStorages(m_accountsStorage.GetStorage(), account->GetAccountName());
    m_global.LoadRegistryData(GlobalKey().c_str());
}

UserSession::~UserSession() {
    for (CMailBoxProfile* account : m_accounts) {
        account->UnloadMessages();
        delete account;
    }
    for (auto& account : m_removed) account->UnloadMessages();
    m_accounts.clear();
    m_removed.clear();
    m_accountsStorage.Close();
    m_user.Close();
}

void UserSession::OpenSettingsFile() {
    const char* path = m_settingsFile.c_str();
    if (GetFileAttributes(path) != INVALID_FILE_ATTRIBUTES && StgIsStorageFile(path) != S_OK)
        throw SessionError("the settings file " + m_settingsFile +
                           " is damaged (not a compound file); it was left as it is");
    try {
        m_user.OpenStorageFile(path, true);
        if (m_user.StreamExists("UserName")) {
            CString owner;
            m_user.ReadString("UserName", owner);
            if (!owner.IsEmpty() && owner.CompareNoCase(m_userName.c_str()) != 0)
                throw SessionError("the settings file " + m_settingsFile + " belongs to the user '" +
                                   std::string(owner) + "', not to '" + m_userName + "'");
        }
        m_accountsStorage.OpenSubStorage(m_user.GetStorage(), "Accounts",
                                         STGM_READWRITE | STGM_SHARE_EXCLUSIVE, true, true);
    } catch (CStorageManagerException* e) {
        e->Delete();
        throw SessionError("cannot open the settings file " + m_settingsFile);
    }
}

CMailBoxProfile* UserSession::FindAccount(const std::string& name) {
    auto found = CMailBoxProfile::FindProfile(m_accounts, name.c_str());
    return found == m_accounts.end() ? nullptr : *found;
}

CMailBoxProfile& UserSession::Account(const std::string& name) {
    if (CMailBoxProfile* account = FindAccount(name)) return *account;
    std::string known;
    for (CMailBoxProfile* account : m_accounts)
        known += (known.empty() ? "" : ", ") + std::string(account->GetAccountName());
    throw SessionError("no account named '" + name + "'" +
                       (known.empty() ? std::string(" (there are none)") : " (accounts: " + known + ")"));
}

CMailBoxProfile& UserSession::AddAccount(std::unique_ptr<CMailBoxProfile> account) {
    std::string name(account->GetAccountName());
    if (std::string why = CheckAccountName(name); !why.empty()) throw SessionError(why);
    if (CMailBoxProfile* taken = FindAccount(name))
        throw SessionError("an account named '" + std::string(taken->GetAccountName()) +
                           "' exists already (names are compared ignoring case)");
    account->SetProfileUserName(m_userName.c_str());
    account->InitializeStorages(m_accountsStorage.GetStorage(), account->GetAccountName());
    m_accounts.push_back(account.release());
    return *m_accounts.back();
}

void UserSession::RemoveAccount(CMailBoxProfile& account) {
    account.DeleteEntry();
    for (auto it = m_accounts.begin(); it != m_accounts.end(); ++it) {
        if (*it != &account) continue;
        m_removed.emplace_back(*it);
        m_accounts.erase(it);
        break;
    }
}

void UserSession::Save() {
    const CString accountsKey = AccountsKey().c_str();
    try {
        for (auto& account : m_removed) {
            account->SaveRegistryData(accountsKey);
            account->SaveStorageData(m_accountsStorage.GetStorage(), nullptr, false);
        }
        for (CMailBoxProfile* account : m_accounts) {
            if (!account->IsValid()) continue;
            account->SaveRegistryData(accountsKey);
            account->SaveStorageData(m_accountsStorage.GetStorage(), nullptr, false);
        }
        m_user.WriteString("UserName", m_userName.c_str());
    } catch (CStorageManagerException* e) {
        e->Delete();
        throw SessionError("cannot write the settings file " + m_settingsFile);
    }
    m_global.SaveRegistryData(GlobalKey().c_str());
    HRESULT hr = m_accountsStorage.GetStorage()->Commit(STGC_DEFAULT);
    if (SUCCEEDED(hr)) hr = m_user.GetStorage()->Commit(STGC_DEFAULT);
    if (FAILED(hr)) throw SessionError("cannot commit the settings file " + m_settingsFile);
    for (auto& account : m_removed) account->UnloadMessages();
    m_removed.clear();
}

}  // namespace tavik::host
