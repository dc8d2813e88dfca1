// What the three rule kinds share beyond CBaseFilter: the enumerations that rebuild a rule list from a
// container storage or from a parent registry key, and INI reads by string resource.
#pragma once

#include <algorithm>
#include <iterator>
#include <list>
#include <string>
#include <vector>

#include "platform/CString.h"
#include "platform/OleStorage.h"
#include "platform/Registry.h"

namespace tavik::lib {

// The names of the sub-storages of storage, in enumeration order; nameless ones apart.
void ListSubStorages(IStorage* storage, std::vector<CString>& named, std::vector<std::u16string>& nameless);
// Destroys each element; failures are ignored.
void DestroyElements(IStorage* storage, const std::vector<std::u16string>& names);

// The text of the key (named by a string resource) through a 16384-byte buffer, "None" when missing.
CString IniText(const CString& section, UINT keyId, const CString& iniFile);
// The number of the key, 0 when missing.
DWORD IniNumber(const CString& section, UINT keyId, const CString& iniFile);

// Every sub-storage of storage read as a Kind. Append mode adds each one with a name that reads valid.
// Merge mode refreshes the first live rule of the list with exactly that name (which is marked deleted
// when the stored copy has lost its name or is damaged, and keeps its interval switches otherwise) and
// adds the others as in append mode.
// Nameless sub-storages are removed afterwards.
template <class Kind>
void EnumKindStorage(IStorage* storage, std::list<Kind>& list, bool append) {
    if (!storage) return;
    std::vector<CString> named;
    std::vector<std::u16string> nameless;
    ListSubStorages(storage, named, nameless);
    for (const CString& element : named) {
        // Read in place at the end of the list, so that no copy of a large rule is ever made.
        list.emplace_back();
        Kind& fresh = list.back();
        fresh.ReadStorageData(storage, element);
        const bool usable = !fresh.GetFilterName().IsEmpty() && fresh.IsValidObject();
        if (append) {
            if (!usable) list.pop_back();
            continue;
        }
        auto same = std::find_if(list.begin(), std::prev(list.end()), [&](const Kind& rule) {
            return !rule.GetDeleted() && rule.GetFilterName().str() == fresh.GetFilterName().str();
        });
        if (same == std::prev(list.end())) {
            if (!usable) list.pop_back();
            continue;
        }
        list.pop_back();
        // A stored record always reads back with its interval switches off; the rule's own copy (from
        // the registry) keeps the ones the user set.
        CString name, tag, action, object, onSuccess, activeOn;
        DWORD all, useDates, useTimes, unused;
        same->GetFilterData(name, tag, action, object, onSuccess, activeOn, all, useDates, useTimes);
        same->ReadStorageData(storage, element);
        same->GetFilterData(name, tag, action, object, onSuccess, activeOn, all, unused, unused);
        same->SetFilterData(name, tag, action, object, onSuccess, activeOn, all, useDates, useTimes);
        if (same->GetFilterName().IsEmpty() || !same->IsValidObject()) same->SetDeleted(true);
    }
    DestroyElements(storage, nameless);
}

// One Kind per sub-key of parent (an open handle on parentKey), each loaded from "<parentKey>\<name>",
// in enumeration order, until the first index the registry does not give (a name of 1000 characters or
// more ends the walk too). Deleted or damaged rules are listed as well.
template <class Kind>
void EnumKindRegistry(HKEY parent, std::list<Kind>& list, const CString& parentKey) {
    char name[1000];
    for (DWORD index = 0;; ++index) {
        DWORD size = sizeof name;
        if (RegEnumKeyEx(parent, index, name, &size, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS)
            break;
        list.emplace_back();
        list.back().LoadRegistryData(parentKey + "\\" + name);
    }
}

}  // namespace tavik::lib
