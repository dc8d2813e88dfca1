#include "library/LibraryMain.h"

#include <cstdlib>
#include <mutex>

#include "library/ErrorDialogResource.h"
#include "library/StringTable.h"
#include "platform/CDynLinkLibrary.h"
#include "platform/DynamicLibrary.h"
#include "platform/Kernel.h"
#include "platform/MessageBox.h"

namespace {

std::mutex g_lock;
int g_attached = 0;
AFX_EXTENSION_MODULE g_extension = {FALSE, nullptr, nullptr};

const AFX_DIALOG_RESOURCE* const kDialogs[] = {&tavik::kErrorDialogResource};
const AFX_MODULE_RESOURCES kResources = {tavik::kStringTable, tavik::kStringTableSize, kDialogs,
                                         sizeof kDialogs / sizeof kDialogs[0]};

// False when the version cannot be known: no common-controls library, or its query failed. A library
// without the query is the oldest, 4.0.
bool CommonControlsVersion(DWORD& major, DWORD& minor) {
    HMODULE comctl = LoadLibrary("comctl32.dll");
    if (!comctl) return false;
    bool known = true;
    major = 4;
    minor = 0;
    if (auto query = reinterpret_cast<DLLGETVERSIONPROC>(GetProcAddress(comctl, "DllGetVersion"))) {
        DLLVERSIONINFO info = {};
        info.cbSize = sizeof info;
        known = SUCCEEDED(query(&info));
        major = info.dwMajorVersion;
        minor = info.dwMinorVersion;
    }
    FreeLibrary(comctl);
    return known;
}

bool CommonControlsTooOld() {
    DWORD major = 0, minor = 0;
    // Both parts must be low: 4.71 passes, and so would 3.80.
    return CommonControlsVersion(major, minor) && major < 5 && minor < 71;
}

}  // namespace

BOOL TavikLibraryAttach() {
    std::lock_guard<std::mutex> lock(g_lock);
    if (g_attached > 0) {
        ++g_attached;
        return TRUE;
    }
    // The generator is per thread; this seeds the loading thread's, as the process attach does.
    srand(GetTickCount());
    if (CommonControlsTooOld()) {
        AfxMessageBox(
            "Important files on your system are outdated. Please execute '40Comupd.exe' in the tavikmail "
            "directory to update the system. Thank You");
        return FALSE;
    }
    if (!AfxInitExtensionModule(g_extension, const_cast<AFX_MODULE_RESOURCES*>(&kResources))) return FALSE;
    new CDynLinkLibrary(g_extension);
    g_attached = 1;
    return TRUE;
}

void TavikLibraryDetach() {
    std::lock_guard<std::mutex> lock(g_lock);
    if (g_attached == 0 || --g_attached > 0) return;
    AfxTermExtensionModule(g_extension);
}
