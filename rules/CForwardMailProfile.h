// A redirector: a rule that forwards matching messages to its recipients, with a subject template
// ("FWD: %SUBJECT%" by default), a body template file and the switches that choose between them. The
// host composes and sends the forwarded message; the library keeps the values.
#pragma once

#include <list>
#include <map>

#include "rules/CBaseFilter.h"

class CForwardMailProfile : public CBaseFilter {
    DECLARE_DYNAMIC(CForwardMailProfile)

public:
    CForwardMailProfile();
    CForwardMailProfile(const CForwardMailProfile& other);
    CForwardMailProfile& operator=(const CForwardMailProfile& other);
    ~CForwardMailProfile() override = default;

    // The base defaults, then subject "FWD: %SUBJECT%", use default subject 1, use default body 0,
    // switched off, no body template and no recipients.
    void ResetValues();

    void GetRedirectOptions(CString& bodyTemplateFile, CString& subjectTemplate, DWORD& useDefaultBody,
                            DWORD& useDefaultSubject, DWORD& activeEntry) const;
    void SetRedirectOptions(const CString& bodyTemplateFile, const CString& subjectTemplate,
                            DWORD useDefaultBody, DWORD useDefaultSubject, DWORD activeEntry);
    // Each empties the target, then copies into it.
    void GetRecipients(CStringArray& recipients) const { recipients.Copy(m_Recipients); }
    void SetRecipients(CStringArray& recipients) { m_Recipients.Copy(recipients); }

    DWORD GetActiveEntry() const { return ActiveEntryOf(m_dwActiveEntry); }
    void SetActiveEntry(DWORD& activeEntry) { m_dwActiveEntry = activeEntry; }

    // All exact, byte-wise; the deleted flag is not consulted.
    bool operator==(const CForwardMailProfile& other) const;
    bool operator!=(const CForwardMailProfile& other) const;
    bool operator<(const CForwardMailProfile& other) const;
    bool operator>(const CForwardMailProfile& other) const;
    bool operator==(const CString& name) const override;

    // Storage (the account passes the container "Redirector"). Recipients read from storage are added
    // unless present (ignoring case). Failures clear the valid flag (see CBaseFilter).
    void ReadStorageData(IStorage* container, CString element);
    void SaveStorageData(IStorage* parent, CString container);
    // Registry: "<parent>\<name>" with the base values, the redirector's own and a "Recipients" sub-key
    // whose values replace the recipients as they are.
    void LoadRegistryData(CString key) override;
    void SaveRegistryData(CString parentKey) override;
    // As CSpamBlockProfile::EnumRegistryKey and EnumStorage.
    void EnumRegistryKey(std::list<CForwardMailProfile>& list, CString parentKey);
    static void EnumStorage(IStorage* storage, std::list<CForwardMailProfile>& list, bool append);
    // The base keys, then the redirector's; recipients are not imported.
    void ImportFromIni(CString section, CString iniFile);

private:
    void OwnRegistryMaps(std::map<DWORD, CString*>& texts, std::map<DWORD, DWORD*>& numbers);

    CString m_strDefaultSubject;
    CString m_strFormatBodyFilename;
    DWORD m_dwUseDefaultSubject = 1;
    DWORD m_dwActiveEntry = 0;
    DWORD m_dwUseDefaultBody = 0;
    CStringArray m_Recipients;
};
