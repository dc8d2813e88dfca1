// The 256-card shuffling cipher behind the record's storage-name hash. Byte-oriented and self-keying:
// every output depends on all earlier inputs, so a short text still spreads over the whole hash.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace tavik::lib {

class CardCipher {
public:
    CardCipher();
    // One step: encrypts b and mixes it into the state.
    std::uint8_t Step(std::uint8_t b);
    // Absorbs the text, then the bytes 255..0, then returns length steps of input 0.
    static std::string Hash(const char* text, std::size_t textLength, std::size_t length);

private:
    std::uint8_t m_cards[256];
    std::uint8_t m_rotor = 1;
    std::uint8_t m_ratchet = 3;
    std::uint8_t m_avalanche = 5;
    std::uint8_t m_lastPlain = 7;
    std::uint8_t m_lastCipher = 11;
};

}  // namespace tavik::lib
