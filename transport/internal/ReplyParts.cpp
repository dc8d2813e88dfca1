#include "transport/internal/ReplyParts.h"

#include <algorithm>
#include <cstring>

namespace tavik::lib {

namespace {
// Spare room above this is released: an eighth of the text, and never less than 4 KiB.
std::size_t kSpareWorthACopy(std::size_t size) { return std::max<std::size_t>(size / 8, 4096); }
}  // namespace

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
    // A retrieved message can be tens of megabytes: it moves down in place (its pages are already
    // there), and spare room is given back only when it is worth a copy.
    if (begin > 0 || end < reply.size()) {
        reply.resize(end);
        reply.erase(0, begin);
    }
    if (reply.capacity() - reply.size() > kSpareWorthACopy(reply.size())) reply.shrink_to_fit();
    return split;
}

}  // namespace tavik::lib
