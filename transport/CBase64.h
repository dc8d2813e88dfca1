// Bit-stream Base64 without line breaks or end marker rules: the encoder pads with "=" to a multiple of
// four characters, the decoder passes over "=" and stops at any other non-alphabet character.
#pragma once

#include "platform/CString.h"
#include "transport/CMIMECode.h"

class CBase64 : public CMIMECode {
public:
    CBase64() = default;

    // Empty text for a null data or a length of 0 or less.
    CString Encode(const char* data, int length);
    // Writes the decoded bytes to out, which must hold (strlen(text) * 3) / 4 bytes; returns their number
    // (0 for null arguments or empty text). No terminator is written.
    int Decode(const char* text, char* out);

private:
    // Bit reader over the input, bit writer for the output.
    const char* m_szInput = nullptr;
    int m_nInputSize = 0;
    int m_nBitsRemaining = 0;
    ULONG m_lBitStorage = 0;

    int readBits(int count, int& bitsRead);
    void writeBits(UINT bits, int count, char* out, int& written);
};
