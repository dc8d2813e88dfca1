// The library's load and unload, as a Windows extension library's process attach and detach.
#pragma once

// Seeds the C runtime's generator from the tick count and joins the library's string table to the
// process's. Idempotent. The shared library calls it when it is loaded; static test builds call it
// from their main.
void TavikLibraryAttach();
void TavikLibraryDetach();
