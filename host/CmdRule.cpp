// tavik rule list|show|add|set|remove|enable|disable|import-ini: the spam shields, redirectors and
// auto-responders of one account (--account) or the shields that apply to every account (--global).
#include <cstdio>

#include "host/Commands.h"
#include "host/ManageSupport.h"
#include "host/RuleEdit.h"

namespace tavik::host {

namespace {

// The rules' owner the command line names, with its kind checked (the global profile keeps shields only).
CMailBoxProfile& Owner(const Invocation& call, UserSession& session, const RuleKind* kind) {
    bool global = call.args.Has("global");
    if (global == call.args.Has("account")) throw UsageError("give either --account ACCOUNT or --global");
    if (global && kind && *kind != RuleKind::kShield) throw UsageError("the global rules are shields only");
    return global ? session.GlobalShields() : session.Account(call.args.Get("account"));
}

CBaseFilter& Existing(CMailBoxProfile& owner, RuleKind kind, const std::string& name) {
    if (CBaseFilter* rule = FindRule(owner, kind, name)) return *rule;
    throw SessionError(std::string("no ") + RuleKindName(kind) + " named '" + name + "'");
}

template <class Work>
int Run(const Invocation& call, Work work) {
    try {
        auto session = SignIn(call);
        return work(*session);
    } catch (const SessionError& e) {
        return call.Fail(e.what());
    }
}

int RunList(const Invocation& call) {
    return Run(call, [&](UserSession& session) {
        std::vector<RuleKind> kinds;
        if (!call.args.Positional().empty()) kinds.push_back(ParseRuleKind(call.args.Positional(0)));
        CMailBoxProfile& owner = Owner(call, session, kinds.empty() ? nullptr : &kinds[0]);
        std::fputs(FormatRuleList(owner, kinds, call.args.Has("json")).c_str(), call.out);
        return 0;
    });
}

int RunShow(const Invocation& call) {
    return Run(call, [&](UserSession& session) {
        RuleKind kind = ParseRuleKind(call.args.Positional(0));
        CBaseFilter& rule = Existing(Owner(call, session, &kind), kind, call.args.Positional(1));
        std::fputs(FormatRule(rule, kind, call.args.Has("json")).c_str(), call.out);
        return 0;
    });
}

int RunAdd(const Invocation& call) {
    return Run(call, [&](UserSession& session) {
        RuleKind kind = ParseRuleKind(call.args.Positional(0));
        CMailBoxProfile& owner = Owner(call, session, &kind);
        ApplyRuleOptions(call.args, AddRule(owner, kind, call.args.Positional(1)), kind);
        session.Save();
        return 0;
    });
}

int RunSet(const Invocation& call) {
    return Run(call, [&](UserSession& session) {
        RuleKind kind = ParseRuleKind(call.args.Positional(0));
        ApplyRuleOptions(call.args, Existing(Owner(call, session, &kind), kind, call.args.Positional(1)),
                         kind);
        session.Save();
        return 0;
    });
}

int RunRemove(const Invocation& call) {
    return Run(call, [&](UserSession& session) {
        RuleKind kind = ParseRuleKind(call.args.Positional(0));
        Existing(Owner(call, session, &kind), kind, call.args.Positional(1)).SetDeleted(true);
        session.Save();
        return 0;
    });
}

template <bool kEnable>
int RunEnable(const Invocation& call) {
    return Run(call, [&](UserSession& session) {
        RuleKind kind = ParseRuleKind(call.args.Positional(0));
        SetRuleEnabled(Existing(Owner(call, session, &kind), kind, call.args.Positional(1)), kind, kEnable);
        session.Save();
        return 0;
    });
}

int RunImport(const Invocation& call) {
    return Run(call, [&](UserSession& session) {
        RuleKind kind = ParseRuleKind(call.args.Positional(0));
        CMailBoxProfile& owner = Owner(call, session, &kind);
        std::vector<std::string> sections(call.args.Positional().begin() + 2, call.args.Positional().end());
        std::vector<std::string> names = ImportRules(owner, kind, call.args.Positional(1), sections);
        session.Save();
        for (const std::string& name : names)
            std::fprintf(call.out, "imported %s %s\n", RuleKindName(kind), name.c_str());
        return 0;
    });
}

std::vector<Option> Target(std::vector<Option> more = {}) {
    std::vector<Option> own = {
        Option::Value("account", "ACCOUNT", "the account whose rules these are"),
        Option::Flag("global", "the shields that apply to every account"),
    };
    own.insert(own.end(), more.begin(), more.end());
    return WithSignIn(own);
}

std::vector<Option> RuleOptions() {
    return Target({
        Option::Value("tag", "PART", "the part of the message tested (Header, Subject, From, Body ...)"),
        Option::Value("match", "HOW", "how the text is matched (contains ...)"),
        Option::Value("text", "TEXT", "the text the condition looks for"),
        Option::Value("on-success", "ACTION", "what happens to a matching message"),
        Option::Value("folder", "FOLDER", "the folder a matching message moves to"),
        Option::Value("schedule", "DAYS", "All Days, Mondays ... Sundays, Weekdays or Weekends"),
        Option::Value("from-date", "YYYY-MM-DD", "active from this day (turns the date interval on)"),
        Option::Value("to-date", "YYYY-MM-DD", "active until this day"),
        Option::Value("use-dates", "yes|no", "whether the date interval applies"),
        Option::Value("from-time", "HH:MM", "active from this time of day (turns the time interval on)"),
        Option::Value("to-time", "HH:MM", "active until this time of day"),
        Option::Value("use-times", "yes|no", "whether the time interval applies"),
        Option::Value("enabled", "yes|no", "switch the rule on or off"),
        Option::Value("spam-action", "ACTION", "shields: what to do with spam (Mark ...)"),
        Option::Value("complain-to", "ADDRESS", "shields: where complaints go"),
        Option::Repeated("recipient", "ADDRESS", "redirectors: where mail is forwarded (replaces the list)"),
        Option::Value("subject", "TEMPLATE",
                      "redirectors and responders: the subject (%SUBJECT% is the original)"),
        Option::Value("body-file", "FILE", "redirectors: the body template"),
        Option::Value("text-file", "FILE", "responders: the text of the answer"),
        Option::Value("attach-file", "FILE", "responders: a file attached to the answer"),
    });
}

Command KindAndName(const char* name, const char* summary, int (*run)(const Invocation&)) {
    return {.name = name,
            .summary = summary,
            .options = Target(),
            .arguments = "KIND NAME",
            .minArguments = 2,
            .maxArguments = 2,
            .run = run};
}

}  // namespace

const Command& RuleCommand() {
    static const Command command{
        .name = "rule",
        .summary = "the spam shields, redirectors and auto-responders of an account, and the global shields",
        .details =
            "KIND is shield, redirector or responder. Every sub-command takes --account ACCOUNT or "
            "--global (the shields that apply to every account). Rule names are compared ignoring case.",
        .subcommands =
            {
                {.name = "list",
                 .summary = "the rules, or those of one kind",
                 .options = Target({Option::Flag("json", "print a JSON array")}),
                 .arguments = "[KIND]",
                 .minArguments = 0,
                 .maxArguments = 1,
                 .run = RunList},
                {.name = "show",
                 .summary = "every setting of one rule",
                 .options = Target({Option::Flag("json", "print a JSON object")}),
                 .arguments = "KIND NAME",
                 .minArguments = 2,
                 .maxArguments = 2,
                 .run = RunShow},
                {.name = "add",
                 .summary = "a new rule (switched off unless --enabled yes)",
                 .options = RuleOptions(),
                 .arguments = "KIND NAME",
                 .minArguments = 2,
                 .maxArguments = 2,
                 .run = RunAdd},
                {.name = "set",
                 .summary = "change a rule",
                 .options = RuleOptions(),
                 .arguments = "KIND NAME",
                 .minArguments = 2,
                 .maxArguments = 2,
                 .run = RunSet},
                KindAndName("remove", "remove a rule", RunRemove),
                KindAndName("enable", "switch a rule on", RunEnable<true>),
                KindAndName("disable", "switch a rule off", RunEnable<false>),
                {.name = "import-ini",
                 .summary = "rules from the sections of an INI file (every section unless named)",
                 .options = Target(),
                 .arguments = "KIND FILE [SECTION...]",
                 .minArguments = 2,
                 .maxArguments = Command::kAny,
                 .details =
                     "Each section holds one rule's keys (FilterName, Mail Tag, Action, Object, On Success, "
                     "Active On, the intervals ...). The file is checked whole first: a malformed line, a "
                     "missing section or a name in use imports nothing.",
                 .run = RunImport},
            },
    };
    return command;
}

}  // namespace tavik::host
