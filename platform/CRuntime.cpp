// The Windows runtime's rand/srand, replacing the C library's for the whole process: the library's
// random names and identifiers are built from its sequence, and a test pins it with srand.
#include "platform/CRuntime.h"

#include <cstdlib>

namespace {
thread_local unsigned int t_randState = 1;
}

void tavik::platform::WinSrand(unsigned int seed) { t_randState = seed; }

int tavik::platform::WinRand() {
    t_randState = t_randState * 214013u + 2531011u;
    return static_cast<int>((t_randState >> 16) & 0x7FFFu);
}

extern "C" {
void srand(unsigned int seed) noexcept { tavik::platform::WinSrand(seed); }
int rand() noexcept { return tavik::platform::WinRand(); }
}
