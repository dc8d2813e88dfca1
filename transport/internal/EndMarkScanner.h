// Finds the mark that ends a server reply ("\r\n" for one line, "\r\n.\r\n" for a listing) in a reply
// that grows by appending, looking only where the newly appended bytes could complete the mark. Feeding
// a reply of n bytes in any number of pieces examines O(n) bytes in total.
#pragma once

#include <cstddef>
#include <string_view>

namespace tavik::lib {

class EndMarkScanner {
public:
    // mark must not be empty and must outlive the scanner (a literal).
    explicit EndMarkScanner(std::string_view mark) : m_mark(mark) {}

    // Position of the first mark in text, or npos. text must be the text of the previous call with
    // bytes appended; after any other change call Reset first.
    std::size_t Find(std::string_view text);
    void Reset() {
        m_scanned = 0;
        m_examined = 0;
    }

    // Bytes looked at since the last Reset (for tests of the linear bound).
    std::size_t Examined() const { return m_examined; }

    static constexpr std::size_t npos = std::string_view::npos;

private:
    std::string_view m_mark;
    std::size_t m_scanned = 0;
    std::size_t m_examined = 0;
};

}  // namespace tavik::lib
