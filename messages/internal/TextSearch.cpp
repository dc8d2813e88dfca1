#include "messages/internal/TextSearch.h"

#include <cstring>

namespace detail {

std::size_t FindText(std::string_view text, std::string_view needle, std::size_t from) {
    if (from > text.size()) return std::string_view::npos;
    if (needle.empty()) return from;
    // glibc's memmem falls back to the two-way algorithm, so no needle makes it quadratic (the standard
    // library's find is, on a long needle of repeated characters).
    const void* hit = memmem(text.data() + from, text.size() - from, needle.data(), needle.size());
    return hit ? static_cast<std::size_t>(static_cast<const char*>(hit) - text.data())
               : std::string_view::npos;
}

}  // namespace detail
