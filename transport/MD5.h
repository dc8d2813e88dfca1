// The MD5 message digest of RFC 1321.
#pragma once

#include "platform/WinTypes.h"

class MD5 {
public:
    // The reference implementation's context, 104 bytes; after Final the digest is its last field.
    struct Context {
        ULONG count[2];  // number of bits hashed, low word first
        ULONG state[4];
        BYTE buffer[64];
        BYTE digest[16];
    };

    MD5() { Reset(); }

    void Reset();
    void Update(unsigned char* data, unsigned int length);
    // Pad, append the bit count, store the digest and return a copy of the whole context. Further
    // Updates without Reset continue from the padded state.
    Context Final();

private:
    Context m_ctx;
};

static_assert(sizeof(MD5::Context) == 104);
