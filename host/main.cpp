// tavik: the command-line host of the mail library. Everything but the dispatch lives in the host library.
#include <cstdio>

#include "host/Dispatch.h"

int main(int argc, char** argv) { return tavik::host::RunTavik({argv + 1, argv + argc}, stdout, stderr); }
