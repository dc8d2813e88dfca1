// A spam shield: a rule whose condition marks junk mail, with what to do about it ("Spam Action",
// "Mark" by default), where to complain, whom to notify and two switches kept for the host. Each account
// keeps a list; the global profile keeps the shields that apply to every account.
//
// Only ResetValues and SetSpamOptions take the shield's lock; readers and persistence take none, so a
// host that changes a shield on one thread while another persists it orders those calls itself.
#pragma once

#include <list>
#include <map>

#include "platform/CCriticalSection.h"
#include "rules/CBaseFilter.h"

class CSpamBlockProfile : public CBaseFilter {
    DECLARE_DYNAMIC(CSpamBlockProfile)

public:
    CSpamBlockProfile();
    // Every field but the lock, which each shield has of its own.
    CSpamBlockProfile(const CSpamBlockProfile& other);
    CSpamBlockProfile& operator=(const CSpamBlockProfile& other);
    ~CSpamBlockProfile() override = default;

    // The base defaults, then spam action "Mark", verify return address 1, every other number 0 and
    // complain-to empty; under the lock.
    void ResetValues();

    // Note the order: webmaster before other (the stored record has other first).
    void GetSpamOptions(CString& complainTo, CString& spamAction, DWORD& notifyAbuse, DWORD& notifyAdmin,
                        DWORD& notifyWebmaster, DWORD& notifyOther, DWORD& activeEntry,
                        DWORD& verifyReturnAddress, DWORD& useIntelligence) const;
    // Under the lock.
    void SetSpamOptions(const CString& complainTo, const CString& spamAction, DWORD notifyAbuse,
                        DWORD notifyAdmin, DWORD notifyWebmaster, DWORD notifyOther, DWORD activeEntry,
                        DWORD verifyReturnAddress, DWORD useIntelligence);

    // 0 when switched off, else whether the schedule is open now (1 or 0).
    DWORD GetActiveEntry() const { return ActiveEntryOf(m_dwActiveEntry); }
    void SetActiveEntry(DWORD& activeEntry) { m_dwActiveEntry = activeEntry; }

    // Exact names; a deleted shield answers false to all, and to the name comparison, which ignores case.
    bool operator==(const CSpamBlockProfile& other) const;
    bool operator!=(const CSpamBlockProfile& other) const;
    bool operator<(const CSpamBlockProfile& other) const;
    bool operator>(const CSpamBlockProfile& other) const;
    bool operator==(const CString& name) const override;

    // Storage (the account passes the container "Shields"): the shield's own sub-storage of the container,
    // named after the shield. Failures clear the valid flag (see CBaseFilter).
    void ReadStorageData(IStorage* container, CString element);
    void SaveStorageData(IStorage* parent, CString container);
    // Registry: "<parent>\<name>" with the base values and the shield's own (see CBaseFilter).
    void LoadRegistryData(CString key) override;
    void SaveRegistryData(CString parentKey) override;
    // Appends one shield per sub-key of the key this object holds open (GetKeyHandle) at parentKey;
    // nothing without an open key.
    void EnumRegistryKey(std::list<CSpamBlockProfile>& list, CString parentKey);
    // Rebuilds a list from the sub-storages of storage; merge mode (append false) refreshes shields of
    // the same name instead of adding them twice. Nameless sub-storages are removed.
    static void EnumStorage(IStorage* storage, std::list<CSpamBlockProfile>& list, bool append);
    // The base keys, then the shield's ("Use Intelligence" is not imported). Takes no lock.
    void ImportFromIni(CString section, CString iniFile);

private:
    void OwnRegistryMaps(std::map<DWORD, CString*>& texts, std::map<DWORD, DWORD*>& numbers);

    DWORD m_dwNotifyAbuse = 0;
    DWORD m_dwNotifyAdmin = 0;
    DWORD m_dwNotifyOther = 0;
    DWORD m_dwNotifyWebmaster = 0;
    DWORD m_dwActiveEntry = 0;
    DWORD m_dwVerifyReturnAddress = 1;
    DWORD m_dwUseIntelligence = 0;
    CString m_strComplainTo;
    CString m_strSpamAction;
    CCriticalSection m_csLock;
};
