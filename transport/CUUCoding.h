// uuencoding of byte arrays: the lines only, no "begin" or "end" lines.
//
// Lines hold 45 bytes ("M" and 60 characters) and end in a lone carriage return, without line feed. A 6-bit
// value v is written as the character 32 + v, except 0, written as "`".
#pragma once

#include "platform/CArray.h"
#include "platform/CString.h"

class CUUCoding {
public:
    CUUCoding() = default;
    virtual ~CUUCoding() = default;
    CUUCoding(const CUUCoding&) = delete;
    CUUCoding& operator=(const CUUCoding&) = delete;

    // Replace out with the encoding of in (empty for empty input). Always 1.
    virtual int Encode(const CByteArray& in, CByteArray& out);
    // The same characters as the array form, as text.
    virtual int Encode(const CByteArray& in, CString& out);

    // Replace out with the decoding of in. Empty input gives 0, anything else 1: each line writes at most
    // the byte count its first character gives; CR and LF between lines are skipped, and characters after
    // a line's counted groups are ignored. A line cut short writes the bytes its characters complete.
    virtual int Decode(const CByteArray& in, CByteArray& out);
    virtual int Decode(const CString& in, CByteArray& out);

private:
    static void encode(const BYTE* in, size_t length, char* out);
    static size_t encodedSize(size_t length);
    static int decode(const BYTE* in, size_t length, CByteArray& out);
};
