// A unique temporary directory for one test, removed with everything in it when the object goes.
#pragma once

#include <filesystem>
#include <string>

namespace tavik::test {

class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::filesystem::path& path() const { return m_path; }
    std::string file(const std::string& name) const { return (m_path / name).string(); }

private:
    std::filesystem::path m_path;
};

// Whole-file reads and writes in binary mode; a missing file reads as empty.
std::string ReadFile(const std::string& path);
void WriteFile(const std::string& path, const std::string& bytes);

}  // namespace tavik::test
