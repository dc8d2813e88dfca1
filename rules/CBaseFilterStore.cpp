// CBaseFilter: the base part of a rule in storage and in the registry, and the protocol the kinds
// follow on top of it.
#include <cstdlib>
#include <map>
#include <vector>

#include "platform/Registry.h"
#include "rules/CBaseFilter.h"
#include "rules/internal/RuleStrings.h"
#include "rules/internal/StorageRecords.h"

using namespace tavik::lib;

namespace {

constexpr DWORD kRuleMode = STGM_READWRITE | STGM_SHARE_EXCLUSIVE;
constexpr std::int64_t kOneDay = 86400;
// A storage element name holds at most 31 characters; the rule name is used when it has at most 30.
constexpr int kLongestStorageName = 30;

DWORD secondsOf(const CTime& time) { return static_cast<DWORD>(time.GetTime()); }
CTime timeOf(DWORD seconds) { return CTime(static_cast<std::time_t>(seconds)); }

bool elementExists(IStorage* container, const CString& name) {
    IStorage* storage = nullptr;
    HRESULT hr =
        container->OpenStorage(name, nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE, nullptr, 0, &storage);
    if (storage) storage->Release();
    if (hr != STG_E_FILENOTFOUND) return true;
    IStream* stream = nullptr;
    hr = container->OpenStream(name, nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE, 0, &stream);
    if (stream) stream->Release();
    return hr != STG_E_FILENOTFOUND;
}

char letterOf(int r) {
    r %= 122;
    if (r < 65) r = r % 56 + 65;
    if (r > 90 && r < 97) r += 6;
    return static_cast<char>(r);
}

}  // namespace

// --- storage

void CBaseFilter::WriteBaseStorage(CStorageManager& storage) {
    WriteDwords(storage, IDS_BASE_STRING_DATA_LENGTH,
                {DWORD(m_strFilterName.GetLength()), DWORD(m_strMailTag.GetLength()),
                 DWORD(m_strAction.GetLength()), DWORD(m_strObject.GetLength()),
                 DWORD(m_strOnSuccess.GetLength()), DWORD(m_strMoveToFolder.GetLength()),
                 DWORD(m_strTemporaryFile.GetLength()), DWORD(m_strActiveOn.GetLength())});
    const CString record = BuildBaseFilterString();
    storage.WriteData(IDS_BASE_STRING_DATA, record.GetString(), static_cast<ULONG>(record.GetLength()));
    WriteDwords(
        storage, IDS_BASE_NUMERIC_DATA,
        {m_dwFilterAll, m_dwUseDateInterval, m_dwUseTimeInterval, m_dwHitCount, secondsOf(m_tmFromDate),
         secondsOf(m_tmToDate), secondsOf(m_tmFromTime), secondsOf(m_tmToTime)});
    const std::string processed = m_ProcessedIDs.ToBytes();
    storage.WriteData(IDS_CACHED_PROCESSED_IDS, processed.data(), static_cast<ULONG>(processed.size()));
    storage.WriteStringList(IDS_IGNORE_LIST, m_IgnoreList, "|");
    DeleteElements(storage, {IDS_FILTER_NAME, IDS_MAIL_TAG, IDS_ACTION, IDS_OBJECT, IDS_ON_SUCCESS,
                             IDS_MOVE_TO_FOLDER, IDS_TEMPORARY_FILE, IDS_ACTIVE_ON, IDS_HIT_COUNT,
                             IDS_FILTER_ALL, IDS_USE_DATE_INTERVAL, IDS_USE_TIME_INTERVAL, IDS_FROM_DATE,
                             IDS_TO_DATE, IDS_FROM_TIME, IDS_TO_TIME, IDS_PROCESSED});
}

void CBaseFilter::SaveStorageData(CStorageManager* storage) {
    if (!storage) return;
    try {
        WriteBaseStorage(*storage);
    } catch (CStorageManagerException* e) {
        e->Delete();
        m_bValid = false;
    }
}

void CBaseFilter::ReadStorageData(CStorageManager* storage) {
    if (!storage) return;
    const CTime now = CTime::GetCurrentTime();
    DWORD times[4] = {secondsOf(now), secondsOf(now + CTimeSpan(kOneDay)), secondsOf(now), secondsOf(now)};
    try {
        if (storage->GetStreamSize(IDS_BASE_STRING_DATA) > 0 &&
            storage->GetStreamSize(IDS_BASE_STRING_DATA_LENGTH) > 0) {
            _tagSTR_BASEFILTERDATA lengths = {};
            const size_t known = ReadDwords(*storage, IDS_BASE_STRING_DATA_LENGTH,
                                            {&lengths.dwFilterName, &lengths.dwMailTag, &lengths.dwAction,
                                             &lengths.dwObject, &lengths.dwOnSuccess, &lengths.dwMoveToFolder,
                                             &lengths.dwTemporaryFile, &lengths.dwActiveOn});
            std::string record;
            storage->ReadBytes(ResString(IDS_BASE_STRING_DATA), record);
            ParseBaseRecord(record.c_str(), lengths, known);
            if (m_strFilterName.IsEmpty() || m_strMailTag.IsEmpty() || m_strAction.IsEmpty())
                m_bValid = false;
            ReadDwords(*storage, IDS_BASE_NUMERIC_DATA,
                       {&m_dwFilterAll, &m_dwUseDateInterval, &m_dwUseTimeInterval, &m_dwHitCount, &times[0],
                        &times[1], &times[2], &times[3]});
            std::string ids;
            storage->ReadBytes(ResString(IDS_CACHED_PROCESSED_IDS), ids);
            m_ProcessedIDs.AppendLittleEndian(ids.data(), ids.size() / 4, true);
            std::string ignore;
            if (storage->ReadBytes(ResString(IDS_IGNORE_LIST), ignore))
                EntryAdder(m_IgnoreList).AddSplit(ignore);
            m_dwUseDateInterval = m_dwUseTimeInterval = 0;
        } else {
            storage->ReadString(IDS_FILTER_NAME, m_strFilterName);
            storage->ReadString(IDS_MAIL_TAG, m_strMailTag);
            storage->ReadString(IDS_ACTION, m_strAction);
            storage->ReadString(IDS_OBJECT, m_strObject);
            storage->ReadString(IDS_ON_SUCCESS, m_strOnSuccess);
            storage->ReadString(IDS_MOVE_TO_FOLDER, m_strMoveToFolder);
            storage->ReadString(IDS_TEMPORARY_FILE, m_strTemporaryFile);
            storage->ReadString(IDS_ACTIVE_ON, m_strActiveOn);
            ReadDecimal(*storage, IDS_HIT_COUNT, m_dwHitCount);
            ReadDecimal(*storage, IDS_FILTER_ALL, m_dwFilterAll);
            ReadDecimal(*storage, IDS_USE_DATE_INTERVAL, m_dwUseDateInterval);
            ReadDecimal(*storage, IDS_USE_TIME_INTERVAL, m_dwUseTimeInterval);
            ReadDecimal(*storage, IDS_FROM_DATE, times[0]);
            ReadDecimal(*storage, IDS_TO_DATE, times[1]);
            ReadDecimal(*storage, IDS_FROM_TIME, times[2]);
            ReadDecimal(*storage, IDS_TO_TIME, times[3]);
            ForEachStreamIn(*storage, IDS_PROCESSED, [&](const std::string& text) {
                DWORD id = 0;
                if (ParseDecimal(text, id)) m_ProcessedIDs.AppendUnique(id);
            });
        }
        m_tmFromDate = timeOf(times[0]);
        m_tmToDate = timeOf(times[1]);
        m_tmFromTime = timeOf(times[2]);
        m_tmToTime = timeOf(times[3]);
    } catch (CStorageManagerException* e) {
        e->Delete();
        m_bValid = false;
    }
}

void CBaseFilter::ChooseStorageName(IStorage* container) {
    if (!m_strFilterName.IsEmpty() && m_strFilterName.GetLength() <= kLongestStorageName &&
        m_strFilterName.FindOneOf("/\\:!") < 0) {
        m_strStorageName = m_strFilterName;
        return;
    }
    m_strStorageName = RandomString(20, 2);
    // Names drawn in the same millisecond repeat; draw on from the generator until one is free.
    while (container && elementExists(container, m_strStorageName)) {
        m_strStorageName.Empty();
        for (int i = 0; i < 20; ++i) m_strStorageName += letterOf(rand());
    }
}

void CBaseFilter::SaveKindStorage(IStorage* parent, const CString& container,
                                  const std::function<void(CStorageManager&)>& writeOwn) {
    CStorageManager box, rule;
    try {
        if (!box.OpenSubStorage(parent, container, kRuleMode, true, true)) return;
        if (m_bDeleted) {
            if (!m_strStorageName.IsEmpty()) box.DeleteElement(m_strStorageName);
        } else {
            if (m_strStorageName.IsEmpty()) ChooseStorageName(box.GetStorage());
            rule.OpenSubStorage(box.GetStorage(), m_strStorageName, kRuleMode, true, true);
            writeOwn(rule);
            rule.Close();
            if (FAILED(rule.m_hResult)) m_bValid = false;
        }
        box.Close();
        if (FAILED(box.m_hResult)) m_bValid = false;
    } catch (CStorageManagerException* e) {
        e->Delete();
        m_bValid = false;
        // A rule half written is not published: the previous copy stays.
        if (rule.m_pStorage) rule.m_pStorage->Revert();
        if (box.m_pStorage) box.m_pStorage->Revert();
    }
}

void CBaseFilter::ReadKindStorage(IStorage* container, const CString& element,
                                  const std::function<void(CStorageManager&)>& readOwn) {
    m_strStorageName = element;
    try {
        CStorageManager rule;
        if (!rule.OpenSubStorage(container, element, kRuleMode, true, true)) return;
        readOwn(rule);
        ReadStorageData(&rule);
    } catch (CStorageManagerException* e) {
        e->Delete();
        m_bValid = false;
    }
}

// --- registry

void CBaseFilter::RegistryMaps(std::map<DWORD, CString*>& texts, std::map<DWORD, DWORD*>& numbers,
                               DWORD* times) {
    texts = {{IDS_FILTER_NAME, &m_strFilterName},
             {IDS_MAIL_TAG, &m_strMailTag},
             {IDS_ACTION, &m_strAction},
             {IDS_OBJECT, &m_strObject},
             {IDS_ON_SUCCESS, &m_strOnSuccess},
             {IDS_MOVE_TO_FOLDER, &m_strMoveToFolder},
             {IDS_TEMPORARY_FILE, &m_strTemporaryFile},
             {IDS_ACTIVE_ON, &m_strActiveOn}};
    numbers = {{IDS_HIT_COUNT, &m_dwHitCount},
               {IDS_FILTER_ALL, &m_dwFilterAll},
               {IDS_USE_DATE_INTERVAL, &m_dwUseDateInterval},
               {IDS_USE_TIME_INTERVAL, &m_dwUseTimeInterval},
               {IDS_FROM_DATE, &times[0]},
               {IDS_TO_DATE, &times[1]},
               {IDS_FROM_TIME, &times[2]},
               {IDS_TO_TIME, &times[3]}};
}

CString CBaseFilter::RuleKeyOf(const CString& parentKey) const {
    if (parentKey.IsEmpty() || m_strFilterName.IsEmpty()) return CString();
    CString key;
    key.Format("%s\\%s", parentKey.GetString(), m_strFilterName.GetString());
    return key;
}

bool CBaseFilter::KeyExists(const CString& key) {
    HKEY handle = nullptr;
    if (RegOpenKeyEx(HKEY_CURRENT_USER, key, 0, KEY_READ, &handle) != ERROR_SUCCESS) return false;
    RegCloseKey(handle);
    return true;
}

void CBaseFilter::DeleteRuleKey(const CString& key, std::initializer_list<UINT> subKeys) {
    CRegistryManager reg;
    for (UINT id : subKeys) {
        if (reg.OpenRegistryKey(HKEY_CURRENT_USER, key + "\\" + ResourceText(id), nullptr) != ERROR_SUCCESS)
            continue;
        reg.DeleteKey("");
        reg.Close();
    }
    if (reg.OpenRegistryKey(HKEY_CURRENT_USER, key, nullptr) != ERROR_SUCCESS) return;
    reg.DeleteKey("");
    reg.Close();
}

void CBaseFilter::RewriteSubKey(const CString& key, UINT subKeyId,
                                const std::function<void(CRegistryManager&)>& write) {
    const CString path = key + "\\" + ResourceText(subKeyId);
    CRegistryManager reg;
    // Deleted and made again, so no value of a longer old list survives.
    if (reg.OpenRegistryKey(HKEY_CURRENT_USER, path, nullptr) == ERROR_SUCCESS) {
        reg.DeleteKey("");
        reg.Close();
    }
    if (reg.OpenRegistryKey(HKEY_CURRENT_USER, path, nullptr) != ERROR_SUCCESS) return;
    write(reg);
    reg.Close();
}

void CBaseFilter::ReadSubKey(const CString& key, UINT subKeyId,
                             const std::function<void(CRegistryManager&)>& read) {
    CRegistryManager reg;
    if (reg.OpenRegistryKey(HKEY_CURRENT_USER, key + "\\" + ResourceText(subKeyId), nullptr) != ERROR_SUCCESS)
        return;
    read(reg);
    reg.Close();
}

void CBaseFilter::SaveRegistryData(CString parentKey) {
    const CString key = RuleKeyOf(parentKey);
    if (key.IsEmpty()) return;
    if (m_bDeleted) {
        DeleteRuleKey(key, {IDS_PROCESSED, IDS_IGNORE});
        return;
    }
    CRegistryManager reg;
    if (reg.OpenRegistryKey(HKEY_CURRENT_USER, key, nullptr) != ERROR_SUCCESS) return;
    DWORD times[4] = {secondsOf(m_tmFromDate), secondsOf(m_tmToDate), secondsOf(m_tmFromTime),
                      secondsOf(m_tmToTime)};
    std::map<DWORD, CString*> texts;
    std::map<DWORD, DWORD*> numbers;
    RegistryMaps(texts, numbers, times);
    reg.SetStringValues(texts);
    reg.SetDwordValues(numbers);
    reg.Close();
    std::vector<DWORD> ids;
    ids.reserve(m_ProcessedIDs.Size());
    m_ProcessedIDs.ForEach([&](DWORD id) { ids.push_back(id); });
    // Thousands of identifiers, nearly all as the last save left them: only the differences are written.
    CRegistryManager processed;
    const bool updated =
        processed.OpenRegistryKey(HKEY_CURRENT_USER, key + "\\" + ResourceText(IDS_PROCESSED), nullptr) ==
            ERROR_SUCCESS &&
        processed.UpdateAnonDwordValues(ids);
    processed.Close();
    if (!updated)
        RewriteSubKey(key, IDS_PROCESSED, [&](CRegistryManager& sub) { sub.SetAnonDwordValues(ids); });
    RewriteSubKey(key, IDS_IGNORE, [&](CRegistryManager& sub) { sub.SetAnonStringValues(m_IgnoreList); });
}

void CBaseFilter::LoadRegistryData(CString key) {
    if (key.IsEmpty()) return;
    CRegistryManager reg;
    DWORD disposition = 0;
    if (reg.OpenRegistryKey(HKEY_CURRENT_USER, key, &disposition) != ERROR_SUCCESS) return;
    if (disposition == REG_CREATED_NEW_KEY) {
        reg.Close();
        ResetValues();
        SaveRegistryData(key);
        return;
    }
    const CTime now = CTime::GetCurrentTime();
    DWORD times[4] = {secondsOf(now), secondsOf(now + CTimeSpan(kOneDay)), secondsOf(now), secondsOf(now)};
    std::map<DWORD, CString*> texts;
    std::map<DWORD, DWORD*> numbers;
    RegistryMaps(texts, numbers, times);
    reg.GetStringValues(texts);
    reg.GetDwordValues(numbers);
    reg.Close();
    m_tmFromDate = timeOf(times[0]);
    m_tmToDate = timeOf(times[1]);
    m_tmFromTime = timeOf(times[2]);
    m_tmToTime = timeOf(times[3]);
    ReadSubKey(key, IDS_PROCESSED, [&](CRegistryManager& sub) {
        std::vector<DWORD> ids;
        sub.GetAnonDwordValues(ids);
        m_ProcessedIDs.Clear();
        m_ProcessedIDs.Reserve(ids.size());
        for (DWORD id : ids) m_ProcessedIDs.Append(id);
    });
    ReadSubKey(key, IDS_IGNORE, [&](CRegistryManager& sub) { sub.GetAnonStringValues(m_IgnoreList); });
}
