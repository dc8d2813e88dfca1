// Process attach and detach of the shared library.
#include "library/LibraryMain.h"

namespace {
struct Module {
    Module() { TavikLibraryAttach(); }
    ~Module() { TavikLibraryDetach(); }
} g_module;
}  // namespace
