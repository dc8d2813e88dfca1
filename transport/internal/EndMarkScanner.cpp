#include "transport/internal/EndMarkScanner.h"

#include <cstring>

namespace tavik::lib {

std::size_t EndMarkScanner::Find(std::string_view text) {
    // A mark that ends in the new bytes can start at most mark-1 bytes before them.
    std::size_t keep = m_mark.size() - 1;
    std::size_t start = m_scanned > keep ? m_scanned - keep : 0;
    if (text.size() < m_scanned) start = 0;  // caller broke the contract; stay correct
    m_scanned = text.size();
    if (start >= text.size()) return npos;
    m_examined += text.size() - start;
    const void* hit = ::memmem(text.data() + start, text.size() - start, m_mark.data(), m_mark.size());
    if (hit == nullptr) return npos;
    return static_cast<std::size_t>(static_cast<const char*>(hit) - text.data());
}

}  // namespace tavik::lib
