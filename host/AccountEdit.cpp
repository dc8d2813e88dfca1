#include "host/AccountEdit.h"

#include <optional>

#include "host/ConnectionSecurity.h"
#include "host/ManageSupport.h"

namespace tavik::host {

namespace {

struct Field {
    const char* name;
    std::string value;
    char kind;  // 't' text, 'n' number, 'f' yes/no
};

std::vector<Field> Fields(const CMailBoxProfile& a) {
    auto text = [](const CString& s) { return std::string(s); };
    auto flag = [](DWORD v) { return std::string(YesNo(v != 0)); };
    auto number = [](DWORD v) { return std::to_string(v); };
    auto set = [](const CString& s) { return std::string(s.IsEmpty() ? "not set" : "set"); };
    CString in, out, inProto, outProto, login, password, outLogin, outPassword;
    a.GetServerData(in, out, inProto, outProto, login, password, outLogin, outPassword);
    return {
        {"name", text(a.GetAccountName()), 't'},
        {"email", text(a.GetEmailAddress()), 't'},
        {"real-name", text(a.GetRealName()), 't'},
        {"reply-to", text(a.GetReplyTo()), 't'},
        {"organization", text(a.GetOrganization()), 't'},
        {"server", text(in), 't'},
        {"protocol", text(inProto), 't'},
        {"login", text(login), 't'},
        {"password", set(password), 't'},
        {"security", SecuritySettingName(a.GetIncomingSecurity()), 't'},
        {"smtp", text(out), 't'},
        {"smtp-protocol", text(outProto), 't'},
        {"smtp-login", text(outLogin), 't'},
        {"smtp-password", set(outPassword), 't'},
        {"smtp-security", SecuritySettingName(a.GetOutgoingSecurity()), 't'},
        {"disabled", flag(a.GetAccountDisabled()), 'f'},
        {"filtering", flag(a.GetFiltering()), 'f'},
        {"leave-copy", flag(a.GetLeaveCopy()), 'f'},
        {"save-copy", flag(a.GetSaveCopy()), 'f'},
        {"retrieve-body", flag(a.GetRetrieveBody()), 'f'},
        {"always-rescan", flag(a.GetAlwaysRescan()), 'f'},
        {"leave-full", flag(a.GetLeaveFullMsgs()), 'f'},
        {"max-body", number(a.GetMaxBodySize()), 'n'},
        {"timeout", number(a.GetTimeoutValue()), 'n'},
        {"process-limit", number(a.GetProcessLimit()), 'n'},
        {"session-max", number(a.GetSessionMax()), 'n'},
        {"data-file", text(a.GetDataFile()), 't'},
        {"friends", number(static_cast<DWORD>(ListEntries(a, AccountList::kFriends).size())), 'n'},
        {"spammers", number(static_cast<DWORD>(ListEntries(a, AccountList::kSpammers).size())), 'n'},
        {"rules",
         number(static_cast<DWORD>(a.GetShieldCount() + a.GetRedirectorsCount() + a.GetRespondersCount())),
         'n'},
        {"contacts", number(static_cast<DWORD>(a.GetContactCount())), 'n'},
    };
}

CStringArray ToArray(const std::vector<std::string>& entries) {
    CStringArray out;
    for (const std::string& e : entries) out.Add(e.c_str());
    return out;
}

void Store(CMailBoxProfile& account, AccountList list, const std::vector<std::string>& entries) {
    CStringArray array = ToArray(entries);
    switch (list) {
        case AccountList::kFriends:
            account.SetFriendList(array);
            break;
        case AccountList::kSpammers:
            account.SetSpamList(array);
            break;
        case AccountList::kFolders:
            account.SetFolderList(array);
            break;
    }
}

bool SameEntry(const std::string& a, const std::string& b) {
    return CString(a.c_str()).CompareNoCase(b.c_str()) == 0;
}

}  // namespace

std::string FormatAccountList(const std::list<CMailBoxProfile*>& accounts, bool json) {
    std::string out = json ? "[" : "";
    bool first = true;
    for (const CMailBoxProfile* a : accounts) {
        if (json) {
            out += std::string(first ? "\n" : ",\n") +
                   "  {\"name\": " + Json(std::string(a->GetAccountName())) +
                   ", \"email\": " + Json(std::string(a->GetEmailAddress())) +
                   ", \"server\": " + Json(std::string(a->GetIncomingServerName())) +
                   ", \"login\": " + Json(std::string(a->GetUserName())) +
                   ", \"disabled\": " + (a->GetAccountDisabled() ? "true" : "false") + "}";
        } else {
            out += std::string(a->GetAccountName()) + "\t" + std::string(a->GetEmailAddress()) + "\t" +
                   std::string(a->GetUserName()) + "@" + std::string(a->GetIncomingServerName()) +
                   (a->GetAccountDisabled() ? "\tdisabled" : "") + "\n";
        }
        first = false;
    }
    if (json) out += first ? "]\n" : "\n]\n";
    return out;
}

std::string FormatAccount(const CMailBoxProfile& account, bool json) {
    std::string out = json ? "{" : "";
    bool first = true;
    for (const Field& f : Fields(account)) {
        if (json) {
            std::string value = f.kind == 'n'   ? f.value
                                : f.kind == 'f' ? (f.value == "yes" ? "true" : "false")
                                                : Json(f.value);
            out += std::string(first ? "\n" : ",\n") + "  " + Json(f.name) + ": " + value;
        } else {
            out += std::string(f.name) + ": " + f.value + "\n";
        }
        first = false;
    }
    if (json) out += "\n}\n";
    return out;
}

void ApplyAccountOptions(const Arguments& args, CMailBoxProfile& account) {
    // Everything is read and checked first, so that a bad value changes nothing.
    auto number = [&](const char* name, long high, DWORD current) {
        return static_cast<DWORD>(args.GetNumber(name, 0, high, static_cast<long>(current)));
    };
    auto flag = [&](const char* name, DWORD current) {
        return args.Has(name) ? DWORD(ParseSwitch(name, args.Get(name)) ? 1 : 0) : current;
    };
    auto text = [&](const char* name, const CString& current) {
        return args.Has(name) ? CString(args.Get(name).c_str()) : current;
    };
    auto security = [&](const char* name, DWORD current) {
        if (args.Has(name) && !ParseSecuritySetting(args.Get(name), current))
            throw UsageError(std::string("--") + name + " takes auto, none, starttls or implicit, not '" +
                             args.Get(name) + "'");
        return current;
    };
    if (args.Has("set-password") && args.Has("clear-password"))
        throw UsageError("--set-password and --clear-password cannot go together");
    if (args.Has("set-smtp-password") && args.Has("clear-smtp-password"))
        throw UsageError("--set-smtp-password and --clear-smtp-password cannot go together");

    CString name, realName, email, replyTo, organization;
    account.GetGeneralData(name, realName, email, replyTo, organization);
    CString in, out, inProto, outProto, login, password, outLogin, outPassword;
    account.GetServerData(in, out, inProto, outProto, login, password, outLogin, outPassword);
    DWORD disabled, filtering, leaveCopy, saveCopy, retrieveBody, maxBody, rescan, timeout;
    account.GetAdvancedData(disabled, filtering, leaveCopy, saveCopy, retrieveBody, maxBody, rescan, timeout);
    DWORD processLimit, sessionMax, leaveFull;
    account.GetExtraData(processLimit, sessionMax, leaveFull);

    realName = text("real-name", realName);
    email = text("email", email);
    replyTo = text("reply-to", replyTo);
    organization = text("organization", organization);
    in = text("server", in);
    out = text("smtp", out);
    login = text("login", login);
    outLogin = text("smtp-login", outLogin);
    disabled = flag("disabled", disabled);
    filtering = flag("filtering", filtering);
    leaveCopy = flag("leave-copy", leaveCopy);
    saveCopy = flag("save-copy", saveCopy);
    retrieveBody = flag("retrieve-body", retrieveBody);
    rescan = flag("always-rescan", rescan);
    leaveFull = flag("leave-full", leaveFull);
    maxBody = number("max-body", 1L << 20, maxBody);
    timeout = number("timeout", 3600, timeout);
    processLimit = number("process-limit", 1L << 30, processLimit);
    sessionMax = number("session-max", 1L << 30, sessionMax);
    const DWORD inSecurity = security("security", account.GetIncomingSecurity());
    const DWORD outSecurity = security("smtp-security", account.GetOutgoingSecurity());
    std::string shown(name);
    if (args.Has("set-password"))
        password = ReadPassword(args.Get("account-password-file"), "TAVIK_ACCOUNT_PASSWORD",
                                "POP3 password for " + shown + ": ")
                       .c_str();
    if (args.Has("clear-password")) password = "";
    if (args.Has("set-smtp-password"))
        outPassword = ReadPassword(args.Get("smtp-password-file"), "TAVIK_SMTP_PASSWORD",
                                   "SMTP password for " + shown + ": ")
                          .c_str();
    if (args.Has("clear-smtp-password")) outPassword = "";

    account.SetGeneralData(name, realName, email, replyTo, organization);
    account.SetServerData(in, out, inProto, outProto, login, password, outLogin, outPassword);
    account.SetAdvancedData(disabled, filtering, leaveCopy, saveCopy, retrieveBody, maxBody, rescan, timeout);
    account.SetExtraData(processLimit, sessionMax, leaveFull);
    account.SetConnectionSecurity(inSecurity, outSecurity);
}

std::vector<std::string> ListEntries(const CMailBoxProfile& account, AccountList list) {
    CStringArray array;
    switch (list) {
        case AccountList::kFriends:
            account.GetFriendList(array);
            break;
        case AccountList::kSpammers:
            account.GetSpamList(array);
            break;
        case AccountList::kFolders:
            account.GetFolderList(array);
            break;
    }
    std::vector<std::string> out;
    for (int i = 0; i < array.GetSize(); ++i) out.emplace_back(array[i]);
    return out;
}

std::string FormatEntries(const std::vector<std::string>& entries, bool json) {
    std::string out;
    if (!json) {
        for (const std::string& e : entries) out += e + "\n";
        return out;
    }
    out = "[";
    for (size_t i = 0; i < entries.size(); ++i) out += (i ? ", " : "") + Json(entries[i]);
    return out + "]\n";
}

int AddEntries(CMailBoxProfile& account, AccountList list, const std::vector<std::string>& entries) {
    std::vector<std::string> current = ListEntries(account, list);
    int added = 0;
    for (const std::string& e : entries) {
        if (e.empty()) throw SessionError("an empty entry cannot be added");
        for (unsigned char c : e)
            if (c < 0x20 || c == 0x7F) throw SessionError("entry '" + e + "' holds a control character");
        bool present = false;
        for (const std::string& have : current) present = present || SameEntry(have, e);
        if (present) continue;
        current.push_back(e);
        ++added;
    }
    if (added) Store(account, list, current);
    return added;
}

int RemoveEntries(CMailBoxProfile& account, AccountList list, const std::vector<std::string>& entries) {
    std::vector<std::string> current = ListEntries(account, list);
    int removed = 0;
    for (const std::string& e : entries) {
        auto it = current.begin();
        while (it != current.end() && !SameEntry(*it, e)) ++it;
        if (it == current.end())
            throw SessionError("'" + e + "' is not in the list of " + std::string(account.GetAccountName()));
        current.erase(it);
        ++removed;
    }
    Store(account, list, current);
    return removed;
}

}  // namespace tavik::host
