#include "rules/CAutoResponderProfile.h"

#include "rules/internal/KindSupport.h"
#include "rules/internal/RuleStrings.h"
#include "rules/internal/StorageRecords.h"
#include "util/XString.h"

IMPLEMENT_DYNAMIC(CAutoResponderProfile, CBaseFilter)

using namespace tavik::lib;

namespace {
const char kResetMarkFormat[] = "%Y,%m,%d,%H,%M,%S";
}

CAutoResponderProfile::CAutoResponderProfile() { ResetValues(); }

CAutoResponderProfile::CAutoResponderProfile(const CAutoResponderProfile& other) : CBaseFilter() {
    *this = other;
}

CAutoResponderProfile& CAutoResponderProfile::operator=(const CAutoResponderProfile& other) {
    if (this == &other) return *this;
    CBaseFilter::operator=(other);
    m_strTextFile = other.m_strTextFile;
    m_strAttachFile = other.m_strAttachFile;
    m_strDefaultSubject = other.m_strDefaultSubject;
    m_strDuplicateAction = other.m_strDuplicateAction;
    m_strDateTime = other.m_strDateTime;
    m_dwIgnoreDuplicates = other.m_dwIgnoreDuplicates;
    m_dwUseDefaultSubject = other.m_dwUseDefaultSubject;
    m_dwActiveEntry = other.m_dwActiveEntry;
    m_Duplicates.Copy(other.m_Duplicates);
    return *this;
}

void CAutoResponderProfile::ResetValues() {
    CBaseFilter::ResetValues();
    m_strTextFile.Empty();
    m_strAttachFile.Empty();
    m_strDefaultSubject = "AUTO-RESPONSE: %SUBJECT%";
    m_strDuplicateAction = "Daily";
    m_strDateTime.Empty();
    m_dwIgnoreDuplicates = 0;
    m_dwUseDefaultSubject = 1;
    m_dwActiveEntry = 0;
    m_Duplicates.RemoveAll();
}

void CAutoResponderProfile::GetAutoResponderOptions(CString& textFile, CString& attachFile,
                                                    CString& subjectTemplate, CString& duplicateAction,
                                                    DWORD& ignoreDuplicates, DWORD& useDefaultSubject,
                                                    DWORD& activeEntry) const {
    textFile = m_strTextFile;
    attachFile = m_strAttachFile;
    subjectTemplate = m_strDefaultSubject;
    duplicateAction = m_strDuplicateAction;
    ignoreDuplicates = m_dwIgnoreDuplicates;
    useDefaultSubject = m_dwUseDefaultSubject;
    activeEntry = m_dwActiveEntry;
}

void CAutoResponderProfile::SetAutoResponderOptions(const CString& textFile, const CString& attachFile,
                                                    const CString& subjectTemplate,
                                                    const CString& duplicateAction, DWORD ignoreDuplicates,
                                                    DWORD useDefaultSubject, DWORD activeEntry) {
    m_strTextFile = textFile;
    m_strAttachFile = attachFile;
    m_strDefaultSubject = subjectTemplate;
    m_strDuplicateAction = duplicateAction;
    m_dwIgnoreDuplicates = ignoreDuplicates;
    m_dwUseDefaultSubject = useDefaultSubject;
    m_dwActiveEntry = activeEntry;
}

void CAutoResponderProfile::AddDuplicate(CString entry) {
    for (int i = 0; i < m_Duplicates.GetSize(); ++i)
        if (m_Duplicates[i].CompareNoCase(entry) == 0) return;
    m_Duplicates.Add(entry);
}

bool CAutoResponderProfile::SearchDuplicate(CString entry) const {
    if (m_dwIgnoreDuplicates) return false;
    for (int i = 0; i < m_Duplicates.GetSize(); ++i)
        if (m_Duplicates[i].CompareNoCase(entry) == 0) return true;
    return false;
}

CString CAutoResponderProfile::BuildResponderStringData() const {
    return m_strTextFile + m_strAttachFile + m_strDefaultSubject + m_strDuplicateAction + m_strDateTime;
}

void CAutoResponderProfile::ParseResponderStringData(const char* text, const _tagSTR_RESPONDERDATA* lengths) {
    if (!text || !lengths) return;
    ParseRecord(text, *lengths, 5);
}

void CAutoResponderProfile::ParseRecord(const char* text, const _tagSTR_RESPONDERDATA& lengths,
                                        size_t count) {
    const RecordField fields[] = {{lengths.dwTextFile, &m_strTextFile},
                                  {lengths.dwAttachFile, &m_strAttachFile},
                                  {lengths.dwDefaultSubject, &m_strDefaultSubject},
                                  {lengths.dwDuplicateAction, &m_strDuplicateAction},
                                  {lengths.dwDateTime, &m_strDateTime}};
    tavik::lib::ParseRecord(text, fields, count);
}

void CAutoResponderProfile::CheckDate() {
    const CTime now = CTime::GetCurrentTime();
    if (m_strDateTime.IsEmpty()) {
        m_strDateTime = now.Format(kResetMarkFormat);
        return;
    }
    XString::SetSeparator(',');
    const XString mark(m_strDateTime);
    const CTime reset(DecimalOf(mark.Element(0)), DecimalOf(mark.Element(1)), DecimalOf(mark.Element(2)),
                      DecimalOf(mark.Element(3)), DecimalOf(mark.Element(4)), DecimalOf(mark.Element(5)));
    // Whole hours since 1970 on both sides, so "Daily" takes 25 steps of the hour count, not 24.
    const std::int64_t hours = now.GetTime() / 3600 - reset.GetTime() / 3600;
    const bool daily = m_strDuplicateAction.CompareNoCase("Daily") == 0;
    const bool hourly = m_strDuplicateAction.CompareNoCase("hourly") == 0;
    if ((daily && hours >= 25) || (hourly && hours >= 2)) {
        m_Duplicates.RemoveAll();
        m_strDateTime = now.Format(kResetMarkFormat);
    }
}

bool CAutoResponderProfile::operator==(const CAutoResponderProfile& other) const {
    return m_strFilterName.str() == other.m_strFilterName.str();
}

bool CAutoResponderProfile::operator!=(const CAutoResponderProfile& other) const {
    return m_strFilterName.str() != other.m_strFilterName.str();
}

bool CAutoResponderProfile::operator<(const CAutoResponderProfile& other) const {
    return m_strFilterName.str() < other.m_strFilterName.str();
}

bool CAutoResponderProfile::operator>(const CAutoResponderProfile& other) const {
    return m_strFilterName.str() > other.m_strFilterName.str();
}

bool CAutoResponderProfile::operator==(const CString& name) const {
    return m_strFilterName.CompareNoCase(name) == 0;
}

// --- storage

void CAutoResponderProfile::SaveStorageData(IStorage* parent, CString container) {
    SaveKindStorage(parent, container, [&](CStorageManager& storage) {
        WriteDwords(storage, IDS_STRING_DATA_LENGTH,
                    {DWORD(m_strTextFile.GetLength()), DWORD(m_strAttachFile.GetLength()),
                     DWORD(m_strDefaultSubject.GetLength()), DWORD(m_strDuplicateAction.GetLength()),
                     DWORD(m_strDateTime.GetLength())});
        const CString record = BuildResponderStringData();
        storage.WriteData(IDS_STRING_DATA, record.GetString(), static_cast<ULONG>(record.GetLength()));
        WriteDwords(storage, IDS_NUMERIC_DATA,
                    {m_dwIgnoreDuplicates, m_dwUseDefaultSubject, m_dwActiveEntry});
        storage.WriteStringList(IDS_CACHE_DUPLICATES, m_Duplicates, "|");
        WriteBaseStorage(storage);
        DeleteElements(storage, {IDS_TEXT_FILE, IDS_ATTACH_FILE, IDS_DEFAULT_SUBJECT, IDS_DUPLICATE_ACTION,
                                 IDS_DATE_TIME, IDS_IGNORE_DUPLICATES, IDS_USE_DEFAULT_SUBJECT,
                                 IDS_ACTIVE_ENTRY, IDS_DUPLICATES});
    });
}

void CAutoResponderProfile::ReadStorageData(IStorage* container, CString element) {
    ReadKindStorage(container, element, [&](CStorageManager& storage) {
        EntryAdder duplicates(m_Duplicates);
        if (storage.GetStreamSize(IDS_NUMERIC_DATA) > 0 &&
            storage.GetStreamSize(IDS_STRING_DATA_LENGTH) > 0 && storage.GetStreamSize(IDS_STRING_DATA) > 0) {
            _tagSTR_RESPONDERDATA lengths = {};
            const size_t known =
                ReadDwords(storage, IDS_STRING_DATA_LENGTH,
                           {&lengths.dwTextFile, &lengths.dwAttachFile, &lengths.dwDefaultSubject,
                            &lengths.dwDuplicateAction, &lengths.dwDateTime});
            std::string record;
            storage.ReadBytes(ResString(IDS_STRING_DATA), record);
            ParseRecord(record.c_str(), lengths, known);
            ReadDwords(storage, IDS_NUMERIC_DATA,
                       {&m_dwIgnoreDuplicates, &m_dwUseDefaultSubject, &m_dwActiveEntry});
            std::string text;
            if (storage.ReadBytes(ResString(IDS_CACHE_DUPLICATES), text)) duplicates.AddSplit(text);
        } else {
            storage.ReadString(IDS_TEXT_FILE, m_strTextFile);
            storage.ReadString(IDS_ATTACH_FILE, m_strAttachFile);
            storage.ReadString(IDS_DEFAULT_SUBJECT, m_strDefaultSubject);
            storage.ReadString(IDS_DUPLICATE_ACTION, m_strDuplicateAction);
            storage.ReadString(IDS_DATE_TIME, m_strDateTime);
            ReadDecimal(storage, IDS_IGNORE_DUPLICATES, m_dwIgnoreDuplicates);
            ReadDecimal(storage, IDS_USE_DEFAULT_SUBJECT, m_dwUseDefaultSubject);
            ReadDecimal(storage, IDS_ACTIVE_ENTRY, m_dwActiveEntry);
            ForEachStreamIn(storage, IDS_DUPLICATES, [&](const std::string& text) { duplicates.Add(text); });
        }
    });
}

void CAutoResponderProfile::EnumStorage(IStorage* storage, std::list<CAutoResponderProfile>& list,
                                        bool append) {
    EnumKindStorage(storage, list, append);
}

// --- registry

void CAutoResponderProfile::OwnRegistryMaps(std::map<DWORD, CString*>& texts,
                                            std::map<DWORD, DWORD*>& numbers) {
    texts = {{IDS_TEXT_FILE, &m_strTextFile},
             {IDS_ATTACH_FILE, &m_strAttachFile},
             {IDS_DEFAULT_SUBJECT, &m_strDefaultSubject},
             {IDS_DUPLICATE_ACTION, &m_strDuplicateAction},
             {IDS_DATE_TIME, &m_strDateTime}};
    numbers = {{IDS_IGNORE_DUPLICATES, &m_dwIgnoreDuplicates},
               {IDS_USE_DEFAULT_SUBJECT, &m_dwUseDefaultSubject},
               {IDS_ACTIVE_ENTRY, &m_dwActiveEntry}};
}

void CAutoResponderProfile::SaveRegistryData(CString parentKey) {
    const CString key = RuleKeyOf(parentKey);
    if (key.IsEmpty()) return;
    CBaseFilter::SaveRegistryData(parentKey);
    if (m_bDeleted) {
        DeleteRuleKey(key, {IDS_DUPLICATES});
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
    RewriteSubKey(key, IDS_DUPLICATES, [&](CRegistryManager& sub) { sub.SetAnonStringValues(m_Duplicates); });
}

void CAutoResponderProfile::LoadRegistryData(CString key) {
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
    ReadSubKey(key, IDS_DUPLICATES, [&](CRegistryManager& sub) { sub.GetAnonStringValues(m_Duplicates); });
    CheckDate();
}

void CAutoResponderProfile::EnumRegistryKey(std::list<CAutoResponderProfile>& list, CString parentKey) {
    EnumKindRegistry(m_hKey, list, parentKey);
}

void CAutoResponderProfile::ImportFromIni(CString section, CString iniFile) {
    CBaseFilter::ImportFromIni(section, iniFile);
    m_strTextFile = IniText(section, IDS_TEXT_FILE, iniFile);
    m_strAttachFile = IniText(section, IDS_ATTACH_FILE, iniFile);
    m_strDefaultSubject = IniText(section, IDS_DEFAULT_SUBJECT, iniFile);
    m_strDuplicateAction = IniText(section, IDS_DUPLICATE_ACTION, iniFile);
    m_strDateTime = IniText(section, IDS_DATE_TIME, iniFile);
    m_dwIgnoreDuplicates = IniNumber(section, IDS_IGNORE_DUPLICATES, iniFile);
    m_dwUseDefaultSubject = IniNumber(section, IDS_USE_DEFAULT_SUBJECT, iniFile);
    m_dwActiveEntry = IniNumber(section, IDS_ACTIVE_ENTRY, iniFile);
}
