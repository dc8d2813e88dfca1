#include "rules/CForwardMailProfile.h"

#include "rules/internal/KindSupport.h"
#include "rules/internal/RuleStrings.h"
#include "rules/internal/StorageRecords.h"

IMPLEMENT_DYNAMIC(CForwardMailProfile, CBaseFilter)

using namespace tavik::lib;

CForwardMailProfile::CForwardMailProfile() { ResetValues(); }

CForwardMailProfile::CForwardMailProfile(const CForwardMailProfile& other) : CBaseFilter() { *this = other; }

CForwardMailProfile& CForwardMailProfile::operator=(const CForwardMailProfile& other) {
    if (this == &other) return *this;
    CBaseFilter::operator=(other);
    m_strDefaultSubject = other.m_strDefaultSubject;
    m_strFormatBodyFilename = other.m_strFormatBodyFilename;
    m_dwUseDefaultSubject = other.m_dwUseDefaultSubject;
    m_dwActiveEntry = other.m_dwActiveEntry;
    m_dwUseDefaultBody = other.m_dwUseDefaultBody;
    m_Recipients.Copy(other.m_Recipients);
    return *this;
}

void CForwardMailProfile::ResetValues() {
    CBaseFilter::ResetValues();
    m_strDefaultSubject = "FWD: %SUBJECT%";
    m_strFormatBodyFilename.Empty();
    m_dwUseDefaultSubject = 1;
    m_dwActiveEntry = 0;
    m_dwUseDefaultBody = 0;
    m_Recipients.RemoveAll();
}

void CForwardMailProfile::GetRedirectOptions(CString& bodyTemplateFile, CString& subjectTemplate,
                                             DWORD& useDefaultBody, DWORD& useDefaultSubject,
                                             DWORD& activeEntry) const {
    bodyTemplateFile = m_strFormatBodyFilename;
    subjectTemplate = m_strDefaultSubject;
    useDefaultBody = m_dwUseDefaultBody;
    useDefaultSubject = m_dwUseDefaultSubject;
    activeEntry = m_dwActiveEntry;
}

void CForwardMailProfile::SetRedirectOptions(const CString& bodyTemplateFile, const CString& subjectTemplate,
                                             DWORD useDefaultBody, DWORD useDefaultSubject,
                                             DWORD activeEntry) {
    m_strFormatBodyFilename = bodyTemplateFile;
    m_strDefaultSubject = subjectTemplate;
    m_dwUseDefaultBody = useDefaultBody;
    m_dwUseDefaultSubject = useDefaultSubject;
    m_dwActiveEntry = activeEntry;
}

bool CForwardMailProfile::operator==(const CForwardMailProfile& other) const {
    return m_strFilterName.str() == other.m_strFilterName.str();
}

bool CForwardMailProfile::operator!=(const CForwardMailProfile& other) const {
    return m_strFilterName.str() != other.m_strFilterName.str();
}

bool CForwardMailProfile::operator<(const CForwardMailProfile& other) const {
    return m_strFilterName.str() < other.m_strFilterName.str();
}

bool CForwardMailProfile::operator>(const CForwardMailProfile& other) const {
    return m_strFilterName.str() > other.m_strFilterName.str();
}

bool CForwardMailProfile::operator==(const CString& name) const {
    return m_strFilterName.str() == name.str();
}

// --- storage

void CForwardMailProfile::SaveStorageData(IStorage* parent, CString container) {
    SaveKindStorage(parent, container, [&](CStorageManager& storage) {
        storage.WriteString(IDS_DEFAULT_SUBJECT, m_strDefaultSubject);
        storage.WriteString(IDS_FORMAT_BODY_FILENAME, m_strFormatBodyFilename);
        WriteDwords(storage, IDS_NUMERIC_DATA, {m_dwUseDefaultSubject, m_dwActiveEntry, m_dwUseDefaultBody});
        storage.WriteStringList(IDS_CACHE_RECIPIENTS, m_Recipients, "|");
        WriteBaseStorage(storage);
        DeleteElements(storage,
                       {IDS_USE_DEFAULT_SUBJECT, IDS_ACTIVE_ENTRY, IDS_USE_DEFAULT_BODY, IDS_RECIPIENT});
    });
}

void CForwardMailProfile::ReadStorageData(IStorage* container, CString element) {
    ReadKindStorage(container, element, [&](CStorageManager& storage) {
        EntryAdder recipients(m_Recipients);
        if (storage.GetStreamSize(IDS_NUMERIC_DATA) > 0) {
            ReadDwords(storage, IDS_NUMERIC_DATA,
                       {&m_dwUseDefaultSubject, &m_dwActiveEntry, &m_dwUseDefaultBody});
            std::string text;
            if (storage.ReadBytes(ResString(IDS_CACHE_RECIPIENTS), text)) recipients.AddSplit(text);
        } else {
            ReadDecimal(storage, IDS_USE_DEFAULT_SUBJECT, m_dwUseDefaultSubject);
            ReadDecimal(storage, IDS_ACTIVE_ENTRY, m_dwActiveEntry);
            ReadDecimal(storage, IDS_USE_DEFAULT_BODY, m_dwUseDefaultBody);
            ForEachStreamIn(storage, IDS_RECIPIENT, [&](const std::string& text) { recipients.Add(text); });
        }
        storage.ReadString(IDS_DEFAULT_SUBJECT, m_strDefaultSubject);
        storage.ReadString(IDS_FORMAT_BODY_FILENAME, m_strFormatBodyFilename);
    });
}

void CForwardMailProfile::EnumStorage(IStorage* storage, std::list<CForwardMailProfile>& list, bool append) {
    EnumKindStorage(storage, list, append);
}

// --- registry

void CForwardMailProfile::OwnRegistryMaps(std::map<DWORD, CString*>& texts,
                                          std::map<DWORD, DWORD*>& numbers) {
    texts = {{IDS_DEFAULT_SUBJECT, &m_strDefaultSubject},
             {IDS_FORMAT_BODY_FILENAME, &m_strFormatBodyFilename}};
    numbers = {{IDS_USE_DEFAULT_SUBJECT, &m_dwUseDefaultSubject},
               {IDS_ACTIVE_ENTRY, &m_dwActiveEntry},
               {IDS_USE_DEFAULT_BODY, &m_dwUseDefaultBody}};
}

void CForwardMailProfile::SaveRegistryData(CString parentKey) {
    const CString key = RuleKeyOf(parentKey);
    if (key.IsEmpty()) return;
    CBaseFilter::SaveRegistryData(parentKey);
    if (m_bDeleted) {
        DeleteRuleKey(key, {IDS_RECIPIENTS});
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
    RewriteSubKey(key, IDS_RECIPIENTS, [&](CRegistryManager& sub) { sub.SetAnonStringValues(m_Recipients); });
}

void CForwardMailProfile::LoadRegistryData(CString key) {
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
    ReadSubKey(key, IDS_RECIPIENTS, [&](CRegistryManager& sub) { sub.GetAnonStringValues(m_Recipients); });
}

void CForwardMailProfile::EnumRegistryKey(std::list<CForwardMailProfile>& list, CString parentKey) {
    EnumKindRegistry(m_hKey, list, parentKey);
}

void CForwardMailProfile::ImportFromIni(CString section, CString iniFile) {
    CBaseFilter::ImportFromIni(section, iniFile);
    m_strDefaultSubject = IniText(section, IDS_DEFAULT_SUBJECT, iniFile);
    m_strFormatBodyFilename = IniText(section, IDS_FORMAT_BODY_FILENAME, iniFile);
    m_dwUseDefaultSubject = IniNumber(section, IDS_USE_DEFAULT_SUBJECT, iniFile);
    m_dwActiveEntry = IniNumber(section, IDS_ACTIVE_ENTRY, iniFile);
    m_dwUseDefaultBody = IniNumber(section, IDS_USE_DEFAULT_BODY, iniFile);
}
