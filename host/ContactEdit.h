// The logic behind `tavik contact` and `tavik friends add-contacts`: an account's address book as text,
// JSON or vCard, and contacts made from vCards.
#pragma once

#include <string>
#include <vector>

#include "accounts/CMailBoxProfile.h"
#include "contacts/CAddressEntry.h"
#include "host/VCard.h"

namespace tavik::host {

// The live (not deleted) contacts of the account.
std::vector<CAddressEntry*> LiveContacts(CMailBoxProfile& account);
// A line each (id, name, first address), or a JSON array.
std::string FormatContactList(CMailBoxProfile& account, bool json);

VCardContact ToVCard(const CAddressEntry& entry);
// Fills a new entry from a card: the first three addresses (preferred first), telephone numbers by type
// (work, home, cell, pager, fax; more of a kind than the book has places for go to "other"), a work and a
// home postal address.
void FromVCard(const VCardContact& card, CAddressEntry& entry);

// The contact whose id (decimal) or name (ignoring case) is key; throws SessionError when none or when a
// name is ambiguous.
CAddressEntry& FindContact(CMailBoxProfile& account, const std::string& key);
// Every e-mail address of the account's contacts, each once (ignoring case).
std::vector<std::string> ContactAddresses(CMailBoxProfile& account);

}  // namespace tavik::host
