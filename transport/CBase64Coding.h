// Base64 (RFC 2045 alphabet) between byte arrays and text.
//
// Every encoding ends with at least one "=": input whose length is a multiple of 3 (the empty input too)
// gets a single "=", so that the decoder below always finds its end marker. The text forms put "\r\n"
// after every 72 characters of complete groups, before the end handling.
#pragma once

#include "platform/CArray.h"
#include "platform/CString.h"

class CBase64Coding {
public:
    CBase64Coding();
    virtual ~CBase64Coding() = default;
    CBase64Coding(const CBase64Coding&) = delete;
    CBase64Coding& operator=(const CBase64Coding&) = delete;

    // Replace out with the encoding of in; no line breaks. Always 1.
    virtual int Encode(const CByteArray& in, CByteArray& out);
    // Replace out with the encoding of in, "\r\n" after every 72 characters. Always 1.
    virtual int Encode(const CByteArray& in, CString& out);
    // As above from length bytes at in (a null in or a negative length encodes nothing). Always 1.
    virtual int Encode(const unsigned char* in, CString& out, int length);

    // Replace out with the decoding of in. Tab, CR, LF and space are skipped anywhere. Returns 1 when an
    // "=" ends the text (the bytes its group completes are written first); 0 when a character outside the
    // alphabet stops decoding (whole groups before it are kept) or the text ends without "=" (every
    // complete byte written).
    virtual int Decode(const CByteArray& in, CByteArray& out);
    virtual int Decode(const CString& in, CByteArray& out);

protected:
    static constexpr BYTE kSkip = 0xFE;
    static constexpr BYTE kInvalid = 0xFF;
    BYTE m_DecoderTable[256];
    void m_InitializeDecoderTable();

private:
    int decode(const BYTE* in, size_t length, CByteArray& out) const;
};
