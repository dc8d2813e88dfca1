// The logic behind `tavik rule`: an account's (or the global) rules of the three kinds found by name,
// shown as text or JSON, changed from the command line's options, and imported from INI sections after
// the file has been checked line by line.
#pragma once

#include <string>
#include <vector>

#include "accounts/CMailBoxProfile.h"
#include "host/CommandLine.h"

namespace tavik::host {

enum class RuleKind { kShield, kRedirector, kResponder };

// "shield", "redirector", "responder" (plurals too); throws UsageError otherwise.
RuleKind ParseRuleKind(const std::string& word);
const char* RuleKindName(RuleKind kind);

// The rule of that kind and name (ignoring case), skipping deleted ones; null when none.
CBaseFilter* FindRule(CMailBoxProfile& owner, RuleKind kind, const std::string& name);
// Appends a new rule with its defaults and that name; throws SessionError for an empty name, one with a
// backslash or control character, one over 255 characters, or one already in use by that kind.
CBaseFilter& AddRule(CMailBoxProfile& owner, RuleKind kind, const std::string& name);

// Every live rule of the kinds asked for (all when kinds is empty): a line each, or a JSON array.
std::string FormatRuleList(CMailBoxProfile& owner, const std::vector<RuleKind>& kinds, bool json);
// Every field of one rule, "name: value" lines or a JSON object.
std::string FormatRule(const CBaseFilter& rule, RuleKind kind, bool json);

// The options of `rule add|set` applied; every value is checked before anything changes (UsageError for
// a bad date, time, schedule or switch).
void ApplyRuleOptions(const Arguments& args, CBaseFilter& rule, RuleKind kind);
void SetRuleEnabled(CBaseFilter& rule, RuleKind kind, bool enabled);

// The sections of an INI file, after checking every line: blank, a comment (';' or '#'), "[section]" or
// "key=value". Throws SessionError naming the file and the first bad line, or an unreadable file.
std::vector<std::string> ReadIniSections(const std::string& file);
// Imports the sections (every one when sections is empty) as rules of the kind with ImportFromIni. The
// whole import is checked first: a missing section, a section without a rule name, or a name already
// in use refuses it all. Returns the names imported.
std::vector<std::string> ImportRules(CMailBoxProfile& owner, RuleKind kind, const std::string& file,
                                     std::vector<std::string> sections);

}  // namespace tavik::host
