// The clocks behind GetTickCount and CTime::GetCurrentTime, replaceable so tests can pin them.
// Waits and timers (WaitForSingleObject, SetTimer, Sleep) always run on the real monotonic clock, so a
// pinned tick count never stalls them.
#pragma once

#include <cstdint>
#include <functional>

#include "platform/WinTypes.h"

// An empty function restores the real clock. Safe to call while other threads read the clock.
void SetTickCountSource(std::function<DWORD()> source);
// Seconds since 1970 (UTC).
void SetCurrentTimeSource(std::function<std::int64_t()> source);

// Pins both clocks for its lifetime and restores the real ones afterwards. Values may be changed
// while pinned, from any thread.
class ScopedClockPin {
public:
    explicit ScopedClockPin(DWORD ticks = 1000, std::int64_t now = 1000000000);  // 2001-09-09 01:46:40 UTC
    ~ScopedClockPin();
    ScopedClockPin(const ScopedClockPin&) = delete;
    ScopedClockPin& operator=(const ScopedClockPin&) = delete;

    void SetTickCount(DWORD ticks);
    void AdvanceTicks(DWORD ms);  // wraps at 2^32 as the real count does
    void SetTime(std::int64_t secondsSince1970);
    void AdvanceTime(std::int64_t seconds);

private:
    struct State;
    State* m_state;
};
