#include "messages/internal/CardCipher.h"

namespace tavik::lib {

CardCipher::CardCipher() {
    for (int i = 0; i < 256; ++i) m_cards[i] = static_cast<std::uint8_t>(255 - i);
}

// All index arithmetic wraps at 256, which the uint8_t fields and casts give for free.
std::uint8_t CardCipher::Step(std::uint8_t b) {
    std::uint8_t* c = m_cards;
    m_ratchet = static_cast<std::uint8_t>(m_ratchet + c[m_rotor]);
    ++m_rotor;
    std::uint8_t t = c[m_lastCipher];
    c[m_lastCipher] = c[m_ratchet];
    c[m_ratchet] = c[m_lastPlain];
    c[m_lastPlain] = c[m_rotor];
    c[m_rotor] = t;
    m_avalanche = static_cast<std::uint8_t>(m_avalanche + c[t]);
    std::uint8_t out = static_cast<std::uint8_t>(
        b ^ c[static_cast<std::uint8_t>(c[m_ratchet] + c[m_rotor])] ^
        c[c[static_cast<std::uint8_t>(c[m_lastPlain] + c[m_avalanche] + c[m_lastCipher])]]);
    m_lastPlain = b;
    m_lastCipher = out;
    return out;
}

std::string CardCipher::Hash(const char* text, std::size_t textLength, std::size_t length) {
    CardCipher cipher;
    for (std::size_t i = 0; i < textLength; ++i) cipher.Step(static_cast<std::uint8_t>(text[i]));
    for (int b = 255; b >= 0; --b) cipher.Step(static_cast<std::uint8_t>(b));
    std::string out(length, '\0');
    for (std::size_t i = 0; i < length; ++i) out[i] = static_cast<char>(cipher.Step(0));
    return out;
}

}  // namespace tavik::lib
