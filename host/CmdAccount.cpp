// tavik account list|show|add|set|remove: a user's POP3 accounts, with their servers, logins and
// switches. tavik friends|spammers|folders list|add|remove: an account's three lists.
#include <cstdio>
#include <functional>

#include "host/AccountEdit.h"
#include "host/Commands.h"
#include "host/ContactEdit.h"
#include "host/ManageSupport.h"

namespace tavik::host {

namespace {

int Guarded(const Invocation& call, const std::function<int()>& work) {
    try {
        return work();
    } catch (const SessionError& e) {
        return call.Fail(e.what());
    }
}

int RunList(const Invocation& call) {
    return Guarded(call, [&] {
        auto session = SignIn(call);
        std::fputs(FormatAccountList(session->Accounts(), call.args.Has("json")).c_str(), call.out);
        return 0;
    });
}

int RunShow(const Invocation& call) {
    return Guarded(call, [&] {
        auto session = SignIn(call);
        CMailBoxProfile& account = session->Account(call.args.Positional(0));
        std::fputs(FormatAccount(account, call.args.Has("json")).c_str(), call.out);
        return 0;
    });
}

int RunAdd(const Invocation& call) {
    return Guarded(call, [&] {
        auto session = SignIn(call);
        auto account = std::make_unique<CMailBoxProfile>();
        CString name = call.args.Positional(0).c_str();
        account->SetGeneralData(name, "", "", "", "");
        ApplyAccountOptions(call.args, *account);
        session->AddAccount(std::move(account));
        session->Save();
        std::fprintf(call.out, "added account %s\n", call.args.Positional(0).c_str());
        return 0;
    });
}

int RunSet(const Invocation& call) {
    return Guarded(call, [&] {
        auto session = SignIn(call);
        CMailBoxProfile& account = session->Account(call.args.Positional(0));
        ApplyAccountOptions(call.args, account);
        session->Save();
        return 0;
    });
}

int RunRemove(const Invocation& call) {
    return Guarded(call, [&] {
        auto session = SignIn(call);
        session->RemoveAccount(session->Account(call.args.Positional(0)));
        session->Save();
        std::fprintf(call.out, "removed account %s\n", call.args.Positional(0).c_str());
        return 0;
    });
}

template <AccountList kList>
int RunListEntries(const Invocation& call) {
    return Guarded(call, [&] {
        auto session = SignIn(call);
        CMailBoxProfile& account = session->Account(call.args.Positional(0));
        std::fputs(FormatEntries(ListEntries(account, kList), call.args.Has("json")).c_str(), call.out);
        return 0;
    });
}

template <AccountList kList, bool kAdd>
int RunEditEntries(const Invocation& call) {
    return Guarded(call, [&] {
        auto session = SignIn(call);
        CMailBoxProfile& account = session->Account(call.args.Positional(0));
        std::vector<std::string> entries(call.args.Positional().begin() + 1, call.args.Positional().end());
        int changed = kAdd ? AddEntries(account, kList, entries) : RemoveEntries(account, kList, entries);
        session->Save();
        std::fprintf(call.out, "%s %d entr%s\n", kAdd ? "added" : "removed", changed,
                     changed == 1 ? "y" : "ies");
        return 0;
    });
}

std::vector<Option> AccountOptions() {
    return WithSignIn({
        Option::Value("server", "HOST", "the POP3 server"),
        Option::Value("login", "USER", "the user name on the POP3 server"),
        Option::Flag("set-password",
                     "set the POP3 password (from --account-password-file, "
                     "TAVIK_ACCOUNT_PASSWORD or the terminal)"),
        Option::Value("account-password-file", "FILE", "the POP3 password is FILE's first line"),
        Option::Flag("clear-password", "forget the POP3 password"),
        Option::Value("security", "MODE",
                      "auto (TLS unless the server is this machine), none (the password in plain text), "
                      "starttls (STLS) or implicit (POP3S)"),
        Option::Value("smtp", "HOST", "the SMTP server"),
        Option::Value("smtp-login", "USER", "the user name on the SMTP server"),
        Option::Flag("set-smtp-password",
                     "set the SMTP password (from --smtp-password-file, "
                     "TAVIK_SMTP_PASSWORD or the terminal)"),
        Option::Value("smtp-password-file", "FILE", "the SMTP password is FILE's first line"),
        Option::Flag("clear-smtp-password", "forget the SMTP password"),
        Option::Value("smtp-security", "MODE",
                      "the same for the SMTP server: auto, none, starttls or implicit"),
        Option::Value("email", "ADDRESS", "the account's own address"),
        Option::Value("real-name", "TEXT", "the name shown on sent mail"),
        Option::Value("reply-to", "ADDRESS", "the Reply-To of sent mail"),
        Option::Value("organization", "TEXT", "the Organization of sent mail"),
        Option::Value("disabled", "yes|no", "leave the account out of mail checks"),
        Option::Value("filtering", "yes|no", "apply the rules to the account's mail"),
        Option::Value("leave-copy", "yes|no", "leave messages on the server"),
        Option::Value("save-copy", "yes|no", "keep a copy of sent mail"),
        Option::Value("retrieve-body", "yes|no", "fetch the start of each body"),
        Option::Value("always-rescan", "yes|no", "fetch every header again on each check"),
        Option::Value("leave-full", "yes|no", "keep whole messages"),
        Option::Value("max-body", "KB", "how much of a body to fetch"),
        Option::Value("timeout", "SECONDS", "the server's time limit"),
        Option::Value("process-limit", "N", "messages handled per check"),
        Option::Value("session-max", "N", "messages fetched per session"),
    });
}

constexpr const char* kPasswordNote =
    "Passwords never come from the command line: the POP3 password from --account-password-file, "
    "TAVIK_ACCOUNT_PASSWORD or the terminal (without echo), the SMTP password from --smtp-password-file, "
    "TAVIK_SMTP_PASSWORD or the terminal. They are shown only as set or not set.";

Command ListCommand(const char* name, const char* what, AccountList list) {
    Command command{
        .name = name,
        .summary = std::string("an account's ") + what,
        .subcommands =
            {
                {.name = "list",
                 .summary = std::string("the ") + what + " of ACCOUNT",
                 .options = WithSignIn({Option::Flag("json", "print a JSON array")}),
                 .arguments = "ACCOUNT",
                 .minArguments = 1,
                 .maxArguments = 1},
                {.name = "add",
                 .summary =
                     std::string("add entries to the ") + what + " (ones present, ignoring case, are kept)",
                 .options = SignInOptions(),
                 .arguments = "ACCOUNT ENTRY...",
                 .minArguments = 2,
                 .maxArguments = Command::kAny},
                {.name = "remove",
                 .summary = std::string("remove entries from the ") + what + " (ignoring case)",
                 .options = SignInOptions(),
                 .arguments = "ACCOUNT ENTRY...",
                 .minArguments = 2,
                 .maxArguments = Command::kAny},
            },
    };
    switch (list) {
        case AccountList::kFriends:
            command.subcommands[0].run = RunListEntries<AccountList::kFriends>;
            command.subcommands[1].run = RunEditEntries<AccountList::kFriends, true>;
            command.subcommands[2].run = RunEditEntries<AccountList::kFriends, false>;
            break;
        case AccountList::kSpammers:
            command.subcommands[0].run = RunListEntries<AccountList::kSpammers>;
            command.subcommands[1].run = RunEditEntries<AccountList::kSpammers, true>;
            command.subcommands[2].run = RunEditEntries<AccountList::kSpammers, false>;
            break;
        case AccountList::kFolders:
            command.subcommands[0].run = RunListEntries<AccountList::kFolders>;
            command.subcommands[1].run = RunEditEntries<AccountList::kFolders, true>;
            command.subcommands[2].run = RunEditEntries<AccountList::kFolders, false>;
            break;
    }
    return command;
}

}  // namespace

const Command& AccountCommand() {
    static const Command command{
        .name = "account",
        .summary = "list, show, add, change and remove a user's POP3 accounts",
        .details =
            "Account names are compared ignoring case; a name holds at most 31 characters and none of "
            "\\ / : !",
        .subcommands =
            {
                {.name = "list",
                 .summary = "the user's accounts",
                 .options = WithSignIn({Option::Flag("json", "print a JSON array")}),
                 .run = RunList},
                {.name = "show",
                 .summary = "every setting of one account",
                 .options = WithSignIn({Option::Flag("json", "print a JSON object")}),
                 .arguments = "ACCOUNT",
                 .minArguments = 1,
                 .maxArguments = 1,
                 .details = kPasswordNote,
                 .run = RunShow},
                {.name = "add",
                 .summary = "a new account",
                 .options = AccountOptions(),
                 .arguments = "ACCOUNT",
                 .minArguments = 1,
                 .maxArguments = 1,
                 .details = kPasswordNote,
                 .run = RunAdd},
                {.name = "set",
                 .summary = "change an account's settings",
                 .options = AccountOptions(),
                 .arguments = "ACCOUNT",
                 .minArguments = 1,
                 .maxArguments = 1,
                 .details = kPasswordNote,
                 .run = RunSet},
                {.name = "remove",
                 .summary = "remove an account with its lists, rules, contacts and cached messages",
                 .options = SignInOptions(),
                 .arguments = "ACCOUNT",
                 .minArguments = 1,
                 .maxArguments = 1,
                 .run = RunRemove},
            },
    };
    return command;
}

int RunAddContacts(const Invocation& call) {
    return Guarded(call, [&] {
        auto session = SignIn(call);
        CMailBoxProfile& account = session->Account(call.args.Positional(0));
        int added = AddEntries(account, AccountList::kFriends, ContactAddresses(account));
        session->Save();
        std::fprintf(call.out, "added %d entr%s\n", added, added == 1 ? "y" : "ies");
        return 0;
    });
}

const Command& FriendsCommand() {
    static const Command command = [] {
        Command c =
            ListCommand("friends", "friends (senders whose mail is never spam)", AccountList::kFriends);
        c.subcommands.push_back({.name = "add-contacts",
                                 .summary = "trust every e-mail address of the account's address book",
                                 .options = SignInOptions(),
                                 .arguments = "ACCOUNT",
                                 .minArguments = 1,
                                 .maxArguments = 1,
                                 .run = RunAddContacts});
        return c;
    }();
    return command;
}

const Command& SpammersCommand() {
    static const Command command =
        ListCommand("spammers", "spammers (senders whose mail is spam)", AccountList::kSpammers);
    return command;
}

const Command& FoldersCommand() {
    static const Command command = ListCommand("folders", "folders", AccountList::kFolders);
    return command;
}

}  // namespace tavik::host
