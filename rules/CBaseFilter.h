// What every rule has: a name, a condition of three texts, the action on success with its folder, a
// weekly schedule with optional date and time-of-day intervals, a hit count, the identifiers of the
// messages it has handled and an ignore list. The library keeps, schedules and persists rules; the host
// matches them against messages, acts, and records each handled message with AddProcessedID.
//
// Rules are persisted as values under a registry key and as streams in a sub-storage of the account's
// compound file (both layouts are read; saves write the current one), and can be imported from an INI
// section. The three kinds (CSpamBlockProfile, CForwardMailProfile, CAutoResponderProfile) add their own
// fields and the public persistence calls.
//
// No lock: a rule is used by one thread at a time.
#pragma once

#include <functional>
#include <initializer_list>
#include <list>
#include <map>

#include "accounts/CRegistryManager.h"
#include "messages/CStorageManager.h"
#include "platform/CArray.h"
#include "platform/CString.h"
#include "platform/CTime.h"
#include "rules/internal/ProcessedIdList.h"

// Lengths of the eight texts of the base text record, in its order.
struct _tagSTR_BASEFILTERDATA {
    DWORD dwFilterName;
    DWORD dwMailTag;
    DWORD dwAction;
    DWORD dwObject;
    DWORD dwOnSuccess;
    DWORD dwMoveToFolder;
    DWORD dwTemporaryFile;
    DWORD dwActiveOn;
};

class CBaseFilter : public CRegistryManager {
    DECLARE_DYNAMIC(CBaseFilter)

public:
    // Empty fields; the kinds' constructors set the defaults.
    CBaseFilter();
    // Every field and both lists; never the registry key handle. Self-assignment does nothing.
    CBaseFilter(const CBaseFilter& other);
    CBaseFilter& operator=(const CBaseFilter& other);
    ~CBaseFilter() override = default;

    // Mail tag "Header", match action "contains", success action "Do Nothing", schedule "All Days",
    // from date now, to date now + 1 day, both clock times now, numbers 0, valid, not deleted, no
    // processed identifiers. The ignore list is left as it is.
    void ResetValues();

    void GetFilterData(CString& name, CString& mailTag, CString& action, CString& object, CString& onSuccess,
                       CString& activeOn, DWORD& filterAll, DWORD& useDateInterval,
                       DWORD& useTimeInterval) const;
    void SetFilterData(const CString& name, const CString& mailTag, const CString& action,
                       const CString& object, const CString& onSuccess, const CString& activeOn,
                       DWORD filterAll, DWORD useDateInterval, DWORD useTimeInterval);
    CString GetFilterName() const { return m_strFilterName; }
    CString GetSuccessAction() const { return m_strOnSuccess; }
    CString GetMailBoxFolder() const { return m_strMoveToFolder; }
    CString GetMailBoxFolder() { return m_strMoveToFolder; }
    void SetMailBoxFolder(const CString& folder) { m_strMoveToFolder = folder; }
    void GetDateIntervals(CTime& from, CTime& to) const;
    void SetDateIntervals(CTime from, CTime to);
    // Only the clock times count.
    void GetTimeIntervals(CTime& from, CTime& to) const;
    void SetTimeIntervals(CTime from, CTime to);

    DWORD GetHitCount() const { return m_dwHitCount; }
    void IncrementHits(int n) { m_dwHitCount += static_cast<DWORD>(n); }

    // A deleted rule is removed by its next save and answers false to most comparisons.
    void SetDeleted(bool deleted) { m_bDeleted = deleted; }
    bool GetDeleted() const { return m_bDeleted; }
    // False after a failed storage read or save, or a current-layout record without name, mail tag or
    // match action.
    bool IsValidObject() const { return m_bValid; }

    // Each empties the target, then copies into it.
    void GetIgnoreList(CStringArray& list) const { list.Copy(m_IgnoreList); }
    void SetIgnoreList(CStringArray& list) { m_IgnoreList.Copy(list); }

    // Appends the identifier and counts a hit, unless the rule has handled it already.
    void AddProcessedID(DWORD id);
    bool SearchProcessedID(DWORD id) const { return m_ProcessedIDs.Contains(id); }
    // The first occurrence only.
    void RemoveProcessedID(DWORD id) { m_ProcessedIDs.RemoveFirst(id); }
    // Hit count 0 and no processed identifiers.
    virtual void ResetFilter();
    // Beyond the classic interface, for hosts and tools: the identifiers in order, and their number.
    void GetProcessedIDs(std::list<DWORD>& ids) const { ids = m_ProcessedIDs.ToList(); }
    size_t GetProcessedIDCount() const { return m_ProcessedIDs.Size(); }

    // The file of processed identifiers: 4 bytes little-endian each, in list order. A missing file
    // leaves the list as it is; a file's trailing 1 to 3 bytes are ignored; the hit count does not
    // change. A read error keeps what was read before it.
    void LoadProcessedIDs();
    // When no file exists at the path, the path becomes "<program directory><name>.tpd". The file is
    // replaced whole (written beside it, then renamed over it); on a write error the previous file stays
    // and nothing is reported.
    void SaveProcessedIDs();
    CString GetProcessedIDsFile() const { return m_strTemporaryFile; }
    void SetProcessedIDsFile(const CString& path) { m_strTemporaryFile = path; }
    // The name of the rule's sub-storage, once it has been saved to or read from storage.
    CString GetStorageName() const { return m_strStorageName; }

    // The eight texts concatenated: name, mail tag, match action, object, success action, folder,
    // processed-IDs file, schedule word.
    CString BuildBaseFilterString() const;
    // The reverse. Nothing happens when either pointer is null. The first field is taken only when the
    // text (up to its first zero byte) is at least as long as its length; each later field when its
    // start lies within the text, cut at the text's end. Parsing stops at the first field not taken;
    // it and those after it keep their values. Lengths of any size are safe.
    void ParseBaseFilterString(const char* text, const _tagSTR_BASEFILTERDATA* lengths);

    // Names compared as the base table has it: == ignores case, !=, < and > are byte-wise (unsigned);
    // a deleted rule answers false to all of them.
    bool operator==(const CBaseFilter& other) const;
    bool operator!=(const CBaseFilter& other) const;
    bool operator<(const CBaseFilter& other) const;
    bool operator>(const CBaseFilter& other) const;
    virtual bool operator==(const CString& name) const;

    // The weekly schedule on the local date of the platform's clock: "All Days", a day ("Mondays" ...),
    // "Weekdays" or "Weekends", ignoring case; any other word is never active.
    bool IsActiveOn() const;
    // The schedule, then, when switched on, the date interval and the clock-time interval of today,
    // both ends included. A clock-time interval that would cross midnight is never open.
    bool CheckActivateStatus() const;

protected:
    // Registry, under the current user. Save writes the rule key "<parent>\<name>" with its "Processed"
    // and "Ignore" sub-keys, or removes all three when the rule is deleted; an empty parent or name does
    // nothing. Load reads the rule's own key; a missing key is created, the rule reset, and the (kind's)
    // save called with the same key; missing values keep their fields, except the four times, which
    // restart at now, now + 1 day, now, now. Both work through keys of their own and leave the
    // object's key (GetKeyHandle) as it was. Registry failures are not reported.
    virtual void SaveRegistryData(CString parentKey);
    virtual void LoadRegistryData(CString key);
    // Storage, in the rule's own sub-storage. Save writes the current layout and removes the old
    // layout's elements. Read takes either layout; a current-layout record switches both intervals
    // off, and one without name, mail tag or match action clears the valid flag. A storage failure is
    // caught, the rest of the steps are skipped and the valid flag is cleared. Damaged records never
    // allocate more than the stream holds; numbers that do not fit a short record keep their values.
    void ReadStorageData(CStorageManager* storage);
    void SaveStorageData(CStorageManager* storage);
    // The save's steps without the catch, for a kind's save that handles failures as a whole.
    void WriteBaseStorage(CStorageManager& storage);
    // The base keys of the section: a missing text gives "None", a missing number 0, missing dates
    // "2000:1:1" and clock times "12:1:1". Neither list is imported.
    void ImportFromIni(CString section, CString iniFile);
    // "year:month:day" at 12:00:00 local time; out-of-range parts become 2000, 1 and 1. Leaves ':' as the
    // process-wide element separator.
    void ParseSetDate(CString text, CTime& result);
    // "hour:minute:second" on 1 January 2000, local time; an hour outside 1..24 becomes 12, a minute or
    // second outside 0..59 becomes 0. Leaves ':' as the element separator.
    void ParseSetTime(CString text, CTime& result);
    CString ResString(UINT id) const;
    // length characters; kind 1 letters and digits, 2 letters, 3 digits 0..8, other: any byte. The
    // generator is reseeded from the tick count before each character.
    CString RandomString(int length, int kind);

    // --- shared by the kinds
    // 0 when the switch is off, else CheckActivateStatus.
    DWORD ActiveEntryOf(DWORD activeEntry) const { return activeEntry ? (CheckActivateStatus() ? 1 : 0) : 0; }
    // The kind protocol in storage. Save opens (creating) the container of parent, then either removes
    // the rule's sub-storage (deleted rule) or opens (creating) it and hands it to writeOwn, which
    // writes the kind's streams and the base part (WriteBaseStorage). A failure anywhere leaves the
    // previous copy of the rule in place. Read names the storage after element, opens it
    // (creating) in container and hands it to readOwn. Failures clear the valid flag.
    void SaveKindStorage(IStorage* parent, const CString& container,
                         const std::function<void(CStorageManager&)>& writeOwn);
    void ReadKindStorage(IStorage* container, const CString& element,
                         const std::function<void(CStorageManager&)>& readOwn);
    // The rule key "<parent>\<name>"; empty when either part is empty.
    CString RuleKeyOf(const CString& parentKey) const;
    // Whether the key exists under the current user, without creating it.
    static bool KeyExists(const CString& key);
    // Deletes the given sub-keys of key (ids of their names), then key itself.
    static void DeleteRuleKey(const CString& key, std::initializer_list<UINT> subKeys);
    // Deletes and recreates key\<sub-key>, then fills it through write.
    static void RewriteSubKey(const CString& key, UINT subKeyId,
                              const std::function<void(CRegistryManager&)>& write);
    // Reads key\<sub-key> through read when the sub-key exists.
    static void ReadSubKey(const CString& key, UINT subKeyId,
                           const std::function<void(CRegistryManager&)>& read);

    bool m_bDeleted = false;
    CString m_strFilterName;
    CString m_strMailTag;
    CString m_strAction;
    CString m_strObject;
    CString m_strOnSuccess;
    CString m_strMoveToFolder;
    CString m_strTemporaryFile;
    CString m_strActiveOn;
    CString m_strStorageName;
    DWORD m_dwFilterAll = 0;
    DWORD m_dwUseDateInterval = 0;
    DWORD m_dwUseTimeInterval = 0;
    DWORD m_dwHitCount = 0;
    bool m_bValid = true;
    CTime m_tmFromDate;
    CTime m_tmToDate;
    CTime m_tmFromTime;
    CTime m_tmToTime;
    tavik::lib::ProcessedIdList m_ProcessedIDs;
    CStringArray m_IgnoreList;

private:
    void CopyFrom(const CBaseFilter& other);
    // The first count fields of the base text record.
    void ParseBaseRecord(const char* text, const _tagSTR_BASEFILTERDATA& lengths, size_t count);
    // The base values of the registry record; the four times pass through times[4] as seconds.
    void RegistryMaps(std::map<DWORD, CString*>& texts, std::map<DWORD, DWORD*>& numbers, DWORD* times);
    // The name a new sub-storage gets in container: the rule name, or 20 random letters when the name is
    // longer than 30 characters, holds a character an element name cannot hold, or (for random names)
    // is taken already.
    void ChooseStorageName(IStorage* container);
};
