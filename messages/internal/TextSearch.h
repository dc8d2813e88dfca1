// Search and work accounting shared by the MIME decoder's text passes.
#pragma once

#include <cstdint>
#include <string_view>

namespace tavik::lib {

// First index >= from at which needle occurs in text; npos when none (an empty needle is found at from
// when from <= size). Linear in the text searched, whatever the two texts hold.
std::size_t FindText(std::string_view text, std::string_view needle, std::size_t from = 0);

// The same answer as FindText, found sooner when the needle is long and the first place where its opening
// bytes occur is an occurrence (as where a part's content is looked for just before it): no occurrence
// can start before that place, so only that one needs comparing.
std::size_t FindTextNear(std::string_view text, std::string_view needle, std::size_t from = 0);

// Work that is linear for ordinary mail but not for every input (searches a hostile message could make
// repeat) draws on one budget per rendering, so that no message can make the work grow without bound.
class WorkBudget {
public:
    explicit WorkBudget(std::uint64_t units) : m_left(units) {}
    // False, and from then on always false, once the units are spent.
    bool Spend(std::uint64_t units) {
        if (m_spent || units > m_left) {
            m_spent = true;
            m_left = 0;
            return false;
        }
        m_left -= units;
        return true;
    }
    bool Exhausted() const { return m_spent; }

private:
    std::uint64_t m_left;
    bool m_spent = false;
};

}  // namespace tavik::lib
