// The library's load and unload, as a Windows extension library's process attach and detach.
#pragma once

#include "platform/WinTypes.h"

// Seeds the C runtime's generator from the tick count, then refuses to load (FALSE, after a message box
// asking for the system update) when the common-controls library is older than the library needs.
// Otherwise registers the library as an extension module, so that its string table and dialog resources
// join the process's, and returns TRUE. Calls nest: only the first registers and only the matching last
// detach ends the registration. The shared library attaches when it is loaded; static builds (tests,
// benchmarks) call it from their main.
BOOL TavikLibraryAttach();
void TavikLibraryDetach();
