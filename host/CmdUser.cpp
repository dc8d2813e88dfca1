// tavik user list|add|passwd|remove|default: the people who share this installation, each with an
// optional password, accounts and settings of their own.
#include <cstdio>
#include <functional>

#include "host/Commands.h"
#include "host/ManageSupport.h"

namespace tavik::host {

namespace {

constexpr const char* kNewPassword = "TAVIK_NEW_PASSWORD";

int Guarded(const Invocation& call, const std::function<int()>& work) {
    try {
        return work();
    } catch (const SessionError& e) {
        return call.Fail(e.what());
    }
}

void SaveUser(CUserProfile& user) {
    user.SaveRegistryData(CUserProfile::GetUserKeyResID(), false, nullptr, false, false);
}

// The user's own password, asked only when there is one.
void Verify(const Invocation& call, CUserProfile& user) {
    if (user.VerifyPassword("")) return;
    std::string name(user.GetUserName());
    std::string given =
        ReadPassword(call.args.Get("password-file"), "TAVIK_PASSWORD", "Password for " + name + ": ");
    if (!user.VerifyPassword(given.c_str())) throw SessionError("wrong password for the user '" + name + "'");
}

std::string NewPassword(const Invocation& call, const std::string& name) {
    std::string password =
        ReadPassword(call.args.Get("new-password-file"), kNewPassword, "New password for " + name + ": ");
    if (password.size() > 99) throw SessionError("a password holds at most 99 characters");
    return password;
}

int RunList(const Invocation& call) {
    return Guarded(call, [&] {
        UserList users;
        bool json = call.args.Has("json");
        std::string out = json ? "[" : "";
        bool first = true;
        for (CUserProfile* user : users.Users()) {
            if (user->IsDeleted()) continue;
            std::string name(user->GetUserName());
            bool password = !user->VerifyPassword("");
            if (json)
                out += std::string(first ? "\n" : ",\n") + "  {\"name\": " + Json(name) +
                       ", \"default\": " + (user->IsDefault() ? "true" : "false") +
                       ", \"password\": " + (password ? "true" : "false") + "}";
            else
                out +=
                    name + (user->IsDefault() ? "\tdefault" : "\t") + (password ? "\tpassword" : "\t") + "\n";
            first = false;
        }
        if (json) out += first ? "]\n" : "\n]\n";
        std::fputs(out.c_str(), call.out);
        return 0;
    });
}

int RunAdd(const Invocation& call) {
    return Guarded(call, [&] {
        const std::string& name = call.args.Positional(0);
        if (std::string why = CheckUserName(name); !why.empty()) throw SessionError(why);
        UserList users;
        if (CUserProfile* taken = users.Find(name))
            throw SessionError("a user named '" + std::string(taken->GetUserName()) +
                               "' exists already (names are compared ignoring case)");
        std::string password = call.args.Has("set-password") ? NewPassword(call, name) : "";
        auto user = std::make_unique<CUserProfile>();
        user->CreateUser(name.c_str());
        user->SetPassword(password.c_str());
        if (call.args.Has("default")) {
            for (CUserProfile* other : users.Users())
                if (other->IsDefault()) {
                    other->MakeDefault(false);
                    SaveUser(*other);
                }
            user->MakeDefault(true);
        }
        SaveUser(*user);
        std::fprintf(call.out, "added user %s\n", name.c_str());
        return 0;
    });
}

int RunPasswd(const Invocation& call) {
    return Guarded(call, [&] {
        UserList users;
        CUserProfile& user = users.Get(call.args.Positional(0));
        Verify(call, user);
        if (call.args.Has("clear"))
            user.SetPassword("");
        else
            user.SetPassword(NewPassword(call, std::string(user.GetUserName())).c_str());
        SaveUser(user);
        return 0;
    });
}

int RunRemove(const Invocation& call) {
    return Guarded(call, [&] {
        UserList users;
        CUserProfile& user = users.Get(call.args.Positional(0));
        if (user.IsDefault())
            throw SessionError("'" + std::string(user.GetUserName()) +
                               "' is the default user: make another user the default first");
        Verify(call, user);
        user.DeleteEntry();
        SaveUser(user);
        std::fprintf(call.out, "removed user %s with its accounts and files\n",
                     std::string(user.GetUserName()).c_str());
        return 0;
    });
}

int RunDefault(const Invocation& call) {
    return Guarded(call, [&] {
        UserList users;
        CUserProfile& chosen = users.Get(call.args.Positional(0));
        for (CUserProfile* user : users.Users()) {
            if (user->IsDeleted() || user == &chosen || !user->IsDefault()) continue;
            user->MakeDefault(false);
            SaveUser(*user);
        }
        chosen.MakeDefault(true);
        SaveUser(chosen);
        return 0;
    });
}

Option NewPasswordFile() {
    return Option::Value("new-password-file", "FILE",
                         "the new password is FILE's first line (else TAVIK_NEW_PASSWORD, else asked)");
}

}  // namespace

const Command& UserCommand() {
    static const Command command{
        .name = "user",
        .summary = "the users of this installation, their passwords and the default user",
        .details =
            "Every other command signs in as --user NAME, else as the default user. A user's password "
            "is read from --password-file, TAVIK_PASSWORD or the terminal (without echo), never from "
            "the command line.",
        .subcommands =
            {
                {.name = "list",
                 .summary = "the users: name, whether default, whether they have a password",
                 .options = {Option::Flag("json", "print a JSON array")},
                 .run = RunList},
                {.name = "add",
                 .summary = "a new user, with an empty address book and no accounts",
                 .options = {Option::Flag("set-password", "give the user a password"), NewPasswordFile(),
                             Option::Flag("default", "make the new user the default user"),
                             Option::Refused("password",
                                             "a password on the command line is visible to every "
                                             "user of the machine; use --new-password-file")},
                 .arguments = "NAME",
                 .minArguments = 1,
                 .maxArguments = 1,
                 .run = RunAdd},
                {.name = "passwd",
                 .summary = "change or clear a user's password (the old one is asked first)",
                 .options = WithSignIn({NewPasswordFile(), Option::Flag("clear", "remove the password")}),
                 .arguments = "NAME",
                 .minArguments = 1,
                 .maxArguments = 1,
                 .run = RunPasswd},
                {.name = "remove",
                 .summary = "remove a user with its accounts, settings and message files",
                 .options = SignInOptions(),
                 .arguments = "NAME",
                 .minArguments = 1,
                 .maxArguments = 1,
                 .run = RunRemove},
                {.name = "default",
                 .summary = "make a user the one signed in when no --user is given",
                 .arguments = "NAME",
                 .minArguments = 1,
                 .maxArguments = 1,
                 .run = RunDefault},
            },
    };
    return command;
}

}  // namespace tavik::host
