// The C runtime's pseudo-random generator as the Windows runtime has it: per-thread state starting at 1,
// state = state * 214013 + 2531011, result (state >> 16) & 0x7FFF. So srand(1) then rand() gives 41,
// 18467, 6334.
//
// tavik_platform_core defines the C library's own `srand` and `rand` (extern "C"), so every plain
// `srand(x)` / `rand()` call in the process, from <cstdlib> or not, uses this generator; nothing to
// include for that. This header gives the range and the generator under explicit names for code that
// wants to say which one it means.
#pragma once

// RAND_MAX of the Windows runtime; <cstdlib>'s RAND_MAX is the C library's and does not apply.
constexpr int WIN_RAND_MAX = 0x7FFF;

namespace tavik::platform {
void WinSrand(unsigned int seed);
int WinRand();
}  // namespace tavik::platform
