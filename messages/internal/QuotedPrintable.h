// The escape step of the decoder's quoted-printable decoding.
#pragma once

#include <cstddef>

namespace tavik::lib {

// The decoding steps on text in place; returns its new length. First every " = \r\n", then every
// " =\r\n", "= \r\n" and "=\r\n" go, each pattern in one pass from left to right that does not look again
// at what a removal joins. Then, for every byte value v from 0 to 255 in turn, every "=" followed by the
// two upper-case hexadecimal digits of v, in the text as the earlier values left it, becomes the byte v
// (v = 0 leaves nothing: a zero byte ends the replacement as a C string). Each value's pass goes left to
// right and does not look again at what it wrote, so "=3D41" gives "A" while "=3D3D" gives "=3D".
// Linear in the text.
std::size_t DecodeQuotedPrintable(char* text, std::size_t length);

}  // namespace tavik::lib
