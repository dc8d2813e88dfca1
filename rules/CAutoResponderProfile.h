// An auto-responder: a rule that answers matching messages with a text file (and an attachment) under a
// subject template ("AUTO-RESPONSE: %SUBJECT%" by default). Its duplicates list holds what the host has
// answered in the current period, so that nobody is answered twice; the list is emptied when the
// period ("Daily" or "hourly") has passed since the reset mark, checked at each registry load.
#pragma once

#include <list>
#include <map>

#include "rules/CBaseFilter.h"

// Lengths of the five texts of the responder text record, in its order.
struct _tagSTR_RESPONDERDATA {
    DWORD dwTextFile;
    DWORD dwAttachFile;
    DWORD dwDefaultSubject;
    DWORD dwDuplicateAction;
    DWORD dwDateTime;
};

class CAutoResponderProfile : public CBaseFilter {
    DECLARE_DYNAMIC(CAutoResponderProfile)

public:
    CAutoResponderProfile();
    CAutoResponderProfile(const CAutoResponderProfile& other);
    CAutoResponderProfile& operator=(const CAutoResponderProfile& other);
    ~CAutoResponderProfile() override = default;

    // The base defaults, then subject "AUTO-RESPONSE: %SUBJECT%", duplicate action "Daily", use default
    // subject 1, switched off, no files, no reset mark and no duplicates.
    void ResetValues();

    // The reset mark is not among the options.
    void GetAutoResponderOptions(CString& textFile, CString& attachFile, CString& subjectTemplate,
                                 CString& duplicateAction, DWORD& ignoreDuplicates, DWORD& useDefaultSubject,
                                 DWORD& activeEntry) const;
    void SetAutoResponderOptions(const CString& textFile, const CString& attachFile,
                                 const CString& subjectTemplate, const CString& duplicateAction,
                                 DWORD ignoreDuplicates, DWORD useDefaultSubject, DWORD activeEntry);
    // Appends the entry unless the list holds it (ignoring case).
    void AddDuplicate(CString entry);
    // Whether the list holds the entry (ignoring case); always false while ignore duplicates is set.
    bool SearchDuplicate(CString entry) const;
    // Beyond the classic interface: the list as it is, and the reset mark ("%Y,%m,%d,%H,%M,%S", local).
    void GetDuplicates(CStringArray& duplicates) const { duplicates.Copy(m_Duplicates); }
    CString GetResetMark() const { return m_strDateTime; }

    // The five texts concatenated: text file, attach file, subject template, duplicate action, reset mark.
    CString BuildResponderStringData() const;
    // The reverse, by the rules of CBaseFilter::ParseBaseFilterString.
    void ParseResponderStringData(const char* text, const _tagSTR_RESPONDERDATA* lengths);

    DWORD GetActiveEntry() const { return ActiveEntryOf(m_dwActiveEntry); }
    void SetActiveEntry(DWORD& activeEntry) { m_dwActiveEntry = activeEntry; }

    // Exact names (the deleted flag is not consulted); the name comparison ignores case.
    bool operator==(const CAutoResponderProfile& other) const;
    bool operator!=(const CAutoResponderProfile& other) const;
    bool operator<(const CAutoResponderProfile& other) const;
    bool operator>(const CAutoResponderProfile& other) const;
    bool operator==(const CString& name) const override;

    // Storage (the account passes the container "AutoResponder"). Duplicates read from storage are added
    // unless present (ignoring case); the expiry does not run. Failures clear the valid flag.
    void ReadStorageData(IStorage* container, CString element);
    void SaveStorageData(IStorage* parent, CString container);
    // Registry: "<parent>\<name>" with the base values, the responder's own and a "Duplicates" sub-key
    // that replaces the list. A load of an existing key ends with the expiry.
    void LoadRegistryData(CString key) override;
    void SaveRegistryData(CString parentKey) override;
    // As CSpamBlockProfile::EnumRegistryKey and EnumStorage.
    void EnumRegistryKey(std::list<CAutoResponderProfile>& list, CString parentKey);
    static void EnumStorage(IStorage* storage, std::list<CAutoResponderProfile>& list, bool append);
    // The base keys, then the responder's; the duplicates are not imported.
    void ImportFromIni(CString section, CString iniFile);

private:
    // Without a reset mark, marks now. Otherwise, when the whole hours since 1970 of now and of the mark
    // differ by 25 or more ("Daily") or 2 or more ("hourly", either ignoring case), empties the list and
    // marks now; other actions never expire. Leaves ',' as the element separator.
    void CheckDate();
    // The first count fields of the responder text record.
    void ParseRecord(const char* text, const _tagSTR_RESPONDERDATA& lengths, size_t count);
    void OwnRegistryMaps(std::map<DWORD, CString*>& texts, std::map<DWORD, DWORD*>& numbers);

    CString m_strTextFile;
    CString m_strAttachFile;
    CString m_strDefaultSubject;
    CString m_strDuplicateAction;
    CString m_strDateTime;
    DWORD m_dwIgnoreDuplicates = 0;
    DWORD m_dwUseDefaultSubject = 1;
    DWORD m_dwActiveEntry = 0;
    CStringArray m_Duplicates;
};
