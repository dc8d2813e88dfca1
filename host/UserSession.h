// One signed-in user for the commands that manage what the library keeps: the user's accounts loaded
// from the registry and the user's settings file (messages stay on disk), the global shields, the keys
// of the option sets, and one save at the end that writes everything back through the library's
// classes.
//
// Failures that would lose or mix data stop the sign-in before anything is written: a settings file
// that is not a compound file, or one that names another user.
#pragma once

#include <functional>
#include <list>
#include <memory>
#include <stdexcept>
#include <string>

#include "accounts/CGlobalProfile.h"
#include "accounts/CMailBoxProfile.h"
#include "accounts/CUserProfile.h"

namespace tavik::host {

// A failure the user can act on; its text is shown as it stands.
class SessionError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Where a password comes from, in this order: the file's first line, the environment variable, else the
// terminal without echo. Throws SessionError when none can give one (no terminal, unreadable file). The
// line end is not part of the password.
std::string ReadPassword(const std::string& passwordFile, const char* variable, const std::string& prompt);

// Account names end up as registry key names and storage names: refuses the empty name, backslashes,
// control characters and names longer than the registry allows. Empty result: acceptable.
std::string CheckAccountName(const std::string& name);

// A user name fit for the registry key and the files named after it: refuses the empty name,
// backslashes, '/', control characters and names too long for its files. Empty: acceptable.
std::string CheckUserName(const std::string& name);

// The users of the installation, as the registry lists them (creating the default user on the first
// start). Owns the profiles; none is active.
class UserList {
public:
    UserList();
    ~UserList();
    UserList(const UserList&) = delete;
    UserList& operator=(const UserList&) = delete;

    std::list<CUserProfile*>& Users() { return m_users; }
    // By name ignoring case; null when none.
    CUserProfile* Find(const std::string& name);
    // The user or a SessionError naming the users there are.
    CUserProfile& Get(const std::string& name);
    // The user flagged default (the first one when several are); null when none is.
    CUserProfile* Default();

private:
    std::list<CUserProfile*> m_users;
};

class UserSession {
public:
    // The default user when userName is empty. password is asked only when the user has one; a wrong
    // one is refused. With loadMessages the accounts' message records are loaded too (a mail check
    // needs them to tell new mail from known).
    UserSession(const std::string& userName,
                const std::function<std::string(const std::string& user)>& password,
                bool loadMessages = false);
    // Unloads the accounts and closes the settings file; what was not saved is dropped.
    ~UserSession();
    UserSession(const UserSession&) = delete;
    UserSession& operator=(const UserSession&) = delete;

    const std::string& UserName() const { return m_userName; }
    // The live accounts, in the user's order.
    std::list<CMailBoxProfile*> Accounts();
    // The live account of that name (ignoring case), or null.
    CMailBoxProfile* FindAccount(const std::string& name);
    // The account or a SessionError naming what exists.
    CMailBoxProfile& Account(const std::string& name);
    // Takes ownership; throws SessionError for a bad or taken name.
    CMailBoxProfile& AddAccount(std::unique_ptr<CMailBoxProfile> account);
    // Marked deleted: the save removes its key and storage.
    void RemoveAccount(CMailBoxProfile& account);

    CGlobalProfile& GlobalShields() { return m_global; }
    // Keys of the user's option sets.
    std::string ConfigurationKey() const;
    std::string EnvironmentKey() const;

    // Writes the accounts, their lists, rules and contacts and the global shields to the registry and
    // the settings file. Throws SessionError when the settings file cannot be committed.
    // With saveMessages, changed message records are written to the accounts' message files too.
    void Save(bool saveMessages = false);

private:
    void CheckSettingsFile() const;

    UserList m_users;
    CUserProfile* m_user = nullptr;
    std::string m_userName;
    std::string m_settingsFile;
    CGlobalProfile m_global;
};

}  // namespace tavik::host
