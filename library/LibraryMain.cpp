#include "library/LibraryMain.h"

#include <atomic>

#include "library/StringTable.h"
#include "platform/StringResources.h"

namespace {
std::atomic<int> g_attached{0};
}

void TavikLibraryAttach() {
    if (g_attached.fetch_add(1) != 0) return;
    AfxRegisterStringTable(tavik::kStringTable, tavik::kStringTableSize);
}

void TavikLibraryDetach() {
    if (g_attached.fetch_sub(1) != 1) return;
    AfxUnregisterStringTable(tavik::kStringTable);
}
