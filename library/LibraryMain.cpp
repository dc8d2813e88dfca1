#include "library/LibraryMain.h"

#include <atomic>
#include <cstdlib>

#include "library/StringTable.h"
#include "platform/Kernel.h"
#include "platform/StringResources.h"

namespace {
std::atomic<int> g_attached{0};
}

void TavikLibraryAttach() {
    if (g_attached.fetch_add(1) != 0) return;
    // The generator is per thread; this seeds the loading thread's, as the process attach does.
    srand(GetTickCount());
    AfxRegisterStringTable(tavik::kStringTable, tavik::kStringTableSize);
}

void TavikLibraryDetach() {
    if (g_attached.fetch_sub(1) != 1) return;
    AfxUnregisterStringTable(tavik::kStringTable);
}
