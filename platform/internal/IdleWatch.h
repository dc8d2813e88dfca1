// How long a thread that waits for another thread's message spins before it sleeps.
#pragma once

#include <algorithm>
#include <chrono>
#include <iterator>

namespace detail {

// A wake-up through the kernel costs ~10-15 us on a virtual machine (the futex call, then the idle CPU
// coming back), against well under a microsecond for a thread that is still spinning. A thread messages
// come to at a steady pace therefore spins through its idle spells: for about twice the longest of its
// last few spells, at most kMaxWatch. A thread whose spells are longer than that gains nothing from
// spinning and only watches kMinWatch (enough to catch a post that follows a send it has just answered).
// Owner-thread only.
class IdleWatch {
public:
    using Clock = std::chrono::steady_clock;
    using Duration = Clock::duration;
    static constexpr Duration kMinWatch = std::chrono::microseconds(5);
    static constexpr Duration kMaxWatch = std::chrono::microseconds(200);

    void Note(Duration spell) { m_spells[m_next++ % kSpells] = spell; }
    Duration Budget() const {
        Duration longest = *std::max_element(std::begin(m_spells), std::end(m_spells));
        if (longest > kMaxWatch) return kMinWatch;
        return std::min<Duration>(kMaxWatch, 2 * longest + kMinWatch);
    }

private:
    static constexpr unsigned kSpells = 4;
    Duration m_spells[kSpells] = {};
    unsigned m_next = 0;
};

inline void CpuRelax() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    __asm__ __volatile__("yield");
#endif
}

// Spins until ready() or `until`; returns ready().
template <class Ready>
bool SpinUntil(IdleWatch::Clock::time_point until, Ready ready) {
    for (unsigned i = 1;; ++i) {
        if (ready()) return true;
        CpuRelax();
        if (i % 16 == 0 && IdleWatch::Clock::now() >= until) return ready();
    }
}

}  // namespace detail
