// The library's string resources: registry value names, stream names and fixed texts, by number.
#pragma once

#include <cstddef>

#include "platform/StringResources.h"

namespace tavik {
extern const AFX_STRING_RESOURCE kStringTable[];
extern const size_t kStringTableSize;
}  // namespace tavik
