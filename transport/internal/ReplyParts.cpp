#include "transport/internal/ReplyParts.h"

#include <cstring>

namespace detail {

bool SplitStatusLine(std::string& reply, std::string& status) {
    std::size_t eol = reply.find("\r\n");
    if (eol == std::string::npos || eol == 0) return false;
    status.assign(reply, 0, eol);
    // In place: a retrieved message can be tens of megabytes; one move, no second copy.
    reply.erase(0, eol + 2);
    return true;
}

void CutAtEndMark(std::string& reply) {
    const void* hit = ::memmem(reply.data(), reply.size(), "\r\n.\r\n", 5);
    if (hit == nullptr) return;
    std::size_t at = static_cast<std::size_t>(static_cast<const char*>(hit) - reply.data());
    if (at > 0) reply.resize(at);
}

}  // namespace detail
