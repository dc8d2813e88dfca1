#include "platform/CTime.h"

#include <time.h>

#include <vector>

CTime::CTime(int year, int month, int day, int hour, int minute, int second, int nDST) {
    std::tm t{};
    t.tm_year = year - 1900;
    t.tm_mon = month - 1;
    t.tm_mday = day;
    t.tm_hour = hour;
    t.tm_min = minute;
    t.tm_sec = second;
    t.tm_isdst = nDST;
    m_time = std::int64_t(std::mktime(&t));
}

std::tm* CTime::GetLocalTm(std::tm* ptm) const {
    time_t t = time_t(m_time);
    return ptm != nullptr && localtime_r(&t, ptm) != nullptr ? ptm : nullptr;
}

std::tm* CTime::GetGmtTm(std::tm* ptm) const {
    time_t t = time_t(m_time);
    return ptm != nullptr && gmtime_r(&t, ptm) != nullptr ? ptm : nullptr;
}

namespace {

std::tm localFields(std::int64_t time) {
    std::tm t{};
    time_t tt = time_t(time);
    if (localtime_r(&tt, &t) == nullptr) {
        t = std::tm{};
        t.tm_mon = -1;  // every getter then answers 0
        t.tm_year = -1900;
        t.tm_wday = -1;
    }
    return t;
}

CString formatTm(const std::tm* t, LPCTSTR format) {
    if (t == nullptr || format == nullptr || *format == '\0') return CString();
    // strftime gives 0 both for "too small" and for an empty result; grow a few times, then give up.
    std::vector<char> buffer(256);
    for (int attempt = 0; attempt < 8; ++attempt) {
        std::size_t n = std::strftime(buffer.data(), buffer.size(), format, t);
        if (n > 0) return CString(buffer.data(), int(n));
        buffer.resize(buffer.size() * 4);
    }
    return CString();
}

}  // namespace

int CTime::GetYear() const { return localFields(m_time).tm_year + 1900; }
int CTime::GetMonth() const { return localFields(m_time).tm_mon + 1; }
int CTime::GetDay() const { return localFields(m_time).tm_mday; }
int CTime::GetHour() const { return localFields(m_time).tm_hour; }
int CTime::GetMinute() const { return localFields(m_time).tm_min; }
int CTime::GetSecond() const { return localFields(m_time).tm_sec; }
int CTime::GetDayOfWeek() const { return localFields(m_time).tm_wday + 1; }

CString CTime::Format(LPCTSTR format) const {
    std::tm t;
    return formatTm(GetLocalTm(&t), format);
}

CString CTime::FormatGmt(LPCTSTR format) const {
    std::tm t;
    return formatTm(GetGmtTm(&t), format);
}

CString CTimeSpan::Format(LPCTSTR format) const {
    CString result;
    if (format == nullptr) return result;
    for (const char* p = format; *p != '\0'; ++p) {
        if (*p != '%' || p[1] == '\0') {
            result += *p;
            continue;
        }
        ++p;
        switch (*p) {
            case 'D':
                result.AppendFormat("%lld", static_cast<long long>(GetDays()));
                break;
            case 'H':
                result.AppendFormat("%02d", GetHours());
                break;
            case 'M':
                result.AppendFormat("%02d", GetMinutes());
                break;
            case 'S':
                result.AppendFormat("%02d", GetSeconds());
                break;
            case '%':
                result += '%';
                break;
            default:
                result += '%';
                result += *p;
                break;
        }
    }
    return result;
}
