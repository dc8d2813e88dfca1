// The framework's absolute time (seconds since 1970, 64-bit) and time span. Local-time conversions use
// the process's time zone (TZ), as the C runtime does.
#pragma once

#include <cstdint>
#include <ctime>

#include "platform/CString.h"

class CTimeSpan {
public:
    CTimeSpan() = default;
    CTimeSpan(std::int64_t seconds) : m_span(seconds) {}  // NOLINT: implicit as in the framework
    CTimeSpan(LONG days, int hours, int minutes, int seconds)
        : m_span(((std::int64_t(days) * 24 + hours) * 60 + minutes) * 60 + seconds) {}

    std::int64_t GetDays() const { return m_span / (24 * 3600); }
    std::int64_t GetTotalHours() const { return m_span / 3600; }
    std::int64_t GetTotalMinutes() const { return m_span / 60; }
    std::int64_t GetTotalSeconds() const { return m_span; }
    // The component within the next larger unit: 0..23, 0..59, 0..59 (negative for a negative span).
    int GetHours() const { return int(GetTotalHours() - GetDays() * 24); }
    int GetMinutes() const { return int(GetTotalMinutes() - GetTotalHours() * 60); }
    int GetSeconds() const { return int(GetTotalSeconds() - GetTotalMinutes() * 60); }

    // %D days, %H hours (2 digits), %M minutes, %S seconds, %% a percent sign; other text is copied.
    CString Format(LPCTSTR format) const;

    CTimeSpan operator+(CTimeSpan other) const { return m_span + other.m_span; }
    CTimeSpan operator-(CTimeSpan other) const { return m_span - other.m_span; }
    CTimeSpan operator-() const { return -m_span; }
    CTimeSpan& operator+=(CTimeSpan other) {
        m_span += other.m_span;
        return *this;
    }
    CTimeSpan& operator-=(CTimeSpan other) {
        m_span -= other.m_span;
        return *this;
    }
    bool operator==(CTimeSpan other) const { return m_span == other.m_span; }
    bool operator!=(CTimeSpan other) const { return m_span != other.m_span; }
    bool operator<(CTimeSpan other) const { return m_span < other.m_span; }
    bool operator>(CTimeSpan other) const { return m_span > other.m_span; }
    bool operator<=(CTimeSpan other) const { return m_span <= other.m_span; }
    bool operator>=(CTimeSpan other) const { return m_span >= other.m_span; }

private:
    std::int64_t m_span = 0;
};

class CTime {
public:
    CTime() = default;                                       // time 0
    CTime(std::time_t time) : m_time(std::int64_t(time)) {}  // NOLINT: implicit as in the framework
    // Local calendar time as mktime: out-of-range fields are carried over (day 32 of January is
    // 1 February); nDST -1 lets the zone decide daylight saving. A time mktime cannot represent gives -1,
    // as the framework's release build does.
    CTime(int year, int month, int day, int hour, int minute, int second, int nDST = -1);

    // The pinnable current time (platform/Clock.h).
    static CTime GetCurrentTime();

    std::time_t GetTime() const { return std::time_t(m_time); }
    // Fields in local time; a time the C runtime cannot break down gives 0 for every field.
    int GetYear() const;
    int GetMonth() const;  // 1..12
    int GetDay() const;    // 1..31
    int GetHour() const;   // 0..23
    int GetMinute() const;
    int GetSecond() const;
    int GetDayOfWeek() const;  // 1 = Sunday .. 7 = Saturday
    // Null when the time cannot be broken down; otherwise fills and returns ptm.
    std::tm* GetLocalTm(std::tm* ptm) const;
    std::tm* GetGmtTm(std::tm* ptm) const;

    // strftime in the local zone / in UTC. An empty result when the time cannot be broken down.
    CString Format(LPCTSTR format) const;
    CString FormatGmt(LPCTSTR format) const;

    CTime operator+(CTimeSpan span) const { return CTime::FromSeconds(m_time + span.GetTotalSeconds()); }
    CTime operator-(CTimeSpan span) const { return CTime::FromSeconds(m_time - span.GetTotalSeconds()); }
    CTimeSpan operator-(CTime other) const { return CTimeSpan(m_time - other.m_time); }
    CTime& operator+=(CTimeSpan span) {
        m_time += span.GetTotalSeconds();
        return *this;
    }
    CTime& operator-=(CTimeSpan span) {
        m_time -= span.GetTotalSeconds();
        return *this;
    }
    bool operator==(CTime other) const { return m_time == other.m_time; }
    bool operator!=(CTime other) const { return m_time != other.m_time; }
    bool operator<(CTime other) const { return m_time < other.m_time; }
    bool operator>(CTime other) const { return m_time > other.m_time; }
    bool operator<=(CTime other) const { return m_time <= other.m_time; }
    bool operator>=(CTime other) const { return m_time >= other.m_time; }

private:
    static CTime FromSeconds(std::int64_t t) { return CTime(std::time_t(t)); }
    std::int64_t m_time = 0;
};
