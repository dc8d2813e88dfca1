// What `tavik demo` sets up before its check: a private place (registry store and data directory of
// its own, never the person's) and, in it, a user with one account pointing at the demo's own POP3 and
// SMTP servers, friends, spammers, spam shields and an auto-responder, made through the library's
// classes as `tavik account`, `tavik friends` and `tavik rule` make them.
#pragma once

#include <string>
#include <vector>

namespace tavik::host {

// A fresh owner-only directory under the system's temporary directory that holds the registry store
// and the data directory of this process while the workspace lives. Afterwards the store and data
// directory in use before come back and the directory goes, with everything in it.
class DemoWorkspace {
public:
    // Throws SessionError when the directory cannot be made.
    DemoWorkspace();
    ~DemoWorkspace();
    DemoWorkspace(const DemoWorkspace&) = delete;
    DemoWorkspace& operator=(const DemoWorkspace&) = delete;

    const std::string& Dir() const { return m_dir; }
    std::string Path(const std::string& name) const { return m_dir + "/" + name; }

private:
    std::string m_dir;
    std::string m_previousStore;
    std::string m_previousProgram;
};

// The demo user's setup, for the demo to tell and its test to check.
struct DemoUserSetup {
    std::string account = "Demo";
    std::string address = "demo@tavik.invalid";
    std::string login = "demo";
    std::string password = "demo-password";
    std::vector<std::string> friends;
    std::vector<std::string> spammers;
    std::vector<std::string>
        rules;  // one line per rule: "shield Urgent (every account): Subject contains ..."
};

// The account, its lists and rules for servers on 127.0.0.1 at those ports, saved as the default user
// of the workspace's store. The auto-responder's text file is written into the workspace. Throws
// SessionError when the user cannot be saved.
DemoUserSetup CreateDemoUser(const DemoWorkspace& workspace, unsigned short pop3Port,
                             unsigned short smtpPort);

}  // namespace tavik::host
