#include "platform/Clock.h"

#include <atomic>
#include <mutex>

#include "platform/CTime.h"
#include "platform/Kernel.h"
#include "platform/internal/SystemCalls.h"

namespace {

// Readers take the fast path while nothing is pinned; a pinned source is called under the lock so it
// can be swapped from another thread at any time.
std::mutex g_clockMutex;
std::function<DWORD()> g_tickSource;
std::function<std::int64_t()> g_timeSource;
std::atomic<bool> g_tickPinned{false};
std::atomic<bool> g_timePinned{false};

DWORD realTickCount() {
    struct timespec ts;
    tavik::platform::Sys().clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<DWORD>(std::uint64_t(ts.tv_sec) * 1000u + std::uint64_t(ts.tv_nsec) / 1000000u);
}

std::int64_t realTime() {
    struct timespec ts;
    tavik::platform::Sys().clock_gettime(CLOCK_REALTIME, &ts);
    return static_cast<std::int64_t>(ts.tv_sec);
}

}  // namespace

DWORD GetTickCount() {
    if (!g_tickPinned.load(std::memory_order_acquire)) return realTickCount();
    std::lock_guard<std::mutex> lock(g_clockMutex);
    return g_tickSource ? g_tickSource() : realTickCount();
}

CTime CTime::GetCurrentTime() {
    if (!g_timePinned.load(std::memory_order_acquire)) return CTime(std::time_t(realTime()));
    std::lock_guard<std::mutex> lock(g_clockMutex);
    return CTime(std::time_t(g_timeSource ? g_timeSource() : realTime()));
}

void SetTickCountSource(std::function<DWORD()> source) {
    std::lock_guard<std::mutex> lock(g_clockMutex);
    g_tickSource = std::move(source);
    g_tickPinned.store(static_cast<bool>(g_tickSource), std::memory_order_release);
}

void SetCurrentTimeSource(std::function<std::int64_t()> source) {
    std::lock_guard<std::mutex> lock(g_clockMutex);
    g_timeSource = std::move(source);
    g_timePinned.store(static_cast<bool>(g_timeSource), std::memory_order_release);
}

struct ScopedClockPin::State {
    std::atomic<DWORD> ticks;
    std::atomic<std::int64_t> now;
    std::function<DWORD()> savedTicks;
    std::function<std::int64_t()> savedTime;
};

ScopedClockPin::ScopedClockPin(DWORD ticks, std::int64_t now) : m_state(new State) {
    m_state->ticks = ticks;
    m_state->now = now;
    {
        std::lock_guard<std::mutex> lock(g_clockMutex);
        m_state->savedTicks = g_tickSource;
        m_state->savedTime = g_timeSource;
    }
    State* state = m_state;
    SetTickCountSource([state] { return state->ticks.load(); });
    SetCurrentTimeSource([state] { return state->now.load(); });
}

ScopedClockPin::~ScopedClockPin() {
    SetTickCountSource(std::move(m_state->savedTicks));
    SetCurrentTimeSource(std::move(m_state->savedTime));
    delete m_state;
}

void ScopedClockPin::SetTickCount(DWORD ticks) { m_state->ticks = ticks; }
void ScopedClockPin::AdvanceTicks(DWORD ms) { m_state->ticks.fetch_add(ms); }
void ScopedClockPin::SetTime(std::int64_t secondsSince1970) { m_state->now = secondsSince1970; }
void ScopedClockPin::AdvanceTime(std::int64_t seconds) { m_state->now.fetch_add(seconds); }
