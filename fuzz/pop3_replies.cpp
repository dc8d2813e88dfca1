// Arbitrary server replies, cut into arbitrary receives, through every POP3 client operation that reads
// one. Only CPopMailException may come out; anything else (a crash, a sanitizer report, another
// exception) is a finding. The readers' end-mark search is also checked against a plain search.
//
// Input: byte 0 picks the operations, then repeated [piece length][piece bytes] chunks feed Receive.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "messages/CMessageList.h"
#include "transport/CPopMail.h"
#include "transport/internal/EndMarkScanner.h"

namespace {

class FedPopMail : public CPopMail {
public:
    FedPopMail(const uint8_t* data, size_t size)
        : CPopMail(nullptr, nullptr, 1), m_data(data), m_size(size) {}
    int Send(const char*, int size, int) override { return size; }
    int Receive(char* buffer, int size, int) override {
        if (m_at >= m_size) return 0;
        size_t want = m_data[m_at++] % 64 + 1;
        size_t n = std::min({want, m_size - m_at, static_cast<size_t>(size)});
        std::copy(m_data + m_at, m_data + m_at + n, buffer);
        m_at += n;
        return static_cast<int>(n);
    }

private:
    const uint8_t* m_data;
    size_t m_size;
    size_t m_at = 0;
};

void CheckScanner(const uint8_t* data, size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size);
    for (std::string_view mark : {std::string_view("\r\n"), std::string_view("\r\n.\r\n")}) {
        tavik::lib::EndMarkScanner scanner(mark);
        std::string grown;
        size_t found = tavik::lib::EndMarkScanner::npos;
        for (size_t at = 0; at < text.size() && found == tavik::lib::EndMarkScanner::npos;) {
            size_t n = std::min<size_t>(1 + static_cast<uint8_t>(text[at]) % 7, text.size() - at);
            grown.append(text, at, n);
            at += n;
            found = scanner.Find(grown);
        }
        size_t expected = grown.find(mark);
        if (found != expected) std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    CheckScanner(data, size);
    const uint8_t ops = data[0];
    FedPopMail pop(data + 1, size - 1);
    try {
        CString text;
        CMessageList record;
        int count = 0, bytes = 0;
        switch (ops % 8) {
            case 0:
                pop.Login("user", "password");
                break;
            case 1:
                pop.MailBoxStats(&count, &bytes);
                break;
            case 2:
                pop.GetMsgSize(1);
                break;
            case 3:
                pop.GetIDString(1, text);
                break;
            case 4:
                pop.GetHeader(1, record);
                break;
            case 5:
                pop.Retrieve(1, text);
                break;
            case 6:
                pop.DeleteMsg(1);
                pop.ResetMailbox();
                pop.KeepAlive();
                break;
            case 7:
                pop.GetHeader(1, record);
                pop.GetHeader(2, record);
                pop.Retrieve(2, text);
                break;
        }
    } catch (CPopMailException* e) {
        e->Delete();
    }
    return 0;
}
