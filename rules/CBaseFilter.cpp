#include "rules/CBaseFilter.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "platform/CFile.h"
#include "platform/FileSystem.h"
#include "platform/Kernel.h"
#include "platform/PrivateProfile.h"
#include "rules/internal/KindSupport.h"
#include "rules/internal/RuleStrings.h"
#include "rules/internal/StorageRecords.h"
#include "util/CFileName.h"
#include "util/XString.h"

IMPLEMENT_DYNAMIC(CBaseFilter, CRegistryManager)

using namespace tavik::lib;

namespace {

constexpr DWORD kIniBuffer = 16384;
constexpr std::int64_t kOneDay = 86400;

}  // namespace

CBaseFilter::CBaseFilter() = default;

CBaseFilter::CBaseFilter(const CBaseFilter& other) : CRegistryManager() { CopyFrom(other); }

CBaseFilter& CBaseFilter::operator=(const CBaseFilter& other) {
    if (this != &other) CopyFrom(other);
    return *this;
}

void CBaseFilter::CopyFrom(const CBaseFilter& other) {
    m_bDeleted = other.m_bDeleted;
    m_strFilterName = other.m_strFilterName;
    m_strMailTag = other.m_strMailTag;
    m_strAction = other.m_strAction;
    m_strObject = other.m_strObject;
    m_strOnSuccess = other.m_strOnSuccess;
    m_strMoveToFolder = other.m_strMoveToFolder;
    m_strTemporaryFile = other.m_strTemporaryFile;
    m_strActiveOn = other.m_strActiveOn;
    m_strStorageName = other.m_strStorageName;
    m_dwFilterAll = other.m_dwFilterAll;
    m_dwUseDateInterval = other.m_dwUseDateInterval;
    m_dwUseTimeInterval = other.m_dwUseTimeInterval;
    m_dwHitCount = other.m_dwHitCount;
    m_bValid = other.m_bValid;
    m_tmFromDate = other.m_tmFromDate;
    m_tmToDate = other.m_tmToDate;
    m_tmFromTime = other.m_tmFromTime;
    m_tmToTime = other.m_tmToTime;
    m_ProcessedIDs = other.m_ProcessedIDs;
    m_IgnoreList.Copy(other.m_IgnoreList);
}

void CBaseFilter::ResetValues() {
    m_bDeleted = false;
    m_strFilterName.Empty();
    m_strMailTag = "Header";
    m_strAction = "contains";
    m_strObject.Empty();
    m_strOnSuccess = "Do Nothing";
    m_strMoveToFolder.Empty();
    m_strTemporaryFile.Empty();
    m_strActiveOn = "All Days";
    m_strStorageName.Empty();
    m_dwFilterAll = m_dwUseDateInterval = m_dwUseTimeInterval = m_dwHitCount = 0;
    m_bValid = true;
    const CTime now = CTime::GetCurrentTime();
    m_tmFromDate = now;
    m_tmToDate = now + CTimeSpan(kOneDay);
    m_tmFromTime = m_tmToTime = now;
    m_ProcessedIDs.Clear();
}

void CBaseFilter::GetFilterData(CString& name, CString& mailTag, CString& action, CString& object,
                                CString& onSuccess, CString& activeOn, DWORD& filterAll,
                                DWORD& useDateInterval, DWORD& useTimeInterval) const {
    name = m_strFilterName;
    mailTag = m_strMailTag;
    action = m_strAction;
    object = m_strObject;
    onSuccess = m_strOnSuccess;
    activeOn = m_strActiveOn;
    filterAll = m_dwFilterAll;
    useDateInterval = m_dwUseDateInterval;
    useTimeInterval = m_dwUseTimeInterval;
}

void CBaseFilter::SetFilterData(const CString& name, const CString& mailTag, const CString& action,
                                const CString& object, const CString& onSuccess, const CString& activeOn,
                                DWORD filterAll, DWORD useDateInterval, DWORD useTimeInterval) {
    m_strFilterName = name;
    m_strMailTag = mailTag;
    m_strAction = action;
    m_strObject = object;
    m_strOnSuccess = onSuccess;
    m_strActiveOn = activeOn;
    m_dwFilterAll = filterAll;
    m_dwUseDateInterval = useDateInterval;
    m_dwUseTimeInterval = useTimeInterval;
}

void CBaseFilter::GetDateIntervals(CTime& from, CTime& to) const {
    from = m_tmFromDate;
    to = m_tmToDate;
}

void CBaseFilter::SetDateIntervals(CTime from, CTime to) {
    m_tmFromDate = from;
    m_tmToDate = to;
}

void CBaseFilter::GetTimeIntervals(CTime& from, CTime& to) const {
    from = m_tmFromTime;
    to = m_tmToTime;
}

void CBaseFilter::SetTimeIntervals(CTime from, CTime to) {
    m_tmFromTime = from;
    m_tmToTime = to;
}

// --- processed identifiers

void CBaseFilter::AddProcessedID(DWORD id) {
    if (m_ProcessedIDs.AppendUnique(id)) ++m_dwHitCount;
}

void CBaseFilter::ResetFilter() {
    m_dwHitCount = 0;
    m_ProcessedIDs.Clear();
}

void CBaseFilter::LoadProcessedIDs() {
    if (!CFileName(m_strTemporaryFile).Exist()) return;
    m_ProcessedIDs.Clear();
    try {
        CFile file(m_strTemporaryFile, CFile::modeRead | CFile::shareDenyWrite | CFile::typeBinary);
        std::vector<unsigned char> chunk(64 * 1024);
        size_t carried = 0;  // bytes of a value split across two reads
        while (UINT got = file.Read(chunk.data() + carried, static_cast<UINT>(chunk.size() - carried))) {
            const size_t have = carried + got;
            const size_t i = have / 4 * 4;
            m_ProcessedIDs.AppendLittleEndian(chunk.data(), have / 4, false);
            carried = have - i;
            std::memmove(chunk.data(), chunk.data() + i, carried);
        }
    } catch (CFileException* e) {
        e->Delete();
    }
}

void CBaseFilter::SaveProcessedIDs() {
    if (!CFileName(m_strTemporaryFile).Exist()) {
        char module[_MAX_PATH] = {};
        GetModuleFileName(nullptr, module, sizeof module);
        char drive[_MAX_DRIVE] = {}, dir[_MAX_DIR] = {};
        _splitpath(module, drive, dir, nullptr, nullptr);
        m_strTemporaryFile.Format("%s%s%s.tpd", drive, dir, m_strFilterName.GetString());
    }
    // Written beside the file and renamed over it, so a failure or a crash leaves the previous list.
    const CString fresh = m_strTemporaryFile + ".new";
    try {
        CFile file(fresh, CFile::modeCreate | CFile::modeWrite | CFile::typeBinary);
        const std::string bytes = m_ProcessedIDs.ToBytes();
        if (!bytes.empty()) file.Write(bytes.data(), static_cast<UINT>(bytes.size()));
        file.Flush();
        file.Close();
        CFile::Rename(fresh, m_strTemporaryFile);
    } catch (CFileException* e) {
        e->Delete();
        DeleteFile(fresh);
    }
}

// --- base text record

CString CBaseFilter::BuildBaseFilterString() const {
    return m_strFilterName + m_strMailTag + m_strAction + m_strObject + m_strOnSuccess + m_strMoveToFolder +
           m_strTemporaryFile + m_strActiveOn;
}

void CBaseFilter::ParseBaseFilterString(const char* text, const _tagSTR_BASEFILTERDATA* lengths) {
    if (!text || !lengths) return;
    ParseBaseRecord(text, *lengths, 8);
}

void CBaseFilter::ParseBaseRecord(const char* text, const _tagSTR_BASEFILTERDATA& lengths, size_t count) {
    const RecordField fields[] = {{lengths.dwFilterName, &m_strFilterName},
                                  {lengths.dwMailTag, &m_strMailTag},
                                  {lengths.dwAction, &m_strAction},
                                  {lengths.dwObject, &m_strObject},
                                  {lengths.dwOnSuccess, &m_strOnSuccess},
                                  {lengths.dwMoveToFolder, &m_strMoveToFolder},
                                  {lengths.dwTemporaryFile, &m_strTemporaryFile},
                                  {lengths.dwActiveOn, &m_strActiveOn}};
    ParseRecord(text, fields, count);
}

// --- comparisons

bool CBaseFilter::operator==(const CBaseFilter& other) const {
    return !m_bDeleted && m_strFilterName.CompareNoCase(other.m_strFilterName) == 0;
}

bool CBaseFilter::operator!=(const CBaseFilter& other) const {
    return !m_bDeleted && m_strFilterName.str() != other.m_strFilterName.str();
}

// std::string compares as unsigned bytes, stopping at the first difference.
bool CBaseFilter::operator<(const CBaseFilter& other) const {
    return !m_bDeleted && m_strFilterName.str() < other.m_strFilterName.str();
}

bool CBaseFilter::operator>(const CBaseFilter& other) const {
    return !m_bDeleted && m_strFilterName.str() > other.m_strFilterName.str();
}

bool CBaseFilter::operator==(const CString& name) const {
    return !m_bDeleted && m_strFilterName.CompareNoCase(name) == 0;
}

// --- schedule

namespace {

// CompareNoCase(lower) == 0, inline: a check asks this of every rule for every message.
bool SameNoCase(const CString& text, const char* lower) {
    for (const char* c = text.GetString();; ++c, ++lower) {
        const char folded = (*c >= 'A' && *c <= 'Z') ? static_cast<char>(*c - 'A' + 'a') : *c;
        if (folded != *lower) return false;
        if (!folded) return true;
    }
}

}  // namespace

bool CBaseFilter::IsActiveOn() const {
    static const char* const kDays[] = {"sundays",   "mondays", "tuesdays", "wednesdays",
                                        "thursdays", "fridays", "saturdays"};
    if (SameNoCase(m_strActiveOn, "all days")) return true;
    const int day = CTime::GetCurrentTime().GetDayOfWeek();
    if (day >= 1 && day <= 7 && SameNoCase(m_strActiveOn, kDays[day - 1])) return true;
    if (day >= 2 && day <= 6) return SameNoCase(m_strActiveOn, "weekdays");
    return SameNoCase(m_strActiveOn, "weekends");
}

bool CBaseFilter::CheckActivateStatus() const {
    if (!IsActiveOn()) return false;
    if (!m_dwUseDateInterval && !m_dwUseTimeInterval) return true;
    const CTime now = CTime::GetCurrentTime();
    if (m_dwUseDateInterval && (now < m_tmFromDate || now > m_tmToDate)) return false;
    if (m_dwUseTimeInterval) {
        std::tm today{};
        if (!now.GetLocalTm(&today)) return false;
        const int year = today.tm_year + 1900, month = today.tm_mon + 1, day = today.tm_mday;
        const CTime from(year, month, day, m_tmFromTime.GetHour(), m_tmFromTime.GetMinute(),
                         m_tmFromTime.GetSecond());
        const CTime to(year, month, day, m_tmToTime.GetHour(), m_tmToTime.GetMinute(),
                       m_tmToTime.GetSecond());
        if (now < from || now > to) return false;
    }
    return true;
}

// --- helpers

CString CBaseFilter::ResString(UINT id) const {
    CString text;
    text.LoadString(id);
    return text;
}

CString CBaseFilter::RandomString(int length, int kind) {
    CString out;
    // One reading of the clock for the whole text, as names made in one go always were.
    const DWORD tick = GetTickCount();
    for (int i = 0; i < length; ++i) {
        srand(tick * static_cast<DWORD>(i + 1) * static_cast<DWORD>(length));
        int r = rand();
        switch (kind) {
            case 1:
                r %= 122;
                if (r < 48) r += 48;
                if (r > 57 && r < 65) r += 7;
                if (r > 90 && r < 97) r += 6;
                if (r) out += static_cast<char>(r);
                break;
            case 2:
                r %= 122;
                if (r < 65) r = r % 56 + 65;
                if (r > 90 && r < 97) r += 6;
                if (r) out += static_cast<char>(r);
                break;
            case 3:
                out.AppendFormat("%d", r % 9);
                break;
            default:
                out += static_cast<char>(r & 0xFF);
                break;
        }
    }
    return out;
}

void CBaseFilter::ParseSetDate(CString text, CTime& result) {
    XString::SetSeparator(':');
    const XString parts(text);
    int year = DecimalOf(parts.Element(0)), month = DecimalOf(parts.Element(1)),
        day = DecimalOf(parts.Element(2));
    if (year < 1970 || year > 2038) year = 2000;
    if (month < 1 || month > 12) month = 1;
    if (day < 1 || day > 31) day = 1;
    result = CTime(year, month, day, 12, 0, 0);
}

void CBaseFilter::ParseSetTime(CString text, CTime& result) {
    XString::SetSeparator(':');
    const XString parts(text);
    int hour = DecimalOf(parts.Element(0)), minute = DecimalOf(parts.Element(1)),
        second = DecimalOf(parts.Element(2));
    if (hour < 1 || hour > 24) hour = 12;
    if (minute < 0 || minute > 59) minute = 0;
    if (second < 0 || second > 59) second = 0;
    result = CTime(2000, 1, 1, hour, minute, second);
}

void CBaseFilter::ImportFromIni(CString section, CString iniFile) {
    m_strFilterName = IniText(section, IDS_FILTER_NAME, iniFile);
    m_strMailTag = IniText(section, IDS_MAIL_TAG, iniFile);
    m_strAction = IniText(section, IDS_ACTION, iniFile);
    m_strObject = IniText(section, IDS_OBJECT, iniFile);
    m_strOnSuccess = IniText(section, IDS_ON_SUCCESS, iniFile);
    m_strMoveToFolder = IniText(section, IDS_MOVE_TO_FOLDER, iniFile);
    m_strTemporaryFile = IniText(section, IDS_TEMPORARY_FILE, iniFile);
    m_strActiveOn = IniText(section, IDS_ACTIVE_ON, iniFile);
    m_dwHitCount = IniNumber(section, IDS_HIT_COUNT, iniFile);
    m_dwFilterAll = IniNumber(section, IDS_FILTER_ALL, iniFile);
    m_dwUseDateInterval = IniNumber(section, IDS_USE_DATE_INTERVAL, iniFile);
    m_dwUseTimeInterval = IniNumber(section, IDS_USE_TIME_INTERVAL, iniFile);
    // Dates and clock times missing from the section read as these.
    std::vector<char> buffer(kIniBuffer);
    auto text = [&](UINT id, const char* fallback) {
        GetPrivateProfileString(section, ResString(id), fallback, buffer.data(), kIniBuffer, iniFile);
        return CString(buffer.data());
    };
    ParseSetDate(text(IDS_FROM_DATE, "2000:1:1"), m_tmFromDate);
    ParseSetDate(text(IDS_TO_DATE, "2000:1:1"), m_tmToDate);
    ParseSetTime(text(IDS_FROM_TIME, "12:1:1"), m_tmFromTime);
    ParseSetTime(text(IDS_TO_TIME, "12:1:1"), m_tmToTime);
}
