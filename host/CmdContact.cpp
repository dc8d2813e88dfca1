// tavik contact list|add|remove|import|export: an account's address book, with vCard 3.0 and 4.0 files.
#include <cstdio>
#include <fstream>
#include <sstream>

#include "host/Commands.h"
#include "host/ContactEdit.h"
#include "host/ManageSupport.h"
#include "platform/FileSystem.h"

namespace tavik::host {

namespace {

template <class Work>
int Run(const Invocation& call, Work work) {
    try {
        auto session = SignIn(call);
        return work(*session, session->Account(call.args.Positional(0)));
    } catch (const SessionError& e) {
        return call.Fail(e.what());
    } catch (const VCardError& e) {
        return call.Fail(e.what());
    }
}

int RunList(const Invocation& call) {
    return Run(call, [&](UserSession&, CMailBoxProfile& account) {
        std::fputs(FormatContactList(account, call.args.Has("json")).c_str(), call.out);
        return 0;
    });
}

int RunAdd(const Invocation& call) {
    return Run(call, [&](UserSession& session, CMailBoxProfile& account) {
        VCardContact card;
        card.given = call.args.Get("first");
        card.additional = call.args.Get("middle");
        card.family = call.args.Get("last");
        card.prefix = call.args.Get("title");
        card.formattedName = call.args.Get("name");
        card.organization = call.args.Get("company");
        card.note = call.args.Get("note");
        for (const std::string& e : call.args.GetAll("email")) card.emails.push_back({{}, e});
        for (const std::string& p : call.args.GetAll("phone")) card.phones.push_back({{}, p});
        if ((card.given + card.family + card.formattedName).empty())
            throw UsageError("a contact needs --first, --last or --name");
        if (card.emails.size() > EMAILTYPE_COUNT)
            throw UsageError("a contact keeps at most 3 e-mail addresses");
        auto entry = std::make_unique<CAddressEntry>();
        FromVCard(card, *entry);
        account.GetAddressList().push_back(entry.release());
        session.Save();
        std::fprintf(call.out, "added contact %d\n", account.GetAddressList().back()->GetProfileID());
        return 0;
    });
}

int RunRemove(const Invocation& call) {
    return Run(call, [&](UserSession& session, CMailBoxProfile& account) {
        // Every key is found before any is removed.
        std::vector<CAddressEntry*> gone;
        for (size_t i = 1; i < call.args.Positional().size(); ++i)
            gone.push_back(&FindContact(account, call.args.Positional(i)));
        for (CAddressEntry* e : gone) e->DeleteEntry();
        session.Save();
        return 0;
    });
}

int RunImport(const Invocation& call) {
    return Run(call, [&](UserSession& session, CMailBoxProfile& account) {
        const std::string& file = call.args.Positional(1);
        std::ifstream in(file, std::ios::binary);
        if (!in) throw SessionError("cannot read " + file);
        std::ostringstream text;
        text << in.rdbuf();
        // The whole file is parsed before anything joins the book.
        std::vector<VCardContact> cards = ParseVCards(text.str(), file);
        for (const VCardContact& card : cards) {
            auto entry = std::make_unique<CAddressEntry>();
            FromVCard(card, *entry);
            account.GetAddressList().push_back(entry.release());
        }
        session.Save();
        std::fprintf(call.out, "imported %zu contact%s\n", cards.size(), cards.size() == 1 ? "" : "s");
        return 0;
    });
}

int RunExport(const Invocation& call) {
    return Run(call, [&](UserSession&, CMailBoxProfile& account) {
        std::string version = call.args.Get("version", "4.0");
        if (version != "3.0" && version != "4.0") throw UsageError("--version takes 3.0 or 4.0");
        std::vector<VCardContact> cards;
        for (CAddressEntry* e : LiveContacts(account)) cards.push_back(ToVCard(*e));
        std::string text = WriteVCards(cards, version);
        const std::string& file = call.args.Positional(1);
        if (file == "-") {
            std::fwrite(text.data(), 1, text.size(), call.out);
            return 0;
        }
        // Written beside the target and renamed over it, so that a failure leaves the old file whole.
        std::string temporary = file + ".tmp";
        {
            std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
            out << text;
            out.close();
            if (!out) {
                DeleteFile(temporary.c_str());
                throw SessionError("cannot write " + file);
            }
        }
        if (std::rename(temporary.c_str(), file.c_str()) != 0) {
            DeleteFile(temporary.c_str());
            throw SessionError("cannot write " + file);
        }
        std::fprintf(call.out, "exported %zu contact%s\n", cards.size(), cards.size() == 1 ? "" : "s");
        return 0;
    });
}

}  // namespace

const Command& ContactCommand() {
    static const Command command{
        .name = "contact",
        .summary = "an account's address book, with vCard files",
        .subcommands =
            {
                {.name = "list",
                 .summary = "the contacts of ACCOUNT: id, name, first address",
                 .options = WithSignIn({Option::Flag("json", "print a JSON array")}),
                 .arguments = "ACCOUNT",
                 .minArguments = 1,
                 .maxArguments = 1,
                 .run = RunList},
                {.name = "add",
                 .summary = "a new contact",
                 .options = WithSignIn({
                     Option::Value("first", "NAME", "first name"),
                     Option::Value("middle", "NAME", "middle name"),
                     Option::Value("last", "NAME", "last name"),
                     Option::Value("title", "TEXT", "title (Dr, Ms ...)"),
                     Option::Value("name", "TEXT", "the name shown (file as)"),
                     Option::Value("company", "TEXT", "company"),
                     Option::Value("note", "TEXT", "comments"),
                     Option::Repeated("email", "ADDRESS", "an e-mail address (up to 3, the first preferred)"),
                     Option::Repeated("phone", "NUMBER", "a telephone number"),
                 }),
                 .arguments = "ACCOUNT",
                 .minArguments = 1,
                 .maxArguments = 1,
                 .run = RunAdd},
                {.name = "remove",
                 .summary = "remove contacts by id or name",
                 .options = SignInOptions(),
                 .arguments = "ACCOUNT CONTACT...",
                 .minArguments = 2,
                 .maxArguments = Command::kAny,
                 .run = RunRemove},
                {.name = "import",
                 .summary = "add every card of a vCard 3.0 or 4.0 file",
                 .options = SignInOptions(),
                 .arguments = "ACCOUNT FILE",
                 .minArguments = 2,
                 .maxArguments = 2,
                 .details = "The file is read whole first: a malformed line names its number and nothing is "
                            "added.",
                 .run = RunImport},
                {.name = "export",
                 .summary = "write the contacts as a vCard file ('-': standard output)",
                 .options =
                     WithSignIn({Option::Value("version", "3.0|4.0", "the vCard version (default 4.0)")}),
                 .arguments = "ACCOUNT FILE",
                 .minArguments = 2,
                 .maxArguments = 2,
                 .run = RunExport},
            },
    };
    return command;
}

}  // namespace tavik::host
