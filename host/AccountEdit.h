// The logic behind `tavik account` and the list commands: an account's settings as text or JSON, the
// command line's changes applied to an account, and edits of its friend, spammer and folder lists.
#pragma once

#include <list>
#include <string>
#include <vector>

#include "accounts/CMailBoxProfile.h"
#include "host/CommandLine.h"

namespace tavik::host {

enum class AccountList { kFriends, kSpammers, kFolders };

// One line per account (name, address, server, login, disabled), or a JSON array of objects.
std::string FormatAccountList(const std::list<CMailBoxProfile*>& accounts, bool json);
// Every setting, one "name: value" line each, or a JSON object; passwords only as set or not set.
std::string FormatAccount(const CMailBoxProfile& account, bool json);
// The settings options of `account add|set` applied to account. Checks every value before changing
// anything: throws UsageError for a bad number or switch and SessionError for a password that cannot
// be read, leaving the account as it was.
void ApplyAccountOptions(const Arguments& args, CMailBoxProfile& account);

std::vector<std::string> ListEntries(const CMailBoxProfile& account, AccountList list);
// One entry a line, or a JSON array of strings.
std::string FormatEntries(const std::vector<std::string>& entries, bool json);
// Adds the entries not yet present (ignoring case); returns how many were added. Throws SessionError for
// an empty entry or one with a control character, changing nothing.
int AddEntries(CMailBoxProfile& account, AccountList list, const std::vector<std::string>& entries);
// Removes the entries (ignoring case); throws SessionError, changing nothing, when one is not present.
int RemoveEntries(CMailBoxProfile& account, AccountList list, const std::vector<std::string>& entries);

}  // namespace tavik::host
