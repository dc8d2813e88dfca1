#include "messages/internal/TextSearch.h"

#include <cstring>

namespace tavik::lib {

std::size_t FindText(std::string_view text, std::string_view needle, std::size_t from) {
    if (from > text.size()) return std::string_view::npos;
    if (needle.empty()) return from;
    // glibc's memmem falls back to the two-way algorithm, so no needle makes it quadratic (the standard
    // library's find is, on a long needle of repeated characters).
    const void* hit = memmem(text.data() + from, text.size() - from, needle.data(), needle.size());
    return hit ? static_cast<std::size_t>(static_cast<const char*>(hit) - text.data())
               : std::string_view::npos;
}

std::size_t FindTextNear(std::string_view text, std::string_view needle, std::size_t from) {
    constexpr std::size_t kHead = 32;
    if (needle.size() <= 2 * kHead) return FindText(text, needle, from);
    const std::size_t at = FindText(text, needle.substr(0, kHead), from);
    if (at == std::string_view::npos) return at;
    if (text.substr(at, needle.size()) == needle) return at;
    return FindText(text, needle, at + 1);
}

}  // namespace tavik::lib
