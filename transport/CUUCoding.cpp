#include "transport/CUUCoding.h"

namespace {

constexpr size_t kLineBytes = 45;

inline char uuChar(unsigned v) { return v ? static_cast<char>(32 + v) : '`'; }

inline unsigned uuValue(BYTE c) { return (static_cast<unsigned>(c) - 32u) & 63u; }

}  // namespace

size_t CUUCoding::encodedSize(size_t length) {
    const size_t full = length / kLineBytes, rest = length % kLineBytes;
    return full * 62 + (rest ? 2 + (rest + 2) / 3 * 4 : 0);
}

void CUUCoding::encode(const BYTE* in, size_t length, char* out) {
    while (length > 0) {
        const size_t n = length < kLineBytes ? length : kLineBytes;
        *out++ = static_cast<char>(32 + n);
        for (size_t i = 0; i < n; i += 3) {
            // A short last group reads its missing bytes as zero.
            const unsigned b0 = in[i], b1 = i + 1 < n ? in[i + 1] : 0, b2 = i + 2 < n ? in[i + 2] : 0;
            *out++ = uuChar(b0 >> 2);
            *out++ = uuChar(((b0 & 3) << 4) | (b1 >> 4));
            *out++ = uuChar(((b1 & 15) << 2) | (b2 >> 6));
            *out++ = uuChar(b2 & 63);
        }
        *out++ = '\r';
        in += n;
        length -= n;
    }
}

int CUUCoding::Encode(const CByteArray& in, CByteArray& out) {
    const size_t length = static_cast<size_t>(in.GetSize());
    out.vector().resize(encodedSize(length));
    encode(in.GetData(), length, reinterpret_cast<char*>(out.GetData()));
    return 1;
}

int CUUCoding::Encode(const CByteArray& in, CString& out) {
    const size_t length = static_cast<size_t>(in.GetSize());
    out.str().resize(encodedSize(length));
    encode(in.GetData(), length, out.str().data());
    return 1;
}

int CUUCoding::Decode(const CByteArray& in, CByteArray& out) {
    return decode(in.GetData(), static_cast<size_t>(in.GetSize()), out);
}

int CUUCoding::Decode(const CString& in, CByteArray& out) {
    return decode(reinterpret_cast<const BYTE*>(in.GetString()), static_cast<size_t>(in.GetLength()), out);
}

int CUUCoding::decode(const BYTE* in, size_t length, CByteArray& out) {
    std::vector<BYTE>& v = out.vector();
    v.clear();
    if (length == 0) return 0;
    // Every byte written needs more than one input character, so this bounds the output.
    v.reserve(length);
    const BYTE* const end = in + length;
    while (in < end) {
        if (*in == '\r' || *in == '\n') {
            ++in;
            continue;
        }
        unsigned count = uuValue(*in++);
        while (count > 0 && in < end && *in != '\r' && *in != '\n') {
            unsigned g[4] = {0, 0, 0, 0};
            int have = 0;
            while (have < 4 && in < end && *in != '\r' && *in != '\n') g[have++] = uuValue(*in++);
            const BYTE bytes[3] = {static_cast<BYTE>((g[0] << 2) | (g[1] >> 4)),
                                   static_cast<BYTE>((g[1] << 4) | (g[2] >> 2)),
                                   static_cast<BYTE>((g[2] << 6) | g[3])};
            // A group cut short by the line's end completes only the bytes its characters cover.
            const unsigned complete = have == 4 ? 3u : have > 0 ? static_cast<unsigned>(have - 1) : 0u;
            const unsigned take = complete < count ? complete : count;
            v.insert(v.end(), bytes, bytes + take);
            count -= take;
            if (have < 4) break;
        }
        while (in < end && *in != '\r' && *in != '\n') ++in;  // padding after the counted groups
    }
    return 1;
}
