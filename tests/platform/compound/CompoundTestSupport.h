// Shared helpers of the compound-file tests: owning pointers, whole-stream I/O, listing a file the way
// tests/platform/compound/olelist.py prints it, and running the Debian tools.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "platform/OleStorage.h"

namespace tavik::test {

template <class T>
class Com {
public:
    Com() = default;
    explicit Com(T* p) : m_p(p) {}
    Com(const Com&) = delete;
    Com& operator=(const Com&) = delete;
    Com(Com&& o) noexcept : m_p(std::exchange(o.m_p, nullptr)) {}
    Com& operator=(Com&& o) noexcept {
        reset();
        m_p = std::exchange(o.m_p, nullptr);
        return *this;
    }
    ~Com() { reset(); }
    void reset() {
        if (m_p) m_p->Release();
        m_p = nullptr;
    }
    T** out() {
        reset();
        return &m_p;
    }
    T* get() const { return m_p; }
    T* operator->() const { return m_p; }
    explicit operator bool() const { return m_p != nullptr; }

private:
    T* m_p = nullptr;
};

constexpr DWORD kRW = STGM_READWRITE | STGM_SHARE_EXCLUSIVE;
constexpr DWORD kRO = STGM_READ | STGM_SHARE_EXCLUSIVE;

std::vector<unsigned char> Pattern(std::size_t size, unsigned seed);
std::uint32_t Crc32(const std::vector<unsigned char>& data);

HRESULT PutStream(IStorage* stg, const char* name, const std::vector<unsigned char>& data);
// Whole stream; an empty vector and a failing result when it cannot be read.
std::vector<unsigned char> GetStream(IStorage* stg, const char* name, HRESULT* result = nullptr);
// Opens a path of storages ("a/b/c") below stg, read-write.
Com<IStorage> OpenPath(IStorage* stg, const std::string& path, DWORD mode = kRW);

// "d PATH" / "f PATH SIZE CRC" lines, sorted, as olelist.py prints them (names are ASCII in tests).
std::vector<std::string> ListTree(IStorage* root);
std::vector<std::string> ListFile(const std::string& path);

struct ToolResult {
    int status = -1;
    std::string out;
    std::string err;
};
// Runs a shell command; stdout and stderr captured separately.
ToolResult RunTool(const std::string& command);
std::vector<std::string> Lines(const std::string& text);
std::string Quote(const std::string& text);
std::string SourceDir();  // tests/platform/compound in the source tree

}  // namespace tavik::test
