#include "host/RuleEdit.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>

#include "host/ManageSupport.h"
#include "platform/PrivateProfile.h"

namespace tavik::host {

namespace {

// The registry's limit on a key name: each rule is a key named after it.
constexpr size_t kMaxRuleName = 255;

const char* const kSchedules[] = {"All Days",  "Sundays", "Mondays",   "Tuesdays", "Wednesdays",
                                  "Thursdays", "Fridays", "Saturdays", "Weekdays", "Weekends"};

template <class Rule>
Rule* FindIn(std::list<Rule>& rules, const std::string& name) {
    for (Rule& rule : rules)
        if (!rule.GetDeleted() && rule.GetFilterName().CompareNoCase(name.c_str()) == 0) return &rule;
    return nullptr;
}

bool Same(const std::string& a, const std::string& b) {
    return CString(a.c_str()).CompareNoCase(b.c_str()) == 0;
}

DWORD ActiveSwitch(const CBaseFilter& rule, RuleKind kind) {
    CString t1, t2, t3, t4;
    DWORD n1, n2, n3, n4, n5, n6, active = 0;
    switch (kind) {
        case RuleKind::kShield:
            static_cast<const CSpamBlockProfile&>(rule).GetSpamOptions(t1, t2, n1, n2, n3, n4, active, n5,
                                                                       n6);
            break;
        case RuleKind::kRedirector:
            static_cast<const CForwardMailProfile&>(rule).GetRedirectOptions(t1, t2, n1, n2, active);
            break;
        case RuleKind::kResponder:
            static_cast<const CAutoResponderProfile&>(rule).GetAutoResponderOptions(t1, t2, t3, t4, n1, n2,
                                                                                    active);
            break;
    }
    return active;
}

std::string Date(const CTime& t) { return std::string(t.Format("%Y-%m-%d")); }
std::string Clock(const CTime& t) { return std::string(t.Format("%H:%M")); }

// "YYYY-MM-DD" (also with ':' or '/') -> noon of that day; false for anything else.
bool ParseDate(const std::string& text, CTime& out) {
    int y, m, d;
    char s1, s2, end;
    if (std::sscanf(text.c_str(), "%d%c%d%c%d%c", &y, &s1, &m, &s2, &d, &end) != 5) return false;
    if (s1 != s2 || (s1 != '-' && s1 != ':' && s1 != '/')) return false;
    if (y < 1971 || y > 3000 || m < 1 || m > 12 || d < 1 || d > 31) return false;
    out = CTime(y, m, d, 12, 0, 0);
    return out.GetDay() == d;
}

bool ParseClock(const std::string& text, CTime& out) {
    int h, m;
    char sep, end;
    if (std::sscanf(text.c_str(), "%d%c%d%c", &h, &sep, &m, &end) != 3 || sep != ':') return false;
    if (h < 0 || h > 23 || m < 0 || m > 59) return false;
    out = CTime(2000, 1, 1, h, m, 0);
    return true;
}

std::vector<std::string> Recipients(const CForwardMailProfile& rule) {
    CStringArray list;
    rule.GetRecipients(list);
    std::vector<std::string> out;
    for (int i = 0; i < list.GetSize(); ++i) out.emplace_back(list[i]);
    return out;
}

struct Row {
    const char* name;
    std::string value;
    char kind;  // 't' text, 'n' number, 'f' switch, 'l' list of texts
    std::vector<std::string> list{};
};

std::vector<Row> Rows(const CBaseFilter& rule, RuleKind kind) {
    CString name, tag, action, object, onSuccess, activeOn;
    DWORD filterAll, useDate, useTime;
    rule.GetFilterData(name, tag, action, object, onSuccess, activeOn, filterAll, useDate, useTime);
    CTime fromDate, toDate, fromTime, toTime;
    rule.GetDateIntervals(fromDate, toDate);
    rule.GetTimeIntervals(fromTime, toTime);
    auto yes = [](DWORD v) { return std::string(YesNo(v != 0)); };
    std::vector<Row> rows = {
        {"name", std::string(name), 't'},
        {"kind", RuleKindName(kind), 't'},
        {"enabled", yes(ActiveSwitch(rule, kind)), 'f'},
        {"tag", std::string(tag), 't'},
        {"match", std::string(action), 't'},
        {"text", std::string(object), 't'},
        {"on-success", std::string(onSuccess), 't'},
        {"folder", std::string(rule.GetMailBoxFolder()), 't'},
        {"schedule", std::string(activeOn), 't'},
        {"use-dates", yes(useDate), 'f'},
        {"from-date", Date(fromDate), 't'},
        {"to-date", Date(toDate), 't'},
        {"use-times", yes(useTime), 'f'},
        {"from-time", Clock(fromTime), 't'},
        {"to-time", Clock(toTime), 't'},
        {"hits", std::to_string(rule.GetHitCount()), 'n'},
        {"processed", std::to_string(rule.GetProcessedIDCount()), 'n'},
    };
    CString t1, t2, t3, t4;
    DWORD n1, n2, n3, n4, n5, n6, n7;
    switch (kind) {
        case RuleKind::kShield:
            static_cast<const CSpamBlockProfile&>(rule).GetSpamOptions(t1, t2, n1, n2, n3, n4, n5, n6, n7);
            rows.push_back({"spam-action", std::string(t2), 't'});
            rows.push_back({"complain-to", std::string(t1), 't'});
            break;
        case RuleKind::kRedirector:
            static_cast<const CForwardMailProfile&>(rule).GetRedirectOptions(t1, t2, n1, n2, n3);
            rows.push_back({"subject", std::string(t2), 't'});
            rows.push_back({"body-file", std::string(t1), 't'});
            rows.push_back(
                {"recipients", "", 'l', Recipients(static_cast<const CForwardMailProfile&>(rule))});
            break;
        case RuleKind::kResponder:
            static_cast<const CAutoResponderProfile&>(rule).GetAutoResponderOptions(t1, t2, t3, t4, n1, n2,
                                                                                    n3);
            rows.push_back({"subject", std::string(t3), 't'});
            rows.push_back({"text-file", std::string(t1), 't'});
            rows.push_back({"attach-file", std::string(t2), 't'});
            rows.push_back({"duplicates", std::string(t4), 't'});
            break;
    }
    return rows;
}

template <class Visit>
void ForEachRule(CMailBoxProfile& owner, const std::vector<RuleKind>& kinds, Visit visit) {
    auto wanted = [&](RuleKind k) {
        return kinds.empty() || std::find(kinds.begin(), kinds.end(), k) != kinds.end();
    };
    if (wanted(RuleKind::kShield))
        for (CBaseFilter& r : owner.GetSpamShields())
            if (!r.GetDeleted()) visit(r, RuleKind::kShield);
    if (wanted(RuleKind::kRedirector))
        for (CBaseFilter& r : owner.GetRedirectors())
            if (!r.GetDeleted()) visit(r, RuleKind::kRedirector);
    if (wanted(RuleKind::kResponder))
        for (CBaseFilter& r : owner.GetAutoResponders())
            if (!r.GetDeleted()) visit(r, RuleKind::kResponder);
}

std::string CheckRuleName(const std::string& name) {
    if (name.empty()) return "a rule needs a name";
    if (name.size() > kMaxRuleName)
        return "rule name is too long (at most " + std::to_string(kMaxRuleName) + " characters)";
    for (unsigned char c : name) {
        if (c == '\\') return "rule name '" + name + "' holds '\\', which no rule name may hold";
        if (c < 0x20 || c == 0x7F) return "rule name '" + name + "' holds a control character";
    }
    return {};
}

}  // namespace

RuleKind ParseRuleKind(const std::string& word) {
    if (word == "shield" || word == "shields") return RuleKind::kShield;
    if (word == "redirector" || word == "redirectors") return RuleKind::kRedirector;
    if (word == "responder" || word == "responders" || word == "auto-responder") return RuleKind::kResponder;
    throw UsageError("unknown rule kind '" + word + "' (shield, redirector or responder)");
}

const char* RuleKindName(RuleKind kind) {
    switch (kind) {
        case RuleKind::kShield:
            return "shield";
        case RuleKind::kRedirector:
            return "redirector";
        case RuleKind::kResponder:
            return "responder";
    }
    return "";
}

CBaseFilter* FindRule(CMailBoxProfile& owner, RuleKind kind, const std::string& name) {
    switch (kind) {
        case RuleKind::kShield:
            return FindIn(owner.GetSpamShields(), name);
        case RuleKind::kRedirector:
            return FindIn(owner.GetRedirectors(), name);
        case RuleKind::kResponder:
            return FindIn(owner.GetAutoResponders(), name);
    }
    return nullptr;
}

CBaseFilter& AddRule(CMailBoxProfile& owner, RuleKind kind, const std::string& name) {
    if (std::string why = CheckRuleName(name); !why.empty()) throw SessionError(why);
    if (FindRule(owner, kind, name))
        throw SessionError(std::string("a ") + RuleKindName(kind) + " named '" + name + "' exists already");
    CBaseFilter* rule = nullptr;
    switch (kind) {
        case RuleKind::kShield:
            rule = &owner.GetSpamShields().emplace_back();
            break;
        case RuleKind::kRedirector:
            rule = &owner.GetRedirectors().emplace_back();
            break;
        case RuleKind::kResponder:
            rule = &owner.GetAutoResponders().emplace_back();
            break;
    }
    CString n, tag, action, object, onSuccess, activeOn;
    DWORD filterAll, useDate, useTime;
    rule->GetFilterData(n, tag, action, object, onSuccess, activeOn, filterAll, useDate, useTime);
    rule->SetFilterData(name.c_str(), tag, action, object, onSuccess, activeOn, filterAll, useDate, useTime);
    return *rule;
}

std::string FormatRuleList(CMailBoxProfile& owner, const std::vector<RuleKind>& kinds, bool json) {
    std::string out = json ? "[" : "";
    bool first = true;
    ForEachRule(owner, kinds, [&](CBaseFilter& rule, RuleKind kind) {
        std::vector<Row> rows = Rows(rule, kind);
        if (json) {
            out += std::string(first ? "\n" : ",\n") + "  {\"kind\": " + Json(RuleKindName(kind)) +
                   ", \"name\": " + Json(rows[0].value) +
                   ", \"enabled\": " + (rows[2].value == "yes" ? "true" : "false") +
                   ", \"schedule\": " + Json(rows[8].value) + ", \"hits\": " + rows[15].value + "}";
        } else {
            out += std::string(RuleKindName(kind)) + "\t" + rows[0].value + "\t" +
                   (rows[2].value == "yes" ? "enabled" : "disabled") + "\t" + rows[8].value + "\n";
        }
        first = false;
    });
    if (json) out += first ? "]\n" : "\n]\n";
    return out;
}

std::string FormatRule(const CBaseFilter& rule, RuleKind kind, bool json) {
    std::string out = json ? "{" : "";
    bool first = true;
    for (const Row& row : Rows(rule, kind)) {
        if (json) {
            std::string value;
            if (row.kind == 'n')
                value = row.value;
            else if (row.kind == 'f')
                value = row.value == "yes" ? "true" : "false";
            else if (row.kind == 'l') {
                value = "[";
                for (size_t i = 0; i < row.list.size(); ++i) value += (i ? ", " : "") + Json(row.list[i]);
                value += "]";
            } else
                value = Json(row.value);
            out += std::string(first ? "\n  " : ",\n  ") + Json(row.name) + ": " + value;
        } else if (row.kind == 'l') {
            std::string joined;
            for (const std::string& e : row.list) joined += (joined.empty() ? "" : ", ") + e;
            out += std::string(row.name) + ": " + joined + "\n";
        } else {
            out += std::string(row.name) + ": " + row.value + "\n";
        }
        first = false;
    }
    if (json) out += "\n}\n";
    return out;
}

void ApplyRuleOptions(const Arguments& args, CBaseFilter& rule, RuleKind kind) {
    CString name, tag, action, object, onSuccess, activeOn;
    DWORD filterAll, useDate, useTime;
    rule.GetFilterData(name, tag, action, object, onSuccess, activeOn, filterAll, useDate, useTime);
    CTime fromDate, toDate, fromTime, toTime;
    rule.GetDateIntervals(fromDate, toDate);
    rule.GetTimeIntervals(fromTime, toTime);
    auto text = [&](const char* option, CString& field) {
        if (args.Has(option)) field = args.Get(option).c_str();
    };
    text("tag", tag);
    text("match", action);
    text("text", object);
    text("on-success", onSuccess);
    if (args.Has("schedule")) {
        const std::string word = args.Get("schedule");
        bool known = false;
        for (const char* s : kSchedules)
            if (Same(word, s)) {
                activeOn = s;
                known = true;
            }
        if (!known)
            throw UsageError(
                "--schedule takes All Days, a day (Mondays ... Sundays), Weekdays or Weekends, not '" + word +
                "'");
    }
    if (args.Has("from-date") && !ParseDate(args.Get("from-date"), fromDate))
        throw UsageError("--from-date takes YYYY-MM-DD, not '" + args.Get("from-date") + "'");
    if (args.Has("to-date") && !ParseDate(args.Get("to-date"), toDate))
        throw UsageError("--to-date takes YYYY-MM-DD, not '" + args.Get("to-date") + "'");
    if (args.Has("from-time") && !ParseClock(args.Get("from-time"), fromTime))
        throw UsageError("--from-time takes HH:MM, not '" + args.Get("from-time") + "'");
    if (args.Has("to-time") && !ParseClock(args.Get("to-time"), toTime))
        throw UsageError("--to-time takes HH:MM, not '" + args.Get("to-time") + "'");
    if (args.Has("from-date") || args.Has("to-date")) useDate = 1;
    if (args.Has("from-time") || args.Has("to-time")) useTime = 1;
    if (args.Has("use-dates")) useDate = ParseSwitch("use-dates", args.Get("use-dates")) ? 1 : 0;
    if (args.Has("use-times")) useTime = ParseSwitch("use-times", args.Get("use-times")) ? 1 : 0;
    if (useDate && toDate.GetTime() < fromDate.GetTime())
        throw UsageError("--to-date comes before --from-date");
    std::optional<bool> enabled;
    if (args.Has("enabled")) enabled = ParseSwitch("enabled", args.Get("enabled"));

    rule.SetFilterData(name, tag, action, object, onSuccess, activeOn, filterAll, useDate, useTime);
    rule.SetDateIntervals(fromDate, toDate);
    rule.SetTimeIntervals(fromTime, toTime);
    if (args.Has("folder")) rule.SetMailBoxFolder(args.Get("folder").c_str());

    CString t1, t2, t3, t4;
    DWORD n1, n2, n3, n4, n5, n6, n7;
    switch (kind) {
        case RuleKind::kShield: {
            auto& shield = static_cast<CSpamBlockProfile&>(rule);
            shield.GetSpamOptions(t1, t2, n1, n2, n3, n4, n5, n6, n7);
            text("complain-to", t1);
            text("spam-action", t2);
            shield.SetSpamOptions(t1, t2, n1, n2, n3, n4, n5, n6, n7);
            break;
        }
        case RuleKind::kRedirector: {
            auto& redirector = static_cast<CForwardMailProfile&>(rule);
            redirector.GetRedirectOptions(t1, t2, n1, n2, n3);
            text("body-file", t1);
            if (args.Has("subject")) {
                t2 = args.Get("subject").c_str();
                n2 = 0;
            }
            redirector.SetRedirectOptions(t1, t2, n1, n2, n3);
            if (args.Has("recipient")) {
                CStringArray list;
                for (const std::string& r : args.GetAll("recipient")) list.Add(r.c_str());
                redirector.SetRecipients(list);
            }
            break;
        }
        case RuleKind::kResponder: {
            auto& responder = static_cast<CAutoResponderProfile&>(rule);
            responder.GetAutoResponderOptions(t1, t2, t3, t4, n1, n2, n3);
            text("text-file", t1);
            text("attach-file", t2);
            if (args.Has("subject")) {
                t3 = args.Get("subject").c_str();
                n2 = 0;
            }
            responder.SetAutoResponderOptions(t1, t2, t3, t4, n1, n2, n3);
            break;
        }
    }
    if (enabled) SetRuleEnabled(rule, kind, *enabled);
}

void SetRuleEnabled(CBaseFilter& rule, RuleKind kind, bool enabled) {
    DWORD value = enabled ? 1 : 0;
    switch (kind) {
        case RuleKind::kShield:
            static_cast<CSpamBlockProfile&>(rule).SetActiveEntry(value);
            break;
        case RuleKind::kRedirector:
            static_cast<CForwardMailProfile&>(rule).SetActiveEntry(value);
            break;
        case RuleKind::kResponder:
            static_cast<CAutoResponderProfile&>(rule).SetActiveEntry(value);
            break;
    }
}

std::vector<std::string> ReadIniSections(const std::string& file) {
    std::ifstream in(file, std::ios::binary);
    if (!in) throw SessionError("cannot read " + file);
    std::vector<std::string> sections;
    std::string line;
    for (int number = 1; std::getline(in, line); ++number) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        size_t start = line.find_first_not_of(" \t");
        if (start == std::string::npos || line[start] == ';' || line[start] == '#') continue;
        std::string where = file + ":" + std::to_string(number) + ": ";
        if (line.find('\0') != std::string::npos) throw SessionError(where + "not a text line");
        if (line[start] == '[') {
            size_t close = line.find(']', start);
            if (close == std::string::npos || close == start + 1 ||
                line.find_first_not_of(" \t", close + 1) != std::string::npos)
                throw SessionError(where + "a section header is written [NAME]");
            sections.push_back(line.substr(start + 1, close - start - 1));
            continue;
        }
        size_t equals = line.find('=');
        if (equals == std::string::npos || equals == start)
            throw SessionError(where + "expected KEY=VALUE, a [SECTION] or a comment");
        if (sections.empty()) throw SessionError(where + "a key before the first [SECTION]");
    }
    if (in.bad()) throw SessionError("cannot read " + file);
    if (sections.empty()) throw SessionError(file + ": no [SECTION] in the file");
    return sections;
}

std::vector<std::string> ImportRules(CMailBoxProfile& owner, RuleKind kind, const std::string& file,
                                     std::vector<std::string> sections) {
    std::vector<std::string> present = ReadIniSections(file);
    if (sections.empty()) sections = present;
    // The INI reader takes a bare file name from the program's own directory, as Windows does: a name
    // the user gave relative to where they stand is made whole first.
    std::error_code error;
    const std::string path = std::filesystem::absolute(file, error).string();
    // Imported into copies first: nothing joins the owner unless every section makes a rule.
    std::vector<std::unique_ptr<CBaseFilter>> made;
    std::vector<std::string> names;
    for (const std::string& section : sections) {
        bool found = false;
        for (const std::string& p : present) found = found || Same(p, section);
        if (!found) throw SessionError(file + ": no section [" + section + "]");
        std::unique_ptr<CBaseFilter> rule;
        switch (kind) {
            case RuleKind::kShield: {
                auto r = std::make_unique<CSpamBlockProfile>();
                r->ImportFromIni(section.c_str(), path.c_str());
                rule = std::move(r);
                break;
            }
            case RuleKind::kRedirector: {
                auto r = std::make_unique<CForwardMailProfile>();
                r->ImportFromIni(section.c_str(), path.c_str());
                rule = std::move(r);
                break;
            }
            case RuleKind::kResponder: {
                auto r = std::make_unique<CAutoResponderProfile>();
                r->ImportFromIni(section.c_str(), path.c_str());
                rule = std::move(r);
                break;
            }
        }
        std::string name(rule->GetFilterName());
        char probe[8];
        if (GetPrivateProfileString(section.c_str(), "FilterName", "", probe, sizeof probe, path.c_str()) ==
            0)
            throw SessionError(file + ": section [" + section + "] has no FilterName");
        if (std::string why = CheckRuleName(name); !why.empty())
            throw SessionError(file + ": [" + section + "]: " + why);
        if (FindRule(owner, kind, name))
            throw SessionError(std::string("a ") + RuleKindName(kind) + " named '" + name +
                               "' exists already");
        for (const std::string& n : names)
            if (Same(n, name)) throw SessionError(file + ": two sections make the rule '" + name + "'");
        names.push_back(name);
        made.push_back(std::move(rule));
    }
    for (auto& rule : made) {
        switch (kind) {
            case RuleKind::kShield:
                owner.GetSpamShields().push_back(static_cast<CSpamBlockProfile&>(*rule));
                break;
            case RuleKind::kRedirector:
                owner.GetRedirectors().push_back(static_cast<CForwardMailProfile&>(*rule));
                break;
            case RuleKind::kResponder:
                owner.GetAutoResponders().push_back(static_cast<CAutoResponderProfile&>(*rule));
                break;
        }
    }
    return names;
}

}  // namespace tavik::host
