// How long a thread that waits for another thread's message spins before it sleeps.
#pragma once

#include <algorithm>
#include <chrono>
#include <iterator>

namespace tavik::platform {

inline void CpuRelax() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    __asm__ __volatile__("yield");
#endif
}

// Whether the machine has more threads ready to run than CPUs right now (false when unknown).
bool CpusOversubscribed();

// A wake-up through the kernel costs ~10-15 us on a virtual machine (the futex call, then the idle CPU
// coming back), against well under a microsecond for a thread that is still spinning. A thread messages
// come to at a steady pace therefore spins through its idle spells: for about twice the longest of its
// last few spells, at most kMaxWatch. A thread whose spells are longer than that gains nothing from
// spinning and only watches kMinWatch (enough to catch a post that follows a send it has just answered).
//
// Spinning only pays while every spinner has a CPU of its own: with more threads ready than CPUs, a
// spinner takes the CPU its partner needs, and one that is preempted waits out another thread's whole
// time slice before it can answer, where a sleeper that is woken gets the CPU back at once. So the
// machine's load is looked at every kSample, and on a loaded machine the thread sleeps straight away.
// Owner-thread only.
class IdleWatch {
public:
    using Clock = std::chrono::steady_clock;
    using Duration = Clock::duration;
    static constexpr Duration kMinWatch = std::chrono::microseconds(5);
    static constexpr Duration kMaxWatch = std::chrono::microseconds(200);
    static constexpr Duration kSample = std::chrono::milliseconds(10);

    void Note(Duration spell) { m_spells[m_next++ % kSpells] = spell; }

    Duration Budget(Clock::time_point now) {
        Duration longest = *std::max_element(std::begin(m_spells), std::end(m_spells));
        if (longest > kMaxWatch) return kMinWatch;
        if (now >= m_nextSample) {
            m_nextSample = now + kSample;
            m_loaded = CpusOversubscribed();
        }
        if (m_loaded) return Duration::zero();
        return std::min<Duration>(kMaxWatch, 2 * longest + kMinWatch);
    }

    // Spins from `now` until ready() or the budget runs out (never past `limit`); returns ready().
    template <class Ready>
    bool Watch(Clock::time_point now, Clock::time_point limit, Ready ready) {
        Clock::time_point until = std::min(limit, now + Budget(now));
        for (unsigned i = 1;; ++i) {
            if (ready()) return true;
            CpuRelax();
            if (i % 16 == 0 && Clock::now() >= until) return ready();
        }
    }

private:
    static constexpr unsigned kSpells = 4;
    Duration m_spells[kSpells] = {};
    unsigned m_next = 0;
    bool m_loaded = false;
    Clock::time_point m_nextSample{};
};

}  // namespace tavik::platform
