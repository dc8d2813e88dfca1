#include "library/StringTable.h"

namespace tavik {

// Kept in ascending order of number; each family adds its own rows.
const AFX_STRING_RESOURCE kStringTable[] = {
    {3053, "Numeric Data"},
};
const size_t kStringTableSize = sizeof kStringTable / sizeof kStringTable[0];

}  // namespace tavik
