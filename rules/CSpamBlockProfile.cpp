#include "rules/CSpamBlockProfile.h"

#include <map>

#include "rules/internal/KindSupport.h"
#include "rules/internal/RuleStrings.h"
#include "rules/internal/StorageRecords.h"

IMPLEMENT_DYNAMIC(CSpamBlockProfile, CBaseFilter)

using namespace tavik::lib;

CSpamBlockProfile::CSpamBlockProfile() { ResetValues(); }

CSpamBlockProfile::CSpamBlockProfile(const CSpamBlockProfile& other) : CBaseFilter() { *this = other; }

CSpamBlockProfile& CSpamBlockProfile::operator=(const CSpamBlockProfile& other) {
    if (this == &other) return *this;
    CBaseFilter::operator=(other);
    m_dwNotifyAbuse = other.m_dwNotifyAbuse;
    m_dwNotifyAdmin = other.m_dwNotifyAdmin;
    m_dwNotifyOther = other.m_dwNotifyOther;
    m_dwNotifyWebmaster = other.m_dwNotifyWebmaster;
    m_dwActiveEntry = other.m_dwActiveEntry;
    m_dwVerifyReturnAddress = other.m_dwVerifyReturnAddress;
    m_dwUseIntelligence = other.m_dwUseIntelligence;
    m_strComplainTo = other.m_strComplainTo;
    m_strSpamAction = other.m_strSpamAction;
    return *this;
}

void CSpamBlockProfile::ResetValues() {
    CSingleLock lock(&m_csLock, TRUE);
    CBaseFilter::ResetValues();
    m_dwNotifyAbuse = m_dwNotifyAdmin = m_dwNotifyOther = m_dwNotifyWebmaster = 0;
    m_dwActiveEntry = 0;
    m_dwVerifyReturnAddress = 1;
    m_dwUseIntelligence = 0;
    m_strComplainTo.Empty();
    m_strSpamAction = "Mark";
}

void CSpamBlockProfile::GetSpamOptions(CString& complainTo, CString& spamAction, DWORD& notifyAbuse,
                                       DWORD& notifyAdmin, DWORD& notifyWebmaster, DWORD& notifyOther,
                                       DWORD& activeEntry, DWORD& verifyReturnAddress,
                                       DWORD& useIntelligence) const {
    complainTo = m_strComplainTo;
    spamAction = m_strSpamAction;
    notifyAbuse = m_dwNotifyAbuse;
    notifyAdmin = m_dwNotifyAdmin;
    notifyWebmaster = m_dwNotifyWebmaster;
    notifyOther = m_dwNotifyOther;
    activeEntry = m_dwActiveEntry;
    verifyReturnAddress = m_dwVerifyReturnAddress;
    useIntelligence = m_dwUseIntelligence;
}

void CSpamBlockProfile::SetSpamOptions(const CString& complainTo, const CString& spamAction,
                                       DWORD notifyAbuse, DWORD notifyAdmin, DWORD notifyWebmaster,
                                       DWORD notifyOther, DWORD activeEntry, DWORD verifyReturnAddress,
                                       DWORD useIntelligence) {
    CSingleLock lock(&m_csLock, TRUE);
    m_strComplainTo = complainTo;
    m_strSpamAction = spamAction;
    m_dwNotifyAbuse = notifyAbuse;
    m_dwNotifyAdmin = notifyAdmin;
    m_dwNotifyWebmaster = notifyWebmaster;
    m_dwNotifyOther = notifyOther;
    m_dwActiveEntry = activeEntry;
    m_dwVerifyReturnAddress = verifyReturnAddress;
    m_dwUseIntelligence = useIntelligence;
}

bool CSpamBlockProfile::operator==(const CSpamBlockProfile& other) const {
    return !m_bDeleted && m_strFilterName.str() == other.m_strFilterName.str();
}

bool CSpamBlockProfile::operator!=(const CSpamBlockProfile& other) const {
    return !m_bDeleted && m_strFilterName.str() != other.m_strFilterName.str();
}

bool CSpamBlockProfile::operator<(const CSpamBlockProfile& other) const {
    return !m_bDeleted && m_strFilterName.str() < other.m_strFilterName.str();
}

bool CSpamBlockProfile::operator>(const CSpamBlockProfile& other) const {
    return !m_bDeleted && m_strFilterName.str() > other.m_strFilterName.str();
}

bool CSpamBlockProfile::operator==(const CString& name) const {
    return !m_bDeleted && m_strFilterName.CompareNoCase(name) == 0;
}

// --- storage

void CSpamBlockProfile::SaveStorageData(IStorage* parent, CString container) {
    SaveKindStorage(parent, container, [&](CStorageManager& storage) {
        storage.WriteString(IDS_SPAM_ACTION, m_strSpamAction);
        storage.WriteString(IDS_COMPLAIN_TO, m_strComplainTo);
        WriteDwords(storage, IDS_NUMERIC_DATA,
                    {m_dwNotifyAbuse, m_dwNotifyAdmin, m_dwNotifyOther, m_dwNotifyWebmaster, m_dwActiveEntry,
                     m_dwVerifyReturnAddress, m_dwUseIntelligence});
        WriteBaseStorage(storage);
        DeleteElements(storage, {IDS_NOTIFY_ABUSE, IDS_NOTIFY_ADMIN, IDS_NOTIFY_WEBMASTER, IDS_NOTIFY_OTHER,
                                 IDS_ACTIVE_ENTRY, IDS_VERIFY_RETURN_ADDRESS, IDS_USE_INTELLIGENCE});
    });
}

void CSpamBlockProfile::ReadStorageData(IStorage* container, CString element) {
    ReadKindStorage(container, element, [&](CStorageManager& storage) {
        if (storage.GetStreamSize(IDS_NUMERIC_DATA) == 0) {
            ReadDecimal(storage, IDS_NOTIFY_ABUSE, m_dwNotifyAbuse);
            ReadDecimal(storage, IDS_NOTIFY_ADMIN, m_dwNotifyAdmin);
            ReadDecimal(storage, IDS_NOTIFY_OTHER, m_dwNotifyOther);
            ReadDecimal(storage, IDS_NOTIFY_WEBMASTER, m_dwNotifyWebmaster);
            ReadDecimal(storage, IDS_ACTIVE_ENTRY, m_dwActiveEntry);
            ReadDecimal(storage, IDS_VERIFY_RETURN_ADDRESS, m_dwVerifyReturnAddress);
            ReadDecimal(storage, IDS_USE_INTELLIGENCE, m_dwUseIntelligence);
        } else {
            ReadDwords(storage, IDS_NUMERIC_DATA,
                       {&m_dwNotifyAbuse, &m_dwNotifyAdmin, &m_dwNotifyOther, &m_dwNotifyWebmaster,
                        &m_dwActiveEntry, &m_dwVerifyReturnAddress, &m_dwUseIntelligence});
        }
        storage.ReadString(IDS_SPAM_ACTION, m_strSpamAction);
        storage.ReadString(IDS_COMPLAIN_TO, m_strComplainTo);
    });
}

void CSpamBlockProfile::EnumStorage(IStorage* storage, std::list<CSpamBlockProfile>& list, bool append) {
    EnumKindStorage(storage, list, append);
}

// --- registry

void CSpamBlockProfile::OwnRegistryMaps(std::map<DWORD, CString*>& texts, std::map<DWORD, DWORD*>& numbers) {
    texts = {{IDS_SPAM_ACTION, &m_strSpamAction}, {IDS_COMPLAIN_TO, &m_strComplainTo}};
    numbers = {
        {IDS_NOTIFY_ABUSE, &m_dwNotifyAbuse},         {IDS_NOTIFY_ADMIN, &m_dwNotifyAdmin},
        {IDS_NOTIFY_WEBMASTER, &m_dwNotifyWebmaster}, {IDS_NOTIFY_OTHER, &m_dwNotifyOther},
        {IDS_ACTIVE_ENTRY, &m_dwActiveEntry},         {IDS_VERIFY_RETURN_ADDRESS, &m_dwVerifyReturnAddress},
        {IDS_USE_INTELLIGENCE, &m_dwUseIntelligence}};
}

void CSpamBlockProfile::SaveRegistryData(CString parentKey) {
    const CString key = RuleKeyOf(parentKey);
    if (key.IsEmpty()) return;
    CBaseFilter::SaveRegistryData(parentKey);
    if (m_bDeleted) {
        DeleteRuleKey(key, {});
        return;
    }
    CRegistryManager reg;
    if (reg.OpenRegistryKey(HKEY_CURRENT_USER, key, nullptr) != ERROR_SUCCESS) return;
    std::map<DWORD, CString*> texts;
    std::map<DWORD, DWORD*> numbers;
    OwnRegistryMaps(texts, numbers);
    reg.SetStringValues(texts);
    reg.SetDwordValues(numbers);
    reg.Close();
}

void CSpamBlockProfile::LoadRegistryData(CString key) {
    if (key.IsEmpty()) return;
    const bool existed = KeyExists(key);
    CBaseFilter::LoadRegistryData(key);
    if (!existed) {
        ResetValues();
        SaveRegistryData(key);
        return;
    }
    CRegistryManager reg;
    if (reg.OpenRegistryKey(HKEY_CURRENT_USER, key, nullptr) != ERROR_SUCCESS) return;
    std::map<DWORD, CString*> texts;
    std::map<DWORD, DWORD*> numbers;
    OwnRegistryMaps(texts, numbers);
    reg.GetStringValues(texts);
    reg.GetDwordValues(numbers);
    reg.Close();
}

void CSpamBlockProfile::EnumRegistryKey(std::list<CSpamBlockProfile>& list, CString parentKey) {
    EnumKindRegistry(m_hKey, list, parentKey);
}

void CSpamBlockProfile::ImportFromIni(CString section, CString iniFile) {
    CBaseFilter::ImportFromIni(section, iniFile);
    m_strSpamAction = IniText(section, IDS_SPAM_ACTION, iniFile);
    m_strComplainTo = IniText(section, IDS_COMPLAIN_TO, iniFile);
    m_dwNotifyAbuse = IniNumber(section, IDS_NOTIFY_ABUSE, iniFile);
    m_dwNotifyAdmin = IniNumber(section, IDS_NOTIFY_ADMIN, iniFile);
    m_dwNotifyWebmaster = IniNumber(section, IDS_NOTIFY_WEBMASTER, iniFile);
    m_dwNotifyOther = IniNumber(section, IDS_NOTIFY_OTHER, iniFile);
    m_dwActiveEntry = IniNumber(section, IDS_ACTIVE_ENTRY, iniFile);
    m_dwVerifyReturnAddress = IniNumber(section, IDS_VERIFY_RETURN_ADDRESS, iniFile);
}
