// The replies to pipelined commands as they come: one byte stream holding the replies one after the
// other, cut into single replies at their end marks. The stream may arrive in pieces of any size, with a
// mark split across them; each byte is searched a bounded number of times however it is cut.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "transport/internal/EndMarkScanner.h"

namespace tavik::lib {

class ReplyQueue {
public:
    static constexpr std::size_t npos = std::string_view::npos;

    void Append(const char* data, std::size_t size);
    // Bytes waiting (the reply at the front and whatever follows it).
    std::size_t Size() const { return m_data.size() - m_front; }
    // Length of the first line waiting, through its "\r\n"; npos until it is complete.
    std::size_t LineLength();
    // Length of the waiting text through its first "\r\n.\r\n" (the status line's own line end may be the
    // mark's first two bytes); npos until it is complete.
    std::size_t ListingLength();
    std::string_view Front(std::size_t length) const {
        return std::string_view(m_data).substr(m_front, length);
    }
    // Drops the first length bytes: the next reply starts after them.
    void Consume(std::size_t length);
    // Bytes held, consumed ones not yet let go included (for tests of the bound).
    std::size_t Held() const { return m_data.size(); }

private:
    std::string_view Waiting() const { return std::string_view(m_data).substr(m_front); }

    std::string m_data;
    std::size_t m_front = 0;
    EndMarkScanner m_line{"\r\n"};
    EndMarkScanner m_listing{"\r\n.\r\n"};
};

}  // namespace tavik::lib
