// Damage done to a message file the way a broken writer would do it.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

namespace tavik::test {

// Makes the directory entry of the stream `name` (ASCII) claim a size of almost 2 GB.
inline void ClaimHugeStreamSize(const std::string& path, const std::string& name) {
    std::FILE* f = std::fopen(path.c_str(), "r+b");
    ASSERT_NE(f, nullptr);
    std::string bytes(1 << 20, '\0');
    bytes.resize(std::fread(bytes.data(), 1, bytes.size(), f));
    std::string pattern;  // UTF-16LE with its terminating null
    for (char c : name) pattern += std::string{c, '\0'};
    pattern += std::string(2, '\0');
    // Directory entries start at multiples of 128 bytes; a name may also occur inside "Root Entry".
    size_t at = bytes.find(pattern);
    while (at != std::string::npos && at % 128 != 0) at = bytes.find(pattern, at + 1);
    ASSERT_NE(at, std::string::npos);
    const unsigned char huge[4] = {0x00, 0xFF, 0xFF, 0x7F};
    std::fseek(f, static_cast<long>(at + 120), SEEK_SET);
    std::fwrite(huge, 1, 4, f);
    std::fclose(f);
}

}  // namespace tavik::test
