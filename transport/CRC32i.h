// CRC-32 of IEEE 802.3: reflected polynomial 0xEDB88320, start value 0xFFFFFFFF, final complement.
#pragma once

#include "platform/WinTypes.h"

class CRC32i {
public:
    CRC32i() { Reset(); }
    CRC32i(const CRC32i&) = default;  // the copy gets its own table
    CRC32i& operator=(const CRC32i&) = default;

    // Rebuild the table and start a new checksum.
    void Reset();
    // Fold length bytes in; a null data with length 0 is fine.
    void Update(unsigned char* data, ULONG length);
    // Complement the running value in place and return it, so a second call without Reset returns the
    // complement of the first result.
    ULONG Final();

private:
    ULONG m_crc = 0xFFFFFFFFu;
    ULONG m_table[256];
};
