#include "host/UserSession.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>

#include "messages/CStorageManager.h"
#include "platform/Console.h"
#include "platform/FileSystem.h"
#include "platform/Registry.h"

namespace tavik::host {

namespace {

// A user's name also names its files, and its accounts' message files ("<user>-<account>-<number>.tvd")
// must fit a file name.
constexpr size_t kMaxUserName = 200;
// A compound file's element names hold at most 31 characters, and each account has a sub-storage
// named after it.
constexpr size_t kMaxAccountName = 31;

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

std::string CheckUserName(const std::string& name) {
    if (name.empty()) return "a user needs a name";
    if (name.size() > kMaxUserName)
        return "user name is too long (at most " + std::to_string(kMaxUserName) + " characters)";
    for (unsigned char c : name) {
        if (c < 0x20 || c == 0x7F) return "user name '" + name + "' holds a control character";
        if (c == '\\' || c == '/')
            return "user name '" + name + "' holds '" + std::string(1, static_cast<char>(c)) +
                   "', which no user name may hold";
    }
    return {};
}

UserList::UserList() {
    CUserProfile walker;
    // The library takes a registry failure for a missing value: over a store that cannot be used, every
    // command would run on defaults and report success for what it could not save.
    if (walker.OpenRegistryKey(HKEY_CURRENT_USER, CUserProfile::GetUserKeyResID(), nullptr) !=
        ERROR_SUCCESS) {
        const std::string why = RegGetLastMessage();
        throw SessionError("cannot use the registry store " + RegGetStorePath() +
                           (why.empty() ? std::string() : " (" + why + ")"));
    }
    walker.EnumRegistryKey(m_users, CUserProfile::GetUserKeyResID(), false);
    walker.Close();
    // The first start: the default user, as the installation has always had one.
    if (m_users.empty()) {
        auto user = std::make_unique<CUserProfile>();
        user->CreateSpecialDefaultUser();
        m_users.push_back(user.release());
    }
}

UserList::~UserList() {
    for (CUserProfile* user : m_users) delete user;
}

CUserProfile* UserList::Find(const std::string& name) {
    auto found = CUserProfile::FindProfile(m_users, CString(name.c_str()));
    return found == m_users.end() ? nullptr : *found;
}

CUserProfile& UserList::Get(const std::string& name) {
    if (CUserProfile* user = Find(name)) return *user;
    std::string known;
    for (CUserProfile* user : m_users)
        if (!user->IsDeleted()) known += (known.empty() ? "" : ", ") + std::string(user->GetUserName());
    throw SessionError("no user named '" + name + "' (users: " + known + ")");
}

CUserProfile* UserList::Default() {
    for (CUserProfile* user : m_users)
        if (!user->IsDeleted() && user->IsDefault()) return user;
    return nullptr;
}

UserSession::UserSession(const std::string& userName,
                         const std::function<std::string(const std::string& user)>& password,
                         bool loadMessages) {
    m_user = userName.empty() ? m_users.Default() : &m_users.Get(userName);
    if (!m_user) throw SessionError("no default user: name one with --user (see 'tavik user list')");
    m_userName = m_user->GetUserName();
    if (!m_user->VerifyPassword("") && !m_user->VerifyPassword(password(m_userName).c_str()))
        throw SessionError("wrong password for the user '" + m_userName + "'");
    m_settingsFile = m_user->GetSettingsFile();
    CheckSettingsFile();
    m_user->ActivateProfile(nullptr, loadMessages);
    m_global.LoadRegistryData(m_user->GetRegistryKey(CUserProfile::SUBKEY_GLOBALSHIELD));
}

UserSession::~UserSession() {
    if (m_user) m_user->DeactivateProfile();
}

std::string UserSession::ConfigurationKey() const {
    return std::string(m_user->GetRegistryKey(CUserProfile::SUBKEY_CONFIGURATION));
}

std::string UserSession::EnvironmentKey() const {
    return std::string(m_user->GetRegistryKey(CUserProfile::SUBKEY_ENVIRONMENT));
}

// A settings file that is not a compound file, or that another user's values fill, is left as it is:
// activating over it would lose the other user's data or write over the damage.
void UserSession::CheckSettingsFile() const {
    const char* path = m_settingsFile.c_str();
    if (m_settingsFile.empty() || GetFileAttributes(path) == INVALID_FILE_ATTRIBUTES) return;
    if (StgIsStorageFile(path) != S_OK)
        throw SessionError("the settings file " + m_settingsFile +
                           " is damaged (not a compound file); it was left as it is");
    IStorage* root = nullptr;
    if (FAILED(StgOpenStorage(path, nullptr, STGM_READ | STGM_SHARE_DENY_WRITE | STGM_TRANSACTED, nullptr, 0,
                              &root)))
        throw SessionError("cannot open the settings file " + m_settingsFile + " (damaged, or in use)");
    CString owner;
    try {
        CStorageManager file(root);
        root->Release();
        if (file.StreamExists("UserName")) file.ReadString("UserName", owner);
    } catch (CStorageManagerException* e) {
        e->Delete();
        throw SessionError("the settings file " + m_settingsFile + " is damaged; it was left as it is");
    }
    if (!owner.IsEmpty() && owner.CompareNoCase(m_userName.c_str()) != 0)
        throw SessionError("the settings file " + m_settingsFile + " belongs to the user '" +
                           std::string(owner) + "', not to '" + m_userName + "'");
}

std::list<CMailBoxProfile*> UserSession::Accounts() {
    std::list<CMailBoxProfile*> live;
    for (CMailBoxProfile* account : m_user->GetProfileList())
        if (account && !account->IsDeleted()) live.push_back(account);
    return live;
}

CMailBoxProfile* UserSession::FindAccount(const std::string& name) {
    for (CMailBoxProfile* account : Accounts())
        if (account->GetAccountName().CompareNoCase(name.c_str()) == 0) return account;
    return nullptr;
}

CMailBoxProfile& UserSession::Account(const std::string& name) {
    if (CMailBoxProfile* account = FindAccount(name)) return *account;
    std::string known;
    for (CMailBoxProfile* account : Accounts())
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
    for (CMailBoxProfile* old : m_user->GetProfileList())
        if (old && old->IsDeleted() && old->GetAccountName().CompareNoCase(name.c_str()) == 0)
            throw SessionError("the account '" + name + "' is being removed; add it again in a new command");
    CMailBoxProfile* added = account.release();
    m_user->AddMailBox(added);
    if (CStorageManager* accounts = m_user->GetAccountsStoragePtr())
        added->InitializeStorages(accounts->GetStorage(), added->GetAccountName());
    return *added;
}

void UserSession::RemoveAccount(CMailBoxProfile& account) { account.DeleteEntry(); }

void UserSession::Save(bool saveMessages) {
    if (!m_user->GetAccountsStoragePtr() || !m_user->GetAccountsStoragePtr()->IsOpen())
        throw SessionError("cannot open the settings file " + m_settingsFile + "; nothing was saved");
    m_user->SaveRegistryData(CUserProfile::GetUserKeyResID(), false, nullptr, true, saveMessages);
    m_global.SaveRegistryData(m_user->GetRegistryKey(CUserProfile::SUBKEY_GLOBALSHIELD));
}

}  // namespace tavik::host
