// Reading a whole small file (a system list, a description) through the system-call table.
#pragma once

#include <cstddef>
#include <string>

namespace tavik::platform {

// False, with errno set, when path cannot be opened or read, is not a regular file (EINVAL) or is
// longer than limit bytes (EFBIG); bytes is then empty.
bool ReadSmallFile(const std::string& path, std::string& bytes, size_t limit);

}  // namespace tavik::platform
