#include "transport/internal/ReplyQueue.h"

namespace tavik::lib {

namespace {
// Consumed bytes are dropped from the buffer once they are at least this many and outweigh the rest,
// so moving the rest down costs less than the reads that filled it.
constexpr std::size_t kCompactAt = 64 * 1024;
}  // namespace

void ReplyQueue::Append(const char* data, std::size_t size) {
    if (m_front >= kCompactAt && m_front >= Size()) {
        m_data.erase(0, m_front);
        m_front = 0;
    }
    m_data.append(data, size);
}

std::size_t ReplyQueue::LineLength() {
    const std::size_t at = m_line.Find(Waiting());
    return at == npos ? npos : at + 2;
}

std::size_t ReplyQueue::ListingLength() {
    const std::size_t at = m_listing.Find(Waiting());
    return at == npos ? npos : at + 5;
}

void ReplyQueue::Consume(std::size_t length) {
    m_front += length < Size() ? length : Size();
    if (m_front == m_data.size()) {
        m_data.clear();
        m_front = 0;
    }
    m_line.Reset();
    m_listing.Reset();
}

}  // namespace tavik::lib
