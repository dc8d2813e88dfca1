// Process attach and detach of the shared library.
#include <cstdlib>

#include "library/LibraryMain.h"

namespace {
struct Module {
    // A library that refuses to load cannot make the loader fail here; the process ends instead, as
    // Windows ends a program whose load-time library refuses.
    Module() {
        if (!TavikLibraryAttach()) std::_Exit(EXIT_FAILURE);
    }
    ~Module() { TavikLibraryDetach(); }
} g_module;
}  // namespace
