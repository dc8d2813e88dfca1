#include "tests/support/TempDir.h"

#include <cstdlib>
#include <stdexcept>

namespace tavik::test {

TempDir::TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "tavik-test-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed for " + pattern);
    m_path = pattern;
}

TempDir::~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(m_path, ec);
}

}  // namespace tavik::test
