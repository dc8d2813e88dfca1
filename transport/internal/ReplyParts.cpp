#include "transport/internal/ReplyParts.h"

#include <cstring>

namespace detail {

bool StripReply(std::string& reply, std::string* status) {
    std::size_t begin = 0;
    bool split = false;
    if (status != nullptr) {
        std::size_t eol = reply.find("\r\n");
        if (eol != std::string::npos && eol > 0) {
            status->assign(reply, 0, eol);
            begin = eol + 2;
            split = true;
        }
    }
    std::size_t end = reply.size();
    const void* hit = ::memmem(reply.data() + begin, reply.size() - begin, "\r\n.\r\n", 5);
    if (hit != nullptr) {
        std::size_t at = static_cast<std::size_t>(static_cast<const char*>(hit) - reply.data());
        if (at > begin) end = at;
    }
    // A retrieved message can be tens of megabytes: one copy of the kept part, exactly sized, instead of
    // moving it to the front and then reallocating to drop the spare room.
    if (begin > 0 || end < reply.size() || reply.capacity() > reply.size()) {
        std::string kept(reply.data() + begin, end - begin);
        reply.swap(kept);
    }
    return split;
}

}  // namespace detail
